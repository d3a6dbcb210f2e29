// Password requests as they go out.
#include "socketbuffer_fixture.h"

#include <cerrno>

#include "support/esi_script.h"

using namespace support;
using namespace unit;

namespace {

class FlowEsiRequest : public SocketBufferTest {
protected:
    FlowEsiRequest()
    {
        std::memset(&request, 0, sizeof request);
        request.userID = "CLERK";
        request.currentPassword = "SECRET";
        withServer("PROD1   ");
    }

    void withServer(const char (&name)[9]) { std::memcpy(request.server, name, 8); }

    void asChange(const char* newPassword)
    {
        request.callType = 1;
        request.newPassword = newPassword;
    }

    int flow() { return clapiFlowESIRequest(ours.fd(), &header, &request); }

    // Sends the request and gives its body, whose length stands in the header.
    Bytes bodySent()
    {
        auto collected = collect();
        EXPECT_RC(0, flow());
        ours.shutdownWriting();
        Bytes whole = collected.get();
        EXPECT_EQ(toHex(hex("47617465 10A01000 00000001 00000011 00000000 00000003 455349 00") +
                        be32(header.datalength)),
                  toHex(slice(whole, 0, 32)));
        EXPECT_EQ(32U + static_cast<std::size_t>(header.datalength), whole.size());
        return slice(whole, 32, whole.size() - 32);
    }

    // A new pair of sockets for a further request.
    void again()
    {
        auto sockets = socketPair();
        ours = std::move(sockets.first);
        theirs = std::move(sockets.second);
    }

    // The current password of a verification, in clear, from its length and its bytes.
    static Bytes currentIn(const Bytes& body)
    {
        return script::unscrambled(slice(body, 18, static_cast<std::size_t>(int32At(body, 14))));
    }

    // The new password of a change, likewise.
    static Bytes newIn(const Bytes& body)
    {
        std::size_t at = 18 + static_cast<std::size_t>(int32At(body, 14)) + 8;
        return script::unscrambled(
            slice(body, at + 4, static_cast<std::size_t>(int32At(body, at))));
    }

    GatewayRequest header = requestHeader("ESI");
    ESIRequest request;
};

// Bytes 1 to 255 in a run of the given length, beginning anywhere.
std::string run(std::size_t length, std::size_t start = 0)
{
    std::string bytes;
    for (std::size_t at = 0; at < length; ++at)
        bytes.push_back(static_cast<char>((start + at * 7) % 255 + 1));
    return bytes;
}

// ---- The bytes ----

TEST_F(FlowEsiRequest, SendsAVerification)
{
    EXPECT_RC(0, flow());

    EXPECT_EQ(32, header.datalength);
    EXPECT_EQ(toHex(hex("47617465 10A01000 00000001 00000011 00000000 00000003 455349 00 00000020"
                        "00000000"              // verify
                        "434C45524B 0000000000" // user id
                        "00000006"              // length of the password
                        "AC1606111711"          // "SECRET"
                        "50524F4431202020")),   // server
              sentHex());
}

TEST_F(FlowEsiRequest, SendsAChange)
{
    asChange("NEWPASS8");

    EXPECT_RC(0, flow());

    EXPECT_EQ(44, header.datalength);
    EXPECT_EQ(toHex(hex("47617465 10A01000 00000001 00000011 00000000 00000003 455349 00 0000002C"
                        "00000001"              // change
                        "434C45524B 0000000000" // user id
                        "00000006"              // length of the old password
                        "AC1606111711"          // "SECRET"
                        "50524F4431202020"      // server
                        "00000008"              // length of the new password
                        "B10B12071112006B")),   // "NEWPASS8"
              sentHex());
}

TEST_F(FlowEsiRequest, KeepsTheOtherFieldsOfTheHeader)
{
    header.messageId = 0x01020304;
    header.gatewayRc = 0x05060708;
    header.security = 9;

    EXPECT_RC(0, flow());

    EXPECT_EQ("47617465 10A01000 00000001 01020304 05060708 00000003 45534909 00000020",
              toHex(slice(sent(), 0, 32)));
}

TEST_F(FlowEsiRequest, SendsNoNewPasswordWithAVerification)
{
    request.newPassword = "NEWPASS8";

    EXPECT_EQ(32U, bodySent().size());
}

TEST_F(FlowEsiRequest, CountsTwentySixBytesBesideThePassword)
{
    request.currentPassword = "X";

    EXPECT_EQ(27U, bodySent().size());
    EXPECT_EQ(27, header.datalength);
}

TEST_F(FlowEsiRequest, CountsFourBytesMoreForTheShortestNewPassword)
{
    request.currentPassword = "X";
    asChange("Y");

    EXPECT_EQ(toHex(hex("00000001 434C45524B 0000000000 00000001 A7 50524F4431202020"
                        "00000001 A6")),
              toHex(bodySent()));
}

TEST_F(FlowEsiRequest, FillsAUserIdOfOneLetterWithZeros)
{
    request.userID = "U";

    EXPECT_EQ("55000000 00000000 0000", toHex(slice(bodySent(), 4, 10)));
}

TEST_F(FlowEsiRequest, SendsAUserIdOfTenLetters)
{
    request.userID = "ABCDEFGHIJ";

    EXPECT_EQ("41424344 45464748 494A", toHex(slice(bodySent(), 4, 10)));
}

TEST_F(FlowEsiRequest, CutsAUserIdOfElevenLetters)
{
    request.userID = "ABCDEFGHIJK";

    Bytes body = bodySent();
    EXPECT_EQ(32U, body.size());
    EXPECT_EQ("41424344 45464748 494A0000 0006", toHex(slice(body, 4, 14)));
}

TEST_F(FlowEsiRequest, CutsAUserIdOfThreeHundredLetters)
{
    std::string user = "ABCDEFGHIJ" + std::string(290, 'Z');
    request.userID = user.c_str();

    Bytes body = bodySent();
    EXPECT_EQ(32U, body.size());
    EXPECT_EQ("41424344 45464748 494A0000 0006", toHex(slice(body, 4, 14)));
}

TEST_F(FlowEsiRequest, SendsTheServerAsItIsStored)
{
    std::memcpy(request.server, "A\0B C\xFF\0\x01", 8);

    EXPECT_EQ("41004220 43FF0001", toHex(slice(bodySent(), 24, 8)));
}

TEST_F(FlowEsiRequest, SendsZerosForTheDefaultServer)
{
    std::memset(request.server, 0, sizeof request.server);

    EXPECT_EQ("00000000 00000000", toHex(slice(bodySent(), 24, 8)));
}

// ---- Passwords ----

TEST_F(FlowEsiRequest, ComplementsTheFirstByteAndChainsTheOthers)
{
    request.currentPassword = "ABC";
    asChange("CBA");

    Bytes body = bodySent();
    EXPECT_EQ("00000003 BE0301", toHex(slice(body, 14, 7)));
    EXPECT_EQ("00000003 BC0103", toHex(slice(body, 29, 7)));
}

TEST_F(FlowEsiRequest, CarriesEveryByteValueInAPassword)
{
    std::string password;
    for (int value = 1; value <= 255; ++value) password.push_back(static_cast<char>(value));
    request.currentPassword = password.c_str();

    Bytes body = bodySent();
    EXPECT_EQ(26U + 255U, body.size());
    EXPECT_EQ("000000FF FE030107", toHex(slice(body, 14, 8)));
    EXPECT_EQ(toHex(text(password)), toHex(currentIn(body)));
}

TEST_F(FlowEsiRequest, CarriesPasswordsOfEveryLength)
{
    for (std::size_t length = 1; length <= 300; ++length) {
        SCOPED_TRACE(length);
        std::string current = run(length, length);
        request.currentPassword = current.c_str();

        Bytes body = bodySent();

        ASSERT_EQ(26U + length, body.size());
        ASSERT_EQ(toHex(text(current)), toHex(currentIn(body)));
        again();
    }
}

TEST_F(FlowEsiRequest, CarriesNewPasswordsOfEveryLength)
{
    for (std::size_t length = 1; length <= 300; ++length) {
        SCOPED_TRACE(length);
        std::string current = run(301 - length, length);
        std::string next = run(length, length + 100);
        request.currentPassword = current.c_str();
        asChange(next.c_str());

        Bytes body = bodySent();

        ASSERT_EQ(26U + 301 - length + 4 + length, body.size());
        ASSERT_EQ(toHex(text(current)), toHex(currentIn(body)));
        ASSERT_EQ(toHex(text(next)), toHex(newIn(body)));
        again();
    }
}

// The buffer holds 33,000 bytes: header, user id, lengths and server take 58 of them.
TEST_F(FlowEsiRequest, CarriesPasswordsAroundTheSizeOfTheBuffer)
{
    for (std::size_t length : {32941U, 32942U, 32943U, 32953U, 32954U, 32955U, 33000U, 33001U}) {
        SCOPED_TRACE(length);
        std::string current = run(length);
        request.currentPassword = current.c_str();

        Bytes body = bodySent();

        ASSERT_EQ(26U + length, body.size());
        EXPECT_TRUE(text(current) == currentIn(body));
        EXPECT_EQ("50524F44 31202020", toHex(slice(body, 18 + length, 8)));
        again();
    }
}

TEST_F(FlowEsiRequest, CarriesPasswordsLongerThanTheBuffer)
{
    std::string current = run(33001, 3);
    std::string next = run(70000, 5);
    request.currentPassword = current.c_str();
    asChange(next.c_str());

    Bytes body = bodySent();

    ASSERT_EQ(26U + 33001U + 4U + 70000U, body.size());
    EXPECT_TRUE(text(current) == currentIn(body));
    EXPECT_TRUE(text(next) == newIn(body));
}

TEST_F(FlowEsiRequest, LeavesTheCallersTextsAsTheyAre)
{
    char user[] = "CLERK";
    char current[] = "SECRET";
    char next[] = "NEWPASS8";
    request.userID = user;
    request.currentPassword = current;
    asChange(next);

    TraceFile trace(5);
    EXPECT_RC(0, flow());

    EXPECT_STREQ("CLERK", user);
    EXPECT_STREQ("SECRET", current);
    EXPECT_STREQ("NEWPASS8", next);
}

// ---- Failures ----

TEST_F(FlowEsiRequest, SendsNothingWithoutMemoryForTheBuffer)
{
    Fault noMemory = failCall(Call::Malloc, 1, ENOMEM);

    EXPECT_RC(-111, flow());

    EXPECT_EQ(1, noMemory.hits());
    EXPECT_EQ("", sentHex());
}

TEST_F(FlowEsiRequest, FailsWhenTheSocketFails)
{
    TraceFile trace(1);
    Fault broken = failCall(Call::Send, 1, EPIPE);

    EXPECT_RC(-102, flow());

    EXPECT_EQ(1, broken.calls());
    EXPECT_TRUE(trace.wrote(2527, "*EXC*",
                            "clapi_socketbuffer.flushBuffer() Unable to send data to Gateway: "
                            "Broken pipe (32)"));
}

TEST_F(FlowEsiRequest, FailsWhenTheSocketFailsAmidALongPassword)
{
    std::string current = run(70000);
    request.currentPassword = current.c_str();
    Fault broken = failCall(Call::Send, 2, ECONNRESET);
    auto collected = collect();

    EXPECT_RC(-102, flow());

    ours.shutdownWriting();
    EXPECT_EQ(2, broken.calls());
    EXPECT_GE(33000U, collected.get().size());
}

TEST_F(FlowEsiRequest, GoesOnWhenSendingIsInterrupted)
{
    Fault interrupted = failCall(Call::Send, 1, EINTR);

    EXPECT_EQ(32U, bodySent().size());

    EXPECT_EQ(1, interrupted.hits());
}

TEST_F(FlowEsiRequest, SendsTheRestOfWhatTheSystemTookInPart)
{
    Fault pieces = limitLength(Call::Send, 7);

    EXPECT_EQ(toHex(hex("00000000 434C45524B 0000000000 00000006 AC1606111711 50524F4431202020")),
              toHex(bodySent()));
}

TEST_F(FlowEsiRequest, SendsPasswordsThatCouldNotBeRegisteredForTheTrace)
{
    asChange("NEWPASS8");
    TraceFile trace(5);
    Fault noMemory = failCallsFrom(Call::Malloc, 2, ENOMEM);

    Bytes body = bodySent();

    EXPECT_EQ(2, noMemory.hits());
    EXPECT_EQ("SECRET", toText(currentIn(body)));
    EXPECT_EQ("NEWPASS8", toText(newIn(body)));
    for (const char* shown : {"SECRET", "NEWPASS8", "AC160611", "B10B1207", "53454352", "4E455750"})
        EXPECT_FALSE(trace.wroteText(shown)) << shown;
}

// ---- The storage of the buffer ----

// The blocks that the library has and has not given back.
class Blocks {
public:
    Blocks()
        : taken_(afterCall(Call::Malloc, 0,
                           [this](const CallInfo& info) {
                               if (info.result != 0) open_ += 1;
                           })),
          given_(beforeCall(Call::Free, 0, [this](const CallInfo& info) {
              if (info.first != 0) open_ -= 1;
          }))
    {
    }
    int open() const { return open_; }

private:
    int open_ = 0;
    Fault taken_;
    Fault given_;
};

TEST_F(FlowEsiRequest, GivesItsStorageBack)
{
    asChange("NEWPASS8");
    Blocks blocks;

    EXPECT_RC(0, flow());

    EXPECT_EQ(0, blocks.open());
}

TEST_F(FlowEsiRequest, GivesItsStorageBackAfterAFailure)
{
    asChange("NEWPASS8");
    Fault broken = failCall(Call::Send, 1, EPIPE);
    Blocks blocks;

    EXPECT_RC(-102, flow());

    EXPECT_EQ(0, blocks.open());
}

TEST_F(FlowEsiRequest, GivesItsStorageBackAfterALongPassword)
{
    std::string current = run(70000);
    request.currentPassword = current.c_str();
    Blocks blocks;

    bodySent();

    EXPECT_EQ(0, blocks.open());
}

// ---- The trace ----

TEST_F(FlowEsiRequest, TracesEntryAndExitOfTheWriterAndOfTheSize)
{
    TraceFile trace(3);

    EXPECT_RC(0, flow());

    EXPECT_TRUE(wroteInOrder(trace, {3239, 3237, 3238, 2500, 2509, 3210, 3211, 2525, 2529, 3240}));
    char descriptor[16];
    std::snprintf(descriptor, sizeof descriptor, "%d", ours.fd());
    EXPECT_TRUE(trace.wrote(3239, "ENTRY",
                            std::string("clapi_socketcomms.clapiFlowESIRequest(socketDesc=") +
                                descriptor + ", header=" + shown(&header) +
                                ", request=" + shown(&request) + ")"));
    EXPECT_EQ("ENTRY", typesOf(trace)[1]);
    EXPECT_TRUE(trace.wrote(3238, "EXIT", "clapi_socketcomms.calculateESIRequestSize() size=32"));
    EXPECT_TRUE(trace.wrote(3240, "EXIT", "clapi_socketcomms.clapiFlowESIRequest() rc=0"));
}

TEST_F(FlowEsiRequest, TracesTheSizeOfAChange)
{
    asChange("NEWPASS8");
    TraceFile trace(3);

    EXPECT_RC(0, flow());

    EXPECT_TRUE(trace.wrote(3238, "EXIT", "clapi_socketcomms.calculateESIRequestSize() size=44"));
}

TEST_F(FlowEsiRequest, TracesTheFailure)
{
    TraceFile trace(3);
    Fault broken = failCall(Call::Send, 1, EPIPE);

    EXPECT_RC(-102, flow());

    EXPECT_TRUE(trace.wrote(3240, "EXIT", "clapi_socketcomms.clapiFlowESIRequest() rc=-102"));
}

TEST_F(FlowEsiRequest, TracesNoFreeingOfTheBuffer)
{
    TraceFile trace(5);

    EXPECT_RC(0, flow());

    EXPECT_EQ(0, trace.timesWrote(2516));
    EXPECT_EQ(0, trace.timesWrote(2517));
    EXPECT_EQ(0, trace.timesWrote(2518));
}

TEST_F(FlowEsiRequest, TracesNothingAtLevelTwo)
{
    TraceFile trace(2);

    EXPECT_RC(0, flow());

    EXPECT_EQ("", trace.text());
}

TEST_F(FlowEsiRequest, ShowsPasswordsAsAsterisks)
{
    asChange("NEWPASS8");
    TraceFile trace(4);

    EXPECT_RC(0, flow());

    EXPECT_TRUE(
        trace.wroteText("clapi_socketbuffer.flushBuffer() data=<ptr> len=76 stopword=00000000\n"
                        "Data truncation size=128, offset=0\n"
                        "<ptr>: 47617465 10A01000 00000001 00000011 : Gate............ \n"
                        "<ptr>: 00000000 00000003 45534900 0000002C : ........ESI...., \n"
                        "<ptr>: 00000001 434C4552 4B000000 00000000 : ....CLERK....... \n"
                        "<ptr>: 00062A2A 2A2A2A2A 50524F44 31202020 : ..******PROD1    \n"
                        "<ptr>: 00000008 2A2A2A2A 2A2A2A2A          : ....********\n"))
        << trace.text();
    EXPECT_EQ("NEWPASS8", toText(newIn(slice(sent(), 32, 44))));
}

TEST_F(FlowEsiRequest, ShowsNothingOfAPasswordLongerThanTheBuffer)
{
    std::string current;
    for (int at = 0; at < 14000; ++at) current += "\xA1\xB2\xC3\xD4\xE5";
    request.currentPassword = current.c_str();
    QPX_setAPITraceDataLength(0);
    TraceFile trace(5);

    Bytes body = bodySent();

    EXPECT_TRUE(text(current) == currentIn(body));
    Bytes shown = script::dumpedBytes(trace.text());
    EXPECT_TRUE(script::holds(shown, text("CLERK")));
    EXPECT_TRUE(script::holds(shown, text("*********")));
    for (const char* secret : {"A1B2", "B2C3", "C3D4", "D4E5", "E5A1",  // clear
                               "1371", "7117", "1731", "3144", "4413"}) // scrambled
        EXPECT_FALSE(script::holds(shown, hex(secret))) << secret;
}

// The save area of a password holds its scrambled bytes while the flow is dumped; of these the
// first four are overwritten afterwards, and it is those four only.
TEST_F(FlowEsiRequest, OverwritesFourBytesOfTheSaveAreaWhileTheRequestIsStaged)
{
    std::vector<MaskArea*> areas;
    Fault blocks = afterCall(Call::Malloc, 0, [&](const CallInfo& info) {
        if (info.first == sizeof(MaskArea) + 6) areas.push_back((MaskArea*)info.result); // NOLINT
    });
    Bytes saved;
    Fault sending = beforeCall(Call::Send, 1, [&](const CallInfo&) {
        for (MaskArea* area : areas) saved += Bytes(area->lstore, area->lstore + area->length);
    });
    TraceFile trace(4);

    EXPECT_RC(0, flow());

    EXPECT_EQ("2A2A2A2A 1711", toHex(saved));
}

} // namespace
