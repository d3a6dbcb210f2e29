#include "bounds/calls.h"

#include <cstring>
#include <thread>
#include <vector>

#include "bounds/matrix.h"

namespace bounds {

namespace {

constexpr int OPEN_LIMIT = 1; // seconds
char noText[] = "";

int openWith(Application& application, int limit, bool applid)
{
    QPX_ConnToken_t token = nullptr;
    std::string host = application.host;
    int rc = applid ? QPX_openRemoteGatewayConnectionApplid(host.data(), application.port, &token,
                                                            limit, noText, noText)
                    : QPX_openRemoteGatewayConnection(host.data(), application.port, &token, limit);
    if (rc == QPX_OK) application.token = token;
    return rc;
}

int open(Application& application)
{
    return openWith(application, 0, false);
}

int openLimited(Application& application)
{
    return openWith(application, OPEN_LIMIT, false);
}

int openApplid(Application& application)
{
    return openWith(application, 0, true);
}

int openApplidLimited(Application& application)
{
    return openWith(application, OPEN_LIMIT, true);
}

// ---- Programs -----------------------------------------------------------------------------------

constexpr std::size_t AREA = 40;

struct Record {
    QPX_ECI_PARMS parms = {};
    char area[AREA] = {};

    explicit Record(short type, bool hasArea = true)
    {
        parms.eci_call_type = type;
        parms.eci_version = ECI_VERSION_6;
        std::memcpy(parms.eci_program_name, "PROG    ", 8);
        if (!hasArea) return;
        parms.eci_commarea = area;
        parms.eci_commarea_length = AREA;
    }
};

int execute(Application& application, short type)
{
    Record record(type);
    record.parms.eci_message_qualifier = type == ECI_ASYNC ? 0 : application.qualifier;
    int rc = QPX_ECI_Execute(application.token, &record.parms);
    if (type == ECI_ASYNC) application.qualifier = record.parms.eci_message_qualifier;
    return rc;
}

int executeChannel(Application& application, short type)
{
    Record record(type, false);
    bool collects = type == ECI_GET_REPLY_WAIT || type == ECI_GET_SPECIFIC_REPLY_WAIT;
    if (!collects) record.parms.channel = application.channel;
    record.parms.eci_message_qualifier = collects ? application.qualifier : 0;
    int rc = QPX_ECI_Execute_Channel(application.token, &record.parms);
    if (type == ECI_ASYNC) application.qualifier = record.parms.eci_message_qualifier;
    return rc;
}

int collect(Application& application)
{
    return execute(application, ECI_GET_REPLY_WAIT);
}

int collectOne(Application& application)
{
    return execute(application, ECI_GET_SPECIFIC_REPLY_WAIT);
}

int sendChannel(Application& application)
{
    return executeChannel(application, ECI_ASYNC);
}

int collectChannel(Application& application)
{
    return executeChannel(application, ECI_GET_REPLY_WAIT);
}

int collectOneChannel(Application& application)
{
    return executeChannel(application, ECI_GET_SPECIFIC_REPLY_WAIT);
}

int listSystems(Application& application)
{
    QPX_listSystem_t list[2] = {};
    unsigned short count = 2;
    return QPX_listSystems(application.token, &count, list);
}

int verify(Application& application)
{
    return QPX_ESI_verifyPassword(application.token, "USER", "SECRET", nullptr, nullptr);
}

int change(Application& application)
{
    return QPX_ESI_changePassword(application.token, "USER", "SECRET", "OTHER", nullptr, nullptr);
}

// ---- Closes -------------------------------------------------------------------------------------

int closeIt(Application& application)
{
    QPX_ConnToken_t token = application.token;
    return QPX_closeGatewayConnection(&token);
}

int purge(Application& application)
{
    QPX_ConnToken_t token = application.token;
    return QPX_purgeGatewayConnection(&token, 0);
}

int closeAll(Application&)
{
    return QPX_closeAllGatewayConnections();
}

// ---- Channels -----------------------------------------------------------------------------------

int createContainer(Application& application)
{
    return ECI_createContainer(application.channel, "MORE", ECI_BIT, 0, "more", 4);
}

int deleteContainer(Application& application)
{
    return ECI_deleteContainer(application.channel, "DATA");
}

int setContainerData(Application& application)
{
    return ECI_setContainerData(application.channel, "DATA", "other", 5);
}

int getContainerData(Application& application)
{
    char room[4];
    std::size_t count = 0;
    return ECI_getContainerData(application.channel, "DATA", room, sizeof room, 0, &count);
}

int getContainerInfo(Application& application)
{
    ECI_CONTAINER_INFO info = {};
    return ECI_getContainerInfo(application.channel, "DATA", &info);
}

int getFirstContainer(Application& application)
{
    ECI_CONTAINER_INFO info = {};
    return ECI_getFirstContainer(application.channel, &info);
}

int getNextContainer(Application& application)
{
    ECI_CONTAINER_INFO info = {};
    return ECI_getNextContainer(application.channel, &info);
}

int getChannelName(Application& application)
{
    char name[ECI_NAME_SIZE];
    return ECI_getChannelName(application.channel, name);
}

int deleteChannel(Application& application)
{
    ECI_ChannelToken_t channel = application.channel;
    return ECI_deleteChannel(&channel);
}

const std::vector<State> work = {State::Idle, State::Calling};
const std::vector<State> workWithChannel = {State::Idle, State::Calling, State::Sending};
const std::vector<State> closes = {State::Idle, State::Calling, State::Sending, State::Collecting,
                                   State::Closing};

} // namespace

int callProgram(Application& application)
{
    return execute(application, ECI_SYNC);
}

int callWithChannel(Application& application)
{
    return executeChannel(application, ECI_SYNC);
}

int callAsynchronously(Application& application)
{
    return execute(application, ECI_ASYNC);
}

void makeChannel(Application& application, std::size_t length)
{
    std::string data(length, 'd');
    ECI_createChannel("CHANNEL", &application.channel);
    ECI_createContainer(application.channel, "DATA", ECI_BIT, 0, data.data(), data.size());
}

const std::vector<Call>& allCalls()
{
    static const std::vector<Call> all = {
        {"open",
         "`QPX_openRemoteGatewayConnection` without limit",
         Role::Open,
         {State::Opening},
         open},
        {"openApplid",
         "`QPX_openRemoteGatewayConnectionApplid` without limit",
         Role::Open,
         {State::Opening},
         openApplid},
        {"openLimited",
         "`QPX_openRemoteGatewayConnection` with a limit",
         Role::Open,
         {State::Opening},
         openLimited},
        {"openApplidLimited",
         "`QPX_openRemoteGatewayConnectionApplid` with a limit",
         Role::Open,
         {State::Opening},
         openApplidLimited},
        {"call", "`QPX_ECI_Execute` with `ECI_SYNC`", Role::Work, work, callProgram},
        {"list", "`QPX_listSystems`", Role::Work, work, listSystems},
        {"verify", "`QPX_ESI_verifyPassword`", Role::Work, work, verify},
        {"change", "`QPX_ESI_changePassword`", Role::Work, work, change},
        {"channelCall", "`QPX_ECI_Execute_Channel` with `ECI_SYNC`", Role::Work, workWithChannel,
         callWithChannel},
        {"send",
         "`QPX_ECI_Execute` with `ECI_ASYNC`",
         Role::Send,
         {State::Idle},
         callAsynchronously},
        {"channelSend",
         "`QPX_ECI_Execute_Channel` with `ECI_ASYNC`",
         Role::Send,
         {State::Idle, State::Sending},
         sendChannel},
        {"collect",
         "`QPX_ECI_Execute` with `ECI_GET_REPLY_WAIT`",
         Role::Collect,
         {State::Collecting},
         collect},
        {"collectOne",
         "`QPX_ECI_Execute` with `ECI_GET_SPECIFIC_REPLY_WAIT`",
         Role::Collect,
         {State::Collecting},
         collectOne},
        {"channelCollect",
         "`QPX_ECI_Execute_Channel` with `ECI_GET_REPLY_WAIT`",
         Role::Collect,
         {State::Collecting},
         collectChannel},
        {"channelCollectOne",
         "`QPX_ECI_Execute_Channel` with `ECI_GET_SPECIFIC_REPLY_WAIT`",
         Role::Collect,
         {State::Collecting},
         collectOneChannel},
        {"close", "`QPX_closeGatewayConnection`", Role::Close, closes, closeIt},
        {"purge", "`QPX_purgeGatewayConnection` with 0 seconds", Role::Close, closes, purge},
        {"closeAll", "`QPX_closeAllGatewayConnections`", Role::Close, closes, closeAll},
        {"createContainer",
         "`ECI_createContainer`",
         Role::Container,
         {State::Calling},
         createContainer},
        {"setContainerData",
         "`ECI_setContainerData`",
         Role::Container,
         {State::Calling},
         setContainerData},
        {"getContainerData",
         "`ECI_getContainerData`",
         Role::Container,
         {State::Calling},
         getContainerData},
        {"getContainerInfo",
         "`ECI_getContainerInfo`",
         Role::Container,
         {State::Calling},
         getContainerInfo},
        {"getFirstContainer",
         "`ECI_getFirstContainer`",
         Role::Container,
         {State::Calling},
         getFirstContainer},
        {"getNextContainer",
         "`ECI_getNextContainer`",
         Role::Container,
         {State::Calling},
         getNextContainer},
        {"deleteContainer",
         "`ECI_deleteContainer`",
         Role::Container,
         {State::Calling},
         deleteContainer},
        {"getChannelName",
         "`ECI_getChannelName`",
         Role::Container,
         {State::Calling},
         getChannelName},
        {"deleteChannel", "`ECI_deleteChannel`", Role::Container, {State::Calling}, deleteChannel},
    };
    return all;
}

// ---- Threads ------------------------------------------------------------------------------------

Running::Running(const std::function<int()>& call) : state_(std::make_shared<State>())
{
    std::shared_ptr<State> state = state_;
    std::thread([state, call] {
        state->rc = call();
        state->ended = true;
    }).detach();
}

} // namespace bounds
