// The dump of all channels, alone and as the end of the state dump.

#include <gtest/gtest.h>

#include <atomic>
#include <sstream>
#include <string>
#include <vector>

#include "qpxclient.h"
#include "qpxclient_eci.h"
#include "support/call_in_thread.h"
#include "support/channels.h"
#include "support/expect_rc.h"
#include "support/trace_file.h"

using namespace support;

namespace {

const std::string rule = std::string(80, '-') + "\n";
const std::string heading = "Channel and container dump\n" + rule;

std::string dumped()
{
    TraceFile trace(0);
    EXPECT_RC(0, QPX_ECI_dumpChannels());
    return trace.text();
}

// The line of a channel that nobody holds. A name is filled with blanks from the left.
std::string channelLine(const std::string& ordinal, const Channel& channel,
                        const std::string& filledName, const std::string& ccsid,
                        const std::string& containers, const std::string& pointers)
{
    return "Channel list entry -" + ordinal + "- : Channel(" + shown(channel.token) +
           "): eyecatcher(QPXCHANN) name(" + filledName +
           ") serlock(<ptr>) unlockEvent(<ptr>) isLocked(0) ccsid(" + ccsid + ") numContainers(" +
           containers + ") " + pointers + "\n";
}

std::string containerLine(const std::string& ordinals, const std::string& filledName,
                          const std::string& rest)
{
    return "   Container list entry -" + ordinals +
           "- : Container(<ptr>): eyecatcher(QPXCONTA) name(" + filledName + ") " + rest + "\n";
}

std::string total(const std::string& count)
{
    return "Total number of channels=" + count + "\n" + rule;
}

::testing::AssertionResult reads(const std::string& text, const std::string& pattern)
{
    if (matches(pattern, text)) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "the text reads\n" << text << "  expected\n" << pattern;
}

// Every line of the dump is whole, and every channel has the containers that it says it has.
::testing::AssertionResult isConsistent(const std::string& text)
{
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    int channels = 0;
    int expected = 0;
    int containers = 0;
    for (const std::string& line : lines) {
        if (matches("Channel list entry -<int>- : Channel(<ptr>): eyecatcher(QPXCHANN) name(<any>) "
                    "serlock(<ptr>) unlockEvent(<ptr>) isLocked(<int>) ccsid(<int>) "
                    "numContainers(<int>) nextChannel(<ptr>) firstCont(<ptr>) currentCont(<ptr>)",
                    line)) {
            if (containers != expected)
                return ::testing::AssertionFailure() << "containers are missing\n" << text;
            channels += 1;
            containers = 0;
            std::size_t at = line.find("numContainers(") + 14;
            expected = std::stoi(line.substr(at));
        } else if (matches("   Container list entry -<int>/<int>- : Container(<ptr>): "
                           "eyecatcher(QPXCONTA) name(<any>) type(<int>) ccsid(<int>) "
                           "dataLength(<int>) dataPtr(<ptr>) nextCont(<ptr>)",
                           line)) {
            containers += 1;
        } else if (matches("Total number of channels=<int>", line)) {
            if (line != "Total number of channels=" + std::to_string(channels))
                return ::testing::AssertionFailure() << "channels are missing\n" << text;
        } else if (line + "\n" != rule && line != "Channel and container dump") {
            return ::testing::AssertionFailure() << "odd line: " << line << "\n" << text;
        }
    }
    if (containers != expected)
        return ::testing::AssertionFailure() << "containers are missing\n" << text;
    return ::testing::AssertionSuccess();
}

// Dumps again and again while another thread makes changes, which count their failures.
template <typename Change>
void expectConsistentWhile(Change change)
{
    TraceFile trace(0);
    std::atomic<bool> done{false};
    auto changes = callInThread([&] {
        int failures = 0;
        for (int round = 0; !done; ++round) failures += change(round);
        return failures;
    });
    bool consistent = true;
    for (int dump = 0; consistent && dump < 1000; ++dump) {
        trace.forget();
        int rc = QPX_ECI_dumpChannels();
        ::testing::AssertionResult result = isConsistent(trace.text());
        consistent = rc == 0 && bool(result);
        EXPECT_RC(0, rc);
        EXPECT_TRUE(result);
    }
    done = true;
    EXPECT_EQ(0, changes.get());
}

} // namespace

// ---- The text ----------------------------------------------------------------------------------

TEST(ChannelDump, SaysThatThereIsNoChannel)
{
    EXPECT_EQ(heading + "The channel list is EMPTY\n" + total("0"), dumped());
}

TEST(ChannelDump, ShowsAChannelWithoutContainers)
{
    Channel channel("ORDER");
    EXPECT_TRUE(
        reads(dumped(), heading +
                            channelLine("0001", channel, "           ORDER", "-1", "0",
                                        "nextChannel((nil)) firstCont((nil)) currentCont((nil))") +
                            total("1")));
}

TEST(ChannelDump, ShowsContainersNewestFirst)
{
    Channel channel("ORDER");
    channel.addChar("TEXT", 1208, "12345");
    channel.addBit("ABCDEFGHIJKLMNOP");
    EXPECT_TRUE(reads(
        dumped(),
        heading +
            channelLine("0001", channel, "           ORDER", "1208", "2",
                        "nextChannel((nil)) firstCont(0x<hex>) currentCont((nil))") +
            containerLine("0001/0002", "ABCDEFGHIJKLMNOP",
                          "type(1) ccsid(0) dataLength(0) dataPtr((nil)) nextCont(0x<hex>)") +
            containerLine("0002/0002", "            TEXT",
                          "type(2) ccsid(1208) dataLength(5) dataPtr(0x<hex>) nextCont((nil))") +
            total("1")));
}

TEST(ChannelDump, ShowsChannelsNewestFirst)
{
    Channel older("ABCDEFGHIJKLMNOP");
    older.addBit("ONE", "1");
    Channel newer("NEWER");
    EXPECT_TRUE(reads(dumped(),
                      heading +
                          channelLine("0001", newer, "           NEWER", "-1", "0",
                                      "nextChannel(" + shown(older.token) +
                                          ") firstCont((nil)) currentCont((nil))") +
                          channelLine("0002", older, "ABCDEFGHIJKLMNOP", "-1", "1",
                                      "nextChannel((nil)) firstCont(0x<hex>) currentCont((nil))") +
                          containerLine("0001/0001", "             ONE",
                                        "type(1) ccsid(0) dataLength(1) dataPtr(0x<hex>) "
                                        "nextCont((nil))") +
                          total("2")));
}

TEST(ChannelDump, ShowsWhereBrowsingStands)
{
    Channel channel;
    channel.addBit("ONE");
    channel.addBit("TWO");
    ASSERT_EQ("TWO", channel.first());
    std::string text = dumped();
    std::size_t first = text.find("firstCont(");
    std::size_t current = text.find("currentCont(");
    ASSERT_NE(std::string::npos, first);
    ASSERT_NE(std::string::npos, current);
    std::string firstAddress = text.substr(first + 10, text.find(')', first) - first - 10);
    EXPECT_EQ("currentCont(" + firstAddress + ")\n",
              text.substr(current, firstAddress.size() + 14));
}

TEST(ChannelDump, LeavesOutADeletedChannel)
{
    Channel oldest("OLDEST");
    Channel middle("MIDDLE");
    Channel newest("NEWEST");
    ASSERT_RC(0, ECI_deleteChannel(&middle.token));
    EXPECT_TRUE(
        reads(dumped(), heading +
                            channelLine("0001", newest, "          NEWEST", "-1", "0",
                                        "nextChannel(" + shown(oldest.token) +
                                            ") firstCont((nil)) currentCont((nil))") +
                            channelLine("0002", oldest, "          OLDEST", "-1", "0",
                                        "nextChannel((nil)) firstCont((nil)) currentCont((nil))") +
                            total("2")));
}

TEST(ChannelDump, LeavesOutTheNewestWhenItIsDeleted)
{
    Channel oldest("OLDEST");
    Channel newest("NEWEST");
    ASSERT_RC(0, ECI_deleteChannel(&newest.token));
    std::string text = dumped();
    EXPECT_TRUE(contains(text, "name(          OLDEST)"));
    EXPECT_FALSE(contains(text, "NEWEST"));
    EXPECT_TRUE(contains(text, "Total number of channels=1\n"));
}

TEST(ChannelDump, LeavesOutTheOldestWhenItIsDeleted)
{
    Channel oldest("OLDEST");
    Channel newest("NEWEST");
    ASSERT_RC(0, ECI_deleteChannel(&oldest.token));
    std::string text = dumped();
    EXPECT_TRUE(contains(text, "name(          NEWEST)"));
    EXPECT_FALSE(contains(text, "OLDEST"));
    EXPECT_TRUE(contains(text, "nextChannel((nil))"));
}

TEST(ChannelDump, IsEmptyAfterAllChannelsWereDeleted)
{
    ECI_ChannelToken_t token = nullptr;
    for (int number = 0; number < 20; ++number) ASSERT_RC(0, ECI_createChannel("MANY", &token));
    ASSERT_TRUE(contains(dumped(), "Total number of channels=20\n"));
    EXPECT_RC(0, ECI_deleteAllChannels());
    EXPECT_EQ(heading + "The channel list is EMPTY\n" + total("0"), dumped());
}

TEST(ChannelDump, DoesNotShowData)
{
    Channel channel;
    channel.addBit("SECRET", "hidden data");
    EXPECT_FALSE(contains(dumped(), "hidden"));
    EXPECT_FALSE(contains(dumped(), "Data truncation"));
}

TEST(ChannelDump, TakesANameWithPercentSignsAsItIs)
{
    Channel channel("%s%n%d");
    channel.addBit("%n%n");
    std::string text = dumped();
    EXPECT_TRUE(contains(text, "name(          %s%n%d)"));
    EXPECT_TRUE(contains(text, "name(            %n%n)"));
}

TEST(ChannelDump, IsFramedByEntryAndExit)
{
    TraceFile trace(3);
    EXPECT_RC(0, QPX_ECI_dumpChannels());
    std::vector<TraceRecord> records = trace.records();
    ASSERT_EQ(2u, records.size());
    EXPECT_TRUE(traceReads(trace, {"1410 ENTRY API.QPX_ECI_dumpChannels()",
                                   "1419 EXIT API.QPX_ECI_dumpChannels() rc=0 (QPX_OK)"}));
    EXPECT_EQ(heading + "The channel list is EMPTY\n" + total("0"), records[0].body);
}

TEST(ChannelDump, IsTheEndOfTheStateDump)
{
    Channel channel("ORDER");
    TraceFile trace(0);
    EXPECT_RC(0, QPX_dumpState());
    EXPECT_TRUE(
        reads(trace.text(),
              "qpxclient state dump: DLL Version=10.1.0.0 Trace Level=0 clientAPITraceFile=" +
                  trace.path() + "\nGateway Token List dump\n" + rule +
                  "The Gateway Token List is EMPTY\n" + rule + heading +
                  channelLine("0001", channel, "           ORDER", "-1", "0",
                              "nextChannel((nil)) firstCont((nil)) currentCont((nil))") +
                  total("1")));
}

TEST(ChannelDump, IsTracedWithinTheStateDump)
{
    TraceFile trace(3);
    EXPECT_RC(0, QPX_dumpState());
    EXPECT_TRUE(traceReads(trace, {"1046 ENTRY API.QPX_dumpState()", "2038 ENTRY <any>",
                                   "2039 EXIT <any>", "1410 ENTRY API.QPX_ECI_dumpChannels()",
                                   "1419 EXIT API.QPX_ECI_dumpChannels() rc=0 (QPX_OK)",
                                   "1047 EXIT API.QPX_dumpState() rc=0 (QPX_OK)"}));
}

// ---- While others work -------------------------------------------------------------------------

TEST(ChannelDump, IsConsistentWhileContainersComeAndGo)
{
    Channel channel;
    channel.addBit("STAYS", "data");
    expectConsistentWhile([&](int round) {
        int failures = 0;
        if (ECI_createContainer(channel.token, "COMES", ECI_CHAR, 0, "1234", 4) != 0) failures += 1;
        auto length = static_cast<std::size_t>(round % 6);
        if (ECI_setContainerData(channel.token, "STAYS", "other", length) != 0) failures += 1;
        if (ECI_deleteContainer(channel.token, "COMES") != 0) failures += 1;
        return failures;
    });
}

TEST(ChannelDump, IsConsistentWhileChannelsComeAndGo)
{
    Channel stays;
    expectConsistentWhile([](int) {
        int failures = 0;
        ECI_ChannelToken_t token = nullptr;
        if (ECI_createChannel("COMES", &token) != 0) failures += 1;
        if (ECI_createContainer(token, "ONE", ECI_BIT, 0, "1234", 4) != 0) failures += 1;
        if (ECI_deleteChannel(&token) != 0) failures += 1;
        return failures;
    });
}

TEST(ChannelDump, IsConsistentWhileContainersAreBrowsed)
{
    Channel channel;
    channel.addBit("ONE");
    channel.addBit("TWO");
    expectConsistentWhile([&](int) { return channel.names().size() == 2 ? 0 : 1; });
}
