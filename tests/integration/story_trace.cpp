// The whole trace of one open, one call and one close, at every level: every line of the
// application's thread and of the receiver thread, each thread's in its order.
//
// Lines are given with the level from which they are written. A number is given where it is part
// of what users rely on; the other lines are known by their type and text.
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "support/eci_script.h"

using namespace script;
using support::EciParms;
using support::syncCall;
using support::TraceFile;
using support::TraceRecord;

namespace {

// One line that is to be there.
struct Line {
    int level;
    int point;        // 0: any
    std::string type; // empty: any
    std::string message;
    std::string body; // what is dumped behind it
    bool optional = false;
};
using Lines = std::vector<Line>;

Line entry(int point, const std::string& message)
{
    return Line{3, point, "ENTRY", message, ""};
}
Line exitLine(int point, const std::string& message)
{
    return Line{3, point, "EXIT", message, ""};
}
Line event(int point, const std::string& message)
{
    return Line{2, point, "EVENT", message, ""};
}
Line debug(int point, const std::string& message)
{
    return Line{4, point, "DEBUG", message, ""};
}

// A line with a dump, given as its lines without their addresses.
Line dumped(int point, const std::string& type, const std::string& message,
            const std::vector<std::string>& dump)
{
    std::string body = "Data truncation size=128, offset=0\n";
    for (const std::string& line : dump) body += "<ptr>: " + line + "\n";
    return Line{4, point, type, message, body};
}

// A line that may be there or not.
Line perhaps(Line line)
{
    line.optional = true;
    return line;
}

Lines operator+(Lines left, const Lines& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

std::string shown(const Line& line)
{
    return "[" + (line.point == 0 ? std::string("any") : std::to_string(line.point)) + "] " +
           line.type + " " + line.message + (line.body.empty() ? "" : "\n" + line.body);
}

std::string shown(const TraceRecord& record)
{
    return "[" + std::to_string(record.point) + "] " + record.type + " " + record.message +
           (record.body.empty() ? "" : "\n" + record.body);
}

bool isLine(const Line& line, const TraceRecord& record)
{
    return (line.point == 0 || line.point == record.point) &&
           (line.type.empty() || line.type == record.type) &&
           support::matches(line.message, record.message) &&
           support::matches(line.body, record.body);
}

// Every line of the level is there, in order, and no other.
void expectLines(const Lines& expected, int level, const std::vector<TraceRecord>& records)
{
    std::size_t at = 0;
    for (const Line& line : expected) {
        if (line.level > level) continue;
        bool found = at < records.size() && isLine(line, records[at]);
        if (!found && line.optional) continue;
        ASSERT_TRUE(found) << "expected: " << shown(line) << "\nfound:    "
                           << (at < records.size() ? shown(records[at]) : "the end");
        at += 1;
    }
    ASSERT_EQ(records.size(), at) << "not expected: " << shown(records[at]);
}

// ---- What the parts of the library write ----

Lines initWriteBuffer(const std::string& length)
{
    return {entry(0, "clapi_socketbuffer.initWriteBuffer(<any>)"),
            debug(0, "clapi_socketbuffer.initWriteBuffer() Allocated new buffer of " + length +
                         " bytes"),
            exitLine(0, "clapi_socketbuffer.initWriteBuffer()<any>")};
}

Lines initReadBuffer()
{
    return {entry(0, "clapi_socketbuffer.initReadBuffer(<any>)"),
            debug(0, "clapi_socketbuffer.initReadBuffer() Reusing existing buffer of 33000 bytes"),
            exitLine(0, "clapi_socketbuffer.initReadBuffer()<any>")};
}

Lines writeBytes()
{
    return {entry(0, "clapi_socketbuffer.writeBytes(<any>)"),
            exitLine(0, "clapi_socketbuffer.writeBytes()<any>")};
}

Lines readBytes()
{
    return {entry(0, "clapi_socketbuffer.readBytes(<any>)"),
            exitLine(0, "clapi_socketbuffer.readBytes()<any>")};
}

Lines writeHeader()
{
    return Lines{entry(3210, "clapi_socketcomms.writeHeader(sockBuffer=<ptr>, req=<ptr>)")} +
           writeBytes() + Lines{exitLine(3211, "clapi_socketcomms.writeHeader()")};
}

Lines flushBuffer(const std::string& length, const std::vector<std::string>& dump)
{
    return {
        entry(0, "clapi_socketbuffer.flushBuffer(<any>)"),
        dumped(0, "DATA",
               "clapi_socketbuffer.flushBuffer() data=<ptr> len=" + length + " stopword=00000000",
               dump),
        debug(0, "clapi_socketbuffer.flushBuffer() Sent " + length + " bytes, 0 bytes remaining"),
        exitLine(0, "clapi_socketbuffer.flushBuffer()<any>")};
}

Lines freeBuffer()
{
    return {entry(0, "clapi_socketbuffer.freeBuffer(<any>)"),
            exitLine(0, "clapi_socketbuffer.freeBuffer()<any>")};
}

Lines fillBuffer(const std::string& length, const std::vector<std::string>& dump,
                 const std::string& unread = "")
{
    Lines lines = {entry(0, "clapi_socketbuffer.fillBuffer(<any>)")};
    if (!unread.empty())
        lines.push_back(debug(0, "clapi_socketbuffer.fillBuffer() " + unread +
                                     " bytes already in buffer <ptr>"));
    return lines + Lines{debug(0, "clapi_socketbuffer.fillBuffer() Attempting to read " + length +
                                      " bytes"),
                         dumped(0, "DATA",
                                "clapi_socketbuffer.fillBuffer() data=<ptr> len=" + length +
                                    " stopword=00000000",
                                dump),
                         debug(0, "clapi_socketbuffer.fillBuffer() Read " + length +
                                      " bytes, 0 bytes remaining"),
                         exitLine(0, "clapi_socketbuffer.fillBuffer()<any>")};
}

Lines waitForResponse()
{
    return {debug(0, "clapi_gwycon.receiverThread() Waiting for a reply"),
            entry(0, "clapi_socketbuffer.waitForResponse(<any>)"),
            exitLine(0, "clapi_socketbuffer.waitForResponse()<any>")};
}

// A header with "BASE" is one byte longer than what is read first.
Lines readBaseHeader(const std::vector<std::string>& first, const std::string& lastByte)
{
    return Lines{entry(3212, "clapi_socketcomms.clapiReadHeader(sockBuffer=<ptr>, req=<ptr>)")} +
           initReadBuffer() + fillBuffer("32", first) + readBytes() +
           Lines{debug(0, "clapi_socketbuffer.readInt() Insufficient data in buffer <ptr>")} +
           fillBuffer("1", {lastByte}, "3") +
           Lines{exitLine(3214, "clapi_socketcomms.clapiReadHeader() rc=0")};
}

Lines findGatewayToken()
{
    return {entry(0, "clapi_gwytok.findGatewayToken(<any>)"),
            debug(0, "clapi_gwytok.findGatewayToken() Token found at GTL Entry(0)"),
            exitLine(0, "clapi_gwytok.findGatewayToken()<any>")};
}

Line settingEvent()
{
    return debug(3121, "clapi_lock.clapiSetEvent() Setting event, eventPtr=<ptr>");
}
Line clearingEvent()
{
    return debug(3122, "clapi_lock.clapiClearEvent() Clearing event, eventPtr=<ptr>");
}
Line waitingOnEvent()
{
    return debug(3119, "clapi_lock.clapiWaitEvent() Waiting on event, eventPtr=<ptr>");
}
Line creatingEvent()
{
    return debug(3115, "clapi_lock.clapiCreateEvent() Creating event, eventPtr=<ptr>");
}
Line deletingEvent()
{
    return debug(3118, "clapi_lock.clapiDeleteEvent() Deleting event, eventPtr=<ptr>");
}

// ---- The application's thread ----

Lines tracedOpen(const std::string& port)
{
    const std::string connection = "127.0.0.1:" + port;
    return Lines{
               entry(1000,
                     "API.QPX_openRemoteGatewayConnectionApplid(hostname=127.0.0.1, port=" + port +
                         ", &gwTokPtr=<ptr>, connTimeout=0, applid=APP, "
                         "applidQualifier=QUAL"),
               debug(1007, "API.QPX_openRemoteGatewayConnectionApplid() Environment variables: "
                           "applidEnv= and applidQualifierEnv="),
               entry(2000, "clapi_gwytok.clapiCreateGatewayToken(<any>)"),
               debug(2001, "clapi_gwytok.clapiCreateGatewayToken() Called malloc for <int> bytes. "
                           "new token address=<ptr>"),
               debug(2003, "clapi_gwytok.clapiCreateGatewayToken() Initialized slot table, first "
                           "slot=1, last slot=16"),
               creatingEvent(), creatingEvent(), creatingEvent(), creatingEvent(),
               clearingEvent(), // no receiver thread runs yet
               entry(0, "clapi_gwytok.chainGatewayToken(<any>)"),
               exitLine(0, "clapi_gwytok.chainGatewayToken()<any>"),
               entry(0, "clapi_gwytok.openClientSocket(gwTokPtr=<ptr>) Attempting to connect to " +
                            connection + " connTimeout=0"),
               entry(0, "clapi_gwycon.clapiConnectToGateway(port=" + port +
                            ", ipAddr=<ptr>, gwTokPtr=<ptr>, connTimeout=0, applid=APP, "
                            "applidQualifier=QUAL)"),
               debug(0, "clapi_gwycon.clapiConnectToGateway() Creating socket for family 2, type "
                        "1, protocol 6"),
               debug(0, "clapi_gwycon.clapiConnectToGateway() Connected to Gateway " + connection),
               // Whichever thread arms it, the event that tells of the receiver's end is armed.
               perhaps(settingEvent()),
               debug(0, "clapi_gwycon.clapiConnectToGateway() Creating receiver thread"),
               perhaps(settingEvent()),
               entry(3200, "clapi_socketcomms.clapiFlowHandshakeRequest(socketDesc=<int>, "
                           "applid=APP, applidQualifier=QUAL)")} +
           initWriteBuffer("62") + writeHeader() + writeBytes() + writeBytes() + writeBytes() +
           flushBuffer("62", {"47617465 10A01000 00000005 FFFFFFFE : Gate............ ",
                              "00000000 00000004 42415345 00000000 : ........BASE.... ",
                              "1D000265 6E000247 42000000 00000000 : ...en..GB....... ",
                              "00000000 03415050 00045155 414C     : .....APP..QUAL"}) +
           freeBuffer() +
           Lines{exitLine(3201, "clapi_socketcomms.clapiFlowHandshakeRequest() rc=0"),
                 debug(0, "clapi_gwycon.clapiConnectToGateway() Waiting for handshake response"),
                 waitingOnEvent(),
                 exitLine(0, "clapi_gwycon.clapiConnectToGateway()<any>"),
                 event(0, "clapi_gwytok.openClientSocket() Connected to Gateway " + connection +
                              " - socketDescriptor(<int>)"),
                 exitLine(0, "clapi_gwytok.openClientSocket()<any>"),
                 event(2009, "GatwayToken(<ptr>) eyecatcher(QPXGWTOK) port(" + port +
                                 ") connStatus(1) socket(<int>) applid(APP) applidQual(QUAL) "
                                 "nextGwyTokPtr((nil))"),
                 exitLine(2010, "clapi_gwytok.clapiCreateGatewayToken()<any>"),
                 exitLine(1008, "API.QPX_openRemoteGatewayConnectionApplid() rc=0 (QPX_OK)")};
}

// A call of program ECHO with "ABCDEFGH".
Lines tracedCall()
{
    const std::vector<std::string> commareaDump = {
        "41424344 45464748                   : ABCDEFGH"};
    return Lines{entry(1500, "API.QPX_ECI_Execute(gwTok=<ptr>, EciParms=<ptr>)"),
                 entry(0, "clapi_gwytok.clapiRegisterRequest(<any>)")} +
           findGatewayToken() +
           Lines{event(0, "clapi_gwytok.clapiRegisterRequest() Outstanding API calls=1 on "
                          "gwTokPtr=<ptr>"),
                 exitLine(0, "clapi_gwytok.clapiRegisterRequest() rc=0 (QPX_OK)"),
                 entry(1548, "clapi_eci.verifyEciParms(EciParms=<ptr>, minVersion=3)"),
                 debug(1551, "clapi_eci.verifyEciParms() Call type is ECI_SYNC"),
                 exitLine(1560, "clapi_eci.verifyEciParms() rc=0 (QPX_OK)"),
                 Line{4, 1504, "DEBUG",
                      "API.QPX_ECI_Execute() EciParms=<ptr> len=<int> stopword=00000000", "record"},
                 dumped(1561, "", "API.QPX_ECI_Execute() Commarea=<ptr> len=8 stopword=00000000",
                        commareaDump),
                 entry(1517, "clapi_eci.performEciExecute(gwTok=<ptr>, EciParms=<ptr>, "
                             "useChannel=FALSE)"),
                 entry(2052, "clapi_gwytok.slotFind(<any>)"),
                 perhaps(debug(0, "clapi_gwytok.slotFind()<any>")),
                 creatingEvent(),
                 perhaps(debug(0, "clapi_gwytok.slotFind()<any>")),
                 exitLine(2056, "clapi_gwytok.slotFind() rc=0 (QPX_OK)"),
                 entry(1064, "clapi_impl.getNextCorrelator()"),
                 exitLine(1065, "clapi_impl.getNextCorrelator() correlator=1"),
                 debug(0, "clapi_eci.performEciExecute() eci_version set to 6, using "
                          "eci_userid_ptr and eci_password_ptr"),
                 settingEvent(),
                 entry(3204, "clapi_socketcomms.clapiFlowECIRequest(socketDesc=<int>, "
                             "header=<ptr>, request=<ptr>)"),
                 entry(3202, "clapi_socketcomms.calculateECIRequestSize(<any>)"),
                 exitLine(3203, "clapi_socketcomms.calculateECIRequestSize() requestSize=91")} +
           initWriteBuffer("123") + writeHeader() + writeBytes() + // server
           writeBytes() +                                          // program
           writeBytes() +                                          // transaction id
           writeBytes() +                                          // a token of no bytes
           Lines{dumped(3244, "",
                        "clapi_socketcomms.clapiFlowECIRequest() Commarea=<ptr> len=8 "
                        "stopword=00000000",
                        commareaDump)} +
           writeBytes() + // COMMAREA
           flushBuffer("123", {"47617465 10A01000 00000001 00000001 : Gate............ ",
                               "00000000 00000003 45434900 0000005B : ........ECI....[ ",
                               "00000001 00000000 00000000 00000000 : ................ ",
                               "00000000 08535953 54454D20 20000000 : .....SYSTEM  ... ",
                               "00000000 00000000 00000000 00000000 : ................ ",
                               "00454348 4F202020 20000000 00000000 : .ECHO    ....... ",
                               "00000000 08000041 42434445 46474800 : .......ABCDEFGH. ",
                               "000000FF FFFFFF00 000001            : ..........."}) +
           freeBuffer() +
           Lines{exitLine(3205, "clapi_socketcomms.clapiFlowECIRequest() rc=0"),
                 waitingOnEvent(),
                 entry(0, "clapi_gwytok.slotFree(<any>)"),
                 deletingEvent(),
                 exitLine(2060, "clapi_gwytok.slotFree()<any>"),
                 exitLine(1535, "clapi_eci.performEciExecute() rc=0 (QPX_OK)"),
                 entry(0, "clapi_gwytok.clapiUnregisterRequest(<any>)"),
                 clearingEvent(),
                 event(0, "clapi_gwytok.clapiUnregisterRequest() Outstanding API calls=0 on "
                          "gwTokPtr=<ptr>"),
                 exitLine(0, "clapi_gwytok.clapiUnregisterRequest() rc=0 (QPX_OK)"),
                 Line{4, 1505, "DEBUG",
                      "API.QPX_ECI_Execute EciParms=<ptr> len=<int> stopword=00000000", "record"},
                 exitLine(1506, "API.QPX_ECI_Execute() rc=0 (QPX_OK)")};
}

Lines tracedClose()
{
    return Lines{
               entry(1009, "API.QPX_closeGatewayConnection(gwTokPtr=<ptr>)"),
               entry(0, "clapi_gwytok.clapiCloseGatewayToken(gwTokPtr=<ptr>, lockRequired=TRUE)")} +
           findGatewayToken() +
           Lines{debug(0, "clapi_gwytok.clapiCloseGatewayToken() There are 0 API calls and 0 async "
                          "requests outstanding"),
                 exitLine(0, "clapi_gwytok.clapiCloseGatewayToken() rc=0 (QPX_OK)"),
                 entry(0, "clapi_gwytok.clapiDeleteGatewayToken(gwTokPtr=<ptr>, closeTimeout=-1, "
                          "lockRequired=TRUE)")} +
           findGatewayToken() +
           Lines{entry(0, "clapi_gwytok.quiesceConnection(<any>)"),
                 clearingEvent(), // nobody need wait for an asynchronous reply any more
                 entry(0, "clapi_gwycon.clapiCloseConnection(<any>)"),
                 entry(3208, "clapi_socketcomms.clapiFlowCloseRequest(socketDesc=<int>)")} +
           initWriteBuffer("33") + writeHeader() +
           flushBuffer("33", {"47617465 10A01000 0000000A FFFFFFFF : Gate............ ",
                              "00000000 00000004 42415345 00000000 : ........BASE.... ",
                              "00                                  : ."}) +
           freeBuffer() +
           Lines{exitLine(3209, "clapi_socketcomms.clapiFlowCloseRequest() rc=0"),
                 exitLine(0, "clapi_gwycon.clapiCloseConnection() rc=0 (QPX_OK)"),
                 waitingOnEvent(), // until the receiver thread is gone
                 perhaps(clearingEvent()),
                 exitLine(0, "clapi_gwytok.quiesceConnection() rc=0 (QPX_OK)")} +
           findGatewayToken() +
           Lines{deletingEvent(),
                 deletingEvent(),
                 deletingEvent(),
                 debug(0, "clapi_gwytok.clapiDeleteGatewayToken()<any>"),
                 exitLine(0, "clapi_gwytok.clapiDeleteGatewayToken() rc=0 (QPX_OK)"),
                 event(1012, "API.QPX_closeGatewayConnection() Closed Gateway connection for token "
                             "<ptr>"),
                 exitLine(1013, "API.QPX_closeGatewayConnection(gwTokPtr=<ptr>) rc=0 (QPX_OK)")};
}

// ---- The receiver thread ----

Lines tracedReceiver()
{
    return Lines{
               entry(3031, "clapi_gwycon.receiverThread(conn=<ptr>)"), perhaps(settingEvent()),
               entry(0, "clapi_socketbuffer.initReadBuffer(<any>)"),
               debug(0, "clapi_socketbuffer.initReadBuffer() Allocated new buffer of 33000 bytes"),
               exitLine(0, "clapi_socketbuffer.initReadBuffer()<any>")} +
           // The handshake is answered, with a body of four bytes.
           waitForResponse() +
           readBaseHeader({"47617465 10A01000 00000005 FFFFFFFE : Gate............ ",
                           "00000000 00000004 42415345 00000000 : ........BASE.... "},
                          "04                                  : .") +
           fillBuffer("4", {"626F6479                            : body"}) +
           Lines{debug(0, "clapi_gwycon.receiverThread() Flow type is FLOW_HANDSHAKE"),
                 clearingEvent()} +
           // The reply.
           waitForResponse() +
           Lines{entry(3212, "clapi_socketcomms.clapiReadHeader(sockBuffer=<ptr>, req=<ptr>)")} +
           initReadBuffer() +
           fillBuffer("32", {"47617465 10A01000 00000003 00000001 : Gate............ ",
                             "00000000 00000003 45434900 00000022 : ........ECI....\" "}) +
           readBytes() + // request type
           Lines{exitLine(3214, "clapi_socketcomms.clapiReadHeader() rc=0")} +
           fillBuffer("34", {"00000001 00000000 00000000 00000000 : ................ ",
                             "20202020 00000008 00414243 44454647 :     .....ABCDEFG ",
                             "4800                                : H."}) +
           Lines{
               debug(0, "clapi_gwycon.receiverThread() Flow type is FLOW_REPLY, request type ECI"),
               entry(2061, "clapi_gwytok.slotLookup(<any>)"),
               exitLine(0, "clapi_gwytok.slotLookup() rc=0 (QPX_OK)"),
               entry(3206, "clapi_socketcomms.clapiReadECIResponse(sockBuffer=<ptr>, "
                           "request=<ptr>)")} +
           readBytes() + // abend code
           readBytes() + // COMMAREA
           Lines{exitLine(3207, "clapi_socketcomms.clapiReadECIResponse() rc=0"), clearingEvent()} +
           // The answer to the close flow, and the end.
           waitForResponse() +
           readBaseHeader({"47617465 10A01000 0000000A FFFFFFFF : Gate............ ",
                           "00000000 00000004 42415345 00000000 : ........BASE.... "},
                          "00                                  : .") +
           Lines{event(3042, "clapi_gwycon.receiverThread() Connection closed, initiated by API; "
                             "closeRc=-140 (QPX_ERR_GWTOK_CLOSED)")} +
           freeBuffer() +
           Lines{perhaps(clearingEvent()), // waiters for asynchronous replies, of which are none
                 entry(0, "clapi_gwycon.closeSocket(socket=<int>)"),
                 exitLine(0, "clapi_gwycon.closeSocket() rc=0"),
                 clearingEvent(), // the receiver thread is gone
                 exitLine(3041, "clapi_gwycon.receiverThread()<any>")};
}

// ---- The story ----

class StoryOfTheTrace : public ::testing::TestWithParam<int> {
protected:
    static int level() { return GetParam(); }

    // What a dump of a call's record shows is another test's affair: here there has to be one.
    static std::vector<TraceRecord> withoutRecordDumps(std::vector<TraceRecord> records)
    {
        for (TraceRecord& record : records)
            if ((record.point == 1504 || record.point == 1505) &&
                support::contains(record.body, "Data truncation size=128, offset=0\n<ptr>: "))
                record.body = "record";
        return records;
    }

    // The lines of the thread that made the test's calls (or of the others), from one on.
    std::vector<TraceRecord> linesOf(bool applicationThread, std::size_t from = 0) const
    {
        std::vector<TraceRecord> chosen;
        for (const TraceRecord& record : withoutRecordDumps(trace.records()))
            if ((record.thread == thisThread()) == applicationThread) chosen.push_back(record);
        chosen.erase(chosen.begin(),
                     chosen.begin() + static_cast<std::ptrdiff_t>(std::min(from, chosen.size())));
        return chosen;
    }

    // This thread's id as the trace shows it.
    static std::string thisThread()
    {
        char shownId[16];
        std::snprintf(shownId, sizeof shownId, "0x%8.8X",
                      static_cast<unsigned int>(pthread_self()));
        return shownId;
    }

    TraceFile trace{GetParam()};
    ScriptedGateway gateway;
};

} // namespace

TEST_P(StoryOfTheTrace, OfOpenCallAndClose)
{
    char applid[] = "APP";
    char qualifier[] = "QUAL";
    QPX_ConnToken_t token = nullptr;
    auto peerScript = callInThread([this] {
        Peer peer = gateway.accept();
        peer.read(62);
        peer.send(flow(5, -2, 0, "BASE", text("body")));
        Request request = readRequest(peer);
        peer.send(ProgramReply().commarea(text("ABCDEFGH")).to(request.messageId()));
        peer.read(33);
        peer.send(closeFlow());
        return peer.awaitEof();
    });

    ASSERT_RC(QPX_OK, QPX_openRemoteGatewayConnectionApplid(localHost(), gateway.port(), &token, 0,
                                                            applid, qualifier));
    std::vector<TraceRecord> opening = linesOf(true);

    EciParms parms = syncCall("ECHO", text("ABCDEFGH"));
    parms.withSystem("SYSTEM");
    ASSERT_RC(0, QPX_ECI_Execute(token, &parms.record));
    std::vector<TraceRecord> calling = linesOf(true, opening.size());

    ASSERT_RC(QPX_OK, QPX_closeGatewayConnection(&token));
    std::vector<TraceRecord> closing = linesOf(true, opening.size() + calling.size());
    EXPECT_TRUE(peerScript.get());
    if (level() >= 3) {
        ASSERT_TRUE(trace.awaitText(receiverEnded));
    }

    {
        SCOPED_TRACE("open");
        expectLines(tracedOpen(std::to_string(gateway.port())), level(), opening);
    }
    {
        SCOPED_TRACE("call");
        expectLines(tracedCall(), level(), calling);
    }
    {
        SCOPED_TRACE("close");
        expectLines(tracedClose(), level(), closing);
    }
    {
        SCOPED_TRACE("receiver");
        expectLines(tracedReceiver(), level(), linesOf(false));
    }
}

INSTANTIATE_TEST_SUITE_P(AtLevel, StoryOfTheTrace, ::testing::Range(0, 6),
                         ::testing::PrintToStringParamName());
