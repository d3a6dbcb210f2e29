// ECI requests as they go out.
#include "socketbuffer_fixture.h"

using namespace support;
using namespace unit;

namespace {

template <std::size_t width>
void fill(char (&field)[width], const char (&value)[width + 1])
{
    std::memcpy(field, value, width);
}

class FlowEciRequest : public SocketBufferTest {
protected:
    // A call in which every field has a value of its own: no XID, no token, a COMMAREA of five.
    FlowEciRequest()
    {
        std::memset(&request, 0, sizeof request);
        request.callType = 1;
        request.extendedMode = 1;
        request.luwToken = 0x01020304;
        request.messageQualifier = 0x05060708;
        request.callbackExists = 9;
        fill(request.server, "PROD1   ");
        request.userID = "USER01";
        request.password = "SECRET";
        fill(request.program, "PAYROLL ");
        fill(request.transid, "PAY1");
        withCommarea("HELLO");
        request.eciTimeout = 0x0A0B;
        request.isAutomsgqual = 0x0C;
        request.xid.format = -1;
        request.qpxCorrelator = 0x0D0E0F10;
    }

    void withCommarea(const std::string& contents)
    {
        area.assign(contents.begin(), contents.end());
        request.commarea = area.empty() ? nullptr : area.data();
        request.commarealength = static_cast<int>(area.size());
    }

    void withXid(int format, const std::string& globalId, const std::string& branchQualifier)
    {
        globalIdText.assign(globalId.begin(), globalId.end());
        branchText.assign(branchQualifier.begin(), branchQualifier.end());
        request.xid.format = format;
        request.xid.globalId = globalIdText.data();
        request.xid.globalIdLen = static_cast<int>(globalIdText.size());
        request.xid.branchQualifier = branchText.data();
        request.xid.branchQualifierLen = static_cast<int>(branchText.size());
    }

    // A call without user id, password and data of any kind.
    void asBareCall()
    {
        request.extendedMode = 0;
        request.luwToken = 0;
        request.messageQualifier = 0;
        request.callbackExists = 0;
        request.userID = nullptr;
        request.password = nullptr;
        request.eciTimeout = 0;
        request.isAutomsgqual = 0;
        request.qpxCorrelator = 1;
        withCommarea("");
    }

    int flow() { return clapiFlowECIRequest(ours.fd(), &header, &request); }

    // Sends the request and expects this body, of this length, behind the right header.
    void expectBody(int length, const std::string& bodyDigits)
    {
        EXPECT_RC(0, flow());
        EXPECT_EQ(length, header.datalength);
        Bytes body = hex(bodyDigits);
        EXPECT_EQ(static_cast<std::size_t>(length), body.size());
        EXPECT_EQ(toHex(hex("47617465 10A01000 00000001 00000011 00000000 00000003 454349 00") +
                        be32(length) + body),
                  sentHex());
    }

    GatewayRequest header = requestHeader("ECI");
    ECIRequest request;
    std::vector<char> area;
    std::vector<char> globalIdText;
    std::vector<char> branchText;
};

// ---- Program calls ----

TEST_F(FlowEciRequest, SendsEveryFieldOfACall)
{
    EXPECT_RC(0, flow());

    EXPECT_EQ(94, header.datalength);
    EXPECT_EQ(toHex(hex("47617465 10A01000 00000001 00000011 00000000 00000003 454349 00 0000005E"
                        "00000001"
                        "00000001 01020304 05060708 09"
                        "00000008 50524F4431202020"
                        "55534552303100000000000000000000"
                        "00000006 AC1606111711"
                        "504159524F4C4C20 50415931"
                        "00000000"
                        "00000005 00 00 48454C4C4F"
                        "00"
                        "0A0B 0C FFFFFFFF 0D0E0F10")),
              sentHex());
}

TEST_F(FlowEciRequest, SendsACallNamingATransactionProgram)
{
    request.callType = 12;
    fill(request.transid, "TPN1");

    expectBody(94, "0000000C"
                   "00000001 01020304 05060708 09"
                   "00000008 50524F4431202020"
                   "55534552303100000000000000000000"
                   "00000006 AC1606111711"
                   "504159524F4C4C20 54504E31"
                   "00000000"
                   "00000005 00 00 48454C4C4F"
                   "00"
                   "0A0B 0C FFFFFFFF 0D0E0F10");
}

TEST_F(FlowEciRequest, SendsACallWithNothingButNames)
{
    asBareCall();

    expectBody(83, "00000001"
                   "00000000 00000000 00000000 00"
                   "00000008 50524F4431202020"
                   "00000000000000000000000000000000"
                   "00000000"
                   "504159524F4C4C20 50415931"
                   "00000000"
                   "00000000 00 00"
                   "00"
                   "0000 00 FFFFFFFF 00000001");
}

TEST_F(FlowEciRequest, SendsNamesAsTheyAreStored)
{
    asBareCall();
    std::memset(request.server, 0, sizeof request.server);
    std::memcpy(request.program, "\x01\xFF P\0Q R", 8);
    std::memset(request.transid, 0, sizeof request.transid);

    expectBody(83, "00000001"
                   "00000000 00000000 00000000 00"
                   "00000008 0000000000000000"
                   "00000000000000000000000000000000"
                   "00000000"
                   "01FF205000512052 00000000"
                   "00000000"
                   "00000000 00 00"
                   "00"
                   "0000 00 FFFFFFFF 00000001");
}

TEST_F(FlowEciRequest, SendsNegativeNumbers)
{
    asBareCall();
    request.extendedMode = -1;
    request.luwToken = -2;
    request.messageQualifier = -3;
    request.callbackExists = -4;
    request.eciTimeout = -5;
    request.isAutomsgqual = -6;
    request.qpxCorrelator = static_cast<int>(0x80000000);

    expectBody(83, "00000001"
                   "FFFFFFFF FFFFFFFE FFFFFFFD FC"
                   "00000008 50524F4431202020"
                   "00000000000000000000000000000000"
                   "00000000"
                   "504159524F4C4C20 50415931"
                   "00000000"
                   "00000000 00 00"
                   "00"
                   "FFFB FA FFFFFFFF 80000000");
}

TEST_F(FlowEciRequest, Has183BytesForACommareaOf100)
{
    asBareCall();
    withCommarea(std::string(100, 'c'));

    EXPECT_RC(0, flow());

    EXPECT_EQ(183, header.datalength);
    EXPECT_EQ(32U + 183U, sent().size());
}

TEST_F(FlowEciRequest, Has97BytesForTenOutboundBytesOfACommareaOf100)
{
    asBareCall();
    withCommarea("0123456789" + std::string(90, 'c'));
    request.commareaOutboundLength = 10;

    expectBody(97, "00000001"
                   "00000000 00000000 00000000 00"
                   "00000008 50524F4431202020"
                   "00000000000000000000000000000000"
                   "00000000"
                   "504159524F4C4C20 50415931"
                   "00000000"
                   "00000064 FF 0000000A 00 30313233343536373839"
                   "00"
                   "0000 00 FFFFFFFF 00000001");
}

// ---- User id and password ----

class FlowEciUser : public FlowEciRequest {
protected:
    // The 16 bytes of the user id that went out.
    std::string userSent()
    {
        EXPECT_RC(0, flow());
        return toHex(slice(sent(), 32 + 29, 16));
    }
};

TEST_F(FlowEciUser, FillsAUserIdWithZeroBytes)
{
    request.userID = "U";
    EXPECT_EQ("55000000 00000000 00000000 00000000", userSent());
}

TEST_F(FlowEciUser, SendsAUserIdOfSixteenBytes)
{
    request.userID = "ABCDEFGHIJKLMNOP";
    EXPECT_EQ("41424344 45464748 494A4B4C 4D4E4F50", userSent());
}

TEST_F(FlowEciUser, CutsALongerUserIdToSixteenBytes)
{
    request.userID = "ABCDEFGHIJKLMNOPQ";
    EXPECT_EQ("41424344 45464748 494A4B4C 4D4E4F50", userSent());
    EXPECT_EQ(94, header.datalength);
}

TEST_F(FlowEciUser, SendsZeroBytesForAnEmptyUserId)
{
    request.userID = "";
    EXPECT_EQ("00000000 00000000 00000000 00000000", userSent());
}

TEST_F(FlowEciUser, SendsZeroBytesForNoUserId)
{
    request.userID = nullptr;
    EXPECT_EQ("00000000 00000000 00000000 00000000", userSent());
}

TEST_F(FlowEciRequest, SendsNoPasswordBytesForAnEmptyPassword)
{
    asBareCall();
    request.password = "";

    EXPECT_RC(0, flow());

    EXPECT_EQ(83, header.datalength);
    EXPECT_EQ("00000000 50415952 4F4C4C20", toHex(slice(sent(), 32 + 45, 12)));
}

TEST_F(FlowEciRequest, SendsAPasswordOfOneByte)
{
    asBareCall();
    request.password = "X";

    EXPECT_RC(0, flow());

    EXPECT_EQ(84, header.datalength);
    EXPECT_EQ("00000001 A7504159", toHex(slice(sent(), 32 + 45, 8)));
}

TEST_F(FlowEciRequest, SendsAPasswordOfAnyLength)
{
    asBareCall();
    std::string password(40000, 'p');
    request.password = password.c_str();
    auto wire = collect();

    EXPECT_RC(0, flow());

    EXPECT_EQ(40083, header.datalength);
    ours.shutdownWriting();
    Bytes message = wire.get();
    ASSERT_EQ(32U + 40083U, message.size());
    EXPECT_EQ("00009C40", toHex(slice(message, 32 + 45, 4)));
    Bytes scrambled = filled(40000, 0x00);
    scrambled[0] = 0x8F;
    EXPECT_TRUE(scrambled == slice(message, 32 + 49, 40000));
    EXPECT_EQ("50415952 4F4C4C20 50415931", toHex(slice(message, 32 + 49 + 40000, 12)));
}

TEST_F(FlowEciRequest, ShowsNoPasswordInItsTrace)
{
    WholeDumps whole;
    TraceFile trace(5);

    EXPECT_RC(0, flow());

    EXPECT_TRUE(
        trace.wroteText("<ptr>: 062A2A2A 2A2A2A50 4159524F 4C4C2050 : .******PAYROLL P \n"));
    EXPECT_FALSE(trace.wroteText("SECRET"));
    EXPECT_FALSE(trace.wroteText("534543"));
    EXPECT_FALSE(trace.wroteText("AC1606"));
    EXPECT_EQ("00000006 AC160611 17115041", toHex(slice(sent(), 32 + 45, 12)));
}

TEST_F(FlowEciRequest, ShowsNoPasswordThatCouldNotBeRegistered)
{
    WholeDumps whole;
    TraceFile trace(5);
    Fault noMemory = failCallsFrom(Call::Malloc, 2, ENOMEM);

    EXPECT_RC(0, flow());

    EXPECT_LE(1, noMemory.hits());
    EXPECT_FALSE(trace.wroteText("SECRET"));
    EXPECT_FALSE(trace.wroteText("534543"));
    EXPECT_FALSE(trace.wroteText("AC1606"));
    EXPECT_FALSE(trace.wroteText("11171150"));
    EXPECT_EQ("00000006 AC160611 17115041", toHex(slice(sent(), 32 + 45, 12)));
}

// ---- COMMAREA ----

class FlowEciCommarea : public FlowEciRequest {
protected:
    FlowEciCommarea() { asBareCall(); }

    // What went out between the token's length and the common tail.
    std::string dataSent()
    {
        EXPECT_RC(0, flow());
        Bytes message = sent();
        EXPECT_EQ(static_cast<std::size_t>(header.datalength) + 32, message.size());
        return toHex(slice(message, 32 + 65, message.size() - 32 - 65 - 11));
    }
};

// What a call asks for, and what goes out of it.
struct SentCommarea {
    const char* name;
    const char* contents;
    int outbound; // 0: not said
    int inbound;  // 0: not said
    int mode;
    const char* data;
    int datalength;
};

const SentCommarea sentCommareas[] = {
    {"SendsTheWholeCommarea", "HELLO", 0, 0, 0, "00000005 00 00 48454C4C4F 00", 88},
    {"SendsACommareaOfNoBytes", "", 0, 0, 0, "00000000 00 00 00", 83},
    {"SendsTheOutboundBytesOnly", "HELLO", 1, 0, 0, "00000005 FF 00000001 00 48 00", 88},
    {"SendsAnOutboundLengthOfTheWholeCommarea", "HELLO", 5, 0, 0,
     "00000005 FF 00000005 00 48454C4C4F 00", 92},
    {"TakesANegativeOutboundLengthForNone", "HELLO", -1, 0, 0, "00000005 00 00 48454C4C4F 00", 88},
    {"SendsTheInboundLength", "HELLO", 0, 1, 0, "00000005 00 FF 00000001 48454C4C4F 00", 92},
    {"TakesANegativeInboundLengthForNone", "HELLO", 0, -1, 0, "00000005 00 00 48454C4C4F 00", 88},
    {"SendsBothLengths", "HELLO", 2, 3, 0, "00000005 FF 00000002 FF 00000003 4845 00", 93},
    {"CommitsWithoutData", "HELLO", 0, 0, 2, "00000005 00 00 00", 83},
    {"BacksOutWithoutData", "HELLO", 0, 0, 4, "00000005 00 00 00", 83},
    {"CommitsWithLengthsButWithoutData", "HELLO", 2, 3, 2, "00000005 FF 00000002 FF 00000003 00",
     91},
    {"ExtendsWithData", "HELLO", 0, 0, 1, "00000005 00 00 48454C4C4F 00", 88},
};

class FlowEciSentCommarea : public FlowEciCommarea,
                            public ::testing::WithParamInterface<SentCommarea> {};

TEST_P(FlowEciSentCommarea, IsAsTheCallSays)
{
    withCommarea(GetParam().contents);
    request.commareaOutboundLength = GetParam().outbound;
    request.commareaInboundLength = GetParam().inbound;
    request.extendedMode = GetParam().mode;
    EXPECT_EQ(toHex(hex(GetParam().data)), dataSent());
    EXPECT_EQ(GetParam().datalength, header.datalength);
}

INSTANTIATE_TEST_SUITE_P(Each, FlowEciSentCommarea, ::testing::ValuesIn(sentCommareas),
                         [](const auto& tested) { return std::string(tested.param.name); });

TEST_F(FlowEciRequest, SendsACommareaLargerThanTheBuffer)
{
    asBareCall();
    Bytes contents = countedBytes(40000);
    withCommarea(toText(contents));
    auto wire = collect();

    EXPECT_RC(0, flow());

    EXPECT_EQ(40083, header.datalength);
    ours.shutdownWriting();
    Bytes message = wire.get();
    ASSERT_EQ(40115U, message.size());
    EXPECT_EQ("00009C40 0000", toHex(slice(message, 32 + 65, 6)));
    EXPECT_TRUE(contents == slice(message, 32 + 71, 40000));
    EXPECT_EQ(toHex(hex("00 0000 00 FFFFFFFF 00000001")), toHex(slice(message, 32 + 40071, 12)));
}

// With 32 + 71 bytes before the COMMAREA and 12 behind it, 32885 fill the buffer exactly.
TEST_F(FlowEciRequest, SendsCommareasOfEverySizeAroundTheBuffers)
{
    asBareCall();
    for (std::size_t size : {32884U, 32885U, 32886U, 32897U, 32898U, 32999U, 33000U, 33001U}) {
        SCOPED_TRACE(size);
        Bytes contents = countedBytes(size);
        withCommarea(toText(contents));
        auto message = callInThread([&] { return theirs.read(32 + 83 + size); });

        EXPECT_RC(0, flow());

        EXPECT_EQ(static_cast<int>(83 + size), header.datalength);
        Bytes arrived = message.get();
        EXPECT_TRUE(contents == slice(arrived, 32 + 71, size));
        EXPECT_EQ(toHex(hex("00 0000 00 FFFFFFFF 00000001")),
                  toHex(slice(arrived, arrived.size() - 12, 12)));
    }
    EXPECT_EQ("", sentHex());
}

TEST_F(FlowEciRequest, SendsARequestThatFitsInOneCall)
{
    asBareCall();
    withCommarea(std::string(32767, 'c'));
    auto wire = collect();
    int before = callCount(Call::Send);

    EXPECT_RC(0, flow());

    EXPECT_EQ(before + 1, callCount(Call::Send));
    ours.shutdownWriting();
    EXPECT_EQ(32U + 83U + 32767U, wire.get().size());
}

TEST_F(FlowEciRequest, DumpsTheWholeCommareaThatItSends)
{
    TraceFile trace(4);

    flow();

    EXPECT_TRUE(trace.wrote(
        3244, "DATA",
        "clapi_socketcomms.clapiFlowECIRequest() Commarea=<ptr> len=5 stopword=00000000"));
    EXPECT_TRUE(trace.wroteText("Commarea=<ptr> len=5 stopword=00000000\n"
                                "Data truncation size=128, offset=0\n"
                                "<ptr>: 48454C4C 4F                         : HELLO\n"));
    EXPECT_EQ(0, trace.timesWrote(3243));
}

TEST_F(FlowEciRequest, DumpsTheOutboundBytesThatItSends)
{
    request.commareaOutboundLength = 2;
    TraceFile trace(4);

    flow();

    EXPECT_TRUE(trace.wrote(
        3243, "DATA",
        "clapi_socketcomms.clapiFlowECIRequest() Commarea=<ptr> len=2 stopword=00000000"));
    EXPECT_TRUE(trace.wroteText("Commarea=<ptr> len=2 stopword=00000000\n"
                                "Data truncation size=128, offset=0\n"
                                "<ptr>: 4845                                : HE\n"));
    EXPECT_EQ(0, trace.timesWrote(3244));
}

TEST_F(FlowEciRequest, DumpsNothingOfACommareaOfNoBytes)
{
    withCommarea("");
    TraceFile trace(4);

    flow();

    ASSERT_EQ(1, trace.timesWrote(3244));
    for (const TraceRecord& record : trace.records()) {
        if (record.point != 3244) continue;
        EXPECT_TRUE(matches("clapi_socketcomms.clapiFlowECIRequest() Commarea=<any> len=0 "
                            "stopword=00000000",
                            record.message))
            << record.message;
        EXPECT_EQ("", record.body);
    }
}

TEST_F(FlowEciRequest, DumpsNoCommareaThatIsNotSent)
{
    for (int mode : {2, 4}) {
        SCOPED_TRACE(mode);
        request.extendedMode = mode;
        TraceFile trace(5);

        flow();

        EXPECT_EQ(0, trace.timesWrote(3243));
        EXPECT_EQ(0, trace.timesWrote(3244));
    }
}

TEST_F(FlowEciRequest, DumpsNoCommareaAtLevelThree)
{
    TraceFile trace(3);

    flow();

    EXPECT_EQ(0, trace.timesWrote(3244));
    EXPECT_FALSE(trace.wroteText("HELLO"));
}

// ---- Token and XID ----

TEST_F(FlowEciRequest, SendsAPyxaToken)
{
    asBareCall();
    char token[] = "\x01\x02\x00\xFE\xFF";
    request.pyxaToken = token;
    request.pyxaLen = 5;

    expectBody(88, "00000001"
                   "00000000 00000000 00000000 00"
                   "00000008 50524F4431202020"
                   "00000000000000000000000000000000"
                   "00000000"
                   "504159524F4C4C20 50415931"
                   "00000005 010200FEFF"
                   "00000000 00 00"
                   "00"
                   "0000 00 FFFFFFFF 00000001");
}

TEST_F(FlowEciRequest, SendsAPyxaTokenLargerThanTheBuffer)
{
    asBareCall();
    Bytes token = countedBytes(33001);
    std::vector<char> area2(token.begin(), token.end());
    request.pyxaToken = area2.data();
    request.pyxaLen = 33001;
    auto wire = collect();

    EXPECT_RC(0, flow());

    EXPECT_EQ(33084, header.datalength);
    ours.shutdownWriting();
    Bytes message = wire.get();
    ASSERT_EQ(32U + 33084U, message.size());
    EXPECT_TRUE(token == slice(message, 32 + 65, 33001));
}

TEST_F(FlowEciRequest, SendsAnXid)
{
    asBareCall();
    withXid(0x01020304, "GLOBAL", "BRANCH01");

    expectBody(83 + 8 + 14, "00000001"
                            "00000000 00000000 00000000 00"
                            "00000008 50524F4431202020"
                            "00000000000000000000000000000000"
                            "00000000"
                            "504159524F4C4C20 50415931"
                            "00000000"
                            "00000000 00 00"
                            "00"
                            "0000 00 01020304"
                            "00000006 474C4F42414C"
                            "00000008 4252414E43483031"
                            "00000001");
}

class FlowEciXid : public FlowEciRequest {
protected:
    FlowEciXid() { asBareCall(); }

    // What went out behind the automatic qualifier flag.
    std::string tailSent()
    {
        EXPECT_RC(0, flow());
        Bytes message = sent();
        EXPECT_EQ(static_cast<std::size_t>(header.datalength) + 32, message.size());
        return toHex(slice(message, 32 + 75, message.size() - 32 - 75));
    }
};

TEST_F(FlowEciXid, SendsAnXidOfFormatZero)
{
    withXid(0, "G", "B");
    EXPECT_EQ(toHex(hex("00000000 00000001 47 00000001 42 00000001")), tailSent());
    EXPECT_EQ(93, header.datalength);
}

TEST_F(FlowEciXid, SendsAnXidOfAnotherNegativeFormat)
{
    withXid(-2, "G", "B");
    EXPECT_EQ(toHex(hex("FFFFFFFE 00000001 47 00000001 42 00000001")), tailSent());
}

TEST_F(FlowEciXid, SendsAnXidWithoutABranch)
{
    withXid(1, "GLOBAL", "");
    EXPECT_EQ(toHex(hex("00000001 00000006 474C4F42414C 00000000 00000001")), tailSent());
    EXPECT_EQ(97, header.datalength);
}

TEST_F(FlowEciXid, SendsAnXidOfNoBytes)
{
    withXid(1, "", "");
    EXPECT_EQ(toHex(hex("00000001 00000000 00000000 00000001")), tailSent());
    EXPECT_EQ(91, header.datalength);
}

TEST_F(FlowEciXid, SendsBinaryXids)
{
    withXid(1, std::string("\0\xFF\x80", 3), std::string("\0\0", 2));
    EXPECT_EQ(toHex(hex("00000001 00000003 00FF80 00000002 0000 00000001")), tailSent());
}

TEST_F(FlowEciXid, SendsTheLongestXid)
{
    withXid(1, std::string(64, 'g'), std::string(64, 'b'));
    EXPECT_EQ(toHex(hex("00000001 00000040") + filled(64, 0x67) + hex("00000040") +
                    filled(64, 0x62) + hex("00000001")),
              tailSent());
    EXPECT_EQ(83 + 8 + 128, header.datalength);
}

TEST_F(FlowEciXid, SendsNothingOfAnXidThatIsNone)
{
    withXid(-1, "GLOBAL", "BRANCH");
    EXPECT_EQ(toHex(hex("FFFFFFFF 00000001")), tailSent());
    EXPECT_EQ(83, header.datalength);
}

// ---- Other call types ----

TEST_F(FlowEciRequest, AsksForTheSystems)
{
    request.callType = 9;
    request.server_num = 0x00010203;

    expectBody(19, "00000009 00010203 0A0B 0C FFFFFFFF 0D0E0F10");
}

TEST_F(FlowEciRequest, AsksForTheSystemsWithAnXid)
{
    request.callType = 9;
    request.server_num = -1;
    withXid(7, "GLO", "BR");

    expectBody(19 + 8 + 5, "00000009 FFFFFFFF 0A0B 0C 00000007"
                           "00000003 474C4F 00000002 4252 0D0E0F10");
}

TEST_F(FlowEciRequest, DumpsNoCommareaOfAQueryForSystems)
{
    request.callType = 9;
    TraceFile trace(5);

    flow();

    EXPECT_EQ(0, trace.timesWrote(3243));
    EXPECT_EQ(0, trace.timesWrote(3244));
}

TEST_F(FlowEciRequest, SendsTheCommonPartOfAnyOtherCallType)
{
    for (int callType : {0, 2, 8, 10, 11, 13, -1}) {
        SCOPED_TRACE(callType);
        request.callType = callType;

        EXPECT_RC(0, flow());

        EXPECT_EQ(15, header.datalength);
        EXPECT_EQ(
            toHex(hex("47617465 10A01000 00000001 00000011 00000000 00000003 454349 00 0000000F") +
                  be32(callType) + hex("0A0B 0C FFFFFFFF 0D0E0F10")),
            toHex(theirs.read(47)));
    }
    EXPECT_EQ("", sentHex());
}

// ---- The header ----

TEST_F(FlowEciRequest, SendsTheHeaderThatItIsGiven)
{
    request.callType = 9;
    header.flowVersion = 0x11223344;
    header.flowType = 0x55;
    header.messageId = -7;
    header.gatewayRc = 61445;
    header.requestTypeLength = 4;
    std::memcpy(header.requestType, "WXYZ", 4);
    header.security = 'S';

    EXPECT_RC(0, flow());

    EXPECT_EQ(toHex(hex("47617465 11223344 00000055 FFFFFFF9 0000F005 00000004 5758595A 53 00000013"
                        "00000009 00000000 0A0B 0C FFFFFFFF 0D0E0F10")),
              sentHex());
}

// ---- Failures and trace ----

TEST_F(FlowEciRequest, SendsNothingWithoutMemory)
{
    TraceFile trace(3);
    {
        Fault noMemory = failCall(Call::Malloc, 1, ENOMEM);
        EXPECT_RC(-111, flow());
        EXPECT_EQ(1, noMemory.hits());
    }

    EXPECT_EQ("", sentHex());
    EXPECT_TRUE(trace.wrote(
        2503, "clapi_socketbuffer.initWriteBuffer() Failed to allocate 126 bytes for buffer"));
    EXPECT_TRUE(trace.wrote(3205, "clapi_socketcomms.clapiFlowECIRequest() rc=-111"));
}

TEST_F(FlowEciRequest, FailsWhenThePeerHasGone)
{
    theirs.close();
    TraceFile trace(3);

    EXPECT_RC(-102, flow());

    EXPECT_TRUE(trace.wrote(3205, "clapi_socketcomms.clapiFlowECIRequest() rc=-102"));
}

TEST_F(FlowEciRequest, FailsOnADescriptorThatIsNone)
{
    TraceFile trace(1);

    EXPECT_RC(-102, clapiFlowECIRequest(NO_SOCKET, &header, &request));

    EXPECT_EQ((std::vector<int>{2527}), pointsOf(trace));
    EXPECT_TRUE(trace.wrote(2527, "clapi_socketbuffer.flushBuffer() Unable to send data to "
                                  "Gateway: Bad file descriptor (9)"));
}

TEST_F(FlowEciRequest, SendsNoMoreOfALongRequestAfterAFailure)
{
    asBareCall();
    withCommarea(std::string(40000, 'c'));
    Fault broken = failCall(Call::Send, 1, ECONNRESET);

    EXPECT_RC(-102, flow());

    EXPECT_EQ(1, broken.calls());
    EXPECT_EQ("", sentHex());
}

TEST_F(FlowEciRequest, FailsWhenTheDataOfALongRequestCannotBeSent)
{
    asBareCall();
    withCommarea(std::string(40000, 'c'));
    Fault broken = failCall(Call::Send, 2, ECONNRESET);

    EXPECT_RC(-102, flow());

    EXPECT_EQ(2, broken.calls());
    EXPECT_EQ(103U, sent().size());
}

TEST_F(FlowEciRequest, ArrivesWholeThroughShortSendsOfEverySize)
{
    std::string whole = toHex(
        hex("47617465 10A01000 00000001 00000011 00000000 00000003 454349 00 0000005E"
            "00000001"
            "00000001 01020304 05060708 09"
            "00000008 50524F4431202020"
            "55534552303100000000000000000000"
            "00000006 AC1606111711"
            "504159524F4C4C20 50415931"
            "00000000"
            "00000005 00 00 48454C4C4F"
            "00"
            "0A0B 0C FFFFFFFF 0D0E0F10"));
    for (std::size_t piece = 1; piece <= 126; ++piece) {
        SCOPED_TRACE(piece);
        Fault narrow = limitLength(Call::Send, piece);

        EXPECT_RC(0, flow());

        EXPECT_EQ(cutsOf(126, piece), narrow.hits());
        EXPECT_EQ(whole, toHex(theirs.read(126)));
    }
    EXPECT_EQ("", sentHex());
}

TEST_F(FlowEciRequest, TracesItsStepsInOrder)
{
    TraceFile trace(3);

    flow();

    EXPECT_TRUE(wroteInOrder(
        trace, {3204, 3202, 3203, 2500, 2509, 3210, 3211, 2525, 2529, 2516, 2518, 3205}));
    EXPECT_TRUE(trace.wrote(3204, "ENTRY",
                            "clapi_socketcomms.clapiFlowECIRequest(socketDesc=" +
                                std::to_string(ours.fd()) + ", header=<ptr>, request=<ptr>)"));
    EXPECT_TRUE(trace.wrote(3202, "ENTRY", "clapi_socketcomms.calculateECIRequestSize(<any>)"));
    EXPECT_TRUE(
        trace.wrote(3203, "EXIT", "clapi_socketcomms.calculateECIRequestSize() requestSize=94"));
    EXPECT_TRUE(trace.wrote(3205, "EXIT", "clapi_socketcomms.clapiFlowECIRequest() rc=0"));
    EXPECT_EQ(3204, pointsOf(trace).front());
    EXPECT_EQ(3205, pointsOf(trace).back());
}

TEST_F(FlowEciRequest, TracesNothingAtLevelTwo)
{
    TraceFile trace(2);

    flow();

    EXPECT_EQ("", trace.text());
}

TEST_F(FlowEciRequest, ChangesNothingOfTheRequest)
{
    ECIRequest before;
    std::memcpy(&before, &request, sizeof request);

    flow();

    EXPECT_EQ(0, std::memcmp(&before, &request, sizeof request));
    EXPECT_EQ("HELLO", std::string(area.begin(), area.end()));
}

} // namespace
