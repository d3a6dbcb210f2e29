// Long random sequences of container calls on several channels, held against a model of a few
// lines; and threads that share channels.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "qpxclient_eci.h"
#include "support/call_in_thread.h"
#include "support/channels.h"
#include "support/expect_rc.h"

using namespace support;

namespace {

constexpr int channelCount = 4;
constexpr int localCcsid = 920; // LANG is tr_TR

struct ModelContainer {
    std::string name;
    int type;
    int ccsid;
    std::string data;
};

// What a channel should be: its containers newest first, and how many of them browsing has left
// behind, counting the one where it stands.
struct ModelChannel {
    std::vector<ModelContainer> containers;
    std::size_t position = 0;
    int ccsid = -1;

    std::size_t find(const std::string& name) const
    {
        auto at = std::find_if(containers.begin(), containers.end(),
                               [&](const ModelContainer& each) { return each.name == name; });
        return static_cast<std::size_t>(at - containers.begin());
    }
    bool has(const std::string& name) const { return find(name) < containers.size(); }

    int create(const std::string& name, int type, int newCcsid, const std::string& data)
    {
        if (has(name)) return -59;
        if (type == 2) {
            if (ccsid == -1) ccsid = newCcsid != 0 ? newCcsid : localCcsid;
            if (newCcsid == 0) newCcsid = ccsid;
        } else {
            newCcsid = 0;
        }
        containers.insert(containers.begin(), ModelContainer{name, type, newCcsid, data});
        if (position > 0) position += 1;
        return 0;
    }

    int remove(const std::string& name)
    {
        std::size_t at = find(name);
        if (at == containers.size()) return -58;
        containers.erase(containers.begin() + static_cast<std::ptrdiff_t>(at));
        if (at < position) position -= 1;
        return 0;
    }

    // Behind the last container the end is told once; then browsing begins anew.
    int next()
    {
        if (position == containers.size()) {
            position = 0;
            return -54;
        }
        position += 1;
        return 0;
    }
};

// One random step after the other, on the library and on the model.
class Steps {
public:
    explicit Steps(unsigned int seed) : random_(seed)
    {
        for (int number = 0; number < channelCount; ++number)
            channels_.push_back(std::make_unique<Channel>());
        models_.resize(channelCount);
    }

    // Makes a step; whether both agree.
    ::testing::AssertionResult make()
    {
        std::size_t number = below(channelCount);
        token_ = channels_[number]->token;
        model_ = &models_[number];
        switch (below(9)) {
        case 0:
        case 1: return create();
        case 2: return remove();
        case 3:
        case 4: return set();
        case 5: return get();
        case 6: return info();
        case 7: return below(4) == 0 ? first() : next();
        default: return next();
        }
    }

private:
    std::size_t below(std::size_t limit) { return random_() % limit; }

    std::string name() { return "C" + std::to_string(below(12)); }

    std::string data()
    {
        std::string bytes(below(4) == 0 ? 0 : below(300), '\0');
        for (char& byte : bytes) byte = static_cast<char>(random_());
        return bytes;
    }

    static ::testing::AssertionResult same(const char* call, const std::string& expected,
                                           const std::string& actual)
    {
        if (expected == actual) return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure()
               << call << " gave\n  " << actual << "\n  expected\n  " << expected;
    }

    ::testing::AssertionResult create()
    {
        static const int ccsids[] = {0, 0, 819, 1208};
        std::string called = name();
        std::string bytes = data();
        int type = below(2) == 0 ? 1 : 2;
        int ccsid = ccsids[below(4)];
        int expected = model_->create(called, type, ccsid, bytes);
        int rc = ECI_createContainer(token_, called.c_str(), static_cast<ECI_CONTAINER_TYPE>(type),
                                     ccsid, bytes.data(), bytes.size());
        return same("create", std::to_string(expected), std::to_string(rc));
    }

    ::testing::AssertionResult remove()
    {
        std::string called = name();
        int expected = model_->remove(called);
        int rc = ECI_deleteContainer(token_, called.c_str());
        return same("delete", std::to_string(expected), std::to_string(rc));
    }

    ::testing::AssertionResult set()
    {
        std::string called = name();
        std::string bytes = data();
        bool there = model_->has(called);
        if (there) {
            std::string& old = model_->containers[model_->find(called)].data;
            if (below(3) == 0) bytes.resize(old.size(), 's'); // the same length
            old = bytes;
        }
        int rc = ECI_setContainerData(token_, called.c_str(), bytes.data(), bytes.size());
        return same("set", there ? "0" : "-58", std::to_string(rc));
    }

    ::testing::AssertionResult get()
    {
        std::string called = name();
        std::size_t offset = below(8) == 0 ? SIZE_MAX - below(4) : below(320);
        std::size_t length = below(8) == 0 ? SIZE_MAX - below(320) : below(320);
        std::string expected = "-58";
        if (model_->has(called)) {
            const std::string& whole = model_->containers[model_->find(called)].data;
            expected = offset < whole.size() ? whole.substr(offset, length) : "";
            expected = "0 " + std::to_string(expected.size()) + " " + expected;
        }
        char buffer[320];
        std::memset(buffer, '?', sizeof buffer);
        std::size_t count = 0;
        int rc = ECI_getContainerData(token_, called.c_str(), buffer, length, offset, &count);
        std::string actual = std::to_string(rc);
        if (rc == 0) actual += " " + std::to_string(count) + " " + std::string(buffer, count);
        return same("get", expected, actual);
    }

    ::testing::AssertionResult info()
    {
        std::string called = name();
        std::string expected = "-58";
        if (model_->has(called)) expected = described(model_->containers[model_->find(called)]);
        ECI_CONTAINER_INFO record;
        int rc = ECI_getContainerInfo(token_, called.c_str(), &record);
        return same("info", expected, rc == 0 ? described(record) : std::to_string(rc));
    }

    ::testing::AssertionResult first()
    {
        model_->position = 0;
        std::string expected = model_->next() == 0 ? atPosition() : "-54";
        ECI_CONTAINER_INFO record;
        int rc = ECI_getFirstContainer(token_, &record);
        return same("first", expected, rc == 0 ? described(record) : std::to_string(rc));
    }

    ::testing::AssertionResult next()
    {
        std::string expected = model_->next() == 0 ? atPosition() : "-54";
        ECI_CONTAINER_INFO record;
        int rc = ECI_getNextContainer(token_, &record);
        return same("next", expected, rc == 0 ? described(record) : std::to_string(rc));
    }

    std::string atPosition() const { return described(model_->containers[model_->position - 1]); }

    static std::string described(const ModelContainer& container)
    {
        return container.name + " " + std::to_string(container.type) + " " +
               std::to_string(container.ccsid) + " " + std::to_string(container.data.size());
    }

    static std::string described(const ECI_CONTAINER_INFO& record)
    {
        return std::string(record.name) + " " + std::to_string(int(record.type)) + " " +
               std::to_string(int(record.ccsid)) + " " +
               std::to_string(std::size_t(record.dataLength));
    }

    std::mt19937 random_;
    std::vector<std::unique_ptr<Channel>> channels_;
    std::vector<ModelChannel> models_;
    ECI_ChannelToken_t token_ = nullptr;
    ModelChannel* model_ = nullptr;
};

class ChannelModel : public ::testing::TestWithParam<unsigned int> {
protected:
    ChannelModel() { setenv("LANG", "tr_TR", 1); }
};

} // namespace

TEST_P(ChannelModel, AgreesForAHundredThousandSteps)
{
    SCOPED_TRACE("seed " + std::to_string(GetParam()));
    Steps steps(GetParam());
    for (int step = 0; step < 100000; ++step) ASSERT_TRUE(steps.make()) << "step " << step;
}

INSTANTIATE_TEST_SUITE_P(OfSeed, ChannelModel, ::testing::Values(1u, 20261121u));

// ---- Threads -----------------------------------------------------------------------------------

TEST(ChannelThreads, EachKeepItsOwnContainersOnASharedChannel)
{
    constexpr int threads = 8;
    constexpr int rounds = 400;
    Channel channel;
    std::vector<RunningCall<int>> calls;
    for (int number = 0; number < threads; ++number)
        calls.push_back(callInThread([&channel, number] {
            std::string name = "T" + std::to_string(number);
            int failures = 0;
            for (int round = 0; round < rounds; ++round) {
                std::string data = name + ":" + std::to_string(round);
                std::string other(data.size() + static_cast<std::size_t>(round % 3), 'x');
                channel.addChar(name.c_str(), 1208, data);
                if (channel.data(name.c_str()) != data) failures += 1;
                if (ECI_setContainerData(channel.token, name.c_str(), other.data(), other.size()) !=
                    0)
                    failures += 1;
                if (channel.data(name.c_str()) != other) failures += 1;
                if (ECI_deleteContainer(channel.token, name.c_str()) != 0) failures += 1;
            }
            return failures;
        }));
    for (RunningCall<int>& call : calls) EXPECT_EQ(0, call.get());
    EXPECT_EQ("-54", channel.first());
}

TEST(ChannelThreads, CreateTheSameContainerOnce)
{
    constexpr int threads = 8;
    constexpr int rounds = 200;
    Channel channel;
    std::vector<RunningCall<int>> calls;
    for (int number = 0; number < threads; ++number)
        calls.push_back(callInThread([&channel] {
            int created = 0;
            for (int round = 0; round < rounds; ++round) {
                std::string name = "R" + std::to_string(round);
                int rc = ECI_createContainer(channel.token, name.c_str(), ECI_BIT, 0, "data", 4);
                if (rc == 0) created += 1;
                if (rc != 0 && rc != -59) created += 1000000;
            }
            return created;
        }));
    int created = 0;
    for (RunningCall<int>& call : calls) created += call.get();
    EXPECT_EQ(rounds, created);
    EXPECT_EQ(std::size_t{rounds}, channel.names().size());
}

TEST(ChannelThreads, CreateAndDeleteChannelsOfTheirOwn)
{
    constexpr int threads = 8;
    constexpr int rounds = 300;
    Channel stays;
    stays.addBit("STAYS", "data");
    std::vector<RunningCall<int>> calls;
    for (int number = 0; number < threads; ++number)
        calls.push_back(callInThread([number] {
            std::string name = "CHANNEL" + std::to_string(number);
            int failures = 0;
            for (int round = 0; round < rounds; ++round) {
                Channel own(name.c_str());
                char got[ECI_NAME_SIZE];
                own.addBit("A", "1");
                own.addBit("B", "2");
                if (ECI_getChannelName(own.token, got) != 0 || name != got) failures += 1;
                if (own.names() != std::vector<std::string>{"B", "A"}) failures += 1;
                if (ECI_deleteChannel(&own.token) != 0) failures += 1;
            }
            return failures;
        }));
    for (RunningCall<int>& call : calls) EXPECT_EQ(0, call.get());
    EXPECT_EQ("data", stays.data("STAYS"));
}

// Whoever comes first, all see the same code page.
TEST(ChannelThreads, WorkOutTheLocalCodePageOnce)
{
    setenv("LANG", "tr_TR", 1);
    constexpr int threads = 8;
    std::vector<RunningCall<int>> calls;
    for (int number = 0; number < threads; ++number)
        calls.push_back(callInThread([] {
            Channel own;
            own.addChar("TEXT", 0);
            return int(own.info("TEXT").ccsid);
        }));
    for (RunningCall<int>& call : calls) EXPECT_EQ(920, call.get());
}
