// A text in memory that grows with what is printed to it.
#include "growing_text.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <string>

#include "support/faults.h"
#include "support/live_blocks.h"

using support::Call;
using support::failCall;
using support::Fault;
using support::LiveBlocks;

namespace {

// Room is taken for so many bytes first, the terminator among them.
constexpr std::size_t firstCapacity = 4096;

void printFilled(GrowingText& text, std::size_t length, char filling)
{
    text.print("%s", std::string(length, filling).c_str());
}

class GrowingTextOfLength : public ::testing::TestWithParam<std::size_t> {};

INSTANTIATE_TEST_SUITE_P(, GrowingTextOfLength,
                         ::testing::Values(1, firstCapacity - 2, firstCapacity - 1, firstCapacity,
                                           firstCapacity + 1, 3 * firstCapacity),
                         [](const auto& one) { return std::to_string(one.param); });

} // namespace

TEST_P(GrowingTextOfLength, HoldsWhatIsPrintedAtOnce)
{
    GrowingText text;
    printFilled(text, GetParam(), 'a');
    ASSERT_TRUE(text.whole() != nullptr);
    EXPECT_EQ(std::string(GetParam(), 'a'), text.whole());
}

TEST_P(GrowingTextOfLength, HoldsWhatIsPrintedBehindIt)
{
    GrowingText text;
    printFilled(text, GetParam(), 'a');
    text.print("-%d-", 5);
    printFilled(text, GetParam(), 'b');
    ASSERT_TRUE(text.whole() != nullptr);
    EXPECT_EQ(std::string(GetParam(), 'a') + "-5-" + std::string(GetParam(), 'b'), text.whole());
}

TEST(GrowingText, HoldsManySmallPieces)
{
    GrowingText text;
    std::string expected;
    for (int i = 0; i < 5000; ++i) {
        text.print("%d,", i);
        expected += std::to_string(i) + ',';
    }
    ASSERT_TRUE(text.whole() != nullptr);
    EXPECT_EQ(expected, text.whole());
}

TEST(GrowingText, GivesItsMemoryBack)
{
    LiveBlocks blocks;
    {
        GrowingText text;
        printFilled(text, 3 * firstCapacity, 'a');
        EXPECT_EQ(1, blocks.count());
    }
    EXPECT_EQ(0, blocks.count());
}

TEST(GrowingText, IsNoneWithoutMemoryForItsBeginning)
{
    Fault fault = failCall(Call::Malloc, 1, ENOMEM);
    GrowingText text;
    text.print("first");
    EXPECT_TRUE(text.whole() == nullptr);
}

TEST(GrowingText, IsNoneWithoutMemoryForItsMiddle)
{
    LiveBlocks blocks;
    {
        GrowingText text;
        text.print("first");
        Fault fault = failCall(Call::Malloc, 1, ENOMEM);
        printFilled(text, firstCapacity, 'a');
        text.print("last");
        EXPECT_TRUE(text.whole() == nullptr);
        EXPECT_EQ(1, fault.calls()); // nothing is tried behind it
    }
    EXPECT_EQ(0, blocks.count());
}

TEST(GrowingText, IsNoneWithAPieceThatIsTooLongToBePrinted)
{
    volatile int widest = INT_MAX; // lest the compiler refuses it
    GrowingText text;
    text.print("first");
    text.print("%*d%*d", widest, 1, widest, 2);
    text.print("last");
    EXPECT_TRUE(text.whole() == nullptr);
}
