// What channels and containers leave in memory: nothing. Data and records are overwritten before
// they are given back, and everything is given back once.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <stdexcept>

#include "unit/channel_fixture.h"

using namespace fixture;
using namespace support;

namespace {

// The blocks that the library takes while this lives, and what is in them when it gives them back.
class Blocks {
public:
    Blocks()
        : takes_(afterCall(Call::Malloc, 0, [this](const CallInfo& info) { take(info); })),
          gives_(beforeCall(Call::Free, 0, [this](const CallInfo& info) { give(info); }))
    {
    }

    // The bytes of a block at its last release.
    std::string givenBack(const void* block) const
    {
        auto at = given_.find(reinterpret_cast<std::uintptr_t>(block));
        if (at == given_.end()) throw std::runtime_error("not given back");
        return at->second;
    }
    bool isGivenBack(const void* block) const
    {
        return given_.count(reinterpret_cast<std::uintptr_t>(block)) != 0;
    }

    std::size_t taken() const { return taken_; }
    std::size_t inUse() const { return sizes_.size(); }
    std::size_t dirty() const { return dirty_; } // given back with something in them

private:
    void take(const CallInfo& info)
    {
        if (info.result == 0) return;
        std::size_t size = info.second != 0 ? info.first * info.second : info.first;
        sizes_[static_cast<std::uintptr_t>(info.result)] = size;
        taken_ += 1;
    }

    void give(const CallInfo& info)
    {
        auto at = sizes_.find(info.first);
        if (at == sizes_.end()) return;
        std::string bytes(reinterpret_cast<const char*>(info.first), at->second);
        if (bytes != std::string(bytes.size(), '\0')) dirty_ += 1;
        given_[info.first] = bytes;
        sizes_.erase(at);
    }

    std::map<std::uintptr_t, std::size_t> sizes_;
    std::map<std::uintptr_t, std::string> given_;
    std::size_t taken_ = 0;
    std::size_t dirty_ = 0;
    Fault takes_;
    Fault gives_;
};

std::string zeros(std::size_t count)
{
    return std::string(count, '\0');
}

const std::string secret = "secret data";

// A channel with a container SECRET.
class ChannelMemory : public ::testing::Test {
protected:
    ChannelMemory()
    {
        settleCodePage();
        channel_ = std::make_unique<Channel>();
        channel_->addBit("SECRET", secret);
        container = token()->firstCont;
        data = container->dataPtr;
        EXPECT_EQ(secret, std::string(data, secret.size()));
    }

    ECI_ChannelToken_t token() const { return channel_->token; }
    ECI_ChannelToken_t* variable() const { return &channel_->token; }

    const int started = clapiInit(); // takes a block that stays
    Blocks blocks;                   // ends after the channel
    const ECI_Container_t* container;
    const char* data;

private:
    std::unique_ptr<Channel> channel_;
};

} // namespace

// ---- Deletion ----------------------------------------------------------------------------------

TEST_F(ChannelMemory, OfADeletedContainerIsOverwritten)
{
    ASSERT_RC(0, ECI_deleteContainer(token(), "SECRET"));
    EXPECT_EQ(zeros(11), blocks.givenBack(data));
    EXPECT_EQ(zeros(sizeof(ECI_Container_t)), blocks.givenBack(container));
}

TEST_F(ChannelMemory, OfADeletedChannelIsOverwritten)
{
    const void* channel = token();
    ASSERT_RC(0, ECI_deleteChannel(variable()));
    EXPECT_EQ(zeros(11), blocks.givenBack(data));
    EXPECT_EQ(zeros(sizeof(ECI_Container_t)), blocks.givenBack(container));
    EXPECT_EQ(zeros(sizeof(ECI_Channel_t)), blocks.givenBack(channel));
}

TEST_F(ChannelMemory, OfAllDeletedChannelsIsOverwritten)
{
    const void* channel = token();
    ASSERT_RC(0, ECI_deleteAllChannels());
    *variable() = nullptr;
    EXPECT_EQ(zeros(11), blocks.givenBack(data));
    EXPECT_EQ(zeros(sizeof(ECI_Container_t)), blocks.givenBack(container));
    EXPECT_EQ(zeros(sizeof(ECI_Channel_t)), blocks.givenBack(channel));
}

TEST_F(ChannelMemory, OfEveryContainerOfADeletedChannelIsOverwritten)
{
    for (int number = 0; number < 20; ++number)
        ASSERT_RC(0, ECI_createContainer(token(), ("C" + std::to_string(number)).c_str(), ECI_CHAR,
                                         1208, secret.data(), secret.size()));
    ASSERT_RC(0, ECI_deleteChannel(variable()));
    EXPECT_EQ(0u, blocks.dirty());
    EXPECT_EQ(0u, blocks.inUse());
    EXPECT_LE(43u, blocks.taken());
}

TEST_F(ChannelMemory, OfManyChannelsIsGivenBackWhenAllAreDeleted)
{
    for (int number = 0; number < 5; ++number) {
        ECI_ChannelToken_t other = nullptr;
        ASSERT_RC(0, ECI_createChannel("OTHER", &other));
        for (const char* name : {"A", "B", "C"})
            ASSERT_RC(0, ECI_createContainer(other, name, ECI_BIT, 0, "data", 4));
    }
    ASSERT_RC(0, ECI_deleteAllChannels());
    *variable() = nullptr;
    EXPECT_EQ(0u, blocks.dirty());
    EXPECT_EQ(0u, blocks.inUse());
}

// ---- Other data --------------------------------------------------------------------------------

TEST_F(ChannelMemory, OfDataReplacedByLongerDataIsOverwritten)
{
    ASSERT_RC(0, ECI_setContainerData(token(), "SECRET", "much longer data", 16));
    EXPECT_EQ(zeros(11), blocks.givenBack(data));
    EXPECT_EQ("much longer data", std::string(container->dataPtr, 16));
}

TEST_F(ChannelMemory, OfDataReplacedByShorterDataIsOverwritten)
{
    ASSERT_RC(0, ECI_setContainerData(token(), "SECRET", "a", 1));
    EXPECT_EQ(zeros(11), blocks.givenBack(data));
}

TEST_F(ChannelMemory, OfDataReplacedByOtherOfTheSameLengthIsOverwritten)
{
    ASSERT_RC(0, ECI_setContainerData(token(), "SECRET", "public data", 11));
    EXPECT_EQ(zeros(11), blocks.givenBack(data));
    EXPECT_EQ("public data", std::string(container->dataPtr, 11));
}

TEST_F(ChannelMemory, OfDataRemovedIsOverwritten)
{
    ASSERT_RC(0, ECI_setContainerData(token(), "SECRET", nullptr, 0));
    EXPECT_EQ(zeros(11), blocks.givenBack(data));
    EXPECT_EQ(nullptr, container->dataPtr);
    EXPECT_EQ(0u, container->dataLength);
}

// The new data stands in a block of its own before the old block is given back.
TEST_F(ChannelMemory, OfDataOfTheSameLengthIsGivenBackAfterTheNewIsThere)
{
    ASSERT_RC(0, ECI_setContainerData(token(), "SECRET", "public data", 11));
    EXPECT_NE(data, container->dataPtr);
}

// A container may be given its own bytes.
TEST_F(ChannelMemory, OfItsOwnDataGivenAgainIsKept)
{
    ASSERT_RC(0, ECI_setContainerData(token(), "SECRET", data, 11));
    EXPECT_EQ(secret, std::string(container->dataPtr, 11));
}

TEST_F(ChannelMemory, IsGivenBackOnceInALongLife)
{
    for (int round = 0; round < 100; ++round) {
        std::string text(static_cast<std::size_t>(round % 7), 'x');
        ASSERT_RC(0, ECI_setContainerData(token(), "SECRET", text.data(), text.size()));
        ASSERT_RC(0, ECI_setContainerData(token(), "SECRET", text.data(), text.size()));
    }
    ASSERT_RC(0, ECI_deleteChannel(variable()));
    EXPECT_EQ(0u, blocks.dirty());
    EXPECT_EQ(0u, blocks.inUse());
}

// ---- Failures ----------------------------------------------------------------------------------

TEST_F(ChannelMemory, OfDataThatCannotBeReplacedIsOverwritten)
{
    Fault fault = failCall(Call::Malloc, 1, ENOMEM);
    ASSERT_RC(-111, ECI_setContainerData(token(), "SECRET", "much longer data", 16));
    EXPECT_EQ(zeros(11), blocks.givenBack(data));
    EXPECT_EQ(nullptr, container->dataPtr);
    EXPECT_EQ(0u, container->dataLength);
}

TEST_F(ChannelMemory, OfDataThatCannotBeReplacedByTheSameLengthIsOverwritten)
{
    Fault fault = failCall(Call::Malloc, 1, ENOMEM);
    ASSERT_RC(-111, ECI_setContainerData(token(), "SECRET", "public data", 11));
    EXPECT_EQ(zeros(11), blocks.givenBack(data));
    EXPECT_EQ(nullptr, container->dataPtr);
    EXPECT_EQ(0u, container->dataLength);
}

TEST_F(ChannelMemory, OfAContainerWithoutRoomForItsDataIsOverwritten)
{
    std::size_t inUse = blocks.inUse();
    std::size_t taken = blocks.taken();
    Fault fault = failCall(Call::Malloc, 2, ENOMEM);
    ASSERT_RC(-111, ECI_createContainer(token(), "NEW", ECI_BIT, 0, "data", 4));
    EXPECT_EQ(taken + 1, blocks.taken());
    EXPECT_EQ(inUse, blocks.inUse());
    EXPECT_EQ(0u, blocks.dirty());
}

TEST_F(ChannelMemory, OfAChannelWithoutALockIsOverwritten)
{
    std::size_t inUse = blocks.inUse();
    std::size_t taken = blocks.taken();
    ECI_ChannelToken_t other = nullptr;
    Fault fault = failCall(Call::MutexInit, 1, ENOMEM);
    ASSERT_RC(-53, ECI_createChannel("OTHER", &other));
    EXPECT_EQ(taken + 1, blocks.taken());
    EXPECT_EQ(inUse, blocks.inUse());
    EXPECT_EQ(0u, blocks.dirty());
}

TEST_F(ChannelMemory, OfAChannelWithoutAnEventIsOverwritten)
{
    std::size_t inUse = blocks.inUse();
    std::size_t taken = blocks.taken();
    ECI_ChannelToken_t other = nullptr;
    Fault fault = failCall(Call::CondInit, 1, ENOMEM);
    ASSERT_RC(-53, ECI_createChannel("OTHER", &other));
    EXPECT_EQ(taken + 1, blocks.taken());
    EXPECT_EQ(inUse, blocks.inUse());
    EXPECT_EQ(0u, blocks.dirty());
}

TEST_F(ChannelMemory, OfAChannelThatCannotBeListedIsOverwritten)
{
    std::size_t inUse = blocks.inUse();
    ECI_ChannelToken_t other = nullptr;
    Fault fault = failCallOn(Call::MutexLock, &chanListLock.lock, 1, EINVAL);
    ASSERT_RC(-9, ECI_createChannel("OTHER", &other));
    EXPECT_EQ(inUse, blocks.inUse());
    EXPECT_EQ(0u, blocks.dirty());
}

TEST_F(ChannelMemory, IsNotTouchedByReading)
{
    std::size_t inUse = blocks.inUse();
    char buffer[20];
    ECI_CONTAINER_INFO info;
    EXPECT_RC(0, ECI_getContainerData(token(), "SECRET", buffer, 20, 0, nullptr));
    EXPECT_RC(0, ECI_getContainerInfo(token(), "SECRET", &info));
    EXPECT_RC(0, ECI_getFirstContainer(token(), &info));
    EXPECT_FALSE(blocks.isGivenBack(data));
    EXPECT_EQ(inUse, blocks.inUse());
}

TEST_F(ChannelMemory, OfADumpIsGivenBack)
{
    TraceFile trace(0);
    std::size_t inUse = blocks.inUse();
    EXPECT_RC(0, QPX_ECI_dumpChannels());
    EXPECT_EQ(inUse, blocks.inUse());
}
