#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include "bounds/situation.h"
#include "support/connection_script.h"

namespace bounds {

using namespace script;

namespace {

const std::vector<State> opening = {State::Opening};
const std::vector<State> everywhere(std::begin(allStates), std::end(allStates));
const std::vector<State> answered = {State::Opening, State::Calling, State::Collecting,
                                     State::Closing};
const std::vector<State> withReply = {State::Calling, State::Collecting};
const std::vector<State> withReplyOrOpening = {State::Opening, State::Calling, State::Collecting};
const std::vector<State> established(std::begin(allStates) + 1, std::end(allStates));
const std::vector<Role> requests = {Role::Work, Role::Collect, Role::Container};

constexpr int refusal = 61445;

void doNothing(Situation&) {}

void closeStream(Situation& s)
{
    s.peer.close();
    s.awaitEndOfStream();
}

void resetStream(Situation& s)
{
    s.peer.reset();
    s.awaitEndOfStream();
}

void killProcess(Situation& s)
{
    s.giveToProcess();
    s.endConnection();
    s.awaitEndOfStream();
}

void stopProcess(Situation& s)
{
    s.giveToProcess();
    kill(s.holder, SIGSTOP);
    int status = 0;
    waitpid(s.holder, &status, WUNTRACED);
}

// What the library has sent until now is acknowledged.
void awaitAcknowledgement(const Situation& s)
{
    while (connectionOf(s.ports.first, s.ports.second).timer == RETRANSMISSION) letOthersRun();
}

// A socket that is being repaired leaves without a word.
void forgetConnection(Situation& s)
{
    awaitAcknowledgement(s);
    int on = 1;
    if (setsockopt(s.peer.fd(), IPPROTO_TCP, TCP_REPAIR, &on, sizeof on) != 0)
        throw std::runtime_error("TCP_REPAIR");
    s.peer.close();
}

void cutLink(Situation& s)
{
    awaitAcknowledgement(s);
    s.far->cut();
    s.isGone = true;
}

void sendGarbage(Situation& s)
{
    s.peer.send(text("HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n"));
}

void sendShortGreeting(Situation& s)
{
    s.peer.send(text("SSH-2.0-Server_9.2\r\n"));
}

Bytes answerOrPing(const Situation& s)
{
    return s.answer.empty() ? pingFlow() : s.answer;
}

void stallInHeader(Situation& s)
{
    s.peer.send(support::slice(answerOrPing(s), 0, 16));
}

void stallInBody(Situation& s)
{
    Bytes body = ReplyBody().bytes();
    int type = s.cell.state == State::Opening ? handshakeType : replyType;
    int id = s.cell.state == State::Opening ? -2 : s.id;
    s.peer.send(support::slice(flow(type, id, 0, "ECI", body), 0, 32 + 10));
}

void replyToUnknownId(Situation& s)
{
    s.peer.send(eciReply(4711, text("whose?")));
}

void sendUnknownFlow(Situation& s)
{
    s.peer.send(flow(99, 0, 0, "ECI", text("what?")));
}

void replyToNobody(Situation& s)
{
    s.peer.send(eciReply(9, text("nobody's")));
}

void answerTwice(Situation& s)
{
    s.peer.send(s.answer + s.answer);
    s.answer.clear();
}

void pingForEver(Situation& s)
{
    Bytes pings;
    for (int i = 0; i < 500; i += 1) pings += pingFlow();
    s.peer.send(pings);
}

void answerSlowly(Situation& s)
{
    s.peer.sendInPieces(s.answer, 1);
    s.answer.clear();
}

void answerEarly(Situation& s)
{
    s.peer.send(s.answer);
    s.answer.clear();
}

void refuse(Situation& s)
{
    s.peer.send(s.cell.state == State::Opening ? handshakeRefusal(refusal)
                                               : flow(replyType, s.id, refusal, "ECI", Bytes()));
    s.answer.clear();
}

void sendError(Situation& s)
{
    s.peer.send(errorFlow(s.id, refusal));
    s.answer.clear();
}

void sendException(Situation& s)
{
    s.peer.send(exceptionFlow(s.id, "out of order"));
    s.answer.clear();
}

void sayGoodbye(Situation& s)
{
    s.peer.send(closeFlow());
}

// Another thread gives the connection up, and the Gateway, if it reads, says goodbye.
void giveUp(Situation& s, int (*close)(Application& application))
{
    Application* application = &s.application;
    Running closing([application, close] { return close(*application); });
    if (s.cell.state == State::Sending) {
        s.settle(closing);
        return;
    }
    s.peer.read(33);
    s.peer.send(closeFlow());
}

void purge(Situation& s)
{
    giveUp(s, [](Application& application) {
        QPX_ConnToken_t token = application.token;
        return QPX_purgeGatewayConnection(&token, 0);
    });
}

void closeAll(Situation& s)
{
    giveUp(s, [](Application&) { return QPX_closeAllGatewayConnections(); });
}

} // namespace

const std::vector<Fault>& allFaults()
{
    static const std::vector<Fault> all = {
        {"answers", "answers as it should", everywhere, doNothing, true, {}, false},
        {"refuses", "does not listen", opening, nullptr, false, {}, false},
        {"unanswered", "has an address that drops what comes", opening, nullptr, false, {}, false},
        {"unreachable",
         "has an address of no host on the network",
         opening,
         nullptr,
         false,
         {},
         true},
        {"several",
         "listens on the second address of its name",
         opening,
         nullptr,
         false,
         {},
         false},
        {"closed", "ends the connection", everywhere, closeStream, false, {}, false},
        {"reset", "resets the connection", everywhere, resetStream, false, {}, false},
        {"killed", "is killed", everywhere, killProcess, false, {}, false},
        {"stopped", "is stopped", everywhere, stopProcess, false, {}, false},
        {"silent", "lives and says nothing", everywhere, doNothing, false, {}, false},
        {"halfOpen", "was restarted with its host", everywhere, forgetConnection, false, {}, false},
        {"dead", "is cut off (host or line dead)", everywhere, cutLink, false, {}, true},
        {"back", "is cut off, and back soon", everywhere, cutLink, true, {}, true},
        {"garbage", "sends what is no flow", everywhere, sendGarbage, false, {}, false},
        {"short",
         "sends a text of fewer than 32 bytes and stays",
         everywhere,
         sendShortGreeting,
         false,
         {},
         false},
        {"stallHeader", "stalls in a header", everywhere, stallInHeader, false, {}, false},
        {"stallBody", "stalls in a body", everywhere, stallInBody, false, {}, false},
        {"wrongId",
         "replies to an id that no request has",
         established,
         replyToUnknownId,
         false,
         {},
         false},
        {"unknownFlow",
         "sends a flow of an unknown type, then goes on",
         everywhere,
         sendUnknownFlow,
         true,
         {},
         false},
        {"unsolicited",
         "replies to nobody, then goes on",
         established,
         replyToNobody,
         true,
         {},
         false},
        {"twice", "answers twice", answered, answerTwice, true, {}, false},
        {"pings", "sends pings and nothing else", everywhere, pingForEver, false, {}, false},
        {"slowWriter", "answers byte by byte", answered, answerSlowly, true, {}, false},
        {"slowReader",
         "reads a request in small pieces, then answers",
         {State::Sending},
         doNothing,
         true,
         {Role::Work, Role::Send},
         false},
        {"early",
         "answers before it has read the request",
         {State::Sending},
         answerEarly,
         true,
         {Role::Work},
         false},
        {"refusedByHeader",
         "refuses with a code in the header",
         withReplyOrOpening,
         refuse,
         true,
         {Role::Open, Role::Work, Role::Collect, Role::Container},
         false},
        {"error", "answers with an error flow", withReply, sendError, true, requests, false},
        {"exception", "answers with an exception", withReply, sendException, true, requests, false},
        {"goodbye", "says goodbye of its own accord", everywhere, sayGoodbye, false, {}, false},
        {"purged",
         "is silent, and another thread purges the connection",
         {State::Calling, State::Collecting, State::Sending},
         purge,
         false,
         {Role::Work, Role::Collect, Role::Container, Role::Send},
         false},
        {"closedAll",
         "is silent, and another thread closes all connections",
         {State::Calling, State::Collecting, State::Sending},
         closeAll,
         false,
         {Role::Work, Role::Collect, Role::Container, Role::Send},
         false},
    };
    return all;
}

} // namespace bounds
