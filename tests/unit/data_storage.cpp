// The memory of data when the system does not take it back.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <vector>

#include "data_storage.h"
#include "support/faults.h"

using namespace support;

namespace {

constexpr std::size_t length = OWN_PAGES_FROM + 100; // not whole pages

// Data that cannot be unmapped, freed. The test unmaps it in the end.
class FreedData {
public:
    FreedData() : data_(clapiAllocateData(length))
    {
        std::memset(data_, 's', length);
        Fault unmap = failCall(Call::Unmap, 1, ENOMEM);
        clapiFreeData(data_, length);
        EXPECT_EQ(1, unmap.hits());
    }
    ~FreedData() { EXPECT_EQ(0, munmap(data_, length)); }
    FreedData(const FreedData&) = delete;
    FreedData& operator=(const FreedData&) = delete;

    bool isEmpty() const
    {
        return std::all_of(data_, data_ + length, [](char byte) { return byte == 0; });
    }
    std::size_t residentPages() const
    {
        auto pageSize = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        std::vector<unsigned char> pages((length + pageSize - 1) / pageSize);
        EXPECT_EQ(0, mincore(data_, length, pages.data()));
        return static_cast<std::size_t>(std::count_if(
            pages.begin(), pages.end(), [](unsigned char page) { return (page & 1) != 0; }));
    }

private:
    char* data_;
};

} // namespace

TEST(DataThatCannotBeUnmapped, HasNothingLeftInItAndTakesNoMemory)
{
    FreedData freed;
    EXPECT_EQ(0u, freed.residentPages());
    EXPECT_TRUE(freed.isEmpty());
}

TEST(DataThatCannotBeUnmapped, HasNothingLeftInItThoughItsPagesStay)
{
    Fault advice = failEveryCall(Call::Advise, EINVAL);
    FreedData freed;
    EXPECT_TRUE(freed.isEmpty());
}

TEST(Data, IsUnmappedWithoutBeingOverwrittenFirst)
{
    char* data = clapiAllocateData(length);
    Fault overwriting = beforeCall(Call::Overwrite, 0, [](const CallInfo&) {});
    Fault unmapping = beforeCall(Call::Unmap, 0, [](const CallInfo&) {});
    clapiFreeData(data, length);
    EXPECT_EQ(0, overwriting.hits());
    EXPECT_EQ(1, unmapping.hits());
}
