// The flows that are little more than a header: the handshake and the close.
#include "socketbuffer_fixture.h"

using namespace support;
using namespace unit;

namespace {

class FlowHandshake : public SocketBufferTest {
protected:
    int flowHandshake(const std::string& applid, const std::string& qualifier)
    {
        std::vector<char> applidText(applid.begin(), applid.end());
        applidText.push_back('\0');
        std::vector<char> qualifierText(qualifier.begin(), qualifier.end());
        qualifierText.push_back('\0');
        return clapiFlowHandshakeRequest(ours.fd(), applidText.data(), qualifierText.data());
    }
};

using FlowClose = SocketBufferTest;

std::string latin(const std::string& digits)
{
    return toText(hex(digits));
}

// ---- Handshake ----

TEST_F(FlowHandshake, SendsAnApplidWithoutAQualifier)
{
    EXPECT_RC(0, flowHandshake("HELLO", ""));

    EXPECT_EQ(toHex(hex("47617465 10A01000 00000005 FFFFFFFE 00000000 00000004 42415345 00 0000001B"
                        "0002656E 00024742 00000000 00000000 0000"
                        "0005 48454C4C4F 0000")),
              sentHex());
}

TEST_F(FlowHandshake, SendsSixtyBytesForAnApplidOfFive)
{
    EXPECT_RC(0, flowHandshake("HELLO", ""));

    EXPECT_EQ(60U, sent().size());
}

TEST_F(FlowHandshake, SendsNeitherApplidNorQualifier)
{
    EXPECT_RC(0, flowHandshake("", ""));

    EXPECT_EQ(toHex(hex("47617465 10A01000 00000005 FFFFFFFE 00000000 00000004 42415345 00 00000016"
                        "0002656E 00024742 00000000 00000000 0000"
                        "0000 0000")),
              sentHex());
}

TEST_F(FlowHandshake, SendsApplidAndQualifierOfFullLength)
{
    EXPECT_RC(0, flowHandshake("APPLID01", "QUALIF02"));

    EXPECT_EQ(toHex(hex("47617465 10A01000 00000005 FFFFFFFE 00000000 00000004 42415345 00 00000026"
                        "0002656E 00024742 00000000 00000000 0000"
                        "0008 4150504C49443031 0008 5155414C49463032")),
              sentHex());
}

TEST_F(FlowHandshake, SendsAQualifierWithoutAnApplid)
{
    EXPECT_RC(0, flowHandshake("", "Q"));

    EXPECT_EQ(toHex(hex("47617465 10A01000 00000005 FFFFFFFE 00000000 00000004 42415345 00 00000017"
                        "0002656E 00024742 00000000 00000000 0000"
                        "0000 0001 51")),
              sentHex());
}

TEST_F(FlowHandshake, CountsTheBytesOfALetterWithAnAccent)
{
    EXPECT_RC(0, flowHandshake(latin("E9"), "Q"));

    EXPECT_EQ(toHex(hex("47617465 10A01000 00000005 FFFFFFFE 00000000 00000004 42415345 00 00000019"
                        "0002656E 00024742 00000000 00000000 0000"
                        "0002 C3A9 0001 51")),
              sentHex());
}

TEST_F(FlowHandshake, SendsSixteenBytesForEightLettersWithAccents)
{
    EXPECT_RC(0, flowHandshake(latin("E9E9E9E9E9E9E9E9"), latin("FFFEFDFCFBFAF9F8")));

    EXPECT_EQ(toHex(hex("47617465 10A01000 00000005 FFFFFFFE 00000000 00000004 42415345 00 00000036"
                        "0002656E 00024742 00000000 00000000 0000"
                        "0010 C3A9C3A9C3A9C3A9C3A9C3A9C3A9C3A9"
                        "0010 C3BFC3BEC3BDC3BCC3BBC3BAC3B9C3B8")),
              sentHex());
}

TEST_F(FlowHandshake, ConvertsTheBytesOnBothSidesOfEveryBorder)
{
    EXPECT_RC(0, flowHandshake(latin("7F80BFC0A0"), latin("01FF")));

    Bytes body = slice(sent(), 33 + 18, 2 + 9 + 2 + 3);
    EXPECT_EQ(toHex(hex("0009 7F C280 C2BF C380 C2A0 0003 01 C3BF")), toHex(body));
}

TEST_F(FlowHandshake, ConvertsEveryLetterThatIsNotAscii)
{
    const struct {
        const char* applid;
        const char* qualifier;
        const char* applidSent;
        const char* qualifierSent;
    } rows[] = {
        {"8081828384858687", "88898A8B8C8D8E8F", "C280C281C282C283C284C285C286C287",
         "C288C289C28AC28BC28CC28DC28EC28F"},
        {"9091929394959697", "98999A9B9C9D9E9F", "C290C291C292C293C294C295C296C297",
         "C298C299C29AC29BC29CC29DC29EC29F"},
        {"A0A1A2A3A4A5A6A7", "A8A9AAABACADAEAF", "C2A0C2A1C2A2C2A3C2A4C2A5C2A6C2A7",
         "C2A8C2A9C2AAC2ABC2ACC2ADC2AEC2AF"},
        {"B0B1B2B3B4B5B6B7", "B8B9BABBBCBDBEBF", "C2B0C2B1C2B2C2B3C2B4C2B5C2B6C2B7",
         "C2B8C2B9C2BAC2BBC2BCC2BDC2BEC2BF"},
        {"C0C1C2C3C4C5C6C7", "C8C9CACBCCCDCECF", "C380C381C382C383C384C385C386C387",
         "C388C389C38AC38BC38CC38DC38EC38F"},
        {"D0D1D2D3D4D5D6D7", "D8D9DADBDCDDDEDF", "C390C391C392C393C394C395C396C397",
         "C398C399C39AC39BC39CC39DC39EC39F"},
        {"E0E1E2E3E4E5E6E7", "E8E9EAEBECEDEEEF", "C3A0C3A1C3A2C3A3C3A4C3A5C3A6C3A7",
         "C3A8C3A9C3AAC3ABC3ACC3ADC3AEC3AF"},
        {"F0F1F2F3F4F5F6F7", "F8F9FAFBFCFDFEFF", "C3B0C3B1C3B2C3B3C3B4C3B5C3B6C3B7",
         "C3B8C3B9C3BAC3BBC3BCC3BDC3BEC3BF"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.applid);

        EXPECT_RC(0, flowHandshake(latin(row.applid), latin(row.qualifier)));

        Bytes message = theirs.read(33 + 18 + 2 + 16 + 2 + 16);
        EXPECT_EQ(toHex(hex("0010") + hex(row.applidSent) + hex("0010") + hex(row.qualifierSent)),
                  toHex(slice(message, 51, 36)));
    }
}

TEST_F(FlowHandshake, CopiesEveryAsciiLetter)
{
    for (int first = 0x08; first < 0x80; first += 8) {
        SCOPED_TRACE(first);
        std::string letters;
        for (int letter = first; letter < first + 8; ++letter) letters += static_cast<char>(letter);

        EXPECT_RC(0, flowHandshake(letters, ""));

        Bytes message = theirs.read(33 + 18 + 2 + 8 + 2);
        EXPECT_EQ(toHex(hex("0008") + text(letters) + hex("0000")), toHex(slice(message, 51, 12)));
    }
}

TEST_F(FlowHandshake, GoesOutInOneSend)
{
    int before = callCount(Call::Send);

    EXPECT_RC(0, flowHandshake("HELLO", "WORLD"));

    EXPECT_EQ(before + 1, callCount(Call::Send));
}

TEST_F(FlowHandshake, ArrivesWholeThroughShortAndInterruptedSends)
{
    Fault interrupted = failCall(Call::Send, 3, EINTR);
    Fault narrow = limitLength(Call::Send, 7);

    EXPECT_RC(0, flowHandshake("HELLO", ""));

    EXPECT_EQ(1, interrupted.hits());
    EXPECT_EQ(toHex(hex("47617465 10A01000 00000005 FFFFFFFE 00000000 00000004 42415345 00 0000001B"
                        "0002656E 00024742 00000000 00000000 0000"
                        "0005 48454C4C4F 0000")),
              sentHex());
}

TEST_F(FlowHandshake, SendsNothingWithoutMemory)
{
    TraceFile trace(3);
    {
        Fault noMemory = failCall(Call::Malloc, 1, ENOMEM);
        EXPECT_RC(-111, flowHandshake("HELLO", ""));
        EXPECT_EQ(1, noMemory.hits());
    }

    EXPECT_EQ("", sentHex());
    EXPECT_TRUE(trace.wrote(3201, "clapi_socketcomms.clapiFlowHandshakeRequest() rc=-111"));
    EXPECT_TRUE(trace.wrote(
        2503, "clapi_socketbuffer.initWriteBuffer() Failed to allocate 60 bytes for buffer"));
}

TEST_F(FlowHandshake, FailsWhenThePeerHasGone)
{
    theirs.close();
    TraceFile trace(3);

    EXPECT_RC(-102, flowHandshake("HELLO", ""));

    EXPECT_TRUE(trace.wrote(3201, "clapi_socketcomms.clapiFlowHandshakeRequest() rc=-102"));
    EXPECT_TRUE(trace.wrote(2527, "clapi_socketbuffer.flushBuffer() Unable to send data to "
                                  "Gateway: Broken pipe (32)"));
}

TEST_F(FlowHandshake, FailsOnADescriptorThatIsNone)
{
    char applid[] = "HELLO";
    char qualifier[] = "";

    EXPECT_RC(-102, clapiFlowHandshakeRequest(NO_SOCKET, applid, qualifier));
}

TEST_F(FlowHandshake, TracesItsStepsInOrder)
{
    TraceFile trace(3);

    flowHandshake("HELLO", "WORLD");

    EXPECT_TRUE(wroteInOrder(
        trace, {3200, 2500, 2509, 3210, 2560, 2569, 3211, 2525, 2529, 2516, 2518, 3201}));
    EXPECT_TRUE(trace.wrote(
        3200, "ENTRY",
        "clapi_socketcomms.clapiFlowHandshakeRequest(socketDesc=" + std::to_string(ours.fd()) +
            ", applid=HELLO, applidQualifier=WORLD)"));
    EXPECT_TRUE(
        trace.wrote(3210, "ENTRY", "clapi_socketcomms.writeHeader(sockBuffer=<ptr>, req=<ptr>)"));
    EXPECT_TRUE(trace.wrote(3211, "EXIT", "clapi_socketcomms.writeHeader()"));
    EXPECT_TRUE(trace.wrote(3201, "EXIT", "clapi_socketcomms.clapiFlowHandshakeRequest() rc=0"));
    EXPECT_EQ(3200, pointsOf(trace).front());
    EXPECT_EQ(3201, pointsOf(trace).back());
}

TEST_F(FlowHandshake, TracesTheBytesThatItSends)
{
    TraceFile trace(4);

    flowHandshake("HELLO", "");

    EXPECT_TRUE(
        trace.wroteText("clapi_socketbuffer.flushBuffer() data=<ptr> len=60 stopword=00000000\n"
                        "Data truncation size=128, offset=0\n"
                        "<ptr>: 47617465 10A01000 00000005 FFFFFFFE : Gate............ \n"
                        "<ptr>: 00000000 00000004 42415345 00000000 : ........BASE.... \n"
                        "<ptr>: 1B000265 6E000247 42000000 00000000 : ...en..GB....... \n"
                        "<ptr>: 00000000 0548454C 4C4F0000          : .....HELLO..\n"));
}

TEST_F(FlowHandshake, TracesAnApplidWithAPercentSignAsItIs)
{
    TraceFile trace(3);

    EXPECT_RC(0, flowHandshake("%s%n%d", "%n"));

    EXPECT_TRUE(trace.wroteText("applid=%s%n%d, applidQualifier=%n)\n"));
}

TEST_F(FlowHandshake, TracesNothingAtLevelTwo)
{
    TraceFile trace(2);

    flowHandshake("HELLO", "");

    EXPECT_EQ("", trace.text());
}

// ---- Close ----

TEST_F(FlowClose, SendsAHeaderAlone)
{
    EXPECT_RC(0, clapiFlowCloseRequest(ours.fd()));

    EXPECT_EQ(
        toHex(hex("47617465 10A01000 0000000A FFFFFFFF 00000000 00000004 42415345 00 00000000")),
        sentHex());
}

TEST_F(FlowClose, SendsThirtyThreeBytes)
{
    EXPECT_RC(0, clapiFlowCloseRequest(ours.fd()));

    EXPECT_EQ(33U, sent().size());
}

TEST_F(FlowClose, GoesOutInOneSend)
{
    int before = callCount(Call::Send);

    EXPECT_RC(0, clapiFlowCloseRequest(ours.fd()));

    EXPECT_EQ(before + 1, callCount(Call::Send));
}

TEST_F(FlowClose, SendsNothingWithoutMemory)
{
    TraceFile trace(3);
    {
        Fault noMemory = failCall(Call::Malloc, 1, ENOMEM);
        EXPECT_RC(-111, clapiFlowCloseRequest(ours.fd()));
    }

    EXPECT_EQ("", sentHex());
    EXPECT_TRUE(trace.wrote(3209, "clapi_socketcomms.clapiFlowCloseRequest() rc=-111"));
    EXPECT_TRUE(trace.wrote(
        2503, "clapi_socketbuffer.initWriteBuffer() Failed to allocate 33 bytes for buffer"));
}

TEST_F(FlowClose, FailsWhenThePeerHasGone)
{
    theirs.close();
    TraceFile trace(3);

    EXPECT_RC(-102, clapiFlowCloseRequest(ours.fd()));

    EXPECT_TRUE(trace.wrote(3209, "clapi_socketcomms.clapiFlowCloseRequest() rc=-102"));
}

TEST_F(FlowClose, TracesItsStepsInOrder)
{
    TraceFile trace(3);

    clapiFlowCloseRequest(ours.fd());

    EXPECT_TRUE(wroteInOrder(
        trace, {3208, 2500, 2509, 3210, 2560, 2569, 3211, 2525, 2529, 2516, 2518, 3209}));
    EXPECT_TRUE(trace.wrote(
        3208, "ENTRY",
        "clapi_socketcomms.clapiFlowCloseRequest(socketDesc=" + std::to_string(ours.fd()) + ")"));
    EXPECT_TRUE(trace.wrote(3209, "EXIT", "clapi_socketcomms.clapiFlowCloseRequest() rc=0"));
}

TEST_F(FlowClose, TracesNothingAtLevelTwo)
{
    TraceFile trace(2);

    clapiFlowCloseRequest(ours.fd());

    EXPECT_EQ("", trace.text());
}

} // namespace
