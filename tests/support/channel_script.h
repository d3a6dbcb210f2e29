// What the tests of channel calls add to eci_script.h: channels made and looked at by the exported
// calls, records of channel calls, and replies that change a channel.
#ifndef SUPPORT_CHANNEL_SCRIPT_H
#define SUPPORT_CHANNEL_SCRIPT_H

#include <string>
#include <vector>

#include "support/channel_bytes.h"
#include "support/eci_script.h"

namespace script {

using support::added;
using support::channelSection;
using support::deleted;
using support::modified;
using support::RunningCall;
using support::unchanged;
using Names = std::vector<std::string>;

// A channel of the test's own. What it is asked while a call has it in flight waits for that call.
class Channel {
public:
    explicit Channel(const std::string& name = "CHANNEL")
    {
        EXPECT_RC(0, ECI_createChannel(name.c_str(), &token));
    }
    ~Channel()
    {
        if (token != nullptr) ECI_deleteChannel(&token);
    }
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    // Puts a container first.
    Channel& with(const std::string& name, const std::string& data)
    {
        EXPECT_RC(0,
                  ECI_createContainer(token, name.c_str(), ECI_BIT, 0, data.data(), data.size()));
        return *this;
    }
    Channel& withChars(const std::string& name, int ccsid, const std::string& data)
    {
        EXPECT_RC(
            0, ECI_createContainer(token, name.c_str(), ECI_CHAR, ccsid, data.data(), data.size()));
        return *this;
    }

    std::string dataOf(const std::string& name) const
    {
        ECI_CONTAINER_INFO info{};
        EXPECT_RC(0, ECI_getContainerInfo(token, name.c_str(), &info));
        std::string data(info.dataLength + 1, '\0');
        std::size_t copied = 0;
        EXPECT_RC(0,
                  ECI_getContainerData(token, name.c_str(), data.data(), data.size(), 0, &copied));
        data.resize(copied);
        return data;
    }

    // "NAME=data", in the order of browsing; each name once.
    Names contents() const
    {
        Names all;
        ECI_CONTAINER_INFO info{};
        for (int rc = ECI_getFirstContainer(token, &info); rc == 0;
             rc = ECI_getNextContainer(token, &info))
            all.push_back(std::string(info.name) + "=" + dataOf(info.name));
        return all;
    }

    std::string name() const
    {
        char buffer[ECI_NAME_SIZE] = "";
        EXPECT_RC(0, ECI_getChannelName(token, buffer));
        return buffer;
    }

    // Asks for the channel's name in another thread, which waits as long as a call has it.
    RunningCall<int> startUse() const
    {
        ECI_ChannelToken_t channel = token;
        return callInThread([channel] {
            char buffer[ECI_NAME_SIZE] = "";
            return ECI_getChannelName(channel, buffer);
        });
    }

    // No call has the channel any more: another thread may use it.
    void expectFree() const { EXPECT_RC(0, startUse().get()); }

    ECI_ChannelToken_t token = nullptr;
};

// The line that tells that a thread waits for a channel; the trace must be at level 4.
constexpr const char* waitsForChannel = "clapi_channel.lockChannel() Waiting for channel ";

inline support::EciParms channelCall(int callType, const Channel& channel,
                                     const std::string& program = "PROG")
{
    support::EciParms parms = support::eciCall(callType, program, Bytes());
    parms.record.channel = channel.token;
    return parms;
}

inline RunningCall<int> startChannelCall(ScriptedConnection& connection, support::EciParms& parms)
{
    QPX_ConnToken_t gwTok = connection.token;
    QPX_ECI_PARMS* record = &parms.record;
    return callInThread([gwTok, record] { return QPX_ECI_Execute_Channel(gwTok, record); });
}

inline int executeChannel(ScriptedConnection& connection, support::EciParms& parms)
{
    return QPX_ECI_Execute_Channel(connection.token, &parms.record);
}

// The body of a reply to a channel call.
struct ChannelReply {
    int luwToken = 0;
    int vornRc = 0;
    std::string name = "CHANNEL";
    int ccsid = 819;
    int count = 0;
    Bytes records;

    ChannelReply() = default;
    ChannelReply(int recordCount, const Bytes& changes) : count(recordCount), records(changes) {}

    ChannelReply& token(int value) { return luwToken = value, *this; }
    ChannelReply& serverCode(int value) { return vornRc = value, *this; }

    Bytes body() const
    {
        return hex("00000001") + be32(luwToken) + hex("00000000") + be32(vornRc) +
               hex("20202020 00000000 00 FF") + channelSection(name, ccsid, count, records);
    }

    Bytes to(int messageId, int gatewayRc = 0) const
    {
        return flow(replyType, messageId, gatewayRc, "ECI", body());
    }
};

// The body of a request from the channel flag on, but for the tag in its last four bytes.
inline Bytes channelOf(const Request& request)
{
    constexpr std::size_t before = 71; // of a call without password, token and COMMAREA
    return support::slice(request.body, before, request.body.size() - before - 4);
}

} // namespace script

#endif
