// QPX_ECI_Execute_Channel: its checks in their order with their lines, its frame, its dumps, and
// the code page that a channel goes out with.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/channel_script.h"

using namespace script;
using support::eciCall;
using support::EciParms;
using support::padded;
using support::toHex;
using support::TraceFile;

namespace {

// Memory that never was anything of the library's.
template <typename Handle>
Handle foreign()
{
    static char memory[16384];
    return reinterpret_cast<Handle>(memory);
}

class ChannelChecks : public ::testing::Test {
protected:
    // The call is refused with the code, writes this one line at level 1, and sends nothing.
    void expectRefused(int rc, int point, const std::string& line, EciParms& parms)
    {
        TraceFile trace(1);
        EXPECT_RC(rc, executeChannel(connection, parms));
        EXPECT_TRUE(trace.wrote(point, "*EXC*", line)) << trace.text();
        EXPECT_EQ(1U, trace.records().size()) << trace.text();
        EXPECT_TRUE(connection.peer.isQuiet());
        channel.expectFree();
    }

    void expectTaken(EciParms& parms)
    {
        auto call = startChannelCall(connection, parms);
        connection.peer.send(ChannelReply().to(connection.awaitRequest().messageId()));
        EXPECT_RC(0, call.get());
    }

    ScriptedConnection connection;
    Channel channel;
};

} // namespace

// ---- Token and record ----

TEST_F(ChannelChecks, RefusesANullToken)
{
    TraceFile trace(1);
    EciParms parms = channelCall(ECI_SYNC, channel);
    EXPECT_RC(-100, QPX_ECI_Execute_Channel(nullptr, &parms.record));
    EXPECT_TRUE(trace.wrote(1508, "*EXC*",
                            "API.QPX_ECI_Execute_Channel() NULL gateway token, gwTok=(nil)"));
    EXPECT_EQ(1U, trace.records().size()) << trace.text();
}

TEST_F(ChannelChecks, RefusesANullTokenBeforeANullRecord)
{
    TraceFile trace(1);
    EXPECT_RC(-100, QPX_ECI_Execute_Channel(nullptr, nullptr));
    EXPECT_EQ(1, trace.timesWrote(1508));
    EXPECT_EQ(1U, trace.records().size()) << trace.text();
}

TEST_F(ChannelChecks, RefusesATokenThatIsNoConnectionBeforeANullRecord)
{
    TraceFile trace(1);
    EXPECT_RC(-101, QPX_ECI_Execute_Channel(foreign<QPX_ConnToken_t>(), nullptr));
    EXPECT_EQ(1, trace.timesWrote(2022));
    EXPECT_EQ(1U, trace.records().size()) << trace.text();
}

TEST_F(ChannelChecks, RefusesANullRecord)
{
    TraceFile trace(1);
    EXPECT_RC(-137, QPX_ECI_Execute_Channel(connection.token, nullptr));
    EXPECT_TRUE(trace.wrote(1509, "*EXC*",
                            "API.QPX_ECI_Execute_Channel() NULL Eci Parameter, EciParms=(nil)"));
    EXPECT_EQ(1U, trace.records().size()) << trace.text();
    EXPECT_TRUE(connection.peer.isQuiet());
}

TEST_F(ChannelChecks, RefusesARecordOfVersionThree)
{
    EciParms parms = channelCall(ECI_SYNC, channel);
    parms.withVersion(3);
    expectRefused(-21, 1549,
                  "clapi_eci.verifyEciParms() Invalid ECI Version, EciParms=" +
                      shown(&parms.record) + ", eci_version=3",
                  parms);
}

TEST_F(ChannelChecks, RefusesARecordOfVersionSeven)
{
    EciParms parms = channelCall(ECI_SYNC, channel);
    parms.withVersion(7);
    expectRefused(-21, 1549,
                  "clapi_eci.verifyEciParms() Invalid ECI Version, EciParms=" +
                      shown(&parms.record) + ", eci_version=7",
                  parms);
}

TEST_F(ChannelChecks, TakesARecordOfANegativeVersion)
{
    EciParms parms = channelCall(ECI_SYNC, channel);
    parms.withVersion(-1);
    expectTaken(parms);
}

TEST_F(ChannelChecks, RefusesAnAsynchronousCallOfVersionFive)
{
    EciParms parms = channelCall(ECI_ASYNC, channel);
    parms.withVersion(5);
    expectRefused(-21, 1552,
                  "clapi_eci.verifyEciParms() Invalid ECI Version, EciParms=" +
                      shown(&parms.record) + ", eci_version=5",
                  parms);
}

TEST_F(ChannelChecks, ChecksTheRecordBeforeTheChannel)
{
    EciParms parms = eciCall(ECI_SYNC, "PROG", Bytes());
    parms.record.eci_timeout = -1;
    expectRefused(-5, 1559,
                  "clapi_eci.verifyEciParms() Invalid Timeout, EciParms=" + shown(&parms.record) +
                      ", eci_timeout=-1",
                  parms);
}

TEST_F(ChannelChecks, ChecksTheCallTypeBeforeTheChannel)
{
    EciParms parms = eciCall(7, "PROG", Bytes());
    expectRefused(-14, 1550,
                  "clapi_eci.verifyEciParms() Invalid Call Type, EciParms=" + shown(&parms.record) +
                      ", eci_call_type=7",
                  parms);
}

// ---- The channel ----

TEST_F(ChannelChecks, RefusesANullChannel)
{
    for (int callType : {ECI_SYNC, ECI_ASYNC}) {
        SCOPED_TRACE(callType);
        EciParms parms = eciCall(callType, "PROG", Bytes());
        expectRefused(-50, 1510, "API.QPX_ECI_Execute_Channel() NULL channel, channel=(nil)",
                      parms);
    }
}

TEST_F(ChannelChecks, RefusesANullChannelWithACommarea)
{
    EciParms parms = eciCall(ECI_SYNC, "PROG", text("data"));
    expectRefused(-50, 1510, "API.QPX_ECI_Execute_Channel() NULL channel, channel=(nil)", parms);
}

TEST_F(ChannelChecks, RefusesANullChannelAtTheEndOfAUnitOfWork)
{
    for (int mode : {2, 4}) {
        SCOPED_TRACE(mode);
        EciParms parms = eciCall(ECI_SYNC, "PROG", Bytes());
        parms.withExtendMode(mode, 7);
        expectRefused(-50, 1510, "API.QPX_ECI_Execute_Channel() NULL channel, channel=(nil)",
                      parms);
    }
}

TEST_F(ChannelChecks, RefusesAChannelWithACommarea)
{
    for (int callType : {ECI_SYNC, ECI_ASYNC}) {
        SCOPED_TRACE(callType);
        EciParms parms = channelCall(callType, channel);
        parms.withCommarea(text("data"));
        expectRefused(-60, 1511,
                      "API.QPX_ECI_Execute_Channel() EciParms contains a channel and a COMMAREA, "
                      "channel=" +
                          shown(channel.token) + ", eci_commarea=" + shown(parms.area.data()),
                      parms);
    }
}

TEST_F(ChannelChecks, RefusesAChannelWithACommareaWithoutWaitingForTheChannel)
{
    EciParms flying = channelCall(ECI_ASYNC, channel);
    ASSERT_RC(0, executeChannel(connection, flying));
    Request request = connection.awaitRequest();

    EciParms parms = channelCall(ECI_SYNC, channel);
    parms.withCommarea(text("data"));
    EXPECT_RC(-60, startChannelCall(connection, parms).get());

    connection.peer.send(ChannelReply().to(request.messageId()));
    EciParms collecting = support::getReplyWait(0);
    EXPECT_RC(0, executeChannel(connection, collecting));
}

TEST_F(ChannelChecks, RefusesWhatIsNoChannel)
{
    auto* notAChannel = foreign<ECI_ChannelToken_t>();
    std::memset(static_cast<void*>(notAChannel), 0xFF, 4096); // a code page of -1, as it happens
    EciParms parms = channelCall(ECI_SYNC, channel);
    parms.record.channel = notAChannel;
    TraceFile trace(1);

    EXPECT_RC(-50, executeChannel(connection, parms));

    EXPECT_TRUE(trace.wrote(1462, "*EXC*",
                            "clapi_channel.lockChannel() chanTok (" + shown(notAChannel) +
                                ") is not a channel"))
        << trace.text();
    EXPECT_TRUE(connection.peer.isQuiet());
    const auto* bytes = reinterpret_cast<const unsigned char*>(notAChannel);
    EXPECT_EQ(Bytes(4096, 0xFF), Bytes(bytes, bytes + 4096));
}

TEST_F(ChannelChecks, ServesTheNextCallAfterARefusedOne)
{
    EciParms refused = eciCall(ECI_SYNC, "PROG", Bytes());
    EXPECT_RC(-50, executeChannel(connection, refused));
    EciParms parms = channelCall(ECI_SYNC, channel);
    expectTaken(parms);
    connection.closeInOrder();
}

TEST_F(ChannelChecks, LooksAtNoChannelOfACollectingCall)
{
    for (int callType : {ECI_GET_REPLY, ECI_GET_SPECIFIC_REPLY}) {
        SCOPED_TRACE(callType);
        TraceFile trace(1);
        EciParms none = eciCall(callType, "PROG", Bytes());
        EXPECT_RC(callType == ECI_GET_REPLY ? -32 : -33, executeChannel(connection, none));
        EciParms both = eciCall(callType, "PROG", text("data"));
        both.record.channel = foreign<ECI_ChannelToken_t>();
        EXPECT_RC(callType == ECI_GET_REPLY ? -32 : -33, executeChannel(connection, both));
        EXPECT_EQ("", trace.text());
    }
}

// ---- On a connection that is closing or gone ----

namespace {

class ChannelChecksClosing : public ChannelChecks {
protected:
    void SetUp() override
    {
        running.emplace_back(connection.start(outstanding));
        request = connection.awaitRequest();
        closing.emplace_back(connection.startClose());
        ASSERT_TRUE(trace.awaitText("Waiting for 1 API calls and 0 async requests to complete\n"));
        trace.forget();
    }
    void TearDown() override
    {
        connection.peer.send(ProgramReply().to(request.messageId()));
        EXPECT_RC(0, running[0].get());
        connection.answerClose();
        EXPECT_RC(0, closing[0].get());
        connection.forget();
    }

    TraceFile trace{2};
    EciParms outstanding = support::syncCall("OUT");
    Request request;
    std::vector<RunningCall<int>> running;
    std::vector<RunningCall<int>> closing;
};

} // namespace

TEST_F(ChannelChecksClosing, RefusesASynchronousCall)
{
    EciParms parms = channelCall(ECI_SYNC, channel);
    EXPECT_RC(-140, executeChannel(connection, parms));
    EXPECT_TRUE(
        trace.wrote(1512, "*EXC*",
                    "API.QPX_ECI_Execute_Channel() ECI_SYNC call attempted while connection "
                    "is closing"))
        << trace.text();
    EXPECT_TRUE(connection.peer.isQuiet());
    channel.expectFree();
}

TEST_F(ChannelChecksClosing, RefusesAnAsynchronousCall)
{
    EciParms parms = channelCall(ECI_ASYNC, channel);
    EXPECT_RC(-140, executeChannel(connection, parms));
    EXPECT_TRUE(trace.wrote(1512, "*EXC*",
                            "API.QPX_ECI_Execute_Channel() ECI_ASYNC call attempted while "
                            "connection is closing"))
        << trace.text();
    EXPECT_TRUE(connection.peer.isQuiet());
    channel.expectFree();
}

TEST_F(ChannelChecksClosing, ChecksTheChannelFirst)
{
    EciParms none = eciCall(ECI_SYNC, "PROG", Bytes());
    EXPECT_RC(-50, executeChannel(connection, none));
    EciParms both = channelCall(ECI_SYNC, channel);
    both.withCommarea(text("data"));
    EXPECT_RC(-60, executeChannel(connection, both));
    EXPECT_EQ(0, trace.timesWrote(1512));
}

TEST_F(ChannelChecksClosing, LetsACollectingCallPass)
{
    EciParms parms = support::getReply(0);
    EXPECT_RC(-140, executeChannel(connection, parms)); // for nothing can come any more
    EXPECT_EQ(0, trace.timesWrote(1512));
}

TEST_F(ChannelChecks, FailsOnALostConnection)
{
    TraceFile trace(3);
    lose(connection, trace);
    for (int callType : {ECI_SYNC, ECI_ASYNC}) {
        SCOPED_TRACE(callType);
        EciParms parms = channelCall(callType, channel);
        EXPECT_RC(-102, executeChannel(connection, parms));
        channel.expectFree();
    }
}

TEST_F(ChannelChecks, FailsOnAConnectionThatTheGatewayClosed)
{
    TraceFile trace(3);
    closeByGateway(connection, trace);
    for (int callType : {ECI_SYNC, ECI_ASYNC}) {
        SCOPED_TRACE(callType);
        EciParms parms = channelCall(callType, channel);
        EXPECT_RC(61444, executeChannel(connection, parms));
        channel.expectFree();
    }
}

// ---- The frame ----

TEST_F(ChannelChecks, TracesItsArgumentsAndItsCode)
{
    struct {
        int rc;
        std::string shown;
        EciParms parms;
    } calls[] = {{-50, "-50 (ECI_ERR_INVALID_CHANNEL)", eciCall(ECI_SYNC, "PROG", Bytes())},
                 {-60, "-60 (ECI_ERR_COMMAREA_AND_CHANNEL)", channelCall(ECI_SYNC, channel)},
                 {-32, "-32 (ECI_ERR_NO_REPLY)", support::getReply(0)}};
    calls[1].parms.withCommarea(text("data"));
    for (auto& call : calls) {
        SCOPED_TRACE(call.shown);
        TraceFile trace(3);
        EXPECT_RC(call.rc, executeChannel(connection, call.parms));
        EXPECT_TRUE(trace.wrote(1507, "ENTRY",
                                "API.QPX_ECI_Execute_Channel(gwTok=" + shown(connection.token) +
                                    ", EciParms=" + shown(&call.parms.record) + ")"));
        EXPECT_TRUE(trace.wrote(1516, "EXIT", "API.QPX_ECI_Execute_Channel() rc=" + call.shown));
        EXPECT_EQ(1507, trace.ownRecords().front().point);
        EXPECT_EQ(1516, trace.ownRecords().back().point);
    }
}

TEST_F(ChannelChecks, TracesItsFrameWithoutAToken)
{
    TraceFile trace(3);
    EXPECT_RC(-100, QPX_ECI_Execute_Channel(nullptr, nullptr));
    std::vector<int> points;
    for (const support::TraceRecord& record : trace.ownRecords()) points.push_back(record.point);
    EXPECT_EQ((std::vector<int>{1507, 1435, 1441, 1508, 1516}), points);
    EXPECT_TRUE(
        trace.wrote(1507, "ENTRY", "API.QPX_ECI_Execute_Channel(gwTok=(nil), EciParms=(nil))"));
    EXPECT_TRUE(trace.wrote(1435, "ENTRY", "clapi_channel.getCurrentCcsid"));
    EXPECT_TRUE(trace.wrote(1441, "EXIT", "clapi_channel.getCurrentCcsid() rc=0"));
    EXPECT_TRUE(
        trace.wrote(1516, "EXIT", "API.QPX_ECI_Execute_Channel() rc=-100 (QPX_ERR_NULLGWTOK)"));
}

TEST_F(ChannelChecks, LooksForTheCodePageOfACollectingCall)
{
    TraceFile trace(3);
    EciParms parms = support::getReply(0);
    EXPECT_RC(-32, executeChannel(connection, parms));
    EXPECT_EQ(1435, trace.ownRecords()[1].point);
    EXPECT_EQ(1441, trace.ownRecords()[2].point);
}

// ---- Dumps of the record ----

namespace {

class ChannelCallDump : public ChannelChecks {
protected:
    ChannelCallDump()
    {
        parms = channelCall(ECI_SYNC, channel);
        parms.withVersion(4).withFixedUser("USERID", "TOPSECRET");
    }

    std::string bodyBehind(const TraceFile& trace, int point) const
    {
        for (const support::TraceRecord& record : trace.records())
            if (record.point == point) return record.body;
        return "nothing";
    }

    static std::string recordSize() { return sizeof(void*) == 4 ? "98" : "114"; }

    EciParms parms;
};

} // namespace

TEST_F(ChannelCallDump, ShowsTheRecordOnEntryAndExit)
{
    TraceFile trace(4);
    expectTaken(parms);
    EXPECT_TRUE(trace.wrote(1513, "API.QPX_ECI_Execute_Channel() EciParms=" + shown(&parms.record) +
                                      " len=" + recordSize() + " stopword=00000000"))
        << trace.text();
    EXPECT_TRUE(
        trace.wrote(1515, "API.QPX_ECI_Execute_Channel<any> EciParms=" + shown(&parms.record) +
                              " len=" + recordSize() + " stopword=00000000"))
        << trace.text();
    EXPECT_EQ(1, trace.timesWrote(1513));
    EXPECT_EQ(1, trace.timesWrote(1515));
}

TEST_F(ChannelCallDump, StandsBeforeTheChannelIsLockedAndBehindTheEndOfTheCall)
{
    TraceFile trace(4);
    expectTaken(parms);
    std::vector<int> points;
    for (const support::TraceRecord& record : trace.records())
        for (int wanted : {1507, 1560, 1513, 1460, 1517, 1535, 1471, 2028, 1515, 1516})
            if (record.point == wanted) points.push_back(record.point);
    EXPECT_EQ((std::vector<int>{1507, 1560, 1513, 1460, 1517, 1535, 1471, 2028, 1515, 1516}),
              points);
}

TEST_F(ChannelCallDump, HidesThePassword)
{
    TraceFile trace(5);
    expectTaken(parms);
    for (int point : {1513, 1515}) {
        SCOPED_TRACE(point);
        std::string body = bodyBehind(trace, point);
        EXPECT_TRUE(
            support::contains(body, "20202020 20202020 20202A2A 2A2A2A2A :           ****** \n"))
            << body;
        EXPECT_TRUE(support::contains(body, "2A2A2A2A 2A2A2A2A 2A2A0000 0000"));
    }
    // Wherever it stands, these of its letters stand in one line of a dump.
    EXPECT_FALSE(trace.wroteText("PSEC"));
    EXPECT_FALSE(trace.wroteText("50534543"));
    EXPECT_EQ("TOPSECRET       ", std::string(parms.record.eci_password, 16));
}

TEST_F(ChannelCallDump, ShowsTheRecordOfARefusedCall)
{
    TraceFile trace(4);
    parms.withVersion(3);
    EXPECT_RC(-21, executeChannel(connection, parms));
    EXPECT_EQ(1, trace.timesWrote(1513));
    EXPECT_EQ(1, trace.timesWrote(1515));
}

TEST_F(ChannelCallDump, ShowsNoCommarea)
{
    TraceFile trace(4);
    parms.withCommarea(text("CONTENTS"));
    EXPECT_RC(-60, executeChannel(connection, parms));
    EXPECT_EQ(1, trace.timesWrote(1513));
    EXPECT_EQ(0, trace.timesWrote(1561));
    EXPECT_FALSE(trace.wroteText("CONTENTS"));
}

TEST_F(ChannelCallDump, IsNotThereForANullRecordOrAnUnregisteredCall)
{
    TraceFile trace(4);
    EXPECT_RC(-137, QPX_ECI_Execute_Channel(connection.token, nullptr));
    EXPECT_RC(-101, QPX_ECI_Execute_Channel(foreign<QPX_ConnToken_t>(), &parms.record));
    EXPECT_RC(-100, QPX_ECI_Execute_Channel(nullptr, &parms.record));
    EXPECT_EQ(0, trace.timesWrote(1513));
    EXPECT_EQ(0, trace.timesWrote(1515));
}

TEST_F(ChannelCallDump, IsNotThereAtLevelThree)
{
    TraceFile trace(3);
    expectTaken(parms);
    EXPECT_EQ(0, trace.timesWrote(1513));
    EXPECT_EQ(0, trace.timesWrote(1515));
}

// ---- The code page ----

namespace {

class ChannelCallCodePage : public ChannelChecks {
protected:
    // The code page that the channel goes out with; the reply leaves it as it is.
    int sentCcsid()
    {
        EciParms parms = channelCall(ECI_SYNC, channel);
        auto call = startChannelCall(connection, parms);
        Request request = connection.awaitRequest();
        connection.peer.send(ProgramReply().to(request.messageId()));
        EXPECT_RC(0, call.get());
        return support::int32At(channelOf(request), 17);
    }

    // The channel's code page as the dump shows it.
    std::string dumpedCcsid() const
    {
        TraceFile trace(0);
        EXPECT_RC(0, QPX_ECI_dumpChannels());
        std::string text = trace.text();
        std::size_t from = text.find("ccsid(") + 6;
        return text.substr(from, text.find(')', from) - from);
    }
};

} // namespace

TEST_F(ChannelCallCodePage, IsTheLocalOneWhenTheChannelHasNone)
{
    setenv("LANG", "ja_JP.eucJP", 1);
    EXPECT_EQ("-1", dumpedCcsid());
    EXPECT_EQ(5050, sentCcsid());
    EXPECT_EQ("5050", dumpedCcsid());
}

TEST_F(ChannelCallCodePage, IsTheLocalOneOfBinaryContainers)
{
    setenv("LANG", "tr_TR", 1);
    channel.with("BITS", "x");
    EXPECT_EQ(920, sentCcsid());
}

TEST_F(ChannelCallCodePage, Is819WithoutALanguage)
{
    unsetenv("LANG");
    EXPECT_EQ(819, sentCcsid());
}

TEST_F(ChannelCallCodePage, IsKeptWhenTheChannelHasOne)
{
    setenv("LANG", "ja_JP.eucJP", 1);
    channel.withChars("TEXT", 1208, "x");
    EXPECT_EQ(1208, sentCcsid());
    EXPECT_EQ("1208", dumpedCcsid());
}

TEST_F(ChannelCallCodePage, IsTheOneThatTheLastReplyGave)
{
    EciParms parms = channelCall(ECI_SYNC, channel);
    auto call = startChannelCall(connection, parms);
    ChannelReply reply;
    reply.ccsid = 37;
    connection.peer.send(reply.to(connection.awaitRequest().messageId()));
    EXPECT_RC(0, call.get());
    EXPECT_EQ(37, sentCcsid());
}

TEST_F(ChannelCallCodePage, IsTheLocalOneAgainWhenTheReplyTookItAway)
{
    setenv("LANG", "ko_KR", 1);
    EciParms parms = channelCall(ECI_SYNC, channel);
    auto call = startChannelCall(connection, parms);
    ChannelReply reply;
    reply.ccsid = -1;
    connection.peer.send(reply.to(connection.awaitRequest().messageId()));
    EXPECT_RC(0, call.get());
    EXPECT_EQ("-1", dumpedCcsid());
    EXPECT_EQ(970, sentCcsid());
}

TEST_F(ChannelCallCodePage, IsTakenByACallThatSendsNoChannel)
{
    setenv("LANG", "ja_JP.eucJP", 1);
    EciParms opening = support::syncCall("OPEN");
    opening.withExtendMode(1);
    auto call = connection.start(opening);
    connection.peer.send(ProgramReply().luwToken(7).to(connection.awaitRequest().messageId()));
    EXPECT_RC(0, call.get());
    ASSERT_EQ("-1", dumpedCcsid());

    EciParms ending = channelCall(ECI_SYNC, channel);
    ending.withExtendMode(2, 7);
    auto end = startChannelCall(connection, ending);
    connection.peer.send(ProgramReply().to(connection.awaitRequest().messageId()));
    EXPECT_RC(0, end.get());
    EXPECT_EQ("5050", dumpedCcsid());
}
