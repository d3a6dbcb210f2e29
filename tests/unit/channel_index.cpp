// Finding containers among many: by an index of their names, or along the list where there is none.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <random>
#include <string>

#include "unit/channel_fixture.h"

using namespace fixture;
using support::Call;
using support::Channel;
using support::failCall;
using support::Fault;

namespace {

constexpr int firstIndexed = 16; // a channel with fewer containers has no index

class ManyContainers : public ::testing::Test {
protected:
    // C1, C2 ...: so many containers, each of which holds its name.
    void add(int count)
    {
        for (int number = 1; number <= count; ++number)
            channel.addBit(name(number).c_str(), name(number));
    }
    static std::string name(int number) { return "C" + std::to_string(number); }

    // What a container holds, or the return code as text.
    std::string read(const std::string& wanted)
    {
        char buffer[32];
        size_t length = 0;
        int rc = ECI_getContainerData(channel.token, wanted.c_str(), buffer, sizeof buffer, 0,
                                      &length);
        return rc == 0 ? std::string(buffer, length) : std::to_string(rc);
    }

    void expectAll(int count)
    {
        for (int number = 1; number <= count; ++number) EXPECT_EQ(name(number), read(name(number)));
        EXPECT_EQ(std::to_string(ECI_ERR_CONTAINER_NOTFOUND), read(name(count + 1)));
        EXPECT_EQ(std::to_string(ECI_ERR_CONTAINER_NOTFOUND), read("C"));
    }

    Channel channel;
};

TEST_F(ManyContainers, AreFoundWhateverTheirNumber)
{
    for (int count = 1; count <= 300; ++count) {
        channel.addBit(name(count).c_str(), name(count));
        EXPECT_EQ(name(count), read(name(count)));
        EXPECT_EQ(name(1), read(name(1)));
        EXPECT_EQ(name((count + 1) / 2), read(name((count + 1) / 2)));
    }
    expectAll(300);
}

TEST_F(ManyContainers, AreFoundWithoutMemoryForTheirIndex)
{
    add(firstIndexed - 1);
    {
        Fault noMemory = failCall(Call::Malloc, 3, ENOMEM); // behind the container and its data
        channel.addBit(name(firstIndexed).c_str(), name(firstIndexed));
        EXPECT_EQ(1, noMemory.hits());
    }
    expectAll(firstIndexed);
}

TEST_F(ManyContainers, AreGoneOnceTheyAreDeleted)
{
    add(200);
    for (int number = 3; number <= 200; number += 3)
        EXPECT_RC(0, ECI_deleteContainer(channel.token, name(number).c_str()));

    for (int number = 1; number <= 200; ++number) {
        std::string expected = number % 3 == 0 ? std::to_string(ECI_ERR_CONTAINER_NOTFOUND)
                                               : name(number);
        EXPECT_EQ(expected, read(name(number)));
    }
    EXPECT_RC(ECI_ERR_CONTAINER_NOTFOUND, ECI_deleteContainer(channel.token, "C3"));
}

// A reply can add a container of a name that there is already.
TEST_F(ManyContainers, AreFoundByTheNewerOfTwoWithOneName)
{
    add(50);
    auto* second = static_cast<ECI_Container_t*>(std::calloc(1, sizeof(ECI_Container_t)));
    clapiInitializeContainer(second);
    std::memcpy(second->name, "C7", 2);
    clapiLinkContainer(channel.token, second);

    EXPECT_EQ(second, clapiFindContainer(channel.token, "C7"));
    EXPECT_RC(0, ECI_deleteContainer(channel.token, "C7"));

    EXPECT_EQ("C7", read("C7"));
    EXPECT_RC(0, ECI_deleteContainer(channel.token, "C7"));
    EXPECT_EQ(nullptr, clapiFindContainer(channel.token, "C7"));
}

TEST_F(ManyContainers, AreToldApartByTheirLastLetter)
{
    for (char letter = 'A'; letter <= 'Z'; ++letter)
        channel.addBit((std::string(15, 'X') + letter).c_str(), std::string(1, letter));

    for (char letter = 'A'; letter <= 'Z'; ++letter)
        EXPECT_EQ(std::string(1, letter), read(std::string(15, 'X') + letter));
    EXPECT_EQ(std::to_string(ECI_ERR_CONTAINER_NOTFOUND), read(std::string(15, 'X')));
}

TEST_F(ManyContainers, StandInTheListTheNewestFirst)
{
    add(100);

    EXPECT_EQ(name(100), channel.first());
    for (int number = 99; number >= 1; --number) EXPECT_EQ(name(number), channel.next());
}

TEST_F(ManyContainers, AreAsAModelHasThemAfterAnyChanges)
{
    std::mt19937 random(4711);
    std::deque<std::string> model; // the newest first
    for (int step = 0; step < 5000; ++step) {
        std::string wanted = name(static_cast<int>(random() % 90));
        auto place = std::find(model.begin(), model.end(), wanted);
        bool isThere = place != model.end();
        if (random() % 3 != 0) {
            int expected = isThere ? ECI_ERR_CONTAINER_EXISTS : 0;
            EXPECT_RC(expected, ECI_createContainer(channel.token, wanted.c_str(), ECI_BIT, 0,
                                                    wanted.data(), wanted.size()));
            if (!isThere) model.push_front(wanted);
        } else {
            int expected = isThere ? 0 : ECI_ERR_CONTAINER_NOTFOUND;
            EXPECT_RC(expected, ECI_deleteContainer(channel.token, wanted.c_str()));
            if (isThere) model.erase(place);
        }
    }
    ASSERT_FALSE(model.empty());
    EXPECT_EQ(model.front(), channel.first());
    for (std::size_t at = 1; at < model.size(); ++at) EXPECT_EQ(model[at], channel.next());
    for (const std::string& each : model) EXPECT_EQ(each, read(each));
}

} // namespace
