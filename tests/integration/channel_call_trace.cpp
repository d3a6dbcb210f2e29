// The whole trace of channel calls, but for the lines of the socket buffer: every line of the
// application's thread and of the receiver thread, each thread's in its order.
//
// A number is given where it is part of what users rely on; the other lines are known by their type
// and text.
#include <gtest/gtest.h>
#include <pthread.h>

#include <cstdio>
#include <string>
#include <vector>

#include "support/channel_script.h"

using namespace script;
using support::EciParms;
using support::TraceFile;
using support::TraceRecord;

namespace {

// One line that is to be there, from a level on.
struct Line {
    int level;
    int point; // 0: any
    std::string type;
    std::string message;
};
using Lines = std::vector<Line>;

Line entry(int point, const std::string& message)
{
    return Line{3, point, "ENTRY", message};
}
Line exitLine(int point, const std::string& message)
{
    return Line{3, point, "EXIT", message};
}
Line event(int point, const std::string& message)
{
    return Line{2, point, "EVENT", message};
}

Lines operator+(Lines left, const Lines& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

bool isOfTheSocketBuffer(const TraceRecord& record)
{
    return record.point >= 2500 && record.point <= 2582;
}

// Every line of the level is there, in order, and no other.
void expectLines(const Lines& expected, int level, const std::vector<TraceRecord>& records)
{
    std::size_t at = 0;
    for (const Line& line : expected) {
        if (line.level > level) continue;
        ASSERT_LT(at, records.size()) << "missing: " << line.message;
        const TraceRecord& record = records[at];
        EXPECT_TRUE((line.point == 0 || line.point == record.point) && line.type == record.type &&
                    support::matches(line.message, record.message))
            << "expected: [" << line.point << "] " << line.type << " " << line.message
            << "\nfound:    [" << record.point << "] " << record.type << " " << record.message;
        at += 1;
    }
    ASSERT_EQ(records.size(), at) << "not expected: " << records[at].message;
}

// ---- What the parts of the library write ----

Lines registered()
{
    return {entry(2020, "clapi_gwytok.clapiRegisterRequest(<any>)"),
            entry(0, "clapi_gwytok.findGatewayToken(<any>)"),
            exitLine(0, "clapi_gwytok.findGatewayToken()<any>"),
            event(2023, "clapi_gwytok.clapiRegisterRequest() Outstanding API calls=1 on "
                        "gwTokPtr=<ptr>"),
            exitLine(2024, "clapi_gwytok.clapiRegisterRequest() rc=0 (QPX_OK)")};
}

Lines unregistered()
{
    return {entry(2025, "clapi_gwytok.clapiUnregisterRequest(<any>)"),
            event(2027, "clapi_gwytok.clapiUnregisterRequest() Outstanding API calls=0 on "
                        "gwTokPtr=<ptr>"),
            exitLine(2028, "clapi_gwytok.clapiUnregisterRequest() rc=0 (QPX_OK)")};
}

Lines begun()
{
    return Lines{entry(1507, "API.QPX_ECI_Execute_Channel(gwTok=<ptr>, EciParms=<ptr>)"),
                 entry(1435, "clapi_channel.getCurrentCcsid"),
                 exitLine(1441, "clapi_channel.getCurrentCcsid() rc=0")} +
           registered() +
           Lines{entry(1548, "clapi_eci.verifyEciParms(EciParms=<ptr>, minVersion=4)"),
                 exitLine(1560, "clapi_eci.verifyEciParms() rc=0 (QPX_OK)")};
}

Lines locked()
{
    return {entry(1460, "clapi_channel.lockChannel(chanTok=<ptr>)"),
            exitLine(1470, "clapi_channel.lockChannel() rc=0 (QPX_OK)")};
}

Lines unlocked()
{
    return {entry(1471, "clapi_channel.unlockChannel(chanTok=<ptr>)"),
            exitLine(1476, "clapi_channel.unlockChannel() rc=0 (QPX_OK)")};
}

// A request with containers A, of ten characters, and B, which is empty.
Lines sent()
{
    return {
        entry(1517, "clapi_eci.performEciExecute(gwTok=<ptr>, EciParms=<ptr>, useChannel=TRUE)"),
        entry(2052, "clapi_gwytok.slotFind(<any>)"),
        exitLine(2056, "clapi_gwytok.slotFind() rc=0 (QPX_OK)"),
        entry(1064, "clapi_impl.getNextCorrelator()"),
        exitLine(1065, "clapi_impl.getNextCorrelator() correlator=<int>"),
        entry(3204, "clapi_socketcomms.clapiFlowECIRequest(socketDesc=<int>, header=<ptr>, "
                    "request=<ptr>)"),
        entry(3202, "clapi_socketcomms.calculateECIRequestSize(<any>)"),
        exitLine(3203, "clapi_socketcomms.calculateECIRequestSize() requestSize=173"),
        entry(3210, "clapi_socketcomms.writeHeader(sockBuffer=<ptr>, req=<ptr>)"),
        exitLine(3211, "clapi_socketcomms.writeHeader()"),
        entry(3215, "clapi_socketcomms.writeChannel(<any>"),
        event(3245, "clapi_socketcomms.writeChannel() Writing channel \"CHANNEL\", CCSID=1208, "
                    "num containers=2"),
        event(3246, "clapi_socketcomms.writeChannel() Writing container \"A\", type=ECI_CHAR, "
                    "CCSID=1208, data length=10"),
        event(3246, "clapi_socketcomms.writeChannel() Writing container \"B\", type=ECI_BIT, "
                    "CCSID=0, data length=0"),
        exitLine(3216, "clapi_socketcomms.writeChannel()<any>"),
        exitLine(3205, "clapi_socketcomms.clapiFlowECIRequest() rc=0")};
}

Lines slotFreed()
{
    return {entry(0, "clapi_gwytok.slotFree(<any>)"),
            exitLine(2060, "clapi_gwytok.slotFree()<any>")};
}

Lines performed(const std::string& rc)
{
    return {exitLine(1535, "clapi_eci.performEciExecute() rc=" + rc)};
}

Lines ended(const std::string& rc)
{
    return unregistered() + Lines{exitLine(1516, "API.QPX_ECI_Execute_Channel() rc=" + rc)};
}

// What the receiver thread writes of a reply, as far as the channel.
Lines replyFound()
{
    return {entry(3212, "clapi_socketcomms.clapiReadHeader(sockBuffer=<ptr>, req=<ptr>)"),
            exitLine(3214, "clapi_socketcomms.clapiReadHeader() rc=0"),
            entry(2061, "clapi_gwytok.slotLookup(<any>)"),
            exitLine(0, "clapi_gwytok.slotLookup() rc=0 (QPX_OK)"),
            entry(3206, "clapi_socketcomms.clapiReadECIResponse(sockBuffer=<ptr>, request=<ptr>)"),
            entry(3217, "clapi_socketcomms.readChannel(<any>")};
}

// One change of every kind.
Lines changed()
{
    return {event(3219, "clapi_socketcomms.readChannel() Container \"NEW\" ADDED in VORN, "
                        "type=ECI_CHAR, CCSID=37, data length=4"),
            entry(3224, "clapi_socketcomms.addContainer(<any>"),
            exitLine(3226, "clapi_socketcomms.addContainer()<any>"),
            event(3221, "clapi_socketcomms.readChannel() Container \"A\" MODIFIED in VORN, new "
                        "length=6"),
            entry(3232, "clapi_socketcomms.modifyContainer(<any>"),
            exitLine(0, "clapi_socketcomms.modifyContainer()<any>"),
            event(3220, "clapi_socketcomms.readChannel() Container \"B\" DELETED in VORN"),
            entry(3227, "clapi_socketcomms.deleteContainer(<any>"),
            exitLine(3231, "clapi_socketcomms.deleteContainer()<any>"),
            event(3222, "clapi_socketcomms.readChannel() Container \"C\" is UNCHANGED")};
}

Bytes changes()
{
    using support::operator+;
    return added("NEW", 2, 37, text("data")) + modified("A", 2, 1208, text("longer")) +
           deleted("B") + unchanged("C");
}

Lines channelRead(const std::string& rc)
{
    return {exitLine(3223, "clapi_socketcomms.readChannel() rc=" + rc),
            exitLine(3207, "clapi_socketcomms.clapiReadECIResponse() rc=" + rc)};
}

// ---- The story ----

class StoryOfAChannelCall : public ::testing::TestWithParam<int> {
protected:
    StoryOfAChannelCall() { channel.with("B", "").withChars("A", 1208, "0123456789"); }

    // Answers the next request with these changes; the trace begins before it.
    RunningCall<int> startAnswering(const ChannelReply& reply)
    {
        return callInThread([this, reply] {
            Request request = connection.awaitRequest();
            connection.peer.send(reply.to(request.messageId()));
            return 0;
        });
    }

    // This thread's id as the trace shows it.
    static std::string thisThread()
    {
        char shownId[16];
        std::snprintf(shownId, sizeof shownId, "0x%8.8X",
                      static_cast<unsigned int>(pthread_self()));
        return shownId;
    }

    // The lines of the thread that makes the calls, or of the receiver.
    static std::vector<TraceRecord> linesOf(const TraceFile& trace, bool application)
    {
        std::vector<TraceRecord> chosen;
        for (const TraceRecord& record : trace.records())
            if ((record.thread == thisThread()) == application && !isOfTheSocketBuffer(record))
                chosen.push_back(record);
        return chosen;
    }

    ScriptedConnection connection;
    Channel channel;
};

INSTANTIATE_TEST_SUITE_P(, StoryOfAChannelCall, ::testing::Range(0, 4));

} // namespace

TEST_P(StoryOfAChannelCall, IsToldAtEveryLevel)
{
    EciParms parms = channelCall(ECI_SYNC, channel);
    auto answering = startAnswering(ChannelReply(4, changes()));
    TraceFile trace(GetParam());

    ASSERT_RC(0, executeChannel(connection, parms));

    answering.get();
    expectLines(begun() + locked() + sent() + slotFreed() + performed("0 (QPX_OK)") + unlocked() +
                    ended("0 (QPX_OK)"),
                GetParam(), linesOf(trace, true));
    expectLines(replyFound() + changed() + channelRead("0"), GetParam(), linesOf(trace, false));
}

TEST_P(StoryOfAChannelCall, IsToldOfAnAsynchronousCallAndItsCollection)
{
    EciParms parms = channelCall(ECI_ASYNC, channel);
    {
        TraceFile trace(GetParam());
        ASSERT_RC(0, executeChannel(connection, parms));
        expectLines(begun() + locked() + sent() + performed("0 (QPX_OK)") + ended("0 (QPX_OK)"),
                    GetParam(), linesOf(trace, true));
    }
    connection.peer.send(ChannelReply(4, changes()).to(connection.awaitRequest().messageId()));
    EciParms after = support::syncCall("AFTER");
    auto call = connection.start(after);
    connection.peer.send(ProgramReply().to(connection.awaitRequest().messageId()));
    ASSERT_RC(0, call.get()); // by now the reply before it is in the queue

    TraceFile trace(GetParam());
    EciParms collecting = support::getReply(0);
    ASSERT_RC(0, executeChannel(connection, collecting));
    expectLines(
        begun() + Lines{entry(1536, "clapi_eci.getAsyncReply(gwTok=<ptr>, EciParms=<ptr>)")} +
            slotFreed() + unlocked() +
            Lines{exitLine(1547, "clapi_eci.getAsyncReply() rc=0 (QPX_OK)")} + ended("0 (QPX_OK)"),
        GetParam(), linesOf(trace, true));
}

TEST_P(StoryOfAChannelCall, IsToldOfAReplyThatCannotBeApplied)
{
    EciParms parms = channelCall(ECI_SYNC, channel);
    auto answering = startAnswering(ChannelReply(1, deleted("NOBODY")));
    TraceFile trace(GetParam());

    ASSERT_RC(-102, executeChannel(connection, parms));

    answering.get();
    expectLines(begun() + locked() + sent() + slotFreed() + performed("-102 (QPX_ERR_LOSTGWCON)") +
                    unlocked() + ended("-102 (QPX_ERR_LOSTGWCON)"),
                GetParam(), linesOf(trace, true));
    // The receiver goes on to end the connection; what it wrote of the reply stands before that.
    std::vector<TraceRecord> receiver = linesOf(trace, false);
    Lines told = replyFound() +
                 Lines{event(3220, "clapi_socketcomms.readChannel() Container \"NOBODY\" DELETED "
                                   "in VORN"),
                       entry(3227, "clapi_socketcomms.deleteContainer(<any>"),
                       Line{1, 3228, "*EXC*",
                            "clapi_socketcomms.deleteContainer() Container \"NOBODY\" not found in "
                            "channel \"CHANNEL\""},
                       exitLine(3231, "clapi_socketcomms.deleteContainer()<any>")} +
                 channelRead("-9");
    std::size_t lines = 0;
    for (const Line& line : told)
        if (line.level <= GetParam()) lines += 1;
    ASSERT_LE(lines, receiver.size());
    receiver.resize(lines);
    expectLines(told, GetParam(), receiver);
}
