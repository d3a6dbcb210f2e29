// QPX_ECI_Execute: its checks in their order with their lines, its frame, its dumps, and what it
// answers on a connection that is closing or gone.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "support/eci_script.h"

using namespace script;
using support::asyncCall;
using support::EciParms;
using support::getReply;
using support::getReplyWait;
using support::syncCall;
using support::TraceFile;

namespace {

// Memory that never was a connection, as large as one.
QPX_ConnToken_t foreignToken()
{
    static char memory[16384];
    return reinterpret_cast<QPX_ConnToken_t>(memory);
}

} // namespace

// ---- Checks, in their order ----

TEST(EciExecute, RefusesANullToken)
{
    TraceFile trace(1);
    EciParms parms = syncCall("PROG");
    EXPECT_RC(QPX_ERR_NULLGWTOK, QPX_ECI_Execute(nullptr, &parms.record));
    EXPECT_TRUE(
        trace.wrote(1501, "*EXC*", "API.QPX_ECI_Execute() NULL gateway token, gwTok=(nil)"));
    EXPECT_EQ(1u, trace.records().size()) << trace.text();
}

TEST(EciExecute, RefusesANullTokenBeforeANullRecord)
{
    TraceFile trace(1);
    EXPECT_RC(QPX_ERR_NULLGWTOK, QPX_ECI_Execute(nullptr, nullptr));
    EXPECT_EQ(1u, trace.records().size()) << trace.text();
}

TEST(EciExecute, RefusesATokenThatIsNoConnection)
{
    TraceFile trace(1);
    EciParms parms = syncCall("PROG");
    EXPECT_RC(QPX_ERR_BADGWTOK, QPX_ECI_Execute(foreignToken(), &parms.record));
    EXPECT_TRUE(trace.wrote(2022, "*EXC*",
                            "clapi_gwytok.clapiRegisterRequest() Gateway token=" +
                                shown(foreignToken()) + " not found, findRc=1003"))
        << trace.text();
    EXPECT_EQ(1u, trace.records().size()) << trace.text();
}

TEST(EciExecute, RefusesATokenThatIsNoConnectionBeforeANullRecord)
{
    EXPECT_RC(QPX_ERR_BADGWTOK, QPX_ECI_Execute(foreignToken(), nullptr));
}

TEST(EciExecute, RefusesANullRecord)
{
    ScriptedConnection connection;
    TraceFile trace(1);
    EXPECT_RC(QPX_ERR_NULLECIPOINTER, QPX_ECI_Execute(connection.token, nullptr));
    EXPECT_TRUE(
        trace.wrote(1502, "*EXC*", "API.QPX_ECI_Execute() NULL Eci Parameter, EciParms=(nil)"));
    EXPECT_EQ(1u, trace.records().size()) << trace.text();
    EXPECT_TRUE(connection.peer.isQuiet());
}

TEST(EciExecute, RefusesARecordOfVersionTwo)
{
    ScriptedConnection connection;
    TraceFile trace(1);
    EciParms parms = syncCall("PROG");
    parms.withVersion(2);
    EXPECT_RC(ECI_ERR_INVALID_VERSION, QPX_ECI_Execute(connection.token, &parms.record));
    EXPECT_TRUE(trace.wrote(1549, "*EXC*",
                            "clapi_eci.verifyEciParms() Invalid ECI Version, EciParms=" +
                                shown(&parms.record) + ", eci_version=2"));
    EXPECT_TRUE(connection.peer.isQuiet());
}

TEST(EciExecute, TakesARecordOfVersionThree)
{
    ScriptedConnection connection;
    EciParms parms = syncCall("PROG");
    parms.withVersion(3);
    auto call = connection.start(parms);
    connection.peer.send(ProgramReply().to(connection.awaitRequest().messageId()));
    EXPECT_RC(0, call.get());
}

TEST(EciExecute, RefusesAnInvalidCallType)
{
    ScriptedConnection connection;
    EciParms parms = syncCall("PROG");
    parms.record.eci_call_type = 7;
    EXPECT_RC(ECI_ERR_INVALID_CALL_TYPE, QPX_ECI_Execute(connection.token, &parms.record));
    EXPECT_TRUE(connection.peer.isQuiet());
}

TEST(EciExecute, RefusesAnInvalidExtendMode)
{
    ScriptedConnection connection;
    EciParms parms = syncCall("PROG");
    parms.withExtendMode(3);
    EXPECT_RC(ECI_ERR_INVALID_EXTEND_MODE, QPX_ECI_Execute(connection.token, &parms.record));
    EXPECT_TRUE(connection.peer.isQuiet());
}

TEST(EciExecute, ServesTheNextCallAfterARefusedOne)
{
    ScriptedConnection connection;
    EciParms parms = syncCall("PROG", text("abc"));
    parms.record.eci_timeout = -1;
    EXPECT_RC(ECI_ERR_REQUEST_TIMEOUT, QPX_ECI_Execute(connection.token, &parms.record));
    expectStillServing(connection);
    connection.closeInOrder();
}

// ---- On a closing connection ----

namespace {

// A connection that is being closed: the close waits for what is outstanding.
class ClosingConnection : public ::testing::Test {
protected:
    // With an asynchronous request that has no reply yet.
    void closeWhileAsyncIsOutstanding()
    {
        ASSERT_RC(0, QPX_ECI_Execute(connection.token, &async.record));
        request = connection.awaitRequest();
        beginClosing("Waiting for 0 API calls and 1 async requests to complete");
    }

    // With a synchronous call that has no reply yet.
    void closeWhileSyncIsOutstanding()
    {
        running.emplace_back(connection.start(sync));
        request = connection.awaitRequest();
        beginClosing("Waiting for 1 API calls and 0 async requests to complete");
    }

    void endSyncAndClose()
    {
        connection.peer.send(ProgramReply().to(request.messageId()));
        EXPECT_RC(0, running[0].get());
        endClosing();
    }

    void endClosing()
    {
        connection.answerClose();
        EXPECT_RC(QPX_OK, closing[0].get());
        connection.forget();
    }

    int execute(EciParms& parms) { return QPX_ECI_Execute(connection.token, &parms.record); }

    ScriptedConnection connection;
    TraceFile trace{2};
    EciParms async = asyncCall("LATER", filled(4, 'a'));
    EciParms sync = syncCall("NOW");
    Request request;
    std::vector<support::RunningCall<int>> closing;
    std::vector<support::RunningCall<int>> running;

private:
    void beginClosing(const std::string& line)
    {
        closing.emplace_back(connection.startClose());
        ASSERT_TRUE(trace.awaitText("clapi_gwytok.quiesceConnection() " + line + "\n"));
        trace.forget();
    }
};

} // namespace

TEST_F(ClosingConnection, RefusesASynchronousCall)
{
    closeWhileSyncIsOutstanding();
    EciParms parms = syncCall("PROG");
    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, execute(parms));
    EXPECT_TRUE(trace.wrote(
        1503, "*EXC*", "API.QPX_ECI_Execute() ECI_SYNC call attempted while connection is closing"))
        << trace.text();
    EXPECT_TRUE(connection.peer.isQuiet());
    endSyncAndClose();
}

TEST_F(ClosingConnection, RefusesAnAsynchronousCall)
{
    closeWhileSyncIsOutstanding();
    EciParms parms = asyncCall("PROG");
    parms.record.eci_message_qualifier = 99;
    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, execute(parms));
    EXPECT_TRUE(
        trace.wrote(1503, "*EXC*",
                    "API.QPX_ECI_Execute() ECI_ASYNC call attempted while connection is closing"))
        << trace.text();
    EXPECT_EQ(99, int(parms.record.eci_message_qualifier));
    EXPECT_TRUE(connection.peer.isQuiet());
    endSyncAndClose();
}

TEST_F(ClosingConnection, ChecksTheRecordFirst)
{
    closeWhileSyncIsOutstanding();
    EciParms parms = syncCall("PROG");
    parms.record.eci_timeout = -1;
    EXPECT_RC(ECI_ERR_REQUEST_TIMEOUT, execute(parms));
    EXPECT_EQ(0, trace.timesWrote(1503));
    endSyncAndClose();
}

TEST_F(ClosingConnection, LetsRepliesBeCollected)
{
    closeWhileAsyncIsOutstanding();
    EciParms early = getReply(4);
    EXPECT_RC(ECI_ERR_NO_REPLY, execute(early));
    EXPECT_EQ(0, trace.timesWrote(1503));

    EciParms waiting = getReplyWait(4);
    auto collecting = connection.start(waiting);
    connection.peer.send(ProgramReply().commarea(text("done")).to(request.messageId()));
    EXPECT_RC(0, collecting.get());
    EXPECT_EQ(text("done"), waiting.commarea());
    endClosing();
}

TEST_F(ClosingConnection, HasNoReplyToGiveWhenNothingIsOutstanding)
{
    closeWhileSyncIsOutstanding();
    EciParms parms = getReply(4);
    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, execute(parms));
    EciParms waiting = getReplyWait(4);
    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, execute(waiting));
    EXPECT_EQ(0, trace.timesWrote(1503));
    endSyncAndClose();
}

// ---- On a connection that is gone ----

TEST(EciExecute, FailsOnALostConnection)
{
    ScriptedConnection connection;
    TraceFile trace(3);
    lose(connection, trace);
    EciParms sync = syncCall("PROG");
    EXPECT_RC(QPX_ERR_LOSTGWCON, QPX_ECI_Execute(connection.token, &sync.record));
    EciParms async = asyncCall("PROG");
    EXPECT_RC(QPX_ERR_LOSTGWCON, QPX_ECI_Execute(connection.token, &async.record));
}

TEST(EciExecute, FailsOnAConnectionThatTheGatewayClosed)
{
    ScriptedConnection connection;
    TraceFile trace(3);
    closeByGateway(connection, trace);
    EciParms sync = syncCall("PROG");
    EXPECT_RC(QPX_ERR_GATEWAY_CLOSED, QPX_ECI_Execute(connection.token, &sync.record));
    EciParms async = asyncCall("PROG");
    EXPECT_RC(QPX_ERR_GATEWAY_CLOSED, QPX_ECI_Execute(connection.token, &async.record));
}

TEST(EciExecute, TouchesNoResultOnALostConnection)
{
    ScriptedConnection connection;
    TraceFile trace(3);
    lose(connection, trace);
    EciParms parms = asyncCall("PROG", text("mine"));
    EciParms::fill(parms.record.eci_abend_code, "KEEP");
    parms.record.eci_message_qualifier = 99;
    const QPX_ECI_PARMS before = parms.record;
    EXPECT_RC(QPX_ERR_LOSTGWCON, QPX_ECI_Execute(connection.token, &parms.record));
    EXPECT_EQ(0, std::memcmp(&before, &parms.record, sizeof before));
    EXPECT_EQ(text("mine"), parms.commarea());
}

TEST(EciExecute, EndsAWaitingCallWhenTheConnectionIsLost)
{
    ScriptedConnection connection;
    EciParms parms = syncCall("PROG", text("mine"));
    EciParms::fill(parms.record.eci_abend_code, "KEEP");
    auto call = connection.start(parms);
    connection.awaitRequest();
    connection.peer.close();
    EXPECT_RC(QPX_ERR_LOSTGWCON, call.get());
    EXPECT_EQ(text("mine"), parms.commarea());
    EXPECT_EQ(text("KEEP"), Bytes(parms.record.eci_abend_code, parms.record.eci_abend_code + 4));
}

TEST(EciExecute, EndsAWaitingCallWhenTheConnectionIsReset)
{
    ScriptedConnection connection;
    EciParms parms = syncCall("PROG");
    auto call = connection.start(parms);
    connection.awaitRequest();
    connection.peer.reset();
    EXPECT_RC(QPX_ERR_LOSTGWCON, call.get());
}

TEST(EciExecute, EndsAWaitingCallWhenTheGatewayCloses)
{
    ScriptedConnection connection;
    EciParms parms = syncCall("PROG");
    auto call = connection.start(parms);
    connection.awaitRequest();
    connection.peer.send(closeFlow());
    EXPECT_RC(QPX_ERR_GATEWAY_CLOSED, call.get());
}

TEST(EciExecute, EndsAWaitingCallWhenTheApplicationPurges)
{
    ScriptedConnection connection;
    EciParms parms = syncCall("PROG");
    auto call = connection.start(parms);
    connection.awaitRequest();
    auto purge = connection.startPurge(0);
    connection.answerClose();
    EXPECT_RC(QPX_ERR_GWTOK_CLOSED, call.get());
    EXPECT_RC(QPX_OK, purge.get());
    connection.forget();
}

// ---- Frame ----

TEST(EciExecute, TracesEntryAndExitWithTheNamedCode)
{
    TraceFile trace(3);
    EciParms parms = syncCall("PROG");
    QPX_ECI_Execute(nullptr, &parms.record);
    EXPECT_EQ((std::vector<std::string>{
                  "API.QPX_ECI_Execute(gwTok=(nil), EciParms=" + shown(&parms.record) + ")",
                  "API.QPX_ECI_Execute() NULL gateway token, gwTok=(nil)",
                  "API.QPX_ECI_Execute() rc=-100 (QPX_ERR_NULLGWTOK)"}),
              trace.messages());
    EXPECT_TRUE(trace.wrote(1500, "ENTRY", "<any>"));
    EXPECT_TRUE(trace.wrote(1506, "EXIT", "<any>"));
}

TEST(EciExecute, UnregistersARefusedCall)
{
    ScriptedConnection connection;
    TraceFile trace(2);
    EXPECT_RC(QPX_ERR_NULLECIPOINTER, QPX_ECI_Execute(connection.token, nullptr));
    EXPECT_EQ((std::vector<std::string>{
                  "clapi_gwytok.clapiRegisterRequest() Outstanding API calls=1 on gwTokPtr=" +
                      shown(connection.token),
                  "API.QPX_ECI_Execute() NULL Eci Parameter, EciParms=(nil)",
                  "clapi_gwytok.clapiUnregisterRequest() Outstanding API calls=0 on gwTokPtr=" +
                      shown(connection.token)}),
              trace.messages());
}

TEST(EciExecute, NamesTheServersCodeInTheExitLine)
{
    ScriptedConnection connection;
    TraceFile trace(3);
    EciParms parms = syncCall("PROG");
    auto call = connection.start(parms);
    connection.peer.send(ProgramReply().serverCode(-7).to(connection.awaitRequest().messageId()));
    EXPECT_RC(ECI_ERR_TRANSACTION_ABEND, call.get());
    EXPECT_TRUE(trace.wrote(1535, "EXIT",
                            "clapi_eci.performEciExecute() rc=-7 (ECI_ERR_TRANSACTION_ABEND)"));
    EXPECT_TRUE(
        trace.wrote(1506, "EXIT", "API.QPX_ECI_Execute() rc=-7 (ECI_ERR_TRANSACTION_ABEND)"));
}

TEST(EciExecute, NamesTheGatewaysCodeInTheExitLine)
{
    ScriptedConnection connection;
    TraceFile trace(3);
    EciParms parms = syncCall("PROG");
    auto call = connection.start(parms);
    connection.peer.send(errorFlow(connection.awaitRequest().messageId(), 61445));
    EXPECT_RC(QPX_ERR_WORK_WAS_REFUSED, call.get());
    EXPECT_TRUE(
        trace.wrote(1506, "EXIT", "API.QPX_ECI_Execute() rc=61445 (QPX_ERR_WORK_WAS_REFUSED)"));
}

// ---- Dumps ----

namespace {

// What follows the line of a point, up to the next line with a prefix.
std::string dumpBehind(const TraceFile& trace, int point)
{
    for (const support::TraceRecord& record : trace.records())
        if (record.point == point) return record.body;
    return "no such line";
}

class EciDump : public ::testing::Test {
protected:
    // A refused call: it is dumped like any other, and nothing else is traced in between.
    EciDump() : parms(syncCall("PROGRAM1", text("ABCDEFGHIJKLMNOPQRST")))
    {
        parms.withFixedUser("USERID", "SECRET").withTransid("TRAN").withSystem("SERVER");
        parms.withTpn("TPNX");
        parms.record.eci_timeout = -1;
        EciParms::fill(parms.record.eci_abend_code, "ABND");
    }

    void refusedCall()
    {
        EXPECT_RC(ECI_ERR_REQUEST_TIMEOUT, QPX_ECI_Execute(connection.token, &parms.record));
    }

    // The address of a byte of the record, as a dump line begins with it.
    std::string at(std::size_t offset)
    {
        return shown(reinterpret_cast<const char*>(&parms.record) + offset) + ": ";
    }

    ScriptedConnection connection;
    TraceFile trace{4};
    EciParms parms;
};

} // namespace

TEST_F(EciDump, NamesRecordAndCommareaOnEntryAndTheRecordOnExit)
{
    const std::string length = std::to_string(sizeof(QPX_ECI_PARMS));
    refusedCall();
    EXPECT_TRUE(trace.wrote(1504, "DEBUG",
                            "API.QPX_ECI_Execute() EciParms=" + shown(&parms.record) +
                                " len=" + length + " stopword=00000000"));
    EXPECT_TRUE(trace.wrote(1561, "API.QPX_ECI_Execute() Commarea=" + shown(parms.area.data()) +
                                      " len=20 stopword=00000000"));
    EXPECT_TRUE(trace.wrote(1505, "DEBUG",
                            "API.QPX_ECI_Execute EciParms=" + shown(&parms.record) +
                                " len=" + length + " stopword=00000000"));
    EXPECT_EQ(1, trace.timesWrote(1504));
    EXPECT_EQ(1, trace.timesWrote(1561));
    EXPECT_EQ(1, trace.timesWrote(1505));
}

#if UINTPTR_MAX == 0xFFFFFFFF // the lines are those of a 32-bit program
TEST_F(EciDump, ShowsTheRecordWithThePasswordHidden)
{
    refusedCall();
    const std::string expected =
        "Data truncation size=128, offset=0\n" + at(0) +
        "01005052 4F475241 4D315553 45524944 : ..PROGRAM1USERID \n" + at(16) +
        "20202020 20202020 20202A2A 2A2A2A2A :           ****** \n" + at(32) +
        "2A2A2A2A 2A2A2A2A 2A2A5452 414E4142 : **********TRANAB \n" + at(48) +
        "4E44<any> <any>1400 FFFF0000 00000000 : ND<any>\n" + at(64) +
        "06005345 52564552 20205450 4E580000 : ..SERVER  TPNX.. \n" + at(80) +
        "00000000 00000000 00000000 00000000 : ................ \n" + at(96) +
        "0000                                : ..\n";
    const std::string entry = dumpBehind(trace, 1504);
    EXPECT_TRUE(support::matches(expected, entry)) << entry;
    EXPECT_EQ(entry, dumpBehind(trace, 1505));
}
#endif

TEST_F(EciDump, ShowsTheCommarea)
{
    refusedCall();
    EXPECT_EQ("Data truncation size=128, offset=0\n" + shown(parms.area.data()) +
                  ": 41424344 45464748 494A4B4C 4D4E4F50 : ABCDEFGHIJKLMNOP \n" +
                  shown(parms.area.data() + 16) + ": 51525354                            : QRST\n",
              dumpBehind(trace, 1561));
}

TEST_F(EciDump, ShowsThePasswordNowhere)
{
    refusedCall();
    parms.record.eci_timeout = 0;
    parms.withVersion(4);
    auto call = connection.start(parms);
    connection.peer.send(ProgramReply().to(connection.awaitRequest().messageId()));
    EXPECT_RC(0, call.get());
    EXPECT_EQ(std::string::npos, trace.text().find("SECRET"));
    EXPECT_EQ(std::string::npos, trace.text().find("43524554")); // "CRET", one group of a dump
    EXPECT_EQ(std::string::npos, trace.text().find("AC1606"));   // "SEC", scrambled
}

TEST_F(EciDump, ShowsAPasswordByPointerNowhere)
{
    EciParms secret = syncCall("PROG");
    secret.withUser("USER", "SECRET");
    auto call = connection.start(secret);
    connection.peer.send(ProgramReply().to(connection.awaitRequest().messageId()));
    EXPECT_RC(0, call.get());
    EXPECT_EQ(std::string::npos, trace.text().find("SECRET"));
    EXPECT_TRUE(trace.wroteText("******"));
}

TEST_F(EciDump, LeavesTheCallersRecordUntouched)
{
    const QPX_ECI_PARMS before = parms.record;
    refusedCall();
    EXPECT_EQ(0, std::memcmp(&before, &parms.record, sizeof before));
    EXPECT_EQ(0, std::memcmp("SECRET          ", parms.record.eci_password, 16));
}

TEST_F(EciDump, SendsTheRealPasswordThough)
{
    parms.record.eci_timeout = 0;
    parms.withVersion(4);
    auto call = connection.start(parms);
    Request request = connection.awaitRequest();
    connection.peer.send(ProgramReply().to(request.messageId()));
    EXPECT_RC(0, call.get());
    // 'S' complemented, then each letter against the one before, then the blanks.
    EXPECT_EQ(support::toHex(hex("00000010 AC160611 17117400 00000000 00000000")),
              support::toHex(support::slice(request.body, 45, 20)));
}

TEST_F(EciDump, LeavesOutACommareaOfNoLength)
{
    parms.withCommarea(Bytes());
    refusedCall();
    EXPECT_EQ(1, trace.timesWrote(1504));
    EXPECT_EQ(0, trace.timesWrote(1561));
}

TEST_F(EciDump, LeavesOutACommareaOfNegativeLength)
{
    parms.record.eci_commarea_length = -1;
    EXPECT_RC(ECI_ERR_INVALID_DATA_LENGTH, QPX_ECI_Execute(connection.token, &parms.record));
    EXPECT_EQ(1, trace.timesWrote(1504));
    EXPECT_EQ(0, trace.timesWrote(1561));
}

TEST_F(EciDump, LeavesOutACommareaThatIsNull)
{
    parms.record.eci_commarea = nullptr;
    EXPECT_RC(ECI_ERR_INVALID_DATA_AREA, QPX_ECI_Execute(connection.token, &parms.record));
    EXPECT_EQ(1, trace.timesWrote(1504));
    EXPECT_EQ(0, trace.timesWrote(1561));
}

TEST_F(EciDump, IsNotThereForANullRecord)
{
    EXPECT_RC(QPX_ERR_NULLECIPOINTER, QPX_ECI_Execute(connection.token, nullptr));
    EXPECT_EQ(0, trace.timesWrote(1504));
    EXPECT_EQ(0, trace.timesWrote(1505));
}

TEST_F(EciDump, IsNotThereForACallThatIsNotRegistered)
{
    EXPECT_RC(QPX_ERR_BADGWTOK, QPX_ECI_Execute(foreignToken(), &parms.record));
    EXPECT_EQ(0, trace.timesWrote(1504));
    EXPECT_EQ(0, trace.timesWrote(1505));
}

TEST_F(EciDump, IsNotThereAtLevelThree)
{
    QPX_setAPITraceLevel(3);
    trace.forget();
    refusedCall();
    EXPECT_EQ(0, trace.timesWrote(1504));
    EXPECT_EQ(0, trace.timesWrote(1561));
    EXPECT_EQ(0, trace.timesWrote(1505));
}

TEST_F(EciDump, ShowsTheResultsOnExit)
{
    parms.record.eci_timeout = 0;
    auto call = connection.start(parms);
    connection.peer.send(
        ProgramReply().abend("ASRA").serverCode(-7).to(connection.awaitRequest().messageId()));
    EXPECT_RC(ECI_ERR_TRANSACTION_ABEND, call.get());
    EXPECT_TRUE(support::contains(dumpBehind(trace, 1504), "TRANAB"));
    EXPECT_TRUE(support::contains(dumpBehind(trace, 1505), "TRANAS"));
}
