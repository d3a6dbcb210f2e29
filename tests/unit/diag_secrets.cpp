// Passwords show in no dump, whatever part of a block is asked for.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "clapi_types.h"
#include "standin/gateway.h"
#include "support/esi_script.h"

using namespace script;
using support::EciParms;
using support::readFile;
using support::syncCall;
using support::toHex;
using support::TraceFile;

namespace {

// Signs that stand in no trace, sixteen for the fields of fixed length.
const std::string secret = "!$&;<>?@^{|}~!&$";

std::string scrambled(const std::string& clear)
{
    std::string bytes = clear;
    bytes[0] = static_cast<char>(~clear[0]);
    for (std::size_t at = 1; at < clear.size(); ++at)
        bytes[at] = static_cast<char>(clear[at] ^ clear[at - 1]);
    return bytes;
}

int digit(char character)
{
    if (character >= '0' && character <= '9') return character - '0';
    if (character >= 'A' && character <= 'F') return character - 'A' + 10;
    return -1;
}

// The bytes of all dumps of a trace, one behind the other.
std::string bytesInDumps(const std::string& trace)
{
    std::string bytes;
    std::istringstream lines(trace);
    for (std::string line; std::getline(lines, line);) {
        std::size_t at = line.find(": ");
        if (line.compare(0, 2, "0x") != 0 || at == std::string::npos) continue;
        constexpr std::size_t digitsOfALine = 35;
        std::string digits;
        for (char character : line.substr(at + 2, digitsOfALine))
            if (character != ' ') digits += character;
        for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
            bytes += static_cast<char>(digit(digits[i]) * 16 + digit(digits[i + 1]));
    }
    return bytes;
}

// Whether four bytes in a row of the secret are in the text.
bool shows(const std::string& bytes, const std::string& hidden)
{
    for (std::size_t at = 0; at + 4 <= hidden.size(); ++at)
        if (bytes.find(hidden.substr(at, 4)) != std::string::npos) return true;
    return false;
}

class DumpSecrets : public ::testing::Test {
protected:
    void SetUp() override
    {
        gateway.setEsiReply([](const standin::EsiRequest&) { return standin::EsiReply(); });
        ASSERT_RC(0, QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, 30));
    }
    ~DumpSecrets() override
    {
        QPX_closeGatewayConnection(&token);
        QPX_setAPITraceDataLength(128);
        QPX_setAPITraceDataOffset(0);
    }

    void callOfVersion(int version)
    {
        EciParms parms = syncCall("ECHO", text("a plain question"));
        parms.withVersion(version);
        parms.withFixedUser("CLERK", secret);
        EXPECT_RC(0, QPX_ECI_Execute(token, &parms.record));
        EXPECT_EQ(toHex(text(secret)), toHex(text(gateway.lastRequest()->eci->password)));
    }
    void callOfVersionSix()
    {
        EciParms parms = syncCall("ECHO", text("a plain question"));
        parms.withUser("CLERK", secret);
        EXPECT_RC(0, QPX_ECI_Execute(token, &parms.record));
    }
    void changePassword()
    {
        EXPECT_RC(0, QPX_ESI_changePassword(token, "CLERK", secret.c_str(), secret.c_str(), "PROD",
                                            details.get()));
    }

    // Makes every call that has a password and looks at what has been traced.
    void expectNoSecretAt(std::size_t length, std::size_t offset)
    {
        QPX_setAPITraceDataLength(length);
        QPX_setAPITraceDataOffset(offset);
        ASSERT_EQ(0, truncate(trace.path().c_str(), 0));
        callOfVersion(3);
        callOfVersion(4);
        callOfVersionSix();
        changePassword();
        std::string written = readFile(trace.path());
        EXPECT_TRUE(support::contains(written, "[1504] ")); // the record
        EXPECT_TRUE(support::contains(written, "[2526] ")); // what is sent
        std::string bytes = bytesInDumps(written);
        EXPECT_FALSE(shows(written, secret)) << length << " bytes from " << offset;
        EXPECT_FALSE(shows(bytes, secret)) << length << " bytes from " << offset;
        EXPECT_FALSE(shows(bytes, scrambled(secret))) << length << " bytes from " << offset;
    }

    standin::Gateway gateway;
    QPX_ConnToken_t token = nullptr;
    Details details;
    TraceFile trace{4};
};

} // namespace

TEST(BytesInDumps, AreThoseOfTheLines)
{
    std::string bytes = bytesInDumps("Data truncation size=128, offset=0\n"
                                     "0x1234: 41424344 45464748 494A4B4C 4D4E4F50 : ABCDEFGHIJ \n"
                                     "0x1244: 2124263B 51                         : !$&;Q\n");
    EXPECT_EQ("ABCDEFGHIJKLMNOP!$&;Q", bytes);
    EXPECT_TRUE(shows(bytes, secret));
    EXPECT_FALSE(shows("ABCD", secret));
}

TEST_F(DumpSecrets, AreInNoneAtAnyOffset)
{
    for (std::size_t offset = 0; offset <= 400 && !HasFailure(); ++offset)
        expectNoSecretAt(offset % 2 == 0 ? 0 : 128, offset);
}

TEST_F(DumpSecrets, AreInNoneAtALargeOffset)
{
    const std::size_t offsets[] = {1000, 33000, 1U << 31U, SIZE_MAX - 400, SIZE_MAX - 1, SIZE_MAX};
    for (std::size_t offset : offsets)
        for (std::size_t length : {std::size_t{0}, std::size_t{128}})
            expectNoSecretAt(length, offset);
}
