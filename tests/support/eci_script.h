// What the tests of ECI calls add to connection_script.h: replies that say whatever a test wants
// them to say, and connections brought into the states that these calls look at.
#ifndef SUPPORT_ECI_SCRIPT_H
#define SUPPORT_ECI_SCRIPT_H

#include <string>

#include "support/connection_script.h"
#include "support/trace_file.h"

namespace script {

using support::shown;

// The reply to a program call, field by field. The COMMAREA's length, the inbound length and the
// bytes that follow are independent of one another.
class ProgramReply {
public:
    ProgramReply& callType(int value) { return callType_ = value, *this; }
    ProgramReply& luwToken(int value) { return luwToken_ = value, *this; }
    ProgramReply& qualifier(int value) { return qualifier_ = value, *this; }
    ProgramReply& serverCode(int value) { return serverCode_ = value, *this; }
    ProgramReply& abend(const std::string& code) { return abend_ = code, *this; }

    // The length of the COMMAREA, and as many bytes as are given.
    ProgramReply& commarea(int length, const Bytes& bytes)
    {
        length_ = be32(length);
        bytes_ = bytes;
        return *this;
    }
    ProgramReply& commarea(const Bytes& bytes)
    {
        return commarea(static_cast<int>(bytes.size()), bytes);
    }

    // Fewer bytes travel than the COMMAREA has.
    ProgramReply& inbound(int length)
    {
        inbound_ = hex("FF 00") + be32(length);
        return *this;
    }

    Bytes body() const
    {
        return be32(callType_) + be32(luwToken_) + be32(qualifier_) + be32(serverCode_) +
               text(abend_) + length_ + inbound_ + bytes_ + hex("00");
    }

    Bytes to(int messageId, int gatewayRc = 0) const
    {
        return flow(replyType, messageId, gatewayRc, "ECI", body());
    }

private:
    int callType_ = 1;
    int luwToken_ = 0;
    int qualifier_ = 0;
    int serverCode_ = 0;
    std::string abend_ = "    ";
    Bytes length_ = be32(0);
    Bytes inbound_ = hex("00");
    Bytes bytes_;
};

// The line by which the receiver thread tells that it is gone, and the connection with it.
constexpr const char* receiverEnded = "[3041] EXIT";

// Ends the connection without a close flow and waits until the library has seen it. The trace must
// be at level 3 or above.
inline void lose(ScriptedConnection& connection, const support::TraceFile& trace)
{
    connection.peer.close();
    ASSERT_TRUE(trace.awaitText(receiverEnded));
}

// The Gateway's close flow, likewise.
inline void closeByGateway(ScriptedConnection& connection, const support::TraceFile& trace)
{
    connection.peer.send(closeFlow());
    ASSERT_TRUE(trace.awaitText(receiverEnded));
}

// Whether the connection still serves calls: one more is made and answered.
inline void expectStillServing(ScriptedConnection& connection)
{
    support::EciParms parms = support::syncCall("AGAIN", filled(5, '?'));
    auto call = connection.start(parms);
    Request request = connection.awaitRequest();
    connection.peer.send(ProgramReply().commarea(text("still")).to(request.messageId()));
    EXPECT_RC(0, call.get());
    EXPECT_EQ(text("still"), parms.commarea());
}

} // namespace script

#endif
