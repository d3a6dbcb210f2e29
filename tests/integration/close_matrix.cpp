// Every way to close a connection with everything that may be in progress on it.
#include "support/close_matrix.h"

using namespace matrix;

namespace {

// What is due to each work: the words by which a close that waits tells what for, what its calls
// return when they are let finish and when they are not, and what went over the wire before the
// close flow.
struct Due {
    const char* waitsFor;
    std::vector<int> finished;
    std::vector<int> givenUp;
    const char* requests;
    const char* replies;
};

Due dueTo(Work work)
{
    const char* oneCall = "1 API calls and 0 async requests to complete\n";
    const char* oneRequest = "0 API calls and 1 async requests to complete\n";
    const char* oneOfEach = "1 API calls and 1 async requests to complete\n";
    switch (work) {
    case Work::SyncCall: return {oneCall, {0}, {-140}, " ECI", " reply"};
    case Work::AsyncRequests:
        return {"0 API calls and 2 async requests to complete\n",
                {0, 0},
                {},
                " ECI ECI",
                " reply reply"};
    case Work::UncollectedReply: return {oneRequest, {0}, {}, " ECI ECI", " reply reply"};
    case Work::CollectorOfNothing: return {"", {-140}, {-140}, "", ""};
    case Work::CollectorOfAny: return {oneOfEach, {0}, {-140}, " ECI", " reply"};
    case Work::CollectorOfOne: return {oneOfEach, {0}, {-140}, " ECI", " reply"};
    case Work::SyncChannel: return {oneCall, {0}, {-140}, " ECI", " reply"};
    case Work::AsyncChannel: return {oneRequest, {0}, {}, " ECI", " reply"};
    case Work::PasswordCheck: return {oneCall, {0}, {-140}, " ESI", " reply"};
    case Work::SystemsQuery: return {oneCall, {0}, {-140}, " ECI", " reply"};
    default: return {"", {}, {}, "", ""};
    }
}

class CloseMatrix : public ::testing::TestWithParam<Case> {
protected:
    Closing closing() const { return std::get<0>(GetParam()); }
    Work work() const { return std::get<1>(GetParam()); }

    // The line of a close that waits; none where the close does not.
    std::string waitLine() const
    {
        std::string words = dueTo(work()).waitsFor;
        if (words.empty()) return "";
        switch (closing()) {
        case Closing::Close: return "clapi_gwytok.quiesceConnection() Waiting for " + words;
        case Closing::PurgeLong:
            return "clapi_gwytok.quiesceConnection() Waiting 3600 seconds for " + words;
        case Closing::PurgeShort:
            return "clapi_gwytok.quiesceConnection() Waiting 1 seconds for " + words;
        default: return "";
        }
    }

    void closeDuringWork() { connection.closeDuring(work(), closing(), waitLine()); }

    void TearDown() override
    {
        if (connection.channel != nullptr) connection.deleteChannel();
    }

    BusyConnection connection;
};

// The flows of one direction by their kinds, in order.
std::string kindsOf(standin::Bytes stream)
{
    std::string kinds;
    while (auto split = standin::splitFlow(stream)) {
        switch (split->flow.header.flowType) {
        case 1: kinds += " " + split->flow.header.requestType; break;
        case 3: kinds += " reply"; break;
        case 5: kinds += " handshake"; break;
        case 10: kinds += " close"; break;
        default: kinds += " " + std::to_string(split->flow.header.flowType);
        }
        stream.erase(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(split->size));
    }
    return kinds;
}

} // namespace

TEST_P(CloseMatrix, GivesEveryCallItsResult)
{
    closeDuringWork();
    EXPECT_EQ(isPatient(closing()) ? dueTo(work()).finished : dueTo(work()).givenUp,
              connection.results);
}

TEST_P(CloseMatrix, SendsItsFlowBehindEverythingElse)
{
    closeDuringWork();
    Due due = dueTo(work());
    bool isAnswered = isPatient(closing()) || work() == Work::UncollectedReply;
    EXPECT_EQ(std::string(" handshake") + due.requests + " close",
              kindsOf(connection.gateway->received()));
    EXPECT_EQ(std::string(" handshake") + (isAnswered ? due.replies : "") + " close",
              kindsOf(connection.gateway->sent()));
    EXPECT_EQ(0U, connection.gateway->findingCount());
}

TEST_P(CloseMatrix, LeavesTheChannelToTheApplication)
{
    closeDuringWork();
    connection.deleteChannel();
}

TEST_P(CloseMatrix, LeavesNoToken)
{
    closeDuringWork();
    char* applid = nullptr;
    EXPECT_RC(QPX_ERR_BADGWTOK, QPX_getApplid(connection.token, &applid));
    connection.trace.forget();
    QPX_dumpState();
    EXPECT_TRUE(connection.trace.wroteText("The Gateway Token List is EMPTY\n"));
}

INSTANTIATE_TEST_SUITE_P(, CloseMatrix,
                         ::testing::Combine(::testing::Values(Closing::Close, Closing::PurgeLong,
                                                              Closing::PurgeNow, Closing::CloseAll),
                                            everyWork()),
                         nameOf);

// A purge whose time runs out takes a second, hence once for each work.
namespace {

class CloseMatrixOutOfTime : public CloseMatrix {};

} // namespace

TEST_P(CloseMatrixOutOfTime, GivesEveryCallItsResultAndTheChannelBack)
{
    closeDuringWork();
    EXPECT_EQ(dueTo(work()).givenUp, connection.results);
    connection.deleteChannel();
    EXPECT_EQ(1U, connection.gateway->closeFlowCount());
}

INSTANTIATE_TEST_SUITE_P(, CloseMatrixOutOfTime,
                         ::testing::Combine(::testing::Values(Closing::PurgeShort), everyWork()),
                         nameOf);
