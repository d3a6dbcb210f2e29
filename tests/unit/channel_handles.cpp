// Handles that are none, or no longer, are refused without a look at what they point to.

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "support/forked.h"
#include "unit/channel_fixture.h"

using namespace fixture;
using namespace support;

namespace {

ECI_ChannelToken_t asHandle(std::uintptr_t address)
{
    return reinterpret_cast<ECI_ChannelToken_t>(address);
}

ECI_ChannelToken_t page(int protection)
{
    void* address = mmap(nullptr, 65536, protection, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return static_cast<ECI_ChannelToken_t>(address);
}

ECI_ChannelToken_t unmappedPage()
{
    ECI_ChannelToken_t address = page(PROT_READ);
    munmap(address, 65536);
    return address;
}

// What the child process ends with: 0, or the number of the first call that was not refused.
int makeEveryCall(ECI_ChannelToken_t handle)
{
    int number = 0;
    for (const ChannelCall& call : everyCall()) {
        number += 1;
        if (call.make(handle) != ECI_ERR_INVALID_CHANNEL) return number;
    }
    return 0;
}

bool forbidLooksAtMemory(unsigned int action)
{
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_process_vm_readv, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, action),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog program = {sizeof filter / sizeof filter[0], filter};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

constexpr int noFilter = 99;

struct Filter {
    const char* name;
    unsigned int action;
};

void PrintTo(const Filter& filter, std::ostream* stream)
{
    *stream << filter.name;
}

class ChannelUnderFilter : public ::testing::TestWithParam<Filter> {
protected:
    ChannelUnderFilter() { settleCodePage(); }

    // The status of a process that makes calls while the filter is in force.
    template <typename Calls>
    static int statusOf(Calls calls)
    {
        pid_t child = fork();
        if (child == 0) endChild(forbidLooksAtMemory(GetParam().action) ? calls() : noFilter);
        int status = -1;
        EXPECT_EQ(child, waitpid(child, &status, 0));
        return status;
    }

    CustomerChannel channel;
};

class ChannelHandle : public ChannelUnderFilter {};

const Filter filters[] = {{"Kills", SECCOMP_RET_KILL_PROCESS},
                          {"Refuses", SECCOMP_RET_ERRNO | EPERM}};

} // namespace

TEST_P(ChannelUnderFilter, ServesEveryCall)
{
    EXPECT_EQ(0, statusOf([this] {
                  for (const ChannelCall& call : containerCalls) {
                      int rc = call.make(channel.token);
                      if (rc != 0 && rc != ECI_ERR_ENDOFCONTAINERS &&
                          rc != ECI_ERR_CONTAINER_NOTFOUND)
                          return 1;
                  }
                  return ECI_deleteChannel(&channel.token) == 0 ? 0 : 2;
              }));
}

TEST_P(ChannelHandle, OfAnUnmappedPageIsRefusedByEveryCall)
{
    EXPECT_EQ(0, statusOf([] { return makeEveryCall(unmappedPage()); }));
}

TEST_P(ChannelHandle, OfAForbiddenPageIsRefusedByEveryCall)
{
    EXPECT_EQ(0, statusOf([] { return makeEveryCall(page(PROT_NONE)); }));
}

TEST_P(ChannelHandle, AtTheEndsOfMemoryIsRefusedByEveryCall)
{
    EXPECT_EQ(0, statusOf([] { return makeEveryCall(asHandle(1)); }));
    EXPECT_EQ(0, statusOf([] { return makeEveryCall(asHandle(~std::uintptr_t{0})); }));
}

TEST_P(ChannelHandle, InsideAnotherChannelIsRefusedByEveryCall)
{
    std::uintptr_t inside = reinterpret_cast<std::uintptr_t>(channel.token) + 8;
    EXPECT_EQ(0, statusOf([inside] { return makeEveryCall(asHandle(inside)); }));
}

TEST_P(ChannelHandle, OfAContainerIsRefusedByEveryCall)
{
    std::uintptr_t container = reinterpret_cast<std::uintptr_t>(channel.token->firstCont);
    EXPECT_EQ(0, statusOf([container] { return makeEveryCall(asHandle(container)); }));
}

TEST_P(ChannelHandle, OfACopyOfAChannelIsRefusedByEveryCall)
{
    alignas(ECI_Channel_t) char copy[sizeof(ECI_Channel_t)];
    std::memcpy(copy, static_cast<const void*>(channel.token), sizeof copy);
    EXPECT_EQ(
        0, statusOf([&copy] { return makeEveryCall(reinterpret_cast<ECI_ChannelToken_t>(copy)); }));
}

TEST_P(ChannelHandle, OfADeletedChannelIsRefusedByEveryCall)
{
    EXPECT_EQ(0, statusOf([this] {
                  ECI_ChannelToken_t stale = channel.token;
                  return ECI_deleteChannel(&channel.token) == 0 ? makeEveryCall(stale) : 98;
              }));
}

TEST_P(ChannelHandle, OfAChannelDeletedWithAllIsRefusedByEveryCall)
{
    EXPECT_EQ(0, statusOf([this] {
                  return ECI_deleteAllChannels() == 0 ? makeEveryCall(channel.token) : 98;
              }));
}

INSTANTIATE_TEST_SUITE_P(ThatKillsOrRefuses, ChannelUnderFilter, ::testing::ValuesIn(filters));
INSTANTIATE_TEST_SUITE_P(UnderAFilter, ChannelHandle, ::testing::ValuesIn(filters));

// ---- Many channels -----------------------------------------------------------------------------

namespace {

constexpr int many = 3000;

std::vector<ECI_ChannelToken_t> manyChannels()
{
    std::vector<ECI_ChannelToken_t> channels(many, nullptr);
    for (ECI_ChannelToken_t& channel : channels) EXPECT_RC(0, ECI_createChannel("MANY", &channel));
    return channels;
}

bool isKnown(ECI_ChannelToken_t handle)
{
    char name[ECI_NAME_SIZE];
    return ECI_getChannelName(handle, name) == 0;
}

} // namespace

TEST(ManyChannels, AreEachKnownUntilTheyAreDeleted)
{
    std::vector<ECI_ChannelToken_t> channels = manyChannels();
    for (int number = 0; number < many; number += 2) {
        ECI_ChannelToken_t variable = channels[number];
        ASSERT_RC(0, ECI_deleteChannel(&variable));
    }
    for (int number = 0; number < many; ++number)
        ASSERT_EQ(number % 2 == 1, isKnown(channels[number])) << number;
    EXPECT_RC(0, ECI_deleteAllChannels());
    for (ECI_ChannelToken_t stale : channels) ASSERT_FALSE(isKnown(stale));
}

TEST(ManyChannels, AreKnownThoughThereIsNoMemoryToKnowThemBy)
{
    std::vector<ECI_ChannelToken_t> channels(many, nullptr);
    {
        // The table of the set is the one block of so many parts; once it should be larger, it is
        // wanted with each channel.
        Fault fault = failCallOn(Call::Malloc, reinterpret_cast<void*>(512), 0, ENOMEM);
        for (ECI_ChannelToken_t& channel : channels)
            ASSERT_RC(0, ECI_createChannel("MANY", &channel));
        EXPECT_LT(many / 2, fault.hits());
    }
    for (ECI_ChannelToken_t channel : channels) ASSERT_TRUE(isKnown(channel));
    EXPECT_RC(0, ECI_deleteAllChannels());
}
