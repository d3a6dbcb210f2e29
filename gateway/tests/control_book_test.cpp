// What the control port keeps of calls, how much of it, and how it names the bytes of a flow.

#include <gtest/gtest.h>

#include <future>

#include "client.h"
#include "control/book.h"
#include "control/flow_map.h"

using control::Book;
using control::Direction;
using control::Field;
using standin::Bytes;
using standin::CallRecord;

namespace {

CallRecord callOf(std::uint64_t number, std::size_t commarea)
{
    CallRecord call;
    call.number = number;
    call.eci = standin::EciRequest();
    call.eci->program = "ECHO";
    call.eci->commarea = Bytes(commarea, 'x');
    return call;
}

Book::Limits limits(std::size_t calls, std::size_t bytes)
{
    Book::Limits limits;
    limits.calls = calls;
    limits.bytes = bytes;
    return limits;
}

std::string namesOf(const Bytes& flow, Direction direction)
{
    std::string names;
    for (const Field& field : control::fieldsOf(flow, direction))
        names += field.name + " " + std::to_string(field.length) + "\n";
    return names;
}

} // namespace

TEST(ControlBook, ForgetsTheOldestCallBeyondItsNumber)
{
    Book book(limits(3, 1000000));
    for (std::uint64_t number = 1; number <= 3; ++number) book.callEnded(callOf(number, 1));
    EXPECT_NE(nullptr, book.call(1));
    book.callEnded(callOf(4, 1));
    EXPECT_EQ(nullptr, book.call(1));
    EXPECT_NE(nullptr, book.call(2));
    EXPECT_EQ(4U, book.totals().calls);
    EXPECT_EQ(3U, book.totals().kept);
}

TEST(ControlBook, ForgetsTheOldestCallsBeyondItsBytes)
{
    Book book(limits(1000, 100000));
    for (std::uint64_t number = 1; number <= 10; ++number) book.callEnded(callOf(number, 30000));
    EXPECT_EQ(3U, book.totals().kept);
    EXPECT_EQ(nullptr, book.call(7));
    EXPECT_NE(nullptr, book.call(8));
}

TEST(ControlBook, CountsTheMisbehavioursOfACallAmongItsBytes)
{
    Book book(limits(1000, 100000));
    for (std::uint64_t number = 1; number <= 10; ++number) {
        CallRecord call = callOf(number, 1);
        call.faults.assign(1000, "unknown-message-id");
        book.callEnded(std::move(call));
    }
    EXPECT_LE(book.totals().kept, 2U);
    EXPECT_EQ(nullptr, book.call(1));
}

TEST(ControlBook, KeepsTheBeginningsOfContainersThatAreVeryLarge)
{
    Book book(limits(1000, 64 * 1024 * 1024));
    CallRecord call = callOf(1, 0);
    call.eci->channel = standin::Channel();
    call.eci->channel->containers.resize(2);
    call.eci->channel->containers[0].data = Bytes(2 * 1024 * 1024, 'y');
    call.eci->channel->containers[1].data = Bytes(100, 'z');
    book.callEnded(std::move(call));
    const control::CallPointer kept = book.call(1);
    ASSERT_NE(nullptr, kept);
    EXPECT_TRUE(kept->isCut);
    EXPECT_EQ(16384U, kept->record.eci->channel->containers[0].data.size());
    EXPECT_EQ(100U, kept->record.eci->channel->containers[1].data.size());
    book.callEnded(callOf(2, 32767));
    EXPECT_FALSE(book.call(2)->isCut);
}

TEST(ControlBook, WakesWhoeverWaitsForAChangeAndEndsAllWaits)
{
    Book book{Book::Limits()};
    const Book::Version before = book.version();
    const std::chrono::minutes limit(10);
    auto change = std::async(std::launch::async, [&] { return book.awaitChange(before, limit); });
    book.connectionBegan(1, "127.0.0.1:1");
    EXPECT_TRUE(change.get());
    auto end = std::async(std::launch::async,
                          [&] { return book.awaitChange(book.version(), limit); });
    auto pause = std::async(std::launch::async, [&] { return book.pause(limit); });
    book.close();
    EXPECT_FALSE(end.get());
    EXPECT_FALSE(pause.get());
}

TEST(ControlFlowMap, NamesEveryByteAlsoOfFlowsThatAreCutShort)
{
    standin_test::Call call;
    call.commarea = "hello";
    call.channel = standin_test::channelSection(
        "ORDER", 819, {standin_test::record("NAME", 1, 2, 819, 3, "Ann")});
    const Bytes whole = standin_test::eciRequest(7, call);
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        const Bytes flow(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        for (const Direction direction : {Direction::FromClient, Direction::FromGateway}) {
            std::size_t at = 0;
            for (const Field& field : control::fieldsOf(flow, direction)) {
                EXPECT_EQ(at, field.at);
                at += field.length;
            }
            EXPECT_EQ(size, at);
        }
    }
    EXPECT_EQ(std::string::npos, namesOf(whole, Direction::FromClient).find("the rest"));
    const Bytes cut(whole.begin(), whole.end() - 10);
    EXPECT_NE(std::string::npos, namesOf(cut, Direction::FromClient).find("the rest"));
}

TEST(ControlFlowMap, DoesNotBelieveACountOfContainers)
{
    standin_test::Call call;
    call.channel = standin_test::channelSection(
        "ORDER", 819, {standin_test::record("NAME", 1, 2, 819, 3, "Ann")});
    Bytes flow = standin_test::eciRequest(7, call);
    const std::string text(flow.begin(), flow.end());
    const std::size_t count = text.find("ORDER") + 20;
    flow[count] = 0x7F; // two thousand million of them
    const std::vector<Field> fields = control::fieldsOf(flow, Direction::FromClient);
    EXPECT_LT(fields.size(), 100U);
    EXPECT_EQ(flow.size(), fields.back().at + fields.back().length);
}
