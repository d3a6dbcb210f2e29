// What the channel and container calls write at each trace level, line by line.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qpxclient_eci.h"
#include "support/channels.h"
#include "support/expect_rc.h"
#include "support/trace_file.h"

using namespace support;

namespace {

using Lines = std::vector<std::string>;

Lines operator+(Lines left, const Lines& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// A channel ORDER with a container CUSTOMER of four bytes, and no line of that in the trace.
class ChannelTrace : public ::testing::Test {
protected:
    ChannelTrace()
    {
        settleCodePage();
        channel.addBit("CUSTOMER", "4711");
    }

    // Lines of the functions that calls have in common.
    Lines checkName(const std::string& name, const std::string& result = "0 (QPX_OK)") const
    {
        return {"1400 ENTRY clapi_channel.validateName(name=" + name + ")",
                "1404 EXIT clapi_channel.validateName() rc=" + result};
    }
    Lines lock() const
    {
        return {"1460 ENTRY clapi_channel.lockChannel(chanTok=" + token() + ")",
                "3121 DEBUG clapi_lock.clapiSetEvent() Setting event, eventPtr=<ptr>",
                "1470 EXIT clapi_channel.lockChannel() rc=0 (QPX_OK)"};
    }
    Lines unlock() const
    {
        return {"1471 ENTRY clapi_channel.unlockChannel(chanTok=" + token() + ")",
                "3122 DEBUG clapi_lock.clapiClearEvent() Clearing event, eventPtr=<ptr>",
                "1476 EXIT clapi_channel.unlockChannel() rc=0 (QPX_OK)"};
    }
    Lines codePage() const
    {
        return {"1435 ENTRY clapi_channel.getCurrentCcsid",
                "1441 EXIT clapi_channel.getCurrentCcsid() rc=0"};
    }

    std::string token() const { return shown(channel.token); }

    Channel channel;
    ECI_CONTAINER_INFO info;
};

using ChannelTraceLevel = ChannelTrace;

// Every call once, the channel included; what one creates the next use and the last delete.
void everyCall()
{
    ECI_ChannelToken_t token = nullptr;
    ECI_CONTAINER_INFO info;
    char buffer[ECI_NAME_SIZE];
    EXPECT_RC(0, ECI_createChannel("EVERY", &token));
    EXPECT_RC(0, ECI_getChannelName(token, buffer));
    EXPECT_RC(0, ECI_createContainer(token, "ONE", ECI_CHAR, 0, "data", 4));
    EXPECT_RC(0, ECI_createContainer(token, "TWO", ECI_BIT, 0, "data", 4));
    EXPECT_RC(0, ECI_getFirstContainer(token, &info));
    EXPECT_RC(0, ECI_getNextContainer(token, &info));
    EXPECT_RC(0, ECI_getContainerInfo(token, "ONE", &info));
    EXPECT_RC(0, ECI_getContainerData(token, "ONE", buffer, 4, 0, nullptr));
    EXPECT_RC(0, ECI_setContainerData(token, "ONE", "other data", 10));
    EXPECT_RC(0, ECI_deleteContainer(token, "ONE"));
    EXPECT_RC(0, ECI_deleteChannel(&token));
    EXPECT_RC(0, ECI_createChannel("EVERY", &token));
    EXPECT_RC(0, ECI_createContainer(token, "THREE", ECI_BIT, 0, "data", 4));
    EXPECT_RC(0, ECI_deleteAllChannels());
}

int countOfType(const TraceFile& trace, const std::string& type)
{
    int count = 0;
    for (const TraceRecord& record : trace.records())
        if (record.type == type) count += 1;
    return count;
}

} // namespace

// ---- Channels ----------------------------------------------------------------------------------

TEST_F(ChannelTrace, OfACreation)
{
    ECI_ChannelToken_t created = nullptr;
    TraceFile trace(4);
    ASSERT_RC(0, ECI_createChannel("OTHER", &created));
    EXPECT_TRUE(traceReads(
        trace,
        Lines{"1300 ENTRY API.ECI_createChannel(name=OTHER, tokPtr=" + shown(&created) + ")"} +
            checkName("OTHER") +
            Lines{"3115 DEBUG clapi_lock.clapiCreateEvent() Creating event, eventPtr=<ptr>",
                  "1305 DEBUG API.ECI_createChannel() New channel \"OTHER\" created (" +
                      shown(created) + ")",
                  "1309 EXIT API.ECI_createChannel() rc=0 (QPX_OK)"}));
    EXPECT_RC(0, ECI_deleteChannel(&created));
}

TEST_F(ChannelTrace, OfACreationWithoutSomewhereForTheHandle)
{
    TraceFile trace(4);
    EXPECT_RC(-52, ECI_createChannel("OTHER", nullptr));
    EXPECT_TRUE(
        traceReads(trace, {"1300 ENTRY API.ECI_createChannel(name=OTHER, tokPtr=(nil))",
                           "1301 *EXC* API.ECI_createChannel() tokPtr is NULL",
                           "1309 EXIT API.ECI_createChannel() rc=-52 (ECI_ERR_NULLCHANNELPTR)"}));
}

TEST_F(ChannelTrace, OfADeletion)
{
    Lines first = Lines{"1310 ENTRY API.ECI_deleteChannel(tokPtr=" + shown(&channel.token) + ")"};
    std::string address = token();
    Lines held = lock();
    Lines released = unlock();
    TraceFile trace(4);
    ASSERT_RC(0, ECI_deleteChannel(&channel.token));
    EXPECT_TRUE(traceReads(
        trace,
        first + held +
            Lines{"<int> DEBUG API.ECI_deleteChannel() Freeing 4 bytes of container data (<ptr>)",
                  "<int> DEBUG API.ECI_deleteChannel() Deleted container \"CUSTOMER\" (<ptr>)"} +
            released +
            Lines{"<int> DEBUG API.ECI_deleteChannel() Released lock for channel " + address +
                      ", now deleting",
                  "3118 DEBUG clapi_lock.clapiDeleteEvent() Deleting event, eventPtr=<ptr>",
                  "1422 DEBUG API.ECI_deleteChannel() Deleted channel \"ORDER\" (" + address + ")",
                  "1314 EXIT API.ECI_deleteChannel() rc=0 (QPX_OK)"}));
}

TEST_F(ChannelTrace, OfADeletionOfNothing)
{
    ECI_ChannelToken_t none = nullptr;
    TraceFile trace(4);
    EXPECT_RC(-50, ECI_deleteChannel(&none));
    EXPECT_TRUE(
        traceReads(trace, {"1310 ENTRY API.ECI_deleteChannel(tokPtr=" + shown(&none) + ")",
                           "1312 *EXC* API.ECI_deleteChannel() *tokPtr is NULL",
                           "1314 EXIT API.ECI_deleteChannel() rc=-50 (ECI_ERR_INVALID_CHANNEL)"}));
}

TEST_F(ChannelTrace, OfADeletionOfAllFromTheNewestOn)
{
    std::string older = token();
    ECI_ChannelToken_t newer = nullptr;
    ASSERT_RC(0, ECI_createChannel("NEWER", &newer));
    TraceFile trace(4);
    EXPECT_RC(0, ECI_deleteAllChannels());
    channel.token = nullptr;
    EXPECT_TRUE(traceReads(
        trace,
        {"1425 ENTRY API.ECI_deleteAllChannels()",
         "1426 DEBUG API.ECI_deleteAllChannels() Destroying event and lock for channel \"NEWER\" "
         "(" +
             shown(newer) + ")",
         "3118 DEBUG clapi_lock.clapiDeleteEvent() Deleting event, eventPtr=<ptr>",
         "1429 DEBUG API.ECI_deleteAllChannels() Deleted channel \"NEWER\" (" + shown(newer) + ")",
         "1426 DEBUG API.ECI_deleteAllChannels() Destroying event and lock for channel \"ORDER\" "
         "(" +
             older + ")",
         "3118 DEBUG clapi_lock.clapiDeleteEvent() Deleting event, eventPtr=<ptr>",
         "<int> DEBUG API.ECI_deleteAllChannels() Freeing 4 bytes of container data (<ptr>)",
         "<int> DEBUG API.ECI_deleteAllChannels() Deleted container \"CUSTOMER\" (<ptr>)",
         "1429 DEBUG API.ECI_deleteAllChannels() Deleted channel \"ORDER\" (" + older + ")",
         "1430 EXIT API.ECI_deleteAllChannels() rc=0 (QPX_OK)"}));
}

TEST_F(ChannelTrace, OfADeletionOfAllWhereThereIsNone)
{
    ASSERT_RC(0, ECI_deleteChannel(&channel.token));
    TraceFile trace(4);
    EXPECT_RC(0, ECI_deleteAllChannels());
    EXPECT_TRUE(traceReads(trace, {"1425 ENTRY API.ECI_deleteAllChannels()",
                                   "1430 EXIT API.ECI_deleteAllChannels() rc=0 (QPX_OK)"}));
}

TEST_F(ChannelTrace, OfAChannelsName)
{
    char name[ECI_NAME_SIZE];
    TraceFile trace(4);
    EXPECT_RC(0, ECI_getChannelName(channel.token, name));
    EXPECT_TRUE(traceReads(trace, Lines{"1320 ENTRY API.ECI_getChannelName(chanTok=" + token() +
                                        ", nameBuffer=" + shown(name) + ")"} +
                                      lock() + unlock() +
                                      Lines{"1324 EXIT API.ECI_getChannelName() rc=0 (QPX_OK)"}));
}

TEST_F(ChannelTrace, OfAChannelsNameWithoutABuffer)
{
    TraceFile trace(4);
    EXPECT_RC(-109, ECI_getChannelName(channel.token, nullptr));
    EXPECT_TRUE(traceReads(
        trace, {"1320 ENTRY API.ECI_getChannelName(chanTok=" + token() + ", nameBuffer=(nil))",
                "1322 *EXC* API.ECI_getChannelName() nameBuffer is NULL",
                "1324 EXIT API.ECI_getChannelName() rc=-109 (QPX_ERR_NULLPTR)"}));
}

// ---- Containers --------------------------------------------------------------------------------

TEST_F(ChannelTrace, OfABinaryContainer)
{
    TraceFile trace(4);
    EXPECT_RC(0, ECI_createContainer(channel.token, "NEW", ECI_BIT, 0, "DATA!", 5));
    EXPECT_TRUE(traceReads(
        trace, Lines{"<int> ENTRY API.ECI_createContainer(chanTok=" + token() +
                     ", name=NEW, type=1, ccsid=0, data=<ptr>, dataLength=5)"} +
                   codePage() + checkName("NEW") + lock() +
                   Lines{"<int> DATA API.ECI_createContainer() data=<ptr> len=5 stopword=00000000",
                         "<int> DEBUG API.ECI_createContainer() Created container \"NEW\" (<ptr>) "
                         "in channel \"ORDER\" (" +
                             token() + ")"} +
                   unlock() + Lines{"<int> EXIT API.ECI_createContainer() rc=0 (QPX_OK)"}));
}

TEST_F(ChannelTrace, OfACharacterContainerThatGivesItsChannelACodePage)
{
    TraceFile trace(4);
    EXPECT_RC(0, ECI_createContainer(channel.token, "NEW", ECI_CHAR, 1208, "DATA!", 5));
    EXPECT_TRUE(traceReads(
        trace, Lines{"<int> ENTRY API.ECI_createContainer(chanTok=" + token() +
                     ", name=NEW, type=2, ccsid=1208, data=<ptr>, dataLength=5)"} +
                   codePage() + checkName("NEW") + lock() +
                   Lines{"<int> DEBUG API.ECI_createContainer() Channel CCSID set to 1208 from "
                         "Container",
                         "<int> DEBUG API.ECI_createContainer() Container CCSID set to 1208",
                         "<int> DATA API.ECI_createContainer() data=<ptr> len=5 stopword=00000000",
                         "<int> DEBUG API.ECI_createContainer() Created container \"NEW\" (<ptr>) "
                         "in channel \"ORDER\" (" +
                             token() + ")"} +
                   unlock() + Lines{"<int> EXIT API.ECI_createContainer() rc=0 (QPX_OK)"}));
}

TEST_F(ChannelTrace, OfAnEmptyContainerHasNoData)
{
    TraceFile trace(4);
    EXPECT_RC(0, ECI_createContainer(channel.token, "NEW", ECI_BIT, 0, nullptr, 0));
    EXPECT_TRUE(traceReads(
        trace, Lines{"<int> ENTRY API.ECI_createContainer(chanTok=" + token() +
                     ", name=NEW, type=1, ccsid=0, data=(nil), dataLength=0)"} +
                   codePage() + checkName("NEW") + lock() +
                   Lines{"<int> DEBUG API.ECI_createContainer() Created container \"NEW\" (<ptr>) "
                         "in channel \"ORDER\" (" +
                         token() + ")"} +
                   unlock() + Lines{"<int> EXIT API.ECI_createContainer() rc=0 (QPX_OK)"}));
}

TEST_F(ChannelTrace, OfAContainerThatExistsUnlocksTheChannel)
{
    TraceFile trace(4);
    EXPECT_RC(-59, ECI_createContainer(channel.token, "CUSTOMER", ECI_BIT, 0, "DATA!", 5));
    EXPECT_TRUE(traceReads(
        trace,
        Lines{"<int> ENTRY API.ECI_createContainer(chanTok=" + token() +
              ", name=CUSTOMER, type=1, ccsid=0, data=<ptr>, dataLength=5)"} +
            codePage() + checkName("CUSTOMER") + lock() +
            Lines{"<int> *EXC* API.ECI_createContainer() Container \"CUSTOMER\" already "
                  "exists in channel \"ORDER\""} +
            unlock() +
            Lines{"<int> EXIT API.ECI_createContainer() rc=-59 (ECI_ERR_CONTAINER_EXISTS)"}));
}

TEST_F(ChannelTrace, OfAContainerWithoutANameShowsTheWordNull)
{
    TraceFile trace(4);
    EXPECT_RC(-51, ECI_createContainer(channel.token, nullptr, ECI_BIT, 7, nullptr, 0));
    EXPECT_TRUE(traceReads(
        trace, Lines{"<int> ENTRY API.ECI_createContainer(chanTok=" + token() +
                     ", name=NULL, type=1, ccsid=7, data=(nil), dataLength=0)"} +
                   codePage() +
                   Lines{"1400 ENTRY clapi_channel.validateName(name=NULL)",
                         "1401 *EXC* clapi_channel.validateName() name is NULL",
                         "1404 EXIT clapi_channel.validateName() rc=-51 (ECI_ERR_INVALID_NAME)",
                         "<int> EXIT API.ECI_createContainer() rc=-51 (ECI_ERR_INVALID_NAME)"}));
}

TEST_F(ChannelTrace, OfADeletedContainer)
{
    TraceFile trace(4);
    EXPECT_RC(0, ECI_deleteContainer(channel.token, "CUSTOMER"));
    EXPECT_TRUE(traceReads(
        trace,
        Lines{"<int> ENTRY API.ECI_deleteContainer(chanTok=" + token() + ", name=CUSTOMER)"} +
            checkName("CUSTOMER") + lock() +
            Lines{"<int> DEBUG API.ECI_deleteContainer() Freeing 4 bytes of container data (<ptr>)",
                  "<int> DEBUG API.ECI_deleteContainer() Deleted container \"CUSTOMER\" (<ptr>)"} +
            unlock() + Lines{"<int> EXIT API.ECI_deleteContainer() rc=0 (QPX_OK)"}));
}

TEST_F(ChannelTrace, OfADeletedContainerWhereBrowsingStands)
{
    ASSERT_EQ("CUSTOMER", channel.first());
    TraceFile trace(4);
    EXPECT_RC(0, ECI_deleteContainer(channel.token, "CUSTOMER"));
    EXPECT_TRUE(traceReads(
        trace,
        Lines{"<int> ENTRY API.ECI_deleteContainer(chanTok=" + token() + ", name=CUSTOMER)"} +
            checkName("CUSTOMER") + lock() +
            Lines{"<int> DEBUG API.ECI_deleteContainer() Current container is now NULL",
                  "<int> DEBUG API.ECI_deleteContainer() Freeing 4 bytes of container data (<ptr>)",
                  "<int> DEBUG API.ECI_deleteContainer() Deleted container \"CUSTOMER\" (<ptr>)"} +
            unlock() + Lines{"<int> EXIT API.ECI_deleteContainer() rc=0 (QPX_OK)"}));
}

TEST_F(ChannelTrace, OfAContainerThatIsNotThereUnlocksTheChannel)
{
    TraceFile trace(4);
    EXPECT_RC(-58, ECI_deleteContainer(channel.token, "OTHER"));
    EXPECT_TRUE(traceReads(
        trace,
        Lines{"<int> ENTRY API.ECI_deleteContainer(chanTok=" + token() + ", name=OTHER)"} +
            checkName("OTHER") + lock() +
            Lines{"<int> *EXC* API.ECI_deleteContainer() Container \"OTHER\" does not exist in "
                  "channel \"ORDER\""} +
            unlock() +
            Lines{"<int> EXIT API.ECI_deleteContainer() rc=-58 (ECI_ERR_CONTAINER_NOTFOUND)"}));
}

TEST_F(ChannelTrace, OfTheFirstContainer)
{
    TraceFile trace(4);
    EXPECT_RC(0, ECI_getFirstContainer(channel.token, &info));
    EXPECT_TRUE(traceReads(
        trace,
        Lines{"<int> ENTRY API.ECI_getFirstContainer(chanTok=" + token() +
              ", infoPtr=" + shown(&info) + ")"} +
            lock() +
            Lines{"<int> DEBUG API.ECI_getFirstContainer() Current container is \"CUSTOMER\""} +
            unlock() + Lines{"<int> EXIT API.ECI_getFirstContainer() rc=0 (QPX_OK)"}));
}

TEST_F(ChannelTrace, OfTheFirstContainerWithoutARecord)
{
    TraceFile trace(4);
    EXPECT_RC(-55, ECI_getFirstContainer(channel.token, nullptr));
    EXPECT_TRUE(traceReads(
        trace, {"<int> ENTRY API.ECI_getFirstContainer(chanTok=" + token() + ", infoPtr=(nil))",
                "<int> *EXC* API.ECI_getFirstContainer() infoPtr is NULL",
                "<int> EXIT API.ECI_getFirstContainer() rc=-55 (ECI_ERR_NULLINFOPTR)"}));
}

TEST_F(ChannelTrace, OfTheNextContainer)
{
    channel.addBit("SECOND");
    ASSERT_EQ("SECOND", channel.first());
    TraceFile trace(4);
    EXPECT_RC(0, ECI_getNextContainer(channel.token, &info));
    EXPECT_TRUE(traceReads(
        trace,
        Lines{"<int> ENTRY API.ECI_getNextContainer(chanTok=" + token() +
              ", infoPtr=" + shown(&info) + ")"} +
            lock() +
            Lines{"<int> DEBUG API.ECI_getNextContainer() Current container is \"CUSTOMER\""} +
            unlock() + Lines{"<int> EXIT API.ECI_getNextContainer() rc=0 (QPX_OK)"}));
}

TEST_F(ChannelTrace, OfTheEndOfTheContainersUnlocksTheChannel)
{
    ASSERT_EQ("CUSTOMER", channel.first());
    TraceFile trace(4);
    EXPECT_RC(-54, ECI_getNextContainer(channel.token, &info));
    EXPECT_TRUE(traceReads(
        trace,
        Lines{"<int> ENTRY API.ECI_getNextContainer(chanTok=" + token() +
              ", infoPtr=" + shown(&info) + ")"} +
            lock() +
            Lines{"<int> *EXC* API.ECI_getNextContainer() No more containers in channel "
                  "\"ORDER\""} +
            unlock() +
            Lines{"<int> EXIT API.ECI_getNextContainer() rc=-54 (ECI_ERR_ENDOFCONTAINERS)"}));
}

TEST_F(ChannelTrace, OfInformation)
{
    TraceFile trace(4);
    EXPECT_RC(0, ECI_getContainerInfo(channel.token, "CUSTOMER", &info));
    EXPECT_TRUE(
        traceReads(trace, Lines{"<int> ENTRY API.ECI_getContainerInfo(chanTok=" + token() +
                                ", name=CUSTOMER, infoPtr=" + shown(&info) + ")"} +
                              checkName("CUSTOMER") + lock() + unlock() +
                              Lines{"<int> EXIT API.ECI_getContainerInfo() rc=0 (QPX_OK)"}));
}

TEST_F(ChannelTrace, OfDataRead)
{
    char buffer[3];
    std::size_t count = 0;
    TraceFile trace(4);
    EXPECT_RC(0, ECI_getContainerData(channel.token, "CUSTOMER", buffer, 3, 1, &count));
    EXPECT_TRUE(traceReads(
        trace,
        Lines{"<int> ENTRY API.ECI_getContainerData(chanTok=" + token() +
              ", name=CUSTOMER, buffer=" + shown(buffer) +
              ", length=3, offset=1, bytesReadPtr=" + shown(&count) + ")"} +
            checkName("CUSTOMER") + lock() +
            Lines{"<int> DEBUG API.ECI_getContainerData() Copied 3 bytes into " + shown(buffer)} +
            unlock() + Lines{"<int> EXIT API.ECI_getContainerData() rc=0 (QPX_OK)"}));
}

TEST_F(ChannelTrace, OfLargeLengthsIsUnsigned)
{
    char buffer[1];
    TraceFile trace(3);
    EXPECT_RC(-51,
              ECI_getContainerData(channel.token, "", buffer, 4294967295u, 4294967294u, nullptr));
    EXPECT_TRUE(trace.wroteText("API.ECI_getContainerData(chanTok=" + token() +
                                ", name=, buffer=" + shown(buffer) +
                                ", length=4294967295, offset=4294967294, bytesReadPtr=(nil))\n"));
}

TEST_F(ChannelTrace, OfOtherDataOfAnotherLength)
{
    TraceFile trace(4);
    EXPECT_RC(0, ECI_setContainerData(channel.token, "CUSTOMER", "DATA!", 5));
    EXPECT_TRUE(traceReads(
        trace,
        Lines{"<int> ENTRY API.ECI_setContainerData(chanTok=" + token() +
              ", name=CUSTOMER, data=<ptr>, dataLength=5)"} +
            checkName("CUSTOMER") + lock() +
            Lines{
                "<int> DEBUG API.ECI_setContainerData() Freeing 4 bytes of container data (<ptr>)",
                "<int> DATA API.ECI_setContainerData() data=<ptr> len=5 stopword=00000000"} +
            unlock() + Lines{"<int> EXIT API.ECI_setContainerData() rc=0 (QPX_OK)"}));
}

// Deliberate: data of the same length is not told to be freed.
TEST_F(ChannelTrace, OfOtherDataOfTheSameLength)
{
    TraceFile trace(4);
    EXPECT_RC(0, ECI_setContainerData(channel.token, "CUSTOMER", "DATA", 4));
    EXPECT_TRUE(traceReads(
        trace,
        Lines{"<int> ENTRY API.ECI_setContainerData(chanTok=" + token() +
              ", name=CUSTOMER, data=<ptr>, dataLength=4)"} +
            checkName("CUSTOMER") + lock() +
            Lines{"<int> DATA API.ECI_setContainerData() data=<ptr> len=4 stopword=00000000"} +
            unlock() + Lines{"<int> EXIT API.ECI_setContainerData() rc=0 (QPX_OK)"}));
}

TEST_F(ChannelTrace, OfDataRemoved)
{
    TraceFile trace(4);
    EXPECT_RC(0, ECI_setContainerData(channel.token, "CUSTOMER", nullptr, 0));
    EXPECT_TRUE(traceReads(
        trace, Lines{"<int> ENTRY API.ECI_setContainerData(chanTok=" + token() +
                     ", name=CUSTOMER, data=(nil), dataLength=0)"} +
                   checkName("CUSTOMER") + lock() +
                   Lines{"<int> DEBUG API.ECI_setContainerData() Freeing 4 bytes of container data "
                         "(<ptr>)"} +
                   unlock() + Lines{"<int> EXIT API.ECI_setContainerData() rc=0 (QPX_OK)"}));
}

TEST_F(ChannelTrace, OfNoDataForAnEmptyContainer)
{
    channel.addBit("EMPTY");
    TraceFile trace(4);
    EXPECT_RC(0, ECI_setContainerData(channel.token, "EMPTY", nullptr, 0));
    EXPECT_TRUE(
        traceReads(trace, Lines{"<int> ENTRY API.ECI_setContainerData(chanTok=" + token() +
                                ", name=EMPTY, data=(nil), dataLength=0)"} +
                              checkName("EMPTY") + lock() + unlock() +
                              Lines{"<int> EXIT API.ECI_setContainerData() rc=0 (QPX_OK)"}));
}

// ---- Dumps of data -----------------------------------------------------------------------------

TEST_F(ChannelTrace, OfACreationDumpsTheData)
{
    TraceFile trace(4);
    channel.addBit("NEW", "ABCDEFGHIJKLMNOPQRST");
    EXPECT_TRUE(trace.wroteText("API.ECI_createContainer() data=<ptr> len=20 stopword=00000000\n"
                                "Data truncation size=128, offset=0\n"
                                "<ptr>: 41424344 45464748 494A4B4C 4D4E4F50 : ABCDEFGHIJKLMNOP \n"
                                "<ptr>: 51525354                            : QRST\n"));
}

TEST_F(ChannelTrace, OfOtherDataDumpsTheData)
{
    TraceFile trace(4);
    EXPECT_RC(0, ECI_setContainerData(channel.token, "CUSTOMER", "\x01\xFF\x00", 3));
    EXPECT_TRUE(trace.wroteText("API.ECI_setContainerData() data=<ptr> len=3 stopword=00000000\n"
                                "Data truncation size=128, offset=0\n"
                                "<ptr>: 01FF00                              : ...\n"));
}

TEST_F(ChannelTrace, OfMuchDataIsCut)
{
    TraceFile trace(4);
    channel.addBit("NEW", std::string(1000, 'A'));
    EXPECT_EQ(8, trace.timesWroteText(
                     "<ptr>: 41414141 41414141 41414141 41414141 : AAAAAAAAAAAAAAAA \n"));
}

TEST_F(ChannelTrace, OfDataIsNotWrittenAtLevel3)
{
    TraceFile trace(3);
    channel.addBit("NEW", "secret");
    EXPECT_RC(0, ECI_setContainerData(channel.token, "NEW", "hidden", 6));
    EXPECT_EQ(0, countOfType(trace, "DATA"));
    EXPECT_FALSE(trace.wroteText("Data truncation"));
    EXPECT_FALSE(trace.wroteText("secret"));
    EXPECT_FALSE(trace.wroteText("hidden"));
}

// ---- Levels ------------------------------------------------------------------------------------

TEST_F(ChannelTraceLevel, ZeroIsSilent)
{
    TraceFile trace(0);
    everyCall();
    EXPECT_RC(-50, ECI_deleteContainer(nullptr, "X"));
    channel.token = nullptr;
    EXPECT_EQ("", trace.text());
}

TEST_F(ChannelTraceLevel, OneTellsNothingOfCallsThatGoWell)
{
    TraceFile trace(1);
    everyCall();
    channel.token = nullptr;
    EXPECT_EQ("", trace.text());
}

TEST_F(ChannelTraceLevel, TwoTellsWhichChannelsCameAndWent)
{
    TraceFile trace(2);
    everyCall();
    channel.token = nullptr;
    EXPECT_TRUE(traceReads(
        trace, {"1305 DEBUG API.ECI_createChannel() New channel \"EVERY\" created (<ptr>)",
                "<int> DEBUG API.ECI_deleteChannel() Deleted container \"TWO\" (<ptr>)",
                "1305 DEBUG API.ECI_createChannel() New channel \"EVERY\" created (<ptr>)",
                "<int> DEBUG API.ECI_deleteAllChannels() Deleted container \"THREE\" (<ptr>)",
                "<int> DEBUG API.ECI_deleteAllChannels() Deleted container \"CUSTOMER\" (<ptr>)"}));
}

TEST_F(ChannelTraceLevel, ThreeFramesEveryCall)
{
    ASSERT_RC(0, ECI_deleteChannel(&channel.token));
    TraceFile trace(3);
    everyCall();
    std::vector<std::string> frames;
    for (const TraceRecord& record : trace.records())
        if (record.type != "DEBUG" && record.message.rfind("API.", 0) == 0)
            frames.push_back(record.type + " " +
                             record.message.substr(0, record.message.find('(')));
    std::vector<std::string> expected;
    for (const char* call :
         {"createChannel", "getChannelName", "createContainer", "createContainer",
          "getFirstContainer", "getNextContainer", "getContainerInfo", "getContainerData",
          "setContainerData", "deleteContainer", "deleteChannel", "createChannel",
          "createContainer", "deleteAllChannels"}) {
        expected.push_back(std::string("ENTRY API.ECI_") + call);
        expected.push_back(std::string("EXIT API.ECI_") + call);
    }
    EXPECT_EQ(expected, frames);
    EXPECT_EQ(4, countOfType(trace, "DEBUG"));
    EXPECT_EQ(0, countOfType(trace, "DATA"));
}

TEST_F(ChannelTraceLevel, FiveTellsWhatFourDoes)
{
    ASSERT_RC(0, ECI_deleteChannel(&channel.token));
    std::vector<int> points[2];
    for (int level : {4, 5}) {
        TraceFile trace(level);
        everyCall();
        for (const TraceRecord& record : trace.records()) points[level - 4].push_back(record.point);
    }
    EXPECT_LT(100u, points[0].size());
    EXPECT_EQ(points[0], points[1]);
}
