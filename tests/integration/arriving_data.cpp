// Data of a channel's reply takes memory as it arrives, and not as it is announced; what has not
// arrived whole is not in the channel.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "support/channel_script.h"

using namespace script;
using support::changeAdded;
using support::changeModified;
using support::EciParms;
using support::getReplyWait;

namespace {

constexpr std::size_t million = 1'000'000;
constexpr std::size_t arrived = 33'000; // of the data, before the connection ends

// A line of /proc/self/status in bytes, such as VmHWM.
std::size_t statusOf(const std::string& name)
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.compare(0, name.size() + 1, name + ":") == 0)
            return std::strtoul(line.c_str() + name.size() + 1, nullptr, 10) * 1024;
    ADD_FAILURE() << "no " << name << " in /proc/self/status";
    return 0;
}

// The most memory that the process has had since this was made, above what it had then.
class Peak {
public:
    Peak()
    {
        std::ofstream("/proc/self/clear_refs") << "5"; // the peak so far counts no more
        resident_ = statusOf("VmRSS");
        space_ = statusOf("VmPeak");
    }

    std::size_t resident() const { return above(statusOf("VmHWM"), resident_); }
    std::size_t addressSpace() const { return above(statusOf("VmPeak"), space_); }

private:
    static std::size_t above(std::size_t now, std::size_t before)
    {
        return now > before ? now - before : 0;
    }

    std::size_t resident_ = 0;
    std::size_t space_ = 0;
};

// Data in which a byte at a wrong place shows.
const Bytes& pattern()
{
    static const Bytes bytes = [] {
        Bytes made(65'521);
        for (std::size_t at = 0; at < made.size(); ++at)
            made[at] = static_cast<unsigned char>(at * 7 + at / 251);
        return made;
    }();
    return bytes;
}

Bytes patternOf(std::size_t length)
{
    Bytes bytes;
    bytes.reserve(length);
    while (bytes.size() < length) {
        std::size_t count = std::min(length - bytes.size(), pattern().size());
        bytes += support::slice(pattern(), 0, count);
    }
    return bytes;
}

class ArrivingData : public ::testing::Test {
protected:
    ArrivingData() { channel.with("B", "bb").with("A", "aa"); }

    // What a failing case leaves in the channel may be too much to be freed.
    void TearDown() override
    {
        if (HasFatalFailure()) channel.token = nullptr;
    }

    RunningCall<int> startSync()
    {
        auto running = startChannelCall(connection, sync);
        messageId = connection.awaitRequest().messageId();
        return running;
    }

    // A reply with one record that announces so much data, up to the data.
    Bytes announcing(int code, const std::string& name, std::size_t length, std::size_t behind = 0,
                     int records = 1) const
    {
        Bytes body = support::replyBody(channelSection(
            "CHANNEL", 819, records, support::changeOf(name, code, 1, 0, int(length))));
        return header(replyType, messageId, 0, 3, "ECI", int(body.size() + length + behind)) + body;
    }

    // Data of the pattern, without memory for the whole of it.
    void sendPattern(std::size_t length)
    {
        std::size_t left = length;
        for (; left >= pattern().size(); left -= pattern().size()) connection.peer.send(pattern());
        if (left != 0) connection.peer.send(support::slice(pattern(), 0, left));
    }

    bool holdsPattern(const std::string& name, std::size_t length)
    {
        ECI_CONTAINER_INFO info{};
        EXPECT_RC(0, ECI_getContainerInfo(channel.token, name.c_str(), &info));
        EXPECT_EQ(length, std::size_t{info.dataLength});
        if (length != info.dataLength) return false;
        Bytes part(pattern().size());
        for (std::size_t at = 0; at < length; at += part.size()) {
            std::size_t wanted = std::min(length - at, part.size());
            std::size_t copied = 0;
            EXPECT_RC(0, ECI_getContainerData(channel.token, name.c_str(), part.data(), wanted, at,
                                              &copied));
            if (copied != wanted ||
                !std::equal(part.begin(), part.begin() + long(wanted), pattern().begin()))
                return false;
        }
        return true;
    }

    Names names() const
    {
        Names all;
        ECI_CONTAINER_INFO info{};
        for (int rc = ECI_getFirstContainer(channel.token, &info); rc == 0;
             rc = ECI_getNextContainer(channel.token, &info))
            all.push_back(std::string(info.name) + ":" + std::to_string(info.dataLength));
        return all;
    }

    ScriptedConnection connection;
    Channel channel;
    EciParms sync = channelCall(ECI_SYNC, channel);
    EciParms async = channelCall(ECI_ASYNC, channel);
    int messageId = 0;
};

// ---- Cut off ----

class DataCutOff : public ArrivingData, public ::testing::WithParamInterface<std::size_t> {};

INSTANTIATE_TEST_SUITE_P(, DataCutOff, ::testing::Values(1'500'000U, 100'000'000U, 2'000'000'000U),
                         [](const auto& one) { return std::to_string(one.param) + "Bytes"; });

TEST_P(DataCutOff, LeavesNoAddedContainerOfASynchronousCall)
{
    auto running = startSync();
    connection.peer.send(announcing(changeAdded, "NEW", GetParam()) + filled(arrived, 'n'));
    connection.peer.reset();
    EXPECT_RC(-102, running.get());
    ASSERT_EQ((Names{"A:2", "B:2"}), names());
    EXPECT_EQ((Names{"A=aa", "B=bb"}), channel.contents());
}

TEST_P(DataCutOff, LeavesNoAddedContainerWhenTheStreamEndsInOrder)
{
    auto running = startSync();
    connection.peer.send(announcing(changeAdded, "NEW", GetParam()) + filled(arrived, 'n'));
    connection.peer.close();
    EXPECT_RC(-102, running.get());
    ASSERT_EQ((Names{"A:2", "B:2"}), names());
}

TEST_P(DataCutOff, LeavesNoAddedContainerOfAnAsynchronousCall)
{
    ASSERT_RC(0, executeChannel(connection, async));
    messageId = connection.awaitRequest().messageId();
    connection.peer.send(announcing(changeAdded, "NEW", GetParam()) + filled(arrived, 'n'));
    connection.peer.reset();
    EciParms parms = getReplyWait(0);
    EXPECT_RC(-102, executeChannel(connection, parms));
    ASSERT_EQ((Names{"A:2", "B:2"}), names());
}

TEST_P(DataCutOff, LeavesNothingInPart)
{
    auto running = startSync();
    Bytes whole = added("WHOLE", 1, 0, text("w"));
    Bytes cut = support::changeOf("NEW", changeAdded, 1, 0, int(GetParam()));
    Bytes body = support::replyBody(channelSection("CHANNEL", 819, 3, whole + deleted("B") + cut));
    connection.peer.send(header(replyType, messageId, 0, 3, "ECI", int(body.size() + GetParam())) +
                         body + filled(arrived, 'n'));
    connection.peer.close(); // a reset might overtake what has been sent
    EXPECT_RC(-102, running.get());
    // None of it, if the sender had not yet noticed that its request was through.
    Names left = names();
    ASSERT_TRUE(left == (Names{"WHOLE:1", "A:2"}) || left == (Names{"A:2", "B:2"}))
        << ::testing::PrintToString(left);
}

// Neither the reply nor the deletion afterwards touches memory for what has not come.
TEST_P(DataCutOff, TakesMemoryForWhatHasArrivedOnly)
{
    Peak peak;
    auto running = startSync();
    connection.peer.send(announcing(changeAdded, "NEW", GetParam()) + filled(arrived, 'n'));
    connection.peer.reset();
    EXPECT_RC(-102, running.get());
    ASSERT_EQ((Names{"A:2", "B:2"}), names());
    EXPECT_RC(0, ECI_deleteChannel(&channel.token));
    EXPECT_GT(million, peak.resident());
#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)
    EXPECT_GT(64 * million, peak.addressSpace()); // with the stack of the calling thread
#endif
}

class ModifiedDataCutOff : public ArrivingData,
                           public ::testing::WithParamInterface<std::pair<int, int>> {
protected:
    // As before, or empty.
    void expectNoMixture()
    {
        ECI_CONTAINER_INFO info{};
        ASSERT_RC(0, ECI_getContainerInfo(channel.token, "OLD", &info));
        if (info.dataLength == 0) return;
        ASSERT_EQ(before.size(), info.dataLength);
        EXPECT_TRUE(before == channel.dataOf("OLD"));
    }

    std::string before = std::string(static_cast<std::size_t>(GetParam().first), 'o');
    std::size_t announced = static_cast<std::size_t>(GetParam().second);
};

INSTANTIATE_TEST_SUITE_P(
    , ModifiedDataCutOff,
    ::testing::Values(std::make_pair(100'000, 100'000), std::make_pair(1'500'000, 1'500'000),
                      std::make_pair(200'000, 100'000), std::make_pair(10, 1'500'000),
                      std::make_pair(10, 100'000'000), std::make_pair(0, 100'000),
                      std::make_pair(100'000, 2'000'000'000)),
    [](const auto& one) {
        return std::to_string(one.param.first) + "To" + std::to_string(one.param.second);
    });

TEST_P(ModifiedDataCutOff, LeavesTheContainerAsItWasOrEmpty)
{
    channel.with("OLD", before);
    auto running = startSync();
    connection.peer.send(announcing(changeModified, "OLD", announced) + filled(arrived, 'n'));
    connection.peer.reset();
    EXPECT_RC(-102, running.get());
    expectNoMixture();
}

TEST_P(ModifiedDataCutOff, LeavesTheContainerOfAnAsynchronousCallAsItWasOrEmpty)
{
    channel.with("OLD", before);
    ASSERT_RC(0, executeChannel(connection, async));
    messageId = connection.awaitRequest().messageId();
    connection.peer.send(announcing(changeModified, "OLD", announced) + filled(arrived, 'n'));
    connection.peer.close();
    EciParms parms = getReplyWait(0);
    EXPECT_RC(-102, executeChannel(connection, parms));
    expectNoMixture();
}

// The beginning of the data may come with the head, or be all that comes.
TEST_F(ArrivingData, CutOffAnywhereLeavesNoAddedContainer)
{
    for (std::size_t there : {0U, 1U, 32'921U, 32'922U, 32'923U, 33'000U, 99'999U}) {
        SCOPED_TRACE(there);
        ScriptedConnection cut;
        EciParms parms = channelCall(ECI_SYNC, channel);
        auto running = startChannelCall(cut, parms);
        messageId = cut.awaitRequest().messageId();
        cut.peer.send(announcing(changeAdded, "NEW", 100'000) + filled(there, 'n'));
        cut.peer.close();
        EXPECT_RC(-102, running.get());
        ASSERT_EQ((Names{"A:2", "B:2"}), names());
    }
}

// ---- Whole ----

class WholeData : public ArrivingData, public ::testing::WithParamInterface<std::size_t> {
protected:
    // One record of the given kind, and a small one behind it, in pieces.
    void answerInPieces(int code, const std::string& name, std::size_t pieceSize)
    {
        Bytes last = added("LAST", 1, 0, text("last"));
        connection.peer.sendInPieces(announcing(code, name, GetParam(), last.size(), 2) +
                                         patternOf(GetParam()) + last,
                                     pieceSize);
    }
};

INSTANTIATE_TEST_SUITE_P(, WholeData,
                         ::testing::Values(1U, 32'918U, 32'921U, 32'922U, 32'923U, 32'999U, 33'000U,
                                           33'001U, 65'536U, 66'000U, 999'999U, 1'000'000U,
                                           1'000'001U, 1'048'575U, 1'048'576U, 1'048'577U,
                                           3'000'000U),
                         [](const auto& one) { return std::to_string(one.param) + "Bytes"; });

TEST_P(WholeData, IsAddedExactly)
{
    for (std::size_t pieceSize : {977U, 33'000U, 5'000'000U}) {
        SCOPED_TRACE(pieceSize);
        auto running = startSync();
        answerInPieces(changeAdded, "NEW", pieceSize);
        EXPECT_RC(0, running.get());
        EXPECT_TRUE(holdsPattern("NEW", GetParam()));
        EXPECT_EQ("last", channel.dataOf("LAST"));
        for (const char* name : {"NEW", "LAST"})
            EXPECT_RC(0, ECI_deleteContainer(channel.token, name));
    }
    expectStillServing(connection);
}

TEST_P(WholeData, IsExactInPlaceOfOtherData)
{
    for (std::size_t before : {std::size_t{0}, GetParam(), GetParam() + 1, std::size_t{40'000}}) {
        SCOPED_TRACE(before);
        channel.with("OLD", std::string(before, 'o'));
        auto running = startSync();
        answerInPieces(changeModified, "OLD", 4999);
        EXPECT_RC(0, running.get());
        EXPECT_TRUE(holdsPattern("OLD", GetParam()));
        EXPECT_EQ("last", channel.dataOf("LAST"));
        for (const char* name : {"OLD", "LAST"})
            EXPECT_RC(0, ECI_deleteContainer(channel.token, name));
    }
    expectStillServing(connection);
}

#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)

constexpr std::size_t hundred = 100 * million;

TEST_F(ArrivingData, OfAHundredMillionBytesTakesLittleMoreThanThat)
{
    auto running = startSync();
    Bytes head = announcing(changeAdded, "NEW", hundred);
    pattern();
    Peak peak;
    connection.peer.send(head);
    sendPattern(hundred);
    EXPECT_RC(0, running.get());
    EXPECT_GT(hundred + million, peak.resident());
    EXPECT_TRUE(holdsPattern("NEW", hundred));
    expectStillServing(connection);
}

TEST_F(ArrivingData, InPlaceOfAsMuchTakesLittleMoreThanIsThere)
{
    for (std::size_t length : {hundred, hundred - 1}) {
        SCOPED_TRACE(length);
        channel.with("OLD", std::string(hundred, 'o'));
        auto running = startSync();
        Bytes head = announcing(changeModified, "OLD", length);
        pattern();
        Peak peak;
        connection.peer.send(head);
        sendPattern(length);
        EXPECT_RC(0, running.get());
        EXPECT_GT(million, peak.resident());
        EXPECT_TRUE(holdsPattern("OLD", length));
        EXPECT_RC(0, ECI_deleteContainer(channel.token, "OLD"));
    }
    expectStillServing(connection);
}

#endif

// ---- Ahead of its own request ----

struct Change {
    int code;
    std::string name;
    std::size_t length;
};

// A reply that comes while its request is being sent: the peer reads on once the reply has been put
// aside.
class OvertakingData : public ArrivingData {
protected:
    OvertakingData()
    {
        int room = 65536;
        setsockopt(connection.peer.fd(), SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
        channel.with("LARGE", std::string(large, 'L'));
    }

    // Of the request only the header is read.
    RunningCall<int> startStuck(EciParms& parms)
    {
        auto running = startChannelCall(connection, parms);
        Bytes head = connection.peer.read(32);
        messageId = support::int32At(head, 12);
        unread = static_cast<std::size_t>(support::int32At(head, 28));
        return running;
    }

    void sendReply(const std::vector<Change>& changes)
    {
        Bytes body = support::replyBody(
            channelSection("CHANNEL", 819, static_cast<int>(changes.size()), Bytes()));
        std::size_t length = body.size();
        for (const Change& one : changes) length += headOf(one).size() + one.length;
        connection.peer.send(header(replyType, messageId, 0, 3, "ECI", int(length)) + body);
        for (const Change& one : changes) {
            connection.peer.send(headOf(one));
            sendPattern(one.length);
        }
    }

    void readOn()
    {
        constexpr std::size_t piece = 65536;
        for (; unread > piece; unread -= piece) connection.peer.read(piece);
        connection.peer.read(unread);
    }

    // The same, as long as there is a connection.
    void readOnToTheEnd()
    {
        std::vector<unsigned char> piece(65536);
        ssize_t got = 1;
        while (got > 0 || (got < 0 && errno == EINTR))
            got = recv(connection.peer.fd(), piece.data(), piece.size(), 0);
    }

    static Bytes headOf(const Change& change)
    {
        return support::changeOf(change.name, change.code, 1, 0, int(change.length));
    }

    // More than the buffers of a connection hold: while the peer does not read, its sender waits.
    static constexpr std::size_t large = 20 * million;

    EciParms other = support::syncCall("OTHER", filled(5, '?'));
    std::size_t unread = 0;
};

class OvertakingDataCutOff : public OvertakingData,
                             public ::testing::WithParamInterface<std::size_t> {};

INSTANTIATE_TEST_SUITE_P(, OvertakingDataCutOff, ::testing::Values(100'000'000U, 2'000'000'000U),
                         [](const auto& one) { return std::to_string(one.param) + "Bytes"; });

TEST_P(OvertakingDataCutOff, TakesMemoryForWhatHasArrivedOnly)
{
    auto running = startStuck(sync);
    Peak peak;
    connection.peer.send(announcing(changeAdded, "NEW", GetParam()) + filled(arrived, 'n'));
    connection.peer.shutdownWriting();
    readOnToTheEnd();
    EXPECT_RC(-102, running.get());
    EXPECT_EQ((Names{"LARGE:20000000", "A:2", "B:2"}), names());
    EXPECT_GT(million, peak.resident());
#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)
    EXPECT_GT(64 * million, peak.addressSpace()); // with the stack of the calling thread
#endif
}

std::vector<Change> manyChanges()
{
    std::vector<Change> changes;
    for (int number = 0; number < 1000; ++number)
        changes.push_back({changeAdded, "NEW" + std::to_string(number), 100'000});
    return changes;
}

struct Reply {
    std::string name;
    std::vector<Change> changes;
};

const std::vector<Reply>& replies()
{
    static const std::vector<Reply> all = {
        {"OneAdded", {{changeAdded, "NEW", 100 * million}}},
        {"OneModified", {{changeModified, "A", 100 * million}}},
        {"Several",
         {{changeAdded, "NEW", 30 * million},
          {changeModified, "A", 20 * million + 1},
          {changeAdded, "NEWER", million - 1},
          {changeModified, "LARGE", 20 * million}, // as long as before
          {changeModified, "B", 30 * million}}},
        {"Many", manyChanges()}};
    return all;
}

class OvertakingChanges : public OvertakingData, public ::testing::WithParamInterface<int> {
protected:
    void expectWholeWithLittleMemory(EciParms& parms)
    {
        auto otherCall = connection.start(other);
        int otherId = connection.awaitRequest().messageId();
        auto running = startStuck(parms);
        pattern();
        Peak peak;
        sendReply(changes);
        connection.peer.send(eciReply(otherId, text("other")));
        EXPECT_RC(0, otherCall.get()); // what came before has been put aside
        EXPECT_FALSE(running.hasEnded());
        readOn();
        EXPECT_RC(0, running.get());
#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)
        std::size_t payload = 0;
        for (const Change& one : changes) payload += one.length;
        EXPECT_GT(payload + 4 * million, peak.resident());
#endif
    }

    void expectExact()
    {
        for (const Change& one : changes)
            EXPECT_TRUE(holdsPattern(one.name, one.length)) << one.name;
    }

    const std::vector<Change>& changes = replies()[static_cast<std::size_t>(GetParam())].changes;
};

INSTANTIATE_TEST_SUITE_P(, OvertakingChanges, ::testing::Range(0, 4), [](const auto& one) {
    return replies()[static_cast<std::size_t>(one.param)].name;
});

TEST_P(OvertakingChanges, AreExactAndTakeLittleMoreThanTheirData)
{
    expectWholeWithLittleMemory(sync);
    expectExact();
    expectStillServing(connection);
}

TEST_P(OvertakingChanges, AreExactAndTakeLittleMoreThanTheirDataForAnAsynchronousCall)
{
    expectWholeWithLittleMemory(async);
    EciParms parms = getReplyWait(0);
    EXPECT_RC(0, executeChannel(connection, parms));
    expectExact();
    expectStillServing(connection);
}

} // namespace
