// Passwords stay where they belong: in the caller's memory and on the wire. They are in no trace,
// in no log of the stand-in gateway, and in no memory that the library gives back.
#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <random>
#include <string>
#include <unordered_set>
#include <vector>

#include "clapi_socketbuffer.h"
#include "standin/gateway.h"
#include "support/esi_script.h"
#include "support/faults.h"

using namespace script;
using support::beforeCall;
using support::Call;
using support::CallInfo;
using support::EciParms;
using support::failCall;
using support::failCallsFrom;
using support::failEveryCall;
using support::Fault;
using support::syncCall;
using support::Threads;
using support::toHex;
using support::TraceFile;

namespace {

std::string scrambled(const std::string& clear)
{
    std::string bytes = clear;
    bytes[0] = static_cast<char>(~clear[0]);
    for (std::size_t at = 1; at < clear.size(); ++at)
        bytes[at] = static_cast<char>(clear[at] ^ clear[at - 1]);
    return bytes;
}

// Finds secrets, clear or scrambled: short ones as a whole, of longer ones any six bytes.
class SecretFinder {
public:
    void add(const std::string& secret)
    {
        if (secret.size() < shortest) throw std::invalid_argument("a secret that is too short");
        addPieces(secret);
        addPieces(scrambled(secret));
    }
    void clear()
    {
        pieces_.clear();
        beginnings_.assign(beginnings_.size(), false);
    }

    // What was found of them, in hexadecimal; empty when there is nothing.
    std::string findIn(const char* bytes, std::size_t size) const
    {
        for (std::size_t length = shortest; length <= longest; ++length)
            for (std::size_t at = 0; at + length <= size; ++at)
                if (isPiece(bytes + at, length))
                    return toHex(text(std::string(bytes + at, length)));
        return "";
    }
    std::string findIn(const Bytes& bytes) const
    {
        return findIn(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    }
    std::string findIn(const std::string& bytes) const
    {
        return findIn(bytes.data(), bytes.size());
    }

private:
    static constexpr std::size_t shortest = 4;
    static constexpr std::size_t longest = 6;

    void addPieces(const std::string& secret)
    {
        std::size_t length = std::min(secret.size(), longest);
        for (std::size_t at = 0; at + length <= secret.size(); ++at) {
            pieces_.insert(secret.substr(at, length));
            beginnings_[beginning(secret.data() + at)] = true;
        }
    }

    // Most bytes begin no secret, and are passed without a string being made.
    bool isPiece(const char* bytes, std::size_t length) const
    {
        return beginnings_[beginning(bytes)] && pieces_.count(std::string(bytes, length)) != 0;
    }

    static std::size_t beginning(const char* bytes)
    {
        return static_cast<std::size_t>(static_cast<unsigned char>(bytes[0])) * 256 +
               static_cast<unsigned char>(bytes[1]);
    }

    std::unordered_set<std::string> pieces_;
    std::vector<bool> beginnings_ = std::vector<bool>(65536);
};

// Looks at every block that the library gives back while this lives. What it takes is filled, so
// that nothing in it is left of others who had the memory before, such as the test itself.
class FreedBlocks {
public:
    FreedBlocks()
        : taking_(support::afterCall(Call::Malloc, 0, [](const CallInfo& info) { fill(info); })),
          freeing_(beforeCall(Call::Free, 0, [this](const CallInfo& info) { look(info.first); }))
    {
    }

    void watchFor(const std::string& secret)
    {
        std::lock_guard<std::mutex> hold(mutex_);
        finder_.add(secret);
    }
    void forget()
    {
        std::lock_guard<std::mutex> hold(mutex_);
        finder_.clear();
    }

    std::vector<std::string> leaks() const
    {
        std::lock_guard<std::mutex> hold(mutex_);
        return leaks_;
    }
    int seen() const
    {
        std::lock_guard<std::mutex> hold(mutex_);
        return seen_;
    }

private:
    void look(std::uintptr_t address)
    {
        if (address == 0) return;
        std::lock_guard<std::mutex> hold(mutex_);
        seen_ += 1;
        auto* block = reinterpret_cast<char*>(address);
        std::size_t size = malloc_usable_size(block);
        std::string found = finder_.findIn(block, size);
        if (!found.empty())
            leaks_.push_back(found + " in a block of " + std::to_string(size) + " bytes");
    }

    // Only what malloc gave: a size, and no second argument.
    static void fill(const CallInfo& info)
    {
        constexpr std::uintptr_t largest = 1 << 24;
        auto* block = (char*)info.result; // NOLINT: numbers and pointers alike
        if (block == nullptr || info.second != 0 || info.first > largest) return;
        std::memset(block, 0xDB, malloc_usable_size(block));
    }

    mutable std::mutex mutex_;
    SecretFinder finder_;
    std::vector<std::string> leaks_;
    int seen_ = 0;
    Fault taking_;
    Fault freeing_;
};

// Passwords that nothing else looks like: signs that stand in no trace, and bytes from 0xA1 on.
// None stands twice in a row, for what is scrambled would have the zeros of much else there.
class PasswordMaker {
public:
    PasswordMaker() : seed_(std::random_device()()), random_(seed_) {}

    unsigned int seed() const { return seed_; }
    std::size_t number(std::size_t least, std::size_t most)
    {
        return std::uniform_int_distribution<std::size_t>(least, most)(random_);
    }
    std::string password(std::size_t length)
    {
        static const std::string signs = "!$&;<>?@^{|}~";
        std::string made;
        while (made.size() < length) {
            bool isSign = made.empty() || number(0, 1) == 0;
            char next = isSign ? signs[number(0, signs.size() - 1)]
                               : static_cast<char>(number(0xA1, 0xFE));
            if (made.empty() || next != made.back()) made.push_back(next);
        }
        return made;
    }

private:
    unsigned int seed_;
    std::mt19937 random_;
};

// The log of a stand-in gateway.
class Log {
public:
    standin::LogSink sink()
    {
        return [this](standin::LogLevel, const std::string& line) {
            std::lock_guard<std::mutex> hold(mutex_);
            text_ += line + "\n";
        };
    }
    std::string text() const
    {
        std::lock_guard<std::mutex> hold(mutex_);
        return text_;
    }

private:
    mutable std::mutex mutex_;
    std::string text_;
};

// ---- The finder itself ----

TEST(SecretFinder, FindsWholeAndPartialSecretsInEveryForm)
{
    SecretFinder finder;
    finder.add("!;~@");
    finder.add("{|}$&<>?^!");

    EXPECT_EQ("213B7E40", finder.findIn(std::string("abc!;~@def")));
    EXPECT_EQ("DE1A453E", finder.findIn(hex("00 DE1A453E 00")));
    EXPECT_EQ("7D24263C 3E3F", finder.findIn(std::string("xx}$&<>?")));
    EXPECT_EQ("07015902 1A02", finder.findIn(hex("00 07015902 1A02 00")));
    EXPECT_EQ("", finder.findIn(std::string("abc!;~def{|}$&def")));
}

// A library that leaves a secret in a block is found out.
TEST(FreedBlocks, AreSearched)
{
    auto sockets = support::socketPair();
    SocketBuffer buffer;
    std::memset(&buffer, 0, sizeof buffer);
    ASSERT_RC(0, initWriteBuffer(&buffer, sockets.first.fd(), 100));
    Fault leaving = beforeCall(Call::Free, 1, [](const CallInfo& info) {
        std::memcpy(reinterpret_cast<char*>(info.first) + 91, "$ECRET&!", 8);
    });
    FreedBlocks freed;
    freed.watchFor("$ECRET&!");

    ASSERT_RC(0, freeBuffer(&buffer));

    ASSERT_EQ(1U, freed.leaks().size());
    EXPECT_EQ(0U, freed.leaks()[0].find("24454352 4554 in a block of "));
}

// ---- Five hundred calls ----

class Secrets : public ::testing::Test {
protected:
    Secrets() : gateway(options()) {}

    void SetUp() override
    {
        RecordProperty("seed", std::to_string(maker.seed()));
        gateway.setEsiReply([](const standin::EsiRequest& request) {
            standin::EsiReply reply;
            if (request.userId == "REFUSED") reply.vornRc = -106;
            return reply;
        });
        ASSERT_RC(0, QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, 30));
        QPX_setAPITraceDataLength(0);
    }

    standin::GatewayOptions options()
    {
        standin::GatewayOptions options;
        options.log = log.sink();
        return options;
    }

    // A new password, to be found nowhere.
    const std::string& secret(std::size_t length)
    {
        secrets.push_back(maker.password(length));
        finder.add(secrets.back());
        freed.watchFor(secrets.back());
        return secrets.back();
    }

    std::size_t someLength()
    {
        if (maker.number(0, 199) == 0) return 40000;
        return maker.number(0, 9) == 0 ? maker.number(41, 300) : maker.number(4, 40);
    }

    void verify()
    {
        std::string password = secret(someLength());
        bool refused = maker.number(0, 3) == 0;
        EXPECT_RC(refused ? -302 : 0,
                  QPX_ESI_verifyPassword(token, refused ? "REFUSED" : "CLERK", password.c_str(),
                                         "PROD", details.get()));
        EXPECT_EQ(toHex(text(password)), toHex(text(gateway.lastRequest()->esi->currentPassword)));
    }
    void change()
    {
        std::string old = secret(someLength());
        std::string next = secret(someLength());
        bool refused = maker.number(0, 3) == 0;
        EXPECT_RC(refused ? -302 : 0,
                  QPX_ESI_changePassword(token, refused ? "REFUSED" : "CLERK", old.c_str(),
                                         next.c_str(), nullptr, details.get()));
        EXPECT_EQ(toHex(text(old)), toHex(text(gateway.lastRequest()->esi->currentPassword)));
        EXPECT_EQ(toHex(text(next)), toHex(text(gateway.lastRequest()->esi->newPassword)));
    }
    void callOfVersionFour()
    {
        std::string password = secret(maker.number(4, 16));
        EciParms parms = syncCall("ECHO", text("a plain question"));
        parms.withVersion(4);
        std::memcpy(parms.record.eci_userid, "CLERK", 6);
        std::copy(password.begin(), password.end(), parms.record.eci_password);
        EXPECT_RC(0, QPX_ECI_Execute(token, &parms.record));
        EXPECT_EQ(toHex(text(password)), toHex(text(gateway.lastRequest()->eci->password)));
    }
    void callOfVersionSix()
    {
        std::string password = secret(someLength());
        EciParms parms = syncCall("ECHO", text("a plain question"));
        parms.withUser("CLERK", password);
        EXPECT_RC(0, QPX_ECI_Execute(token, &parms.record));
        EXPECT_EQ(toHex(text(password)), toHex(text(gateway.lastRequest()->eci->password)));
    }
    void makeCall(int number)
    {
        switch (number % 4) {
        case 0: return verify();
        case 1: return change();
        case 2: return callOfVersionFour();
        default: return callOfVersionSix();
        }
    }

    void expectNothingIn(const std::string& trace)
    {
        EXPECT_EQ("", finder.findIn(trace));
        EXPECT_EQ("", finder.findIn(dumpedBytes(trace)));
        EXPECT_TRUE(holds(dumpedBytes(trace), text("CLERK"))); // the dumps are there
    }

    void expectNothingFreed()
    {
        std::vector<std::string> leaks = freed.leaks();
        EXPECT_EQ((std::vector<std::string>{}), leaks) << "seed " << maker.seed();
    }

    PasswordMaker maker;
    Log log;
    standin::Gateway gateway;
    QPX_ConnToken_t token = nullptr;
    Details details;
    std::vector<std::string> secrets;
    SecretFinder finder;
    FreedBlocks freed;
};

TEST_F(Secrets, AreInNoTraceNoLogAndNoFreedBlock)
{
    std::printf("seed %u\n", maker.seed());
    SCOPED_TRACE("seed " + std::to_string(maker.seed()));
    std::vector<std::string> all;
    for (int batch = 0; batch < 20; ++batch) {
        {
            TraceFile trace(5);
            for (int number = 0; number < 25; ++number) makeCall(batch * 25 + number);
            expectNothingIn(trace.text());
        }
        expectNothingFreed();
        all.insert(all.end(), secrets.begin(), secrets.end());
        secrets.clear();
        finder.clear();
        freed.forget();
        gateway.forget();
    }
    EXPECT_LE(500, freed.seen());
    EXPECT_EQ(625U, all.size());

    // The connection itself remembers none of them.
    for (const std::string& password : all) {
        finder.add(password);
        freed.watchFor(password);
    }
    EXPECT_RC(0, QPX_closeGatewayConnection(&token));
    expectNothingFreed();
    EXPECT_TRUE(holds(text(log.text()), text("CLERK")));
    EXPECT_EQ("", finder.findIn(log.text()));
    EXPECT_EQ(0U, gateway.findingCount());
}

// ---- Calls that fail ----

class FailingSecrets : public Secrets {
protected:
    void SetUp() override
    {
        Secrets::SetUp();
        std::printf("seed %u\n", maker.seed());
        old = secret(40);
        next = secret(300);
        longest = secret(70000);
    }

    int change(const std::string& oldPassword, const std::string& newPassword)
    {
        return QPX_ESI_changePassword(token, "CLERK", oldPassword.c_str(), newPassword.c_str(),
                                      "PROD", details.get());
    }
    int verify(const std::string& password)
    {
        return QPX_ESI_verifyPassword(token, "CLERK", password.c_str(), "PROD", details.get());
    }

    // The trace at its most talkative, and every block given back, hold nothing.
    void expectNothing()
    {
        std::string shown = trace.text();
        EXPECT_EQ("", finder.findIn(shown));
        EXPECT_EQ("", finder.findIn(dumpedBytes(shown)));
        EXPECT_EQ("", finder.findIn(log.text()));
        expectNothingFreed();
    }

    TraceFile trace{5};
    std::string old;
    std::string next;
    std::string longest;
};

TEST_F(FailingSecrets, AreGoneWhenTheFlowCannotBeSent)
{
    Fault broken = failCall(Call::Send, 1, EPIPE, Threads::Calling);

    EXPECT_RC(-102, change(old, next));

    EXPECT_EQ(1, broken.hits());
    EXPECT_LE(3, freed.seen());
    expectNothing();
}

TEST_F(FailingSecrets, AreGoneWhenALongFlowBreaksOff)
{
    Fault broken = failCall(Call::Send, 2, EPIPE, Threads::Calling);

    EXPECT_RC(-102, change(longest, next));

    EXPECT_EQ(1, broken.hits());
    expectNothing();
}

TEST_F(FailingSecrets, AreGoneWhenALongFlowIsSent)
{
    EXPECT_RC(0, change(longest, longest));

    expectNothing();
}

TEST_F(FailingSecrets, AreNotShownWhenTheyCouldNotBeRegistered)
{
    Fault noMemory = failCallsFrom(Call::Malloc, 2, ENOMEM, Threads::Calling);

    EXPECT_RC(0, change(old, next));

    EXPECT_LE(1, noMemory.hits());
    expectNothing();
}

TEST_F(FailingSecrets, AreGoneWhenThereIsNoMemoryAtAll)
{
    Fault noMemory = failEveryCall(Call::Malloc, ENOMEM, Threads::Calling);

    EXPECT_RC(-111, change(old, next));

    expectNothing();
}

TEST_F(FailingSecrets, AreGoneWhenACheckFails)
{
    EXPECT_RC(-314, change(old, ""));
    EXPECT_RC(-301, QPX_ESI_verifyPassword(token, "", old.c_str(), nullptr, nullptr));
    EXPECT_RC(-100, QPX_ESI_verifyPassword(nullptr, "CLERK", old.c_str(), nullptr, nullptr));

    expectNothing();
}

TEST_F(FailingSecrets, AreGoneWhenTheConnectionIsLostWhileTheyWait)
{
    gateway.hold();
    auto call = callInThread([this] { return change(old, next); });
    ASSERT_TRUE(gateway.awaitHeld(1));

    gateway.dropConnection();

    EXPECT_RC(-102, call.get());
    expectNothing();
}

TEST_F(FailingSecrets, AreGoneWhenTheConnectionHasEnded)
{
    gateway.dropConnection();
    ASSERT_TRUE(trace.awaitText(receiverEnded));

    EXPECT_RC(-102, change(old, next));
    EXPECT_RC(-102, verify(longest));

    expectNothing();
}

TEST_F(FailingSecrets, AreGoneWhenTheConnectionIsPurged)
{
    gateway.hold();
    auto call = callInThread([this] { return change(old, next); });
    ASSERT_TRUE(gateway.awaitHeld(1));

    EXPECT_RC(0, QPX_purgeGatewayConnection(&token, 0));

    EXPECT_RC(-140, call.get());
    expectNothing();
}

TEST_F(FailingSecrets, AreNotShownInTheDumpOfTheState)
{
    gateway.hold();
    auto call = callInThread([this] { return change(old, next); });
    ASSERT_TRUE(gateway.awaitHeld(1));

    QPX_dumpState();

    gateway.release();
    EXPECT_RC(0, call.get());
    expectNothing();
}

TEST_F(FailingSecrets, AreGoneOfSlotsThatWereAdded)
{
    gateway.hold();
    std::vector<support::RunningCall<int>> calls;
    for (int at = 0; at < 20; ++at)
        calls.push_back(callInThread([this, at] {
            Details own;
            if (at % 2 == 0)
                return QPX_ESI_verifyPassword(token, "CLERK", old.c_str(), nullptr, own.get());
            EciParms parms = syncCall("ECHO", text("question"));
            parms.withVersion(4);
            std::copy(old.begin(), old.begin() + 16, parms.record.eci_password);
            return QPX_ECI_Execute(token, &parms.record);
        }));
    ASSERT_TRUE(gateway.awaitHeld(20));
    gateway.release();
    for (auto& call : calls) EXPECT_RC(0, call.get());

    EXPECT_RC(0, QPX_closeGatewayConnection(&token));

    expectNothing();
}

// ---- While the request is staged ----

// The save area of a password is scrubbed by four bytes when the request has been dumped, not
// more, as long as the flow is staged; see SocketBufferMasked.
TEST_F(FailingSecrets, KeepTheRestOfTheirSaveAreaUntilTheFlowIsSent)
{
    std::vector<MaskArea*> areas;
    Fault blocks = beforeCall(Call::Free, 0, [](const CallInfo&) {});
    Fault taking = support::afterCall(Call::Malloc, 0, [&](const CallInfo& info) {
        if (info.first == sizeof(MaskArea) + old.size() ||
            info.first == sizeof(MaskArea) + next.size())
            areas.push_back((MaskArea*)info.result); // NOLINT: numbers and pointers alike
    });
    std::vector<std::string> saved;
    Fault sending = beforeCall(
        Call::Send, 1,
        [&](const CallInfo&) {
            for (MaskArea* area : areas) saved.emplace_back(area->lstore, area->length);
        },
        Threads::Calling);

    EXPECT_RC(0, change(old, next));

    ASSERT_EQ(2U, saved.size());
    EXPECT_EQ("****" + scrambled(old).substr(4), saved[0]);
    EXPECT_EQ("****" + scrambled(next).substr(4), saved[1]);
    EXPECT_LE(3, blocks.hits());
    expectNothing();
}

} // namespace
