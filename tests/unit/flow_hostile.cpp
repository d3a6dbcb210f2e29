// Replies of a Gateway that is broken or means harm, from the socket to the caller.
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "qpxclient.h"
#include "qpxclient_eci.h"
#include "support/bytes.h"
#include "support/call_in_thread.h"
#include "support/connection_script.h"
#include "support/eci_parms.h"
#include "support/expect_rc.h"
#include "support/faults.h"
#include "support/scripted_gateway.h"
#include "support/trace_file.h"

using namespace support;
using script::handshakeAnswer;

namespace {

constexpr unsigned char untouched = 0xEE;

// An open connection to a peer that answers requests as the test says.
class FlowHostile : public ::testing::Test {
protected:
    void SetUp() override
    {
        char host[] = "127.0.0.1";
        auto open = callInThread(
            [&] { return QPX_openRemoteGatewayConnection(host, gateway.port(), &token, 0); });
        peer = gateway.accept();
        peer.read(55);
        peer.send(
            hex("47617465 10A01000 00000005 FFFFFFFE 00000000 00000004 42415345 00 00000000"));
        ASSERT_RC(0, open.get());
        withRoom(10);
    }

    void TearDown() override
    {
        peer.close();
        if (token != nullptr) QPX_purgeGatewayConnection(&token, 0);
    }

    // The caller's COMMAREA: zero bytes, and bytes behind it that must stay as they are.
    void withRoom(std::size_t size)
    {
        room = size;
        parms = syncCall("ECHO");
        parms.area.assign(size + 256, static_cast<char>(untouched));
        std::memset(parms.area.data(), 0, size);
        parms.record.eci_commarea = size == 0 ? nullptr : parms.area.data();
        parms.record.eci_commarea_length = static_cast<short>(size);
    }

    // Begins a call; its request has arrived when this returns.
    RunningCall<int> call()
    {
        auto running = callInThread([this] { return QPX_ECI_Execute(token, &parms.record); });
        peer.read(32 + 83 + room);
        return running;
    }

    // One call, answered with these bytes.
    int callAnswered(const Bytes& answer)
    {
        auto running = call();
        peer.send(answer);
        return running.get();
    }

    // One call, answered with these bytes, behind which the connection ends.
    int callCutOff(const Bytes& answer)
    {
        auto running = call();
        peer.send(answer);
        peer.close();
        return running.get();
    }

    // A limit of what is received at once is in force for what is sent from here on: the receive
    // that has begun without it ends with a ping.
    void expectInPieces(const Fault& limit)
    {
        peer.send(script::pingFlow());
        EXPECT_TRUE(limit.awaitHits(1));
    }

    static Bytes reply(const Bytes& body, int gatewayRc = 0)
    {
        return replyHeader(static_cast<int>(body.size()), gatewayRc) + body;
    }

    static Bytes replyHeader(int datalength, int gatewayRc = 0)
    {
        return hex("47617465 10A01000 00000003 00000001") + be32(gatewayRc) +
               hex("00000003 454349 00") + be32(datalength);
    }

    // A body of a program call with these lengths and data.
    static Bytes programBody(int commarealength, const Bytes& inboundAndData)
    {
        return hex("00000001 00000000 00000000 00000000 20202020") + be32(commarealength) +
               inboundAndData + hex("00");
    }

    // An exception flow with this body.
    static Bytes exception(const Bytes& body)
    {
        return hex("47617465 10A01000 00000006 00000001 00000000 00000003 454349 00") +
               be32(static_cast<int>(body.size())) + body;
    }

    std::string commarea() const
    {
        return toHex(
            Bytes(parms.area.begin(), parms.area.begin() + static_cast<std::ptrdiff_t>(room)));
    }

    bool isUntouchedBehindTheRoom() const
    {
        for (std::size_t at = room; at < parms.area.size(); ++at)
            if (static_cast<unsigned char>(parms.area[at]) != untouched) return false;
        return true;
    }

    // The connection works: a further call gets its reply.
    void expectUsable()
    {
        withRoom(5);
        EXPECT_RC(0, callAnswered(reply(programBody(5, hex("00 48454C4C4F")))));
        EXPECT_EQ("48454C4C 4F", commarea());
    }

    // The connection has ended: the peer sees it, and further calls are refused.
    void expectEnded()
    {
        EXPECT_TRUE(peer.awaitEof());
        EXPECT_RC(-102, QPX_ECI_Execute(token, &parms.record));
    }

    ScriptedGateway gateway;
    Peer peer;
    QPX_ConnToken_t token = nullptr;
    EciParms parms;
    std::size_t room = 0;
};

// ---- Lengths of headers ----

TEST_F(FlowHostile, EndsAtARequestTypeLongerThanItsField)
{
    EXPECT_RC(-102, callAnswered(hex("47617465 10A01000 00000003 00000001 00000000 00000007 "
                                     "4543494141414100 00000000")));
    expectEnded();
}

TEST_F(FlowHostile, EndsAtARequestTypeOfNegativeLength)
{
    EXPECT_RC(-102, callAnswered(hex("47617465 10A01000 00000003 00000001 00000000 FFFFFFFF "
                                     "45434900 00000000")));
    expectEnded();
}

TEST_F(FlowHostile, EndsAtANegativeBodyLength)
{
    EXPECT_RC(-102, callAnswered(replyHeader(-1)));
    expectEnded();
}

TEST_F(FlowHostile, EndsAtTheLeastBodyLength)
{
    EXPECT_RC(-102, callAnswered(replyHeader(INT_MIN)));
    expectEnded();
}

TEST_F(FlowHostile, EndsAtABodyShorterThanWhatIsReadAlready)
{
    EXPECT_RC(-102, callAnswered(hex("47617465 10A01000 00000003 00000001 00000000 00000000 "
                                     "00 00000002 000000")));
    expectEnded();
}

TEST_F(FlowHostile, TakesTheBeginningOfABodyThatIsReadAlready)
{
    Bytes body = programBody(10, hex("00") + text("ABCDEFGHIJ"));

    EXPECT_RC(0, callAnswered(hex("47617465 10A01000 00000003 00000001 00000000 00000000 00") +
                              be32(static_cast<int>(body.size())) + body));

    EXPECT_EQ(toHex(text("ABCDEFGHIJ")), commarea());
    expectUsable();
}

TEST_F(FlowHostile, EndsAtABadEyecatcher)
{
    EXPECT_RC(-102, callAnswered(text("HTTP/1.1 400 Bad Request\r\n\r\nHi, there")));
    expectEnded();
}

// ---- Lengths of bodies ----

TEST_F(FlowHostile, WritesNoMoreThanTheCommarea)
{
    Bytes contents(5000, 'x');

    EXPECT_RC(0, callAnswered(reply(programBody(5000, hex("00") + contents))));

    EXPECT_EQ(toHex(text("xxxxxxxxxx")), commarea());
    EXPECT_TRUE(isUntouchedBehindTheRoom());
    expectUsable();
}

TEST_F(FlowHostile, WritesNothingWithoutACommarea)
{
    withRoom(0);

    EXPECT_RC(0, callAnswered(reply(programBody(20, hex("FF 00 0000000A") + text("ABCDEFGHIJ")))));

    EXPECT_TRUE(isUntouchedBehindTheRoom());
    expectUsable();
}

TEST_F(FlowHostile, WritesNoMoreThanTheCommareaOfAReplyLargerThanItsBuffer)
{
    auto running = call();
    Bytes answer = reply(programBody(40000, hex("00") + Bytes(40000, 'x')));
    auto sender = callInThread([&] {
        peer.send(answer);
        return 0;
    });

    EXPECT_RC(0, running.get());

    sender.get();
    EXPECT_EQ(toHex(text("xxxxxxxxxx")), commarea());
    EXPECT_TRUE(isUntouchedBehindTheRoom());
    expectUsable();
}

TEST_F(FlowHostile, ZeroesNoMoreThanTheCommarea)
{
    std::memset(parms.area.data(), 'o', 10);

    EXPECT_RC(0, callAnswered(reply(programBody(INT_MAX, hex("FF 00 00000004") + text("ABCD")))));

    EXPECT_EQ(toHex(text("ABCD") + filled(6)), commarea());
    EXPECT_TRUE(isUntouchedBehindTheRoom());
    expectUsable();
}

TEST_F(FlowHostile, TakesNegativeLengthsForZero)
{
    std::memset(parms.area.data(), 'o', 10);

    EXPECT_RC(0, callAnswered(reply(programBody(-1, hex("FF 00 FFFFFFFF")))));

    EXPECT_EQ(toHex(text("oooooooooo")), commarea());
    EXPECT_TRUE(isUntouchedBehindTheRoom());
    expectUsable();
}

TEST_F(FlowHostile, EndsAtDataLongerThanTheBody)
{
    EXPECT_RC(-102, callAnswered(reply(programBody(10, hex("FF 00 7FFFFFFF") + text("ABC")))));

    EXPECT_TRUE(isUntouchedBehindTheRoom());
    expectEnded();
}

TEST_F(FlowHostile, EndsAtABodyThatIsTooShort)
{
    Bytes body = programBody(10, hex("FF 00 0000000A") + text("ABCDEFGHIJ"));
    for (std::size_t there : {std::size_t{1}, std::size_t{4}, std::size_t{19}, std::size_t{24},
                              std::size_t{25}, body.size() - 1}) {
        SCOPED_TRACE(there);

        EXPECT_RC(-102, callAnswered(reply(slice(body, 0, there))));

        EXPECT_TRUE(isUntouchedBehindTheRoom());
        expectEnded();
        TearDown();
        SetUp();
    }
}

TEST_F(FlowHostile, EndsAtAnEmptyBody)
{
    EXPECT_RC(-102, callAnswered(reply(Bytes())));
    expectEnded();
}

TEST_F(FlowHostile, EndsWhenTheGatewayClosesAnywhereInAReply)
{
    Bytes answer = reply(programBody(10, hex("00") + text("ABCDEFGHIJ")));
    for (std::size_t there = 0; there < answer.size(); there += 7) {
        SCOPED_TRACE(there);

        EXPECT_RC(-102, callCutOff(slice(answer, 0, there)));

        EXPECT_TRUE(isUntouchedBehindTheRoom());
        TearDown();
        SetUp();
    }
}

TEST_F(FlowHostile, EndsWhenTheGatewayClosesInAReplyLargerThanItsBuffer)
{
    withRoom(32000);
    auto running = call();
    Bytes answer = reply(programBody(40000, hex("00") + Bytes(40000, 'x')));
    auto sender = callInThread([&] {
        peer.send(slice(answer, 0, 39000));
        peer.close();
        return 0;
    });

    EXPECT_RC(-102, running.get());

    sender.get();
    EXPECT_TRUE(isUntouchedBehindTheRoom());
}

TEST_F(FlowHostile, EndsAtDataLongerThanABodyLargerThanItsBuffer)
{
    auto running = call();
    Bytes answer = reply(programBody(50000, hex("00") + Bytes(40000, 'x')));
    auto sender = callInThread([&] {
        peer.send(answer);
        return 0;
    });

    EXPECT_RC(-102, running.get());

    sender.get();
    EXPECT_TRUE(isUntouchedBehindTheRoom());
    expectEnded();
}

TEST_F(FlowHostile, SkipsWhatFollowsAReplyInItsBody)
{
    EXPECT_RC(0, callAnswered(reply(programBody(10, hex("00") + text("ABCDEFGHIJ")) +
                                    text("Gate and more that nobody reads"))));

    EXPECT_EQ(toHex(text("ABCDEFGHIJ")), commarea());
    expectUsable();
}

TEST_F(FlowHostile, SkipsMoreThanItsBufferHoldsBehindAReply)
{
    auto running = call();
    Bytes answer = reply(programBody(10, hex("00") + text("ABCDEFGHIJ")) + Bytes(80000, 'x'));
    auto sender = callInThread([&] {
        peer.send(answer);
        return 0;
    });

    EXPECT_RC(0, running.get());

    sender.get();
    expectUsable();
}

// ---- Replies with a code of the Gateway ----

TEST_F(FlowHostile, TakesAGatewayCodeWithoutABody)
{
    EXPECT_RC(61445, callAnswered(reply(Bytes(), 61445)));
    expectUsable();
}

TEST_F(FlowHostile, TakesAGatewayCodeWithABodyThatIsTooShort)
{
    Bytes body = programBody(10, hex("FF 00 0000000A") + text("ABCDEFGHIJ"));
    for (std::size_t there = 1; there < body.size(); ++there) {
        SCOPED_TRACE(there);
        withRoom(10);

        EXPECT_RC(-22, callAnswered(reply(slice(body, 0, there), -22)));

        EXPECT_TRUE(isUntouchedBehindTheRoom());
    }
    expectUsable();
}

TEST_F(FlowHostile, TakesAGatewayCodeBeforeAServerCode)
{
    EXPECT_RC(-22, callAnswered(reply(
                       hex("00000001 00000000 00000000 FFFFFFF9 41424344 00000000 00 00"), -22)));
    EXPECT_EQ("ABCD", std::string(parms.record.eci_abend_code, 4));
    expectUsable();
}

TEST_F(FlowHostile, EndsWhenTheConnectionEndsInTheBodyOfAGatewayCode)
{
    EXPECT_RC(-102, callCutOff(replyHeader(40, 61445) + hex("00000001 00000000")));
}

// ---- Call types ----

TEST_F(FlowHostile, BoundsAListOfSystemsThatAnswersAProgramCall)
{
    EXPECT_RC(-25,
              callAnswered(reply(hex("00000009 00000002 FFFFFFE7 00000046") + Bytes(70, 'x'))));

    EXPECT_TRUE(isUntouchedBehindTheRoom());
    expectUsable();
}

TEST_F(FlowHostile, ReadsNothingOfAReplyOfUnknownCallType)
{
    EXPECT_RC(0, callAnswered(reply(hex("0000004D FFFFFFFF FFFFFFFF FFFFFFFF FFFFFFFF"))));

    EXPECT_TRUE(isUntouchedBehindTheRoom());
    expectUsable();
}

TEST_F(FlowHostile, KeepsNothingOfTheReplyBefore)
{
    EXPECT_RC(-7, callAnswered(
                      reply(hex("00000001 00000022 00000000 FFFFFFF9 41424344 00000000 00 00"))));
    EXPECT_EQ("ABCD", std::string(parms.record.eci_abend_code, 4));
    EXPECT_EQ(0x22, int(parms.record.eci_luw_token));
    withRoom(10);

    EXPECT_RC(0, callAnswered(reply(hex("0000004D"))));

    EXPECT_EQ("00000000",
              toHex(Bytes(parms.record.eci_abend_code, parms.record.eci_abend_code + 4)));
    EXPECT_EQ(0, int(parms.record.eci_luw_token));
}

// ---- Channels ----

TEST_F(FlowHostile, SkipsAChannelThatTheCallDoesNotHave)
{
    Bytes channel = text("CHANNEL1        ") + hex("000004B8 00000004") + text("ADDED           ") +
                    hex("01 0000 01 000004B8 00000003 414243") + text("DELETED         ") +
                    hex("02 0000 01 000004B8 00000000") + text("MODIFIED        ") +
                    hex("03 0000 02 000004B8 00000002 4142") + text("UNCHANGED       ") +
                    hex("04 0000 02 000004B8 00000064");

    EXPECT_RC(0,
              callAnswered(reply(hex("00000001 00000000 00000000 00000000 20202020 0000000A 00") +
                                 text("ABCDEFGHIJ") + hex("FF") + channel)));

    EXPECT_EQ(toHex(text("ABCDEFGHIJ")), commarea());
    EXPECT_TRUE(isUntouchedBehindTheRoom());
    expectUsable();
}

TEST_F(FlowHostile, SkipsAChannelOfMoreContainersThanTheBodyHas)
{
    EXPECT_RC(
        0, callAnswered(reply(hex("00000001 00000000 00000000 00000000 20202020 00000000 00 FF") +
                              text("CHANNEL1        ") + hex("000004B8 7FFFFFFF"))));
    expectUsable();
}

TEST_F(FlowHostile, SkipsContainerDataLongerThanTheBody)
{
    EXPECT_RC(0, callAnswered(
                     reply(hex("00000001 00000000 00000000 00000000 20202020 00000000 00 FF") +
                           text("CHANNEL1        ") + hex("000004B8 00000001") +
                           text("ADDED           ") + hex("01 0000 01 000004B8 7FFFFFFF 4142"))));
    expectUsable();
}

// ---- Exceptions ----

TEST_F(FlowHostile, TakesAnExceptionWithItsText)
{
    TraceFile trace(1);

    EXPECT_RC(61446, callAnswered(exception(hex("00 0005") + text("lost!"))));

    EXPECT_TRUE(trace.wroteText("clapi_gwycon.receiverThread() Exception message: lost!\n"));
    expectUsable();
}

TEST_F(FlowHostile, CutsTheTextOfAnExceptionToItsBody)
{
    TraceFile trace(1);

    EXPECT_RC(61446, callAnswered(exception(hex("00 FFFF") + text("lost!"))));

    EXPECT_TRUE(trace.wroteText("clapi_gwycon.receiverThread() Exception message: lost!\n"));
    expectUsable();
}

TEST_F(FlowHostile, TakesAnExceptionWithABodyThatIsTooShort)
{
    Bytes body = hex("00 0005");
    for (std::size_t there = 0; there <= body.size(); ++there) {
        SCOPED_TRACE(there);
        withRoom(10);
        TraceFile trace(1);

        EXPECT_RC(61446, callAnswered(exception(slice(body, 0, there))));

        EXPECT_TRUE(trace.wroteText("clapi_gwycon.receiverThread() Exception message: \n"));
    }
    expectUsable();
}

TEST_F(FlowHostile, TracesTheTextOfAnExceptionAsItIs)
{
    TraceFile trace(1);

    EXPECT_RC(61446, callAnswered(exception(hex("00 0008") + text("%s%n%d%s"))));

    EXPECT_TRUE(trace.wroteText("Exception message: %s%n%d%s\n"));
    expectUsable();
}

TEST_F(FlowHostile, SkipsWhatFollowsTheTextOfAnException)
{
    EXPECT_RC(61446, callAnswered(exception(hex("00 0005") + text("lost! Gate and more"))));
    expectUsable();
}

TEST_F(FlowHostile, TakesAnExceptionOfTheGreatestLength)
{
    auto running = call();
    Bytes answer = exception(hex("00 FFFF") + Bytes(65535, 'x'));
    auto sender = callInThread([&] {
        peer.send(answer);
        return 0;
    });

    EXPECT_RC(61446, running.get());

    sender.get();
    expectUsable();
}

// ---- Replies in pieces ----

TEST_F(FlowHostile, TakesAReplyInReceivesOfEverySize)
{
    Bytes answer = reply(programBody(10, hex("FF 00 00000008") + text("ABCDEFGH")));
    for (std::size_t piece = 1; piece <= answer.size(); ++piece) {
        SCOPED_TRACE(piece);
        withRoom(10);
        Fault narrow = limitLength(Call::Recv, piece);
        expectInPieces(narrow);

        EXPECT_RC(0, callAnswered(answer));

        EXPECT_EQ(toHex(text("ABCDEFGH") + filled(2)), commarea());
    }
}

TEST_F(FlowHostile, TakesRepliesOfManyReceivesThatSignalsInterrupt)
{
    Bytes answer = reply(programBody(10, hex("FF 00 00000008") + text("ABCDEFGH")));
    for (int nth = 1; nth <= 10; ++nth) {
        SCOPED_TRACE(nth);
        withRoom(10);
        Fault narrow = limitLength(Call::Recv, 7);
        expectInPieces(narrow);
        Fault interrupted = failCall(Call::Recv, nth, EINTR);

        EXPECT_RC(0, callAnswered(answer));

        EXPECT_EQ(1, interrupted.hits());
        EXPECT_EQ(toHex(text("ABCDEFGH") + filled(2)), commarea());
    }
}

TEST_F(FlowHostile, TakesAnExceptionInReceivesOfEverySize)
{
    Bytes answer = exception(hex("00 0005") + text("lost!"));
    TraceFile trace(1);
    for (std::size_t piece = 1; piece <= answer.size(); ++piece) {
        SCOPED_TRACE(piece);
        withRoom(10);
        Fault narrow = limitLength(Call::Recv, piece);
        expectInPieces(narrow);

        EXPECT_RC(61446, callAnswered(answer));
    }
    EXPECT_EQ(static_cast<int>(answer.size()), trace.timesWroteText("Exception message: lost!\n"));
}

TEST_F(FlowHostile, TakesAnErrorInReceivesOfEverySize)
{
    Bytes answer = hex("47617465 10A01000 00000004 00000001 0000F00A 00000003 454349 00 00000000");
    for (std::size_t piece = 1; piece <= answer.size(); ++piece) {
        SCOPED_TRACE(piece);
        withRoom(10);
        Fault narrow = limitLength(Call::Recv, piece);
        expectInPieces(narrow);

        EXPECT_RC(61450, callAnswered(answer));
    }
}

TEST_F(FlowHostile, TakesACloseInReceivesOfEverySize)
{
    Bytes answer = hex(
        "47617465 10A01000 0000000A FFFFFFFF 00000000 00000004 42415345 00 00000000");
    for (std::size_t piece = 1; piece <= answer.size(); ++piece) {
        SCOPED_TRACE(piece);
        Fault narrow = limitLength(Call::Recv, piece);
        expectInPieces(narrow);

        EXPECT_RC(61444, callAnswered(answer));

        TearDown();
        SetUp();
    }
}

TEST_F(FlowHostile, TakesAHandshakeAnswerInReceivesOfEverySize)
{
    for (std::size_t piece = 1; piece <= 33; ++piece) {
        SCOPED_TRACE(piece);
        TearDown();
        Fault narrow = limitLength(Call::Recv, piece);

        SetUp();

        expectUsable();
        EXPECT_LT(0, narrow.hits());
    }
}

// ---- Asynchronous replies ----

class FlowHostileAsync : public FlowHostile {
protected:
    void SetUp() override
    {
        FlowHostile::SetUp();
        if (HasFatalFailure()) return;
        Bytes request(100, 'r');
        EciParms async = asyncCall("ECHO", request);
        ASSERT_RC(0, QPX_ECI_Execute(token, &async.record));
        peer.read(32 + 83 + 100);
    }

    // Collects the reply, however long that takes, into a COMMAREA of so many bytes.
    int collect(std::size_t size)
    {
        withRoom(size);
        parms.record.eci_call_type = ECI_GET_REPLY_WAIT;
        return callInThread([this] { return QPX_ECI_Execute(token, &parms.record); }).get();
    }
};

TEST_F(FlowHostileAsync, ReportsTheRoomThatALargerReplyNeeds)
{
    Bytes contents;
    for (int at = 0; at < 200; ++at) contents.push_back(static_cast<unsigned char>(at));
    peer.send(reply(programBody(200, hex("00") + contents)));

    EXPECT_RC(-1, collect(100));
    EXPECT_EQ(200, parms.record.eci_commarea_length);
    EXPECT_TRUE(isUntouchedBehindTheRoom());

    EXPECT_RC(0, collect(200));
    EXPECT_EQ(toHex(contents), commarea());
    EXPECT_TRUE(isUntouchedBehindTheRoom());
}

TEST_F(FlowHostileAsync, CutsAReplyLargerThanAnyCommarea)
{
    Bytes contents;
    for (int at = 0; at < 40000; ++at) contents.push_back(static_cast<unsigned char>(at % 251));
    Bytes answer = reply(programBody(40000, hex("00") + contents));
    auto sender = callInThread([&] {
        peer.send(answer);
        return 0;
    });

    EXPECT_RC(-1, collect(100));
    sender.get();
    EXPECT_EQ(32767, parms.record.eci_commarea_length);

    EXPECT_RC(0, collect(32767));
    EXPECT_EQ(toHex(slice(contents, 0, 32767)), commarea());
    EXPECT_TRUE(isUntouchedBehindTheRoom());
}

TEST_F(FlowHostileAsync, TakesNegativeLengthsForZero)
{
    peer.send(reply(programBody(-1, hex("FF 00 80000000"))));

    EXPECT_RC(0, collect(10));

    EXPECT_EQ(toHex(filled(10)), commarea());
    EXPECT_EQ(0, parms.record.commarea_inbound_length);
    EXPECT_TRUE(isUntouchedBehindTheRoom());
}

TEST_F(FlowHostileAsync, ZeroesNoMoreThanItsOwnBuffer)
{
    peer.send(reply(programBody(INT_MAX, hex("FF 00 00000004") + text("ABCD"))));

    EXPECT_RC(0, collect(10));

    EXPECT_EQ(toHex(text("ABCD") + filled(6)), commarea());
    EXPECT_EQ(4, parms.record.commarea_inbound_length);
}

TEST_F(FlowHostileAsync, FailsForAReplyThatNoMemoryCanBeHadFor)
{
    Bytes contents(300, 'x');
    Fault noMemory = failEveryCall(Call::Malloc, ENOMEM, Threads::Others);
    peer.send(reply(programBody(300, hex("00") + contents)));

    EXPECT_RC(-9, collect(300));

    EXPECT_LE(1, noMemory.hits());
    EXPECT_EQ(300, parms.record.commarea_inbound_length);
    EXPECT_EQ(toHex(filled(300)), commarea());
    EXPECT_TRUE(isUntouchedBehindTheRoom());
}

} // namespace
