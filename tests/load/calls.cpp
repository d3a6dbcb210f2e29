#include "load/calls.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "data_storage.h"
#include "qpxclient.h"
#include "qpxclient_eci.h"
#include "qpxclient_esi.h"
#include "support/bytes.h"
#include "support/expect_rc.h"

namespace load {

using support::EciParms;
using support::rcName;
using support::text;

static_assert(bulkLength > OWN_PAGES_FROM);

static int codeOf(Program program)
{
    switch (program) {
    case Program::Plain:
    case Program::Large: return 0;
    case Program::Abends: return ECI_ERR_TRANSACTION_ABEND;
    case Program::Refused: return QPX_ERR_WORK_WAS_REFUSED;
    case Program::Throws: return QPX_ERR_GATEWAY_EXCEPTION;
    default: return QPX_ERR_LOSTGWCON;
    }
}

bool isIn(int rc, std::initializer_list<int> codes)
{
    return std::find(codes.begin(), codes.end(), rc) != codes.end();
}

bool saysClosed(int rc)
{
    return rc == QPX_ERR_GWTOK_CLOSED || rc == QPX_ERR_BADGWTOK;
}

bool saysEnded(int rc)
{
    return rc == QPX_ERR_LOSTGWCON || rc == QPX_ERR_GATEWAY_CLOSED;
}

bool Calls::beginLongWait()
{
    if (shared_.longWaits.fetch_add(1) < mostLongWaits) return true;
    endLongWait();
    return false;
}

void Calls::endLongWait()
{
    shared_.longWaits -= 1;
}

// ---- Problems ----

// Makes a call on a connection, and holds its return code against the one that is due and what
// is known about the connection. The code.
template <typename Call>
int Calls::call(const char* name, const ConnectionPtr& connection, std::initializer_list<int> due,
                Call makeCall)
{
    Doing doing(shared_.watch, number_, name, connection->number);
    Knowledge before = shared_.connections.know(connection);
    int rc = makeCall();
    Knowledge after = shared_.connections.know(connection);
    shared_.did(saysClosed(rc) ? Did::CallOnClosed : Did::Call);
    if (saysClosed(rc)) {
        if (!after.closing) problem("returned " + rcName(rc) + ", but nobody has closed it");
    } else if (before.refuses) {
        problem("returned " + rcName(rc) + " after a close has returned");
    } else if (saysEnded(rc)) {
        if (!mayHaveEnded(after) && !isIn(rc, due))
            problem("returned " + rcName(rc) + ", but nobody has ended it");
    } else if (!isIn(rc, due)) {
        problem("returned " + rcName(rc) + ", which was not due");
    }
    return rc;
}

void Calls::expectText(const std::string& expected, const std::string& got)
{
    if (got != expected) problem("brought \"" + got + "\" instead of \"" + expected + "\"");
}

// ---- Calls ----

void Calls::askForTheEnd(const ConnectionPtr& connection, Program program)
{
    if (endsConnection(program)) connection->endAsked = true;
}

// A record with room for the answer, of which the question travels.
EciParms Calls::withQuestion(int callType, Program program, int number)
{
    std::string question = questionOf(number);
    EciParms parms = support::eciCall(callType, nameOf(program), text(question));
    parms.area.resize(enoughRoom);
    parms.record.eci_commarea = parms.area.data();
    parms.record.eci_commarea_length = static_cast<short>(parms.area.size());
    parms.record.commarea_outbound_length = static_cast<short>(question.size());
    parms.withSystem(eightDigits(number));
    return parms;
}

std::string Calls::expectedAnswer(const ConnectionPtr& connection, int number)
{
    return answerTo(questionOf(number), connection->number);
}

// What is in a COMMAREA before the zeros behind it.
std::string Calls::contentsOf(const EciParms& parms)
{
    return std::string(parms.area.data(), strnlen(parms.area.data(), parms.area.size()));
}

int Calls::execute(const ConnectionPtr& connection, EciParms& parms, std::initializer_list<int> due)
{
    return call("QPX_ECI_Execute", connection, due,
                [&] { return QPX_ECI_Execute(connection->token, &parms.record); });
}

int Calls::executeChannel(const ConnectionPtr& connection, EciParms& parms,
                          std::initializer_list<int> due)
{
    return call("QPX_ECI_Execute_Channel", connection, due,
                [&] { return QPX_ECI_Execute_Channel(connection->token, &parms.record); });
}

void Calls::callWithCommarea(const ConnectionPtr& connection, Program program)
{
    int number = shared_.nextCall++;
    askForTheEnd(connection, program);
    EciParms parms = withQuestion(ECI_SYNC, program, number);
    int rc = execute(connection, parms, {codeOf(program)});
    if (rc == 0) expectText(expectedAnswer(connection, number), contentsOf(parms));
    if (rc == ECI_ERR_TRANSACTION_ABEND)
        expectText(abendCode, std::string(parms.record.eci_abend_code, 4));
}

// ---- Channels ----

ECI_ChannelToken_t Calls::channelWith(const std::string& question)
{
    ECI_ChannelToken_t channel = nullptr;
    int rc = ECI_createChannel("LOAD", &channel);
    if (rc == ECI_NO_ERROR)
        rc = ECI_createContainer(channel, "IN", ECI_BIT, 0, question.data(), question.size());
    if (rc != ECI_NO_ERROR) problem("makes no channel: " + rcName(rc));
    return channel;
}

std::string Calls::contentsOf(ECI_ChannelToken_t channel, const char* container)
{
    char data[enoughRoom];
    std::size_t length = 0;
    int rc = ECI_getContainerData(channel, container, data, sizeof data, 0, &length);
    if (rc != ECI_NO_ERROR) return "(" + rcName(rc) + ")";
    return std::string(data, length);
}

void Calls::expectAnswer(const ConnectionPtr& connection, Program program, int number,
                         ECI_ChannelToken_t channel)
{
    expectText(expectedAnswer(connection, number), contentsOf(channel, "OUT"));
    if (program == Program::Large) expectBulk(channel);
}

void Calls::expectBulk(ECI_ChannelToken_t channel)
{
    char last = 0;
    std::size_t length = 0;
    int rc = ECI_getContainerData(channel, bulkName, &last, 1, bulkLength - 1, &length);
    if (rc != ECI_NO_ERROR || length != 1 || last != 'b')
        problem("brought no large container: " + rcName(rc));
    shared_.did(Did::Bulk);
}

void Calls::callWithChannel(const ConnectionPtr& connection, Program program)
{
    int number = shared_.nextCall++;
    askForTheEnd(connection, program);
    EciParms parms = support::syncCall(nameOf(program));
    parms.record.channel = channelWith(questionOf(number));
    int rc = executeChannel(connection, parms, {codeOf(program)});
    if (rc == 0) expectAnswer(connection, program, number, parms.record.channel);
    expectText(questionOf(number), contentsOf(parms.record.channel, "IN"));
    ECI_ChannelToken_t channel = parms.record.channel;
    shared_.deleteChannel(number_, connection->number, channel);
}

void Calls::callWithSharedChannel(const ConnectionPtr& connection)
{
    EciParms parms = support::syncCall(nameOf(Program::Plain));
    parms.record.channel = connection->shared;
    int rc = executeChannel(connection, parms, {0});
    if (rc != 0) return;
    std::string expected = answerTo("", connection->number);
    expectText(expected, contentsOf(connection->shared, "OUT").substr(0, expected.size()));
}

void Calls::workOnSharedChannel(const ConnectionPtr& connection)
{
    Doing doing(shared_.watch, number_, "a container of a shared channel", connection->number);
    ECI_ChannelToken_t channel = connection->shared;
    std::string data = questionOf(shared_.nextCall++);
    ECI_CONTAINER_INFO info;
    switch (choose(5)) {
    case 0: {
        int rc = ECI_createContainer(channel, "IN", ECI_BIT, 0, data.data(), data.size());
        if (!isIn(rc, {0, ECI_ERR_CONTAINER_EXISTS})) problem("creating: " + rcName(rc));
        break;
    }
    case 1: {
        int rc = ECI_setContainerData(channel, "IN", data.data(), data.size());
        if (!isIn(rc, {0, ECI_ERR_CONTAINER_NOTFOUND})) problem("setting: " + rcName(rc));
        break;
    }
    case 2: {
        int rc = ECI_deleteContainer(channel, "IN");
        if (!isIn(rc, {0, ECI_ERR_CONTAINER_NOTFOUND})) problem("deleting: " + rcName(rc));
        break;
    }
    case 3: {
        int rc = ECI_getContainerInfo(channel, "OUT", &info);
        if (!isIn(rc, {0, ECI_ERR_CONTAINER_NOTFOUND})) problem("asking: " + rcName(rc));
        break;
    }
    default: {
        int rc = oneIn(2) ? ECI_getFirstContainer(channel, &info)
                          : ECI_getNextContainer(channel, &info);
        if (!isIn(rc, {0, ECI_ERR_ENDOFCONTAINERS})) problem("browsing: " + rcName(rc));
    }
    }
    shared_.did(Did::Container);
}

void Calls::workOnOwnChannel()
{
    Doing doing(shared_.watch, number_, "a channel of its own", 0);
    std::string data = questionOf(shared_.nextCall++);
    ECI_ChannelToken_t channel = channelWith(data);
    int rc = ECI_setContainerData(channel, "IN", data.data(), data.size());
    if (rc == ECI_NO_ERROR)
        rc = ECI_createContainer(channel, "MORE", ECI_CHAR, 1208, data.data(), 8);
    if (rc != ECI_NO_ERROR) problem("returned " + rcName(rc));
    expectText(data, contentsOf(channel, "IN"));
    ECI_CONTAINER_INFO info;
    rc = ECI_getFirstContainer(channel, &info);
    expectText("MORE", rc == ECI_NO_ERROR ? info.name : rcName(rc));
    rc = ECI_getNextContainer(channel, &info);
    expectText("IN", rc == ECI_NO_ERROR ? info.name : rcName(rc));
    shared_.deleteChannel(number_, 0, channel);
    shared_.did(Did::Container);
}

// ---- Asynchronous calls ----

void Calls::callAsync(const ConnectionPtr& connection, Program program, bool withChannel)
{
    int number = shared_.nextCall++;
    askForTheEnd(connection, program);
    EciParms parms = withQuestion(ECI_ASYNC, program, number);
    if (withChannel) {
        parms.withCommarea(text(""));
        parms.record.commarea_outbound_length = 0;
        parms.record.channel = channelWith(questionOf(number));
    }
    ECI_ChannelToken_t channel = parms.record.channel;
    remember(connection, number, {program, channel});
    int rc = withChannel ? executeChannel(connection, parms, {0}) : execute(connection, parms, {0});
    shared_.did(Did::Async);
    if (rc != 0) {
        if (!forget(connection, number, nullptr)) problem("was collected, and has failed");
        if (withChannel) shared_.deleteChannel(number_, connection->number, channel);
        return;
    }
    if (oneIn(3))
        collect(connection, ECI_GET_SPECIFIC_REPLY_WAIT, parms.record.eci_message_qualifier,
                oneIn(4) ? littleRoom : enoughRoom);
}

void Calls::remember(const ConnectionPtr& connection, int number, const Pending& pending)
{
    std::lock_guard<std::mutex> guard(connection->mutex);
    connection->pending[number] = pending;
}

bool Calls::forget(const ConnectionPtr& connection, int number, Pending* pending)
{
    std::lock_guard<std::mutex> guard(connection->mutex);
    auto found = connection->pending.find(number);
    if (found == connection->pending.end()) return false;
    if (pending != nullptr) *pending = found->second;
    connection->pending.erase(found);
    return true;
}

void Calls::collectOne(const ConnectionPtr& connection)
{
    std::size_t room = oneIn(8) ? littleRoom : enoughRoom;
    int qualifier = 1 + static_cast<int>(choose(20));
    switch (choose(4)) {
    case 0: return collect(connection, ECI_GET_REPLY, 0, room);
    case 1: return collect(connection, ECI_GET_SPECIFIC_REPLY, qualifier, room);
    case 2: return collect(connection, ECI_GET_SPECIFIC_REPLY_WAIT, qualifier, room);
    default:
        if (!beginLongWait()) return;
        collect(connection, ECI_GET_REPLY_WAIT, 0, room);
        endLongWait();
    }
}

const char* Calls::nameOfCollecting(int callType)
{
    switch (callType) {
    case ECI_GET_REPLY: return "ECI_GET_REPLY";
    case ECI_GET_REPLY_WAIT: return "ECI_GET_REPLY_WAIT";
    case ECI_GET_SPECIFIC_REPLY: return "ECI_GET_SPECIFIC_REPLY";
    default: return "ECI_GET_SPECIFIC_REPLY_WAIT";
    }
}

void Calls::collect(const ConnectionPtr& connection, int callType, int qualifier, std::size_t room)
{
    Doing doing(shared_.watch, number_, nameOfCollecting(callType), connection->number);
    EciParms parms = support::eciCall(callType, "", support::filled(room));
    parms.record.eci_message_qualifier = qualifier;
    Knowledge before = shared_.connections.know(connection);
    int rc = oneIn(2) ? QPX_ECI_Execute(connection->token, &parms.record)
                      : QPX_ECI_Execute_Channel(connection->token, &parms.record);
    if (parms.record.eci_call_type != ECI_ASYNC)
        return checkNothingCollected(connection, callType, rc, before);
    if (before.gone) problem("brought a reply of a connection that is gone");
    if (rc == ECI_ERR_INVALID_DATA_LENGTH)
        return collect(connection, ECI_GET_SPECIFIC_REPLY, parms.record.eci_message_qualifier,
                       enoughRoom);
    checkReply(connection, parms, rc);
    shared_.did(Did::Collect);
}

void Calls::checkNothingCollected(const ConnectionPtr& connection, int callType, int rc,
                                  const Knowledge& before)
{
    Knowledge after = shared_.connections.know(connection);
    bool specific = callType == ECI_GET_SPECIFIC_REPLY || callType == ECI_GET_SPECIFIC_REPLY_WAIT;
    bool waits = callType == ECI_GET_REPLY_WAIT || callType == ECI_GET_SPECIFIC_REPLY_WAIT;
    bool due = false;
    if (saysClosed(rc))
        due = after.closing;
    else if (before.gone)
        due = false;
    else if (rc == ECI_ERR_NO_REPLY)
        due = specific || !waits;
    else if (rc == ECI_ERR_INVALID_MSG_QUAL)
        due = specific;
    else if (saysEnded(rc))
        due = waits && mayHaveEnded(after);
    if (!due) problem("returned " + rcName(rc) + " and no reply");
}

// Holds a reply against the call that it belongs to.
void Calls::checkReply(const ConnectionPtr& connection, EciParms& parms, int rc)
{
    int number = std::atoi(std::string(parms.record.eci_system_name, 8).c_str());
    Pending pending;
    if (!forget(connection, number, &pending)) {
        problem("brought the reply of call " + std::to_string(number) + ", which was not due");
        return;
    }
    Knowledge after = shared_.connections.know(connection);
    bool due = rc == codeOf(pending.program) || (saysEnded(rc) && mayHaveEnded(after)) ||
               (rc == QPX_ERR_GWTOK_CLOSED && after.closing);
    if (!due)
        problem("brought " + rcName(rc) + " for call " + std::to_string(number) + " of " +
                nameOf(pending.program));
    if (pending.channel == nullptr) {
        if (rc == 0) expectText(expectedAnswer(connection, number), contentsOf(parms));
        return;
    }
    if (parms.record.channel != pending.channel) problem("brought another call's channel");
    if (rc == 0) expectAnswer(connection, pending.program, number, pending.channel);
    shared_.deleteChannel(number_, connection->number, pending.channel);
}

// ---- Units of work ----

void Calls::runUnitOfWork(const ConnectionPtr& connection)
{
    int luwToken = 0;
    if (!callInUnit(connection, Program::Plain, &luwToken)) return;
    if (connectionOfUnit(luwToken) != connection->number)
        problem("opened a unit of work " + std::to_string(luwToken));
    unsigned more = choose(3);
    for (unsigned time = 0; time < more; ++time) {
        Program program = oneIn(5) ? Program::Abends : Program::Plain;
        if (!callInUnit(connection, program, &luwToken)) return;
    }
    if (oneIn(3) && !continueLater(connection, luwToken)) return;
    if (oneIn(6)) return; // the unit stays open
    endUnit(connection, luwToken);
    shared_.did(Did::Unit);
}

// False when there is nothing to go on with.
bool Calls::callInUnit(const ConnectionPtr& connection, Program program, int* luwToken)
{
    int number = shared_.nextCall++;
    EciParms parms = withQuestion(ECI_SYNC, program, number);
    parms.withExtendMode(ECI_EXTENDED, *luwToken);
    int rc = execute(connection, parms, {codeOf(program)});
    if (rc == 0) {
        expectText(expectedAnswer(connection, number), contentsOf(parms));
        *luwToken = parms.record.eci_luw_token;
        return true;
    }
    // The call has ended the unit.
    if (rc == ECI_ERR_TRANSACTION_ABEND) {
        EciParms again = withQuestion(ECI_SYNC, Program::Plain, number);
        again.withExtendMode(ECI_EXTENDED, *luwToken);
        execute(connection, again, {ECI_ERR_LUW_TOKEN});
    }
    return false;
}

// An asynchronous call of the unit, which is over when its reply has been collected, by whom
// ever. False when it could not be sent, and has ended the unit.
bool Calls::continueLater(const ConnectionPtr& connection, int luwToken)
{
    int number = shared_.nextCall++;
    EciParms parms = withQuestion(ECI_ASYNC, Program::Plain, number);
    parms.withExtendMode(ECI_EXTENDED, luwToken);
    remember(connection, number, {Program::Plain, nullptr});
    shared_.did(Did::Async);
    if (execute(connection, parms, {0}) != 0) {
        if (!forget(connection, number, nullptr)) problem("was collected, and has failed");
        return false;
    }
    collect(connection, ECI_GET_SPECIFIC_REPLY_WAIT, parms.record.eci_message_qualifier,
            enoughRoom);
    return true;
}

void Calls::endUnit(const ConnectionPtr& connection, int luwToken)
{
    EciParms parms = support::syncCall(nameOf(Program::Plain));
    parms.withExtendMode(oneIn(2) ? ECI_COMMIT : ECI_BACKOUT, luwToken);
    int rc = execute(connection, parms, {0});
    if (rc == 0 && parms.record.eci_luw_token != 0)
        problem("ended a unit of work and gave " + std::to_string(parms.record.eci_luw_token));
}

// ---- Passwords, systems, applids ----

void Calls::askForPassword(const ConnectionPtr& connection)
{
    ESI_DETAILS details{};
    bool isWrong = oneIn(4);
    const char* password = isWrong ? wrongPassword : "SECRET";
    int due = isWrong ? ESI_ERR_PASSWORD_INVALID : QPX_OK;
    int rc = 0;
    if (oneIn(2))
        rc = call("QPX_ESI_verifyPassword", connection, {due}, [&] {
            return QPX_ESI_verifyPassword(connection->token, "USER", password, nullptr, &details);
        });
    else
        rc = call("QPX_ESI_changePassword", connection, {due}, [&] {
            return QPX_ESI_changePassword(connection->token, "USER", password, "NEWER", nullptr,
                                          &details);
        });
    if (rc == QPX_OK)
        expectText(eightDigits(connection->number), eightDigits(details.invalidCount));
    shared_.did(Did::Password);
}

void Calls::askForSystems(const ConnectionPtr& connection)
{
    QPX_listSystem_t list[3] = {};
    auto room = static_cast<unsigned short>(1 + choose(3));
    int due = room < 2 ? QPX_ERR_MORE_SYSTEMS : QPX_OK;
    int rc = call("QPX_listSystems", connection, {due},
                  [&] { return QPX_listSystems(connection->token, &room, list); });
    if (rc == due) expectText(eightDigits(connection->number), list[0].SystemName);
    shared_.did(Did::Query);
}

// The text lives until the connection is closed, which may be at any moment: it is not read.
void Calls::readApplid(const ConnectionPtr& connection)
{
    Doing doing(shared_.watch, number_, "QPX_getApplid", connection->number);
    char* applid = nullptr;
    Knowledge before = shared_.connections.know(connection);
    int rc = oneIn(2) ? QPX_getApplid(connection->token, &applid)
                      : QPX_getApplidQualifier(connection->token, &applid);
    Knowledge after = shared_.connections.know(connection);
    bool due = saysClosed(rc) ? after.closing : rc == QPX_OK && !before.gone;
    if (!due) problem("returned " + rcName(rc));
}

} // namespace load
