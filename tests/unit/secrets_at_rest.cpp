// Between the calls of a unit of work nothing of the library's memory holds their password.
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "support/eci_script.h"
#include "support/faults.h"

using namespace script;
using support::afterCall;
using support::beforeCall;
using support::Call;
using support::CallInfo;
using support::EciParms;
using support::Fault;

namespace {

// Not on the heap, where a block that the library takes might still show it.
const char secret[] = "!$&;<>?@^{|}~@!&";
constexpr std::size_t secretSize = sizeof secret - 1;

// The blocks that the library has, with their contents.
class LibraryMemory {
public:
    // How often the secret, or six bytes of it, clear or scrambled, stands in some block.
    int findings() const
    {
        std::lock_guard<std::mutex> hold(mutex_);
        int found = 0;
        for (const auto& block : blocks_) found += findingsIn(block.first, block.second);
        return found;
    }
    std::size_t count() const
    {
        std::lock_guard<std::mutex> hold(mutex_);
        return blocks_.size();
    }

private:
    static int findingsIn(std::uintptr_t address, std::size_t size)
    {
        constexpr std::size_t piece = 6;
        const auto* bytes = reinterpret_cast<const char*>(address);
        int found = 0;
        for (std::size_t at = 0; at + piece <= size; ++at)
            for (std::size_t from = 0; from + piece <= secretSize; ++from) {
                if (std::memcmp(bytes + at, secret + from, piece) == 0) ++found;
                bool isScrambled = from != 0;
                for (std::size_t i = 0; i < piece && isScrambled; ++i)
                    isScrambled = bytes[at + i] ==
                                  static_cast<char>(secret[from + i] ^ secret[from + i - 1]);
                if (isScrambled) ++found;
            }
        return found;
    }

    void note(const CallInfo& info)
    {
        std::lock_guard<std::mutex> hold(mutex_);
        blocks_.erase(info.first); // where realloc has moved it from
        auto address = static_cast<std::uintptr_t>(info.result);
        if (address != 0) blocks_[address] = malloc_usable_size(reinterpret_cast<void*>(address));
    }
    void forget(const CallInfo& info)
    {
        std::lock_guard<std::mutex> hold(mutex_);
        blocks_.erase(info.first);
    }

    mutable std::mutex mutex_;
    std::map<std::uintptr_t, std::size_t> blocks_;
    Fault taking_ = afterCall(Call::Malloc, 0, [this](const CallInfo& info) { note(info); });
    Fault freeing_ = beforeCall(Call::Free, 0, [this](const CallInfo& info) { forget(info); });
};

class SecretAtRest : public ::testing::Test {
protected:
    static void putSecret(EciParms& parms)
    {
        std::memcpy(parms.record.eci_userid, "CLERK           ", sizeof parms.record.eci_userid);
        std::memcpy(parms.record.eci_password, secret, secretSize);
    }

    // The request as it arrives, without its password. Returns the message id.
    int takeRequest()
    {
        Request request = connection.awaitRequest();
        explicit_bzero(request.body.data(), request.body.size());
        return request.messageId();
    }

    // A synchronous call of the unit of work.
    int call(int version, int mode, int luwToken, const ProgramReply& reply, int gatewayRc = 0)
    {
        EciParms parms = support::syncCall("PROG", filled(8, 'q'));
        parms.withVersion(version).withExtendMode(mode, luwToken);
        putSecret(parms);
        auto running = connection.start(parms);
        connection.peer.send(reply.to(takeRequest(), gatewayRc));
        int rc = running.get();
        EXPECT_EQ(0, std::memcmp(secret, parms.record.eci_password, secretSize)); // the caller's
        return rc;
    }

    void sendAsync(EciParms& parms)
    {
        parms.withExtendMode(ECI_EXTENDED);
        putSecret(parms);
        ASSERT_RC(0, QPX_ECI_Execute(connection.token, &parms.record));
    }
    int collect(EciParms& parms) { return QPX_ECI_Execute(connection.token, &parms.record); }

    static bool showsSecret(const EciParms& parms)
    {
        return std::memcmp(secret, parms.record.eci_password, secretSize) == 0;
    }

    LibraryMemory memory;
    ScriptedConnection connection;
};

// The copies of the secret that the library overwrites, whole or but a beginning of them.
class Overwritten {
public:
    int whole() const { return whole_.load(); }
    int cut() const { return cut_.load(); }

private:
    void note(const CallInfo& info)
    {
        constexpr std::size_t beginning = 3; // stands nowhere else
        const char* bytes = reinterpret_cast<const char*>(info.first);
        const char* end = bytes + info.second;
        for (const char* at = std::search(bytes, end, secret, secret + beginning); at != end;
             at = std::search(at + 1, end, secret, secret + beginning)) {
            auto left = static_cast<std::size_t>(end - at);
            bool isWhole = left >= secretSize && std::memcmp(at, secret, secretSize) == 0;
            (isWhole ? whole_ : cut_) += 1;
        }
    }

    std::atomic<int> whole_{0};
    std::atomic<int> cut_{0};
    Fault watching_ = beforeCall(Call::Overwrite, 0, [this](const CallInfo& info) { note(info); });
};

class SecretOfVersion : public SecretAtRest, public ::testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(, SecretOfVersion, ::testing::Values(3, 4),
                         [](const auto& one) { return std::to_string(one.param); });

TEST_P(SecretOfVersion, IsGoneBetweenTheCallsOfAUnitOfWork)
{
    EXPECT_RC(0, call(GetParam(), ECI_EXTENDED, 0, ProgramReply().luwToken(7)));
    EXPECT_LT(0U, memory.count());
    EXPECT_EQ(0, memory.findings());

    EXPECT_RC(0, call(GetParam(), ECI_EXTENDED, 7, ProgramReply().luwToken(7)));
    EXPECT_EQ(0, memory.findings());

    EXPECT_RC(0, call(GetParam(), ECI_COMMIT, 7, ProgramReply()));
    EXPECT_EQ(0, memory.findings());
}

TEST_P(SecretOfVersion, IsGoneAfterACallWithoutAUnitOfWork)
{
    EXPECT_RC(0, call(GetParam(), ECI_NO_EXTEND, 0, ProgramReply()));
    EXPECT_EQ(0, memory.findings());
}

TEST_P(SecretOfVersion, IsOverwrittenUpToItsLastCharacter)
{
    Overwritten copies;
    EXPECT_RC(0, call(GetParam(), ECI_NO_EXTEND, 0, ProgramReply()));
    EXPECT_LT(0, copies.whole());
    EXPECT_EQ(0, copies.cut());
}

TEST_P(SecretOfVersion, IsGoneAfterACallThatTheServerRefused)
{
    EXPECT_RC(0, call(GetParam(), ECI_EXTENDED, 0, ProgramReply().luwToken(7)));
    EXPECT_RC(-7, call(GetParam(), ECI_EXTENDED, 7,
                       ProgramReply().luwToken(7).serverCode(-7).abend("AEI0")));
    EXPECT_EQ(0, memory.findings());
}

TEST_P(SecretOfVersion, IsGoneAfterACallThatTheGatewayRefused)
{
    EXPECT_RC(0, call(GetParam(), ECI_EXTENDED, 0, ProgramReply().luwToken(7)));
    EXPECT_RC(61445, call(GetParam(), ECI_EXTENDED, 7, ProgramReply(), 61445));
    EXPECT_EQ(0, memory.findings());
}

TEST_F(SecretAtRest, IsReturnedByTheCollectionAndGoneAfterIt)
{
    EciParms parms = support::asyncCall("PROG", filled(8, 'q'));
    sendAsync(parms);
    int messageId = takeRequest();
    connection.peer.send(ProgramReply().luwToken(7).commarea(text("answered")).to(messageId));

    EciParms collecting = support::getReplyWait(8);
    EXPECT_RC(0, collect(collecting));

    EXPECT_TRUE(showsSecret(collecting));
    EXPECT_EQ("answered", support::toText(collecting.commarea()));
    EXPECT_EQ(7, int(collecting.record.eci_luw_token));
    EXPECT_EQ(0, memory.findings());
}

TEST_F(SecretAtRest, IsReturnedOnceMoreWhenTheFirstCollectionHadTooLittleRoom)
{
    EciParms parms = support::asyncCall("PROG", filled(8, 'q'));
    sendAsync(parms);
    int messageId = takeRequest();
    connection.peer.send(ProgramReply().luwToken(7).commarea(text("answered")).to(messageId));

    EciParms small = support::getReplyWait(3);
    EXPECT_RC(ECI_ERR_INVALID_DATA_LENGTH, collect(small));
    EXPECT_TRUE(showsSecret(small));
    EciParms collecting = support::getReplyWait(8);
    EXPECT_RC(0, collect(collecting));

    EXPECT_TRUE(showsSecret(collecting));
    EXPECT_EQ(0, memory.findings());
}

TEST_F(SecretAtRest, IsGoneAfterTheCollectionOfAFailure)
{
    EciParms parms = support::asyncCall("PROG", filled(8, 'q'));
    sendAsync(parms);
    connection.peer.send(ProgramReply().luwToken(7).serverCode(-7).abend("AEI0").to(takeRequest()));

    EciParms collecting = support::getReplyWait(8);
    EXPECT_RC(-7, collect(collecting));

    EXPECT_TRUE(showsSecret(collecting));
    EXPECT_EQ(0, memory.findings());
}

} // namespace
