// An open whose handshake is answered, and whose connection has ended before the open looks.
#include "schedule/race_fixture.h"

namespace {

using namespace race;

class OpenThenEnd : public ::testing::Test {
protected:
    // Opens, and returns the result, with what has been sent behind the answer in force already.
    int openMeeting(const Bytes& behindTheAnswer)
    {
        Hold answered(SchedulePoint::handshakeAnswered);
        Counter ended(SchedulePoint::connectionEnded);
        auto opening = callInThread([this] {
            return QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token, 0);
        });
        peer = gateway.accept();
        peer.read(handshakeSize);
        peer.send(handshakeAnswer() + behindTheAnswer);
        if (behindTheAnswer.empty()) peer.shutdownWriting();
        answered.awaitArrival();
        ended.await(1);
        auto* about = static_cast<_QPX_ConnToken_t*>(const_cast<void*>(answered.heldAbout()));
        passTable(about);
        answered.release();
        return opening.get();
    }

    // The receiver has given the table up.
    static void passTable(_QPX_ConnToken_t* gwTok)
    {
        pthread_mutex_lock(&gwTok->tableLock.lock);
        pthread_mutex_unlock(&gwTok->tableLock.lock);
    }

    ScriptedGateway gateway;
    Peer peer;
    QPX_ConnToken_t token = nullptr;
};

TEST_F(OpenThenEnd, SucceedsWithoutALineOfRefusalWhenTheGatewayHasClosed)
{
    TraceFile trace(1);

    EXPECT_RC(0, openMeeting(closeFlow()));

    EXPECT_EQ("", trace.text());
    ASSERT_NE(nullptr, token);
    EXPECT_EQ(CONN_CLOSED, token->connStatus.load());
    EXPECT_RC(0, QPX_closeGatewayConnection(&token));
}

TEST_F(OpenThenEnd, FailsWithALineOfRefusalWhenTheConnectionIsLost)
{
    TraceFile trace(1);

    EXPECT_RC(QPX_ERR_LOSTGWCON, openMeeting(Bytes()));

    EXPECT_TRUE(trace.wroteText("Handshake flow returned an error: -102")) << trace.text();
    EXPECT_EQ(nullptr, token);
}

} // namespace
