// The password of a call, which the library keeps on the stack while the call is under way.
#include <gtest/gtest.h>

#include <cstring>
#include <future>
#include <string>

#include "support/eci_script.h"

using namespace script;
using support::EciParms;
using support::syncCall;

namespace {

// Sixteen characters, as long as the field; of no two of them does another text consist.
const char secret[] = "!$&;<>?@^{|}~@!&";
constexpr std::size_t secretSize = sizeof secret - 1;
constexpr std::size_t piece = 4;

// How often a piece of the secret stands in what calls before this one have left of their frames.
__attribute__((noinline)) int findingsBelow()
{
    constexpr std::size_t depth = 32768;
    volatile char left[depth];
    __asm__ volatile("" : "=m"(left)); // deliberate: it is read as it is found
    const volatile char* bytes = left;
    int found = 0;
    for (std::size_t at = 0; at + piece <= depth; ++at)
        for (std::size_t from = 0; from + piece <= secretSize; ++from) {
            std::size_t same = 0;
            while (same < piece && bytes[at + same] == secret[from + same]) same += 1;
            if (same == piece) found += 1;
        }
    return found;
}

} // namespace

TEST(PasswordOnTheStack, IsOverwrittenWhenTheCallReturns)
{
    ScriptedConnection connection;
    EciParms parms = syncCall("PROG");
    parms.withVersion(ECI_VERSION_4);
    std::memcpy(parms.record.eci_password, secret, secretSize);
    auto answer = std::async(std::launch::async, [&] {
        Request request = connection.awaitRequest();
        connection.peer.send(ProgramReply().to(request.messageId()));
    });

    int rc = QPX_ECI_Execute(connection.token, &parms.record);
    int found = findingsBelow();

    answer.get();
    EXPECT_RC(0, rc);
    EXPECT_EQ(0, found);
}
