// A connection whose receiver thread waits for the first flow after the handshake.
#ifndef UNIT_RECEIVER_FIXTURE_H
#define UNIT_RECEIVER_FIXTURE_H

#include "unit/connect_fixture.h"

namespace fixture {

class ReceiverTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(receiverWaits.awaitHits(2)); }

    // Starts an asynchronous request, sees it arrive, and returns its message id. No thread but
    // the receiver uses the library afterwards.
    int startAsync(const std::string& program = "PROG", std::size_t room = 8)
    {
        support::EciParms parms = support::asyncCall(program, support::filled(room, 'q'));
        EXPECT_RC(QPX_OK, QPX_ECI_Execute(connection.token, &parms.record));
        connection.awaitRequest();
        return parms.record.eci_message_qualifier;
    }

    int collect(support::EciParms& parms)
    {
        return QPX_ECI_Execute(connection.token, &parms.record);
    }

    // A synchronous call that is answered with these bytes. Its message id is 1.
    int callAnswered(const script::Bytes& answer)
    {
        asked = support::syncCall("PROG", support::text("question"));
        auto call = connection.start(asked);
        EXPECT_EQ(1, connection.awaitRequest().messageId());
        connection.peer.send(answer);
        return call.get();
    }

    // The connection still answers calls.
    void expectAlive()
    {
        EXPECT_RC(QPX_OK, callAnswered(script::eciReply(1, support::text("answered"))));
        EXPECT_EQ(support::text("answered"), asked.commarea());
        EXPECT_EQ(1, connection.token->connStatus.load());
    }

    // The receiver has ended by itself and left the connection in this state.
    void expectEnded(int state)
    {
        EXPECT_EQ(0, clapiWaitEvent(&connection.token->recvThreadEndedEvent));
        EXPECT_EQ(state, connection.token->connStatus.load());
        if (connection.peer.fd() >= 0) {
            EXPECT_TRUE(connection.peer.awaitEof());
        }
    }

    // Flows that nobody answers to are sent; the next call must not be disturbed.
    void expectIgnored(const script::Bytes& flows)
    {
        EXPECT_RC(QPX_OK, callAnswered(flows + script::eciReply(1, support::text("answered"))));
        EXPECT_EQ(support::text("answered"), asked.commarea());
        EXPECT_EQ(1, connection.token->connStatus.load());
    }

    support::Fault receiverWaits = watch(support::Call::Recv);
    script::ScriptedConnection connection;
    support::EciParms asked;
};

} // namespace fixture

#endif
