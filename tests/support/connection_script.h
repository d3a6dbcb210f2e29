// Flows written out by hand, and a connection whose other end the test plays itself. Uses the
// library's exported calls only.
#ifndef SUPPORT_CONNECTION_SCRIPT_H
#define SUPPORT_CONNECTION_SCRIPT_H

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>

#include "qpxclient.h"
#include "qpxclient_eci.h"
#include "support/bytes.h"
#include "support/call_in_thread.h"
#include "support/eci_parms.h"
#include "support/expect_rc.h"
#include "support/scripted_gateway.h"

namespace script {

using support::be16;
using support::be32;
using support::Bytes;
using support::callInThread;
using support::filled;
using support::hex;
using support::Peer;
using support::ScriptedGateway;
using support::text;
using support::operator+;
using support::operator+=;

// Flow types as they stand on the wire.
constexpr int replyType = 3;
constexpr int errorType = 4;
constexpr int handshakeType = 5;
constexpr int exceptionType = 6;
constexpr int pingType = 7;
constexpr int closeType = 10;

// A header whose length fields say what the test wants them to say.
inline Bytes header(int flowType, int messageId, int gatewayRc, int typeLength,
                    const std::string& type, int dataLength)
{
    return hex("47617465 10A01000") + be32(flowType) + be32(messageId) + be32(gatewayRc) +
           be32(typeLength) + text(type) + hex("00") + be32(dataLength);
}

inline Bytes flow(int flowType, int messageId, int gatewayRc, const std::string& type,
                  const Bytes& body)
{
    return header(flowType, messageId, gatewayRc, static_cast<int>(type.size()), type,
                  static_cast<int>(body.size())) +
           body;
}

inline Bytes handshakeAnswer()
{
    return hex("47617465 10A01000 00000005 FFFFFFFE 00000000 00000004 42415345 00 00000000");
}

inline Bytes handshakeRefusal(int gatewayRc)
{
    return hex("47617465 10A01000 00000004 FFFFFFFE") + be32(gatewayRc) +
           hex("00000004 42415345 00 00000000");
}

// The close flow is the same in both directions.
inline Bytes closeFlow()
{
    return hex("47617465 10A01000 0000000A FFFFFFFF 00000000 00000004 42415345 00 00000000");
}

inline Bytes pingFlow()
{
    return hex("47617465 10A01000 00000007 00000000 00000000 00000004 42415345 00 00000000");
}

inline Bytes errorFlow(int messageId, int gatewayRc)
{
    return flow(errorType, messageId, gatewayRc, "ECI", Bytes());
}

inline Bytes exceptionFlow(int messageId, const std::string& message)
{
    return flow(exceptionType, messageId, 0, "ECI",
                hex("00") + be16(static_cast<int>(message.size())) + text(message));
}

// The body of a reply to a program call.
struct ReplyBody {
    int luwToken = 0;
    int vornRc = 0;
    std::string abendCode = "    ";
    Bytes commarea;

    Bytes bytes() const
    {
        return be32(1) + be32(luwToken) + be32(0) + be32(vornRc) + text(abendCode) +
               be32(static_cast<int>(commarea.size())) + hex("00") + commarea + hex("00");
    }
};

inline Bytes eciReply(int messageId, const ReplyBody& body)
{
    return flow(replyType, messageId, 0, "ECI", body.bytes());
}

inline Bytes eciReply(int messageId, const Bytes& commarea)
{
    ReplyBody body;
    body.commarea = commarea;
    return eciReply(messageId, body);
}

// One ECI request as it arrived.
struct Request {
    Bytes header;
    Bytes body;

    int flowType() const { return support::int32At(header, 8); }
    int messageId() const { return support::int32At(header, 12); }
};

inline Request readRequest(Peer& peer)
{
    Request request;
    request.header = peer.read(32);
    request.body = peer.read(static_cast<std::size_t>(support::int32At(request.header, 28)));
    return request;
}

inline char* localHost()
{
    static char host[] = "127.0.0.1";
    return host;
}

// Bytes of the handshake of a connection without applid and qualifier.
constexpr std::size_t handshakeSize = 55;

// A connection to a peer of the test's own, opened and answered.
class ScriptedConnection {
public:
    explicit ScriptedConnection(int connTimeout = 0)
    {
        auto open = callInThread([this, connTimeout] {
            return QPX_openRemoteGatewayConnection(localHost(), gateway.port(), &token,
                                                   connTimeout);
        });
        peer = gateway.accept();
        peer.read(handshakeSize);
        peer.send(handshakeAnswer());
        EXPECT_RC(QPX_OK, open.get());
    }
    ~ScriptedConnection()
    {
        peer.close();
        if (token == nullptr) return;
        awaitEnd();
        QPX_purgeGatewayConnection(&token, 0);
    }
    ScriptedConnection(const ScriptedConnection&) = delete;
    ScriptedConnection& operator=(const ScriptedConnection&) = delete;

    Request awaitRequest() { return readRequest(peer); }

    // A call that runs while the test answers it. The record outlives the call.
    support::RunningCall<int> start(support::EciParms& parms)
    {
        QPX_ConnToken_t gwTok = token;
        QPX_ECI_PARMS* record = &parms.record;
        return callInThread([gwTok, record] { return QPX_ECI_Execute(gwTok, record); });
    }

    support::RunningCall<int> startClose()
    {
        return callInThread([this] { return QPX_closeGatewayConnection(&token); });
    }

    support::RunningCall<int> startPurge(int closeTimeout)
    {
        return callInThread(
            [this, closeTimeout] { return QPX_purgeGatewayConnection(&token, closeTimeout); });
    }

    // The Gateway's part of a close.
    void answerClose()
    {
        EXPECT_EQ(closeFlow(), peer.read(33));
        peer.send(closeFlow());
    }

    // The token is gone and of no concern any more.
    void forget() { token = nullptr; }

    // A close in order, both sides of it.
    void closeInOrder()
    {
        auto closing = startClose();
        answerClose();
        EXPECT_RC(QPX_OK, closing.get());
        forget();
    }

    ScriptedGateway gateway;
    Peer peer;
    QPX_ConnToken_t token = nullptr;

private:
    // Returns once the library has seen the end of the connection: a purge that still tried to say
    // goodbye could fail, and leave the token to the next test of the process.
    void awaitEnd()
    {
        support::EciParms reply;
        do {
            reply = support::getReplyWait(roomForEveryReply);
            QPX_ECI_Execute(token, &reply.record);
        } while (reply.record.eci_call_type == ECI_ASYNC); // one that nobody has collected
    }

    static constexpr std::size_t roomForEveryReply = 32767;
};

} // namespace script

#endif
