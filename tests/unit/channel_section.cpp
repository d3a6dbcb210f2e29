// The changes of a reply that has been put aside, made to a channel: the memory of a large one is
// given back meanwhile, and only what is the library's own.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "clapi_socketcomms.h"
#include "data_storage.h"
#include "support/faults.h"
#include "unit/flow_channel_fixture.h"

using namespace unit;
using support::beforeCall;
using support::Bytes;
using support::Call;
using support::CallInfo;
using support::failEveryCall;
using support::Fault;

namespace {

Bytes pattern(std::size_t length)
{
    Bytes bytes(length);
    for (std::size_t at = 0; at < length; ++at)
        bytes[at] = static_cast<unsigned char>(1 + (at * 7 + at / 251) % 255);
    return bytes;
}

// A section as the receiver keeps it, with one container that is added.
class KeptSection {
public:
    explicit KeptSection(std::size_t dataLength) : data(pattern(dataLength))
    {
        Bytes all = support::channelSection("CHANNEL", 819, 1, support::added("NEW", 1, 0, data));
        bytes.data = clapiAllocateData(all.size());
        bytes.length = bytes.capacity = all.size();
        std::copy(all.begin(), all.end(), bytes.data);
    }
    ~KeptSection() { clapiFreeArrived(&bytes); }
    KeptSection(const KeptSection&) = delete;
    KeptSection& operator=(const KeptSection&) = delete;

    void apply()
    {
        bool broken = true;
        EXPECT_RC(0, clapiApplyChannelSection(&bytes, channel.token, &broken));
        EXPECT_FALSE(broken);
    }

    void expectApplied() const
    {
        ASSERT_EQ("NEW", channel.names());
        EXPECT_TRUE(data == LocalChannel::dataOf(channel.at(0)));
        channel.expectConsistent();
    }

    std::size_t residentBytes() const
    {
        auto pageSize = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        std::vector<unsigned char> pages((bytes.length + pageSize - 1) / pageSize);
        EXPECT_EQ(0, mincore(bytes.data, bytes.length, pages.data()));
        return pageSize *
               static_cast<std::size_t>(std::count_if(
                   pages.begin(), pages.end(), [](unsigned char page) { return (page & 1) != 0; }));
    }

    ArrivingBytes bytes = {};
    Bytes data;
    LocalChannel channel{"CHANNEL", 819, {}};
};

} // namespace

TEST(ChannelSection, HasGivenBackAllButItsLastPartWhenItHasBeenApplied)
{
    KeptSection section(5 * OWN_PAGES_FROM / 2);
    ASSERT_LE(section.bytes.length, section.residentBytes());

    section.apply();

    EXPECT_GT(OWN_PAGES_FROM, section.residentBytes());
    section.expectApplied();
}

TEST(ChannelSection, HasNothingLeftInWhatItHasGivenBack)
{
    KeptSection section(5 * OWN_PAGES_FROM / 2);

    section.apply();

    const char* data = section.bytes.data;
    EXPECT_TRUE(std::all_of(data, data + 2 * OWN_PAGES_FROM, [](char byte) { return byte == 0; }));
}

TEST(ChannelSection, IsAppliedThoughItsPagesStay)
{
    KeptSection section(5 * OWN_PAGES_FROM / 2);
    Fault advice = failEveryCall(Call::Advise, EINVAL);

    section.apply();

    EXPECT_EQ(2, advice.hits());
    section.expectApplied();
}

// The memory is malloc's, and others' data lies beside it.
TEST(ChannelSection, GivesNothingBackThatHasNoPagesOfItsOwn)
{
    KeptSection section(OWN_PAGES_FROM - 1000);
    ASSERT_GT(OWN_PAGES_FROM, section.bytes.length);
    Fault advice = beforeCall(Call::Advise, 0, [](const CallInfo&) {});

    section.apply();

    EXPECT_EQ(0, advice.hits());
    section.expectApplied();
}
