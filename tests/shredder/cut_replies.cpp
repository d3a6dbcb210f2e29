// Every kind of reply, cut off after every single byte: the connection is then closed, or silent
// until the application gives it up. The test is the Gateway, the application a thread.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <string>
#include <vector>

#include "load/live_blocks.h"
#include "support/channel_script.h"
#include "support/esi_script.h"

using namespace script;
using support::asyncCall;
using support::EciParms;
using support::getReplyWait;
using support::getSpecificReplyWait;
using support::syncCall;

namespace {

// ---- The calls that wait for a reply ------------------------------------------------------------

int callWith(QPX_ConnToken_t token, EciParms parms)
{
    return QPX_ECI_Execute(token, &parms.record);
}

int callProgram(QPX_ConnToken_t token)
{
    return callWith(token, syncCall("PROG", filled(40, '?')));
}

int callWithALargeCommarea(QPX_ConnToken_t token)
{
    return callWith(token, syncCall("PROG", filled(32767, '?')));
}

int callInUnit(QPX_ConnToken_t token)
{
    EciParms parms = syncCall("PROG", filled(40, '?'));
    parms.withExtendMode(ECI_EXTENDED);
    return QPX_ECI_Execute(token, &parms.record);
}

int collectNext(QPX_ConnToken_t token)
{
    EXPECT_RC(0, callWith(token, asyncCall("PROG", filled(40, '?'))));
    return callWith(token, getReplyWait(40));
}

int collectOne(QPX_ConnToken_t token)
{
    EciParms parms = asyncCall("PROG", filled(40, '?'));
    EXPECT_RC(0, QPX_ECI_Execute(token, &parms.record));
    return callWith(token, getSpecificReplyWait(parms.record.eci_message_qualifier, 40));
}

// What a reply of which nothing or not all has come leaves in a channel.
void expectWholeContainersOnly(const Channel& channel)
{
    const Names whole = {"SAME=same", "SAME=ssss", "OTHER=other",
                         "OTHER=o",   "GONE=gone", "NEW=new",
                         "SAME=",     "OTHER=",    "NEW=" + std::string(40000, 'n')};
    for (const std::string& container : channel.contents())
        EXPECT_NE(whole.end(), std::find(whole.begin(), whole.end(), container)) << container;
}

int callWithChannel(QPX_ConnToken_t token)
{
    Channel channel;
    channel.with("GONE", "gone").with("OTHER", "other").with("SAME", "same");
    EciParms parms = channelCall(ECI_SYNC, channel);
    int rc = QPX_ECI_Execute_Channel(token, &parms.record);
    expectWholeContainersOnly(channel);
    return rc;
}

int collectChannel(QPX_ConnToken_t token)
{
    Channel channel;
    channel.with("GONE", "gone").with("OTHER", "other").with("SAME", "same");
    EciParms parms = channelCall(ECI_ASYNC, channel);
    EXPECT_RC(0, QPX_ECI_Execute_Channel(token, &parms.record));
    EciParms collecting = getReplyWait(0);
    int rc = QPX_ECI_Execute_Channel(token, &collecting.record);
    expectWholeContainersOnly(channel);
    return rc;
}

int listSystems(QPX_ConnToken_t token)
{
    SystemArray systems(2);
    return QPX_listSystems(token, &systems.count, systems.get());
}

int verifyPassword(QPX_ConnToken_t token)
{
    Details details;
    return QPX_ESI_verifyPassword(token, "USER", "SECRET", nullptr, details.get());
}

int changePassword(QPX_ConnToken_t token)
{
    Details details;
    return QPX_ESI_changePassword(token, "USER", "SECRET", "OTHER", "PROD", details.get());
}

// ---- The kinds of replies -----------------------------------------------------------------------

// What the application is doing when the reply is due.
enum class State { Opening, Calling, Collecting, Closing };

struct Kind {
    const char* name;
    State state;
    int (*call)(QPX_ConnToken_t token);
    int whole; // what the call returns when all has come
    Bytes reply;
};

Bytes channelReply(int gatewayRc)
{
    return ChannelReply(4, added("NEW", 1, 0, text("new")) + modified("SAME", 1, 0, text("ssss")) +
                               modified("OTHER", 1, 0, text("o")) + deleted("GONE"))
        .to(1, gatewayRc);
}

Bytes listReply()
{
    return ListReply()
        .reported(2)
        .data(systemEntry("PROD", "production") + systemEntry("TEST"))
        .to(1);
}

constexpr int refusing = 61445;

std::vector<Kind> kindsOfReplies()
{
    const Bytes area = text("what the program answers");
    const Bytes answer = ProgramReply().commarea(area).to(1);
    return {
        {"Handshake", State::Opening, nullptr, 0, handshakeAnswer()},
        {"RefusedHandshake", State::Opening, nullptr, refusing, handshakeRefusal(refusing)},
        {"HandshakeBehindAPing", State::Opening, nullptr, 0, pingFlow() + handshakeAnswer()},
        {"Commarea", State::Calling, callProgram, 0, answer},
        {"CommareaInPart", State::Calling, callProgram, 0,
         ProgramReply().commarea(40, area).inbound(24).to(1)},
        {"NoCommarea", State::Calling, callProgram, 0, ProgramReply().to(1)},
        {"Abend", State::Calling, callProgram, ECI_ERR_TRANSACTION_ABEND,
         ProgramReply().serverCode(-7).abend("AEY9").commarea(area).to(1)},
        {"UnitOfWork", State::Calling, callInUnit, 0, ProgramReply().luwToken(7).to(1)},
        {"CommareaWithACodeOfTheGateway", State::Calling, callProgram, refusing,
         ProgramReply().commarea(area).to(1, refusing)},
        {"CollectedCommarea", State::Collecting, collectNext, 0, answer},
        {"CommareaCollectedByName", State::Collecting, collectOne, 0, answer},
        {"Channel", State::Calling, callWithChannel, 0, channelReply(0)},
        {"ChannelWithACodeOfTheGateway", State::Calling, callWithChannel, refusing,
         channelReply(refusing)},
        {"CollectedChannel", State::Collecting, collectChannel, 0, channelReply(0)},
        {"LargeCommarea", State::Calling, callWithALargeCommarea, 0,
         ProgramReply().commarea(filled(32000, 'c')).to(1)},
        {"LargeChannel", State::Calling, callWithChannel, 0,
         ChannelReply(2, added("NEW", 1, 0, filled(40000, 'n')) + deleted("GONE")).to(1)},
        {"Systems", State::Calling, listSystems, 0, listReply()},
        {"VerifiedPassword", State::Calling, verifyPassword, 0, acceptance(1)},
        {"ChangedPassword", State::Calling, changePassword, 0, acceptance(1)},
        {"RefusedPassword", State::Calling, verifyPassword, -302, refusal(1, -302)},
        {"Error", State::Calling, callProgram, refusing, errorFlow(1, refusing)},
        {"Exception", State::Calling, callProgram, QPX_ERR_GATEWAY_EXCEPTION,
         exceptionFlow(1, "out of order")},
        {"CommareaBehindAPing", State::Calling, callProgram, 0, pingFlow() + answer},
        {"CommareaBehindAReplyToNobody", State::Calling, callProgram, 0,
         ProgramReply().commarea(area).to(2) + answer},
        {"GoodbyeOfTheGateway", State::Calling, callProgram, QPX_ERR_GATEWAY_CLOSED, closeFlow()},
        {"AnswerToAClose", State::Closing, nullptr, 0, closeFlow()},
        {"AnswerToACloseBehindAPing", State::Closing, nullptr, 0, pingFlow() + closeFlow()},
    };
}

const std::vector<Kind>& kinds()
{
    static const std::vector<Kind> all = kindsOfReplies();
    return all;
}

bool isNear(std::size_t cut, std::size_t limit)
{
    constexpr std::size_t distance = 100;
    return cut + distance > limit && cut < limit + distance;
}

// After how many bytes a reply is cut off: after any number. Of a long one those around its ends
// and around the sizes of the library's buffers do, and some in between, unless QPX_SHREDDER asks
// for all.
std::vector<std::size_t> cutsOf(std::size_t length)
{
    bool all = length <= 1500 || getenv("QPX_SHREDDER") != nullptr;
    std::vector<std::size_t> cuts;
    for (std::size_t cut = 0; cut < length; ++cut)
        if (all || cut % 997 == 0 || isNear(cut, 0) || isNear(cut, 2048) || isNear(cut, 33000) ||
            isNear(cut, length))
            cuts.push_back(cut);
    return cuts;
}

// ---- What is left -------------------------------------------------------------------------------

int entriesOf(const char* folder)
{
    DIR* listing = opendir(folder);
    int count = 0;
    while (readdir(listing) != nullptr) count += 1;
    closedir(listing);
    return count;
}

// A receiver has left its connection before its thread has ended.
void awaitThreads(int count)
{
    while (entriesOf("/proc/self/task") > count) sched_yield();
}

// ---- The conversations --------------------------------------------------------------------------

constexpr int RESTING_RECORDS = 64;

class CutReply : public ::testing::TestWithParam<int> {
protected:
    CutReply()
    {
        // So many records of closed connections rest; and what is made once is there.
        for (int i = 0; i <= RESTING_RECORDS; ++i) useFreshConnection();
        blocks_ = load::liveBlocks();
        descriptors_ = entriesOf("/proc/self/fd");
        threads_ = entriesOf("/proc/self/task");
    }

    const Kind& kind() const { return kinds()[static_cast<std::size_t>(GetParam())]; }

    void expectNothingLeft() const
    {
        EXPECT_EQ(blocks_, load::liveBlocks());
        awaitThreads(threads_);
        EXPECT_EQ(descriptors_, entriesOf("/proc/self/fd"));
    }

    // The application, up to its call's result. What it has opened it leaves to others to close.
    int converse()
    {
        QPX_ConnToken_t token = nullptr;
        int rc = QPX_openRemoteGatewayConnection(localHost(), gateway_.port(), &token, 0);
        token_ = token;
        if (rc != QPX_OK || kind().state == State::Opening) return rc;
        return kind().state == State::Closing ? closeIt() : kind().call(token);
    }

    int closeIt()
    {
        QPX_ConnToken_t token = token_.exchange(nullptr);
        return token == nullptr ? QPX_OK : QPX_closeGatewayConnection(&token);
    }

    static void awaitGoodbye(Peer& peer) { EXPECT_EQ(closeFlow(), peer.read(33)); }

    // The Gateway, up to and with as much of the reply.
    Peer answerInPart(std::size_t length)
    {
        Peer peer = gateway_.accept();
        peer.read(handshakeSize);
        if (kind().state != State::Opening) peer.send(handshakeAnswer());
        if (kind().call != nullptr) readRequest(peer);
        if (kind().state == State::Closing) awaitGoodbye(peer);
        peer.send(support::slice(kind().reply, 0, length));
        return peer;
    }

    // One call that is answered, by itself.
    void useFreshConnection()
    {
        auto application = callInThread([this] {
            QPX_ConnToken_t token = nullptr;
            int rc = QPX_openRemoteGatewayConnection(localHost(), gateway_.port(), &token, 0);
            EciParms parms = syncCall("NEXT", filled(5, '?'));
            if (rc == QPX_OK) rc = QPX_ECI_Execute(token, &parms.record);
            EXPECT_EQ(text("right"), parms.commarea());
            EXPECT_RC(QPX_OK, QPX_closeGatewayConnection(&token));
            return rc;
        });
        Peer peer = gateway_.accept();
        peer.read(handshakeSize);
        peer.send(handshakeAnswer());
        readRequest(peer);
        peer.send(ProgramReply().commarea(text("right")).to(1));
        awaitGoodbye(peer);
        peer.send(closeFlow());
        EXPECT_RC(QPX_OK, application.get());
    }

    // The next call is right, and when all is closed nothing is left.
    void expectAllWell()
    {
        closeIt();
        useFreshConnection();
        QPX_closeAllGatewayConnections();
        expectNothingLeft();
    }

    // What a call gets whose reply does not come whole.
    int cutCode() const { return kind().state == State::Closing ? QPX_OK : QPX_ERR_LOSTGWCON; }

    std::atomic<QPX_ConnToken_t> token_{nullptr};

private:
    ScriptedGateway gateway_;
    long blocks_ = 0;
    int descriptors_ = 0;
    int threads_ = 0;
};

std::string nameOf(const ::testing::TestParamInfo<int>& info)
{
    return kinds()[static_cast<std::size_t>(info.param)].name;
}

INSTANTIATE_TEST_SUITE_P(, CutReply, ::testing::Range(0, static_cast<int>(kinds().size())), nameOf);

TEST_P(CutReply, IsTheEndOfTheConnectionWhenThatIsClosedAfterAnyByte)
{
    std::vector<std::size_t> lengths = cutsOf(kind().reply.size());
    lengths.push_back(kind().reply.size());
    for (std::size_t length : lengths) {
        SCOPED_TRACE(length);
        bool isWhole = length == kind().reply.size();
        auto application = callInThread([this] { return converse(); });
        Peer peer = answerInPart(length);
        if (!isWhole) peer.close();
        ASSERT_RC(isWhole ? kind().whole : cutCode(), application.get());
        peer.close();
        expectAllWell();
        if (HasFailure()) return;
    }
}

// An open and a close have no other way out than the end of the connection. A call is given up by a
// purge of its connection; but one that collects might come too late for it.
TEST_P(CutReply, IsWaitedForWhenTheConnectionIsSilentAfterAnyByte)
{
    for (std::size_t length : cutsOf(kind().reply.size())) {
        SCOPED_TRACE(length);
        auto application = callInThread([this] { return converse(); });
        Peer peer = answerInPart(length);
        bool isPurged = kind().state == State::Calling;
        auto purge = callInThread([this, isPurged] {
            QPX_ConnToken_t token = isPurged ? token_.exchange(nullptr) : nullptr;
            return token == nullptr ? QPX_OK : QPX_purgeGatewayConnection(&token, 0);
        });
        if (isPurged) awaitGoodbye(peer); // the purge waits for the answer now
        EXPECT_FALSE(application.hasEnded());
        peer.close();
        ASSERT_RC(cutCode(), application.get());
        EXPECT_RC(QPX_OK, purge.get());
        expectAllWell();
        if (HasFailure()) return;
    }
}

} // namespace
