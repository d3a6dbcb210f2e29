// A stand-in for the remote Gateway: it listens on a TCP port, speaks the Gateway's side of the
// protocol, runs programs for its clients and, told so, misbehaves.
//
// Typical use in a test:
//
//     standin::Gateway gateway;                       // listens on 127.0.0.1, a free port
//     gateway.setReply("PROG", [](const standin::EciRequest& request) {
//         return standin::EciReply::withCommarea(request, {'h', 'i'});
//     });
//     gateway.hold();                                 // answers are kept from now on
//     ... connect to gateway.port(), start a call in another thread ...
//     ASSERT_TRUE(gateway.awaitRequests(1));          // the call is on the wire
//     gateway.release();                              // its answer goes out
//
// Programs "ECHO", "ABEND", "CHANECHO" and "CHANEDIT" are there from the start. A call of a program
// that is not there is answered with vornRc -7 and abend code "AEI0". A unit of work is opened by
// extend mode 1 with token 0, continued by mode 1 with its token, committed by mode 2 and backed
// out by mode 4; a token that is not open on the connection gives vornRc -8, and so does mode 2 or
// 4 with token 0.
//
// Malformed flows are never passed over. Each is logged and recorded (see findings()) with what was
// wrong and at which byte, and answered:
//   - a header that cannot be trusted (eyecatcher, lengths), or a flow type that clients do not
//     send: the connection is closed;
//   - a malformed handshake: FLOW_ERROR with message id -2 and code 61450 for a wrong version, -9
//     for anything else, then the connection is closed;
//   - a malformed request: FLOW_EXCEPTION for its message id, with the finding as text; FLOW_ERROR
//     61450 for a wrong version and 61451 for an unknown request type; without a usable message id
//     the connection is closed;
//   - a malformed close flow: answered like a good one.
// A request before the handshake gets FLOW_ERROR 61445, one behind the close flow nothing.
//
// Ownership: the Gateway owns its thread, its sockets and its records; the records are handed out
// as copies. Destroying it, or stop(), ends every connection, backs out what is open and joins the
// thread.
//
// Thread: every member function may be called from any thread. The await functions must not be
// called from a program, a reply function or a log sink, since these run on the Gateway's own
// thread. That thread has all signals blocked.
#ifndef STANDIN_GATEWAY_H
#define STANDIN_GATEWAY_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "standin/call_record.h"
#include "standin/channel_changes.h"
#include "standin/clock.h"
#include "standin/log.h"
#include "standin/misbehaviour.h"
#include "standin/program.h"
#include "standin/records.h"
#include "standin/watcher.h"
#include "standin/wire.h"

namespace standin {

struct GatewayOptions {
    std::string host = "127.0.0.1";
    std::uint16_t port = 0;             // 0: any free port
    LogSink log;                        // empty: silent
    LogLevel logFrom = LogLevel::Debug; // what is less is not put into words
    bool recording = true; // keep bytes, requests and findings; a long-lived Gateway does without
    std::vector<SystemEntry> systems;    // what a system list query is answered with
    std::size_t mostUnitsOfWork = 10000; // open at once; another one is refused with vornRc -16
    CallObserver observer;               // is told of every call; empty: nobody is
    CallObserver arrivals;               // the same as soon as a call has come, before its program
    std::shared_ptr<Watcher> watcher;    // is told of everything; null: nobody is
    std::shared_ptr<Clock> clock;        // for what is done later; null: the system's
    std::uint64_t seed = 1;              // of chance in misbehaviours
};

// Limit of every await function. It is generous: a test waits for the event and only fails by it.
constexpr std::chrono::seconds kAwaitLimit{30};

// Answers an ESI request, at once or later.
using EsiProgram = std::function<void(const EsiRequest& request, const PendingEsiReply& pending)>;

// A flow as bytes that goes out so long behind its request.
struct RawFlow {
    Bytes bytes;
    std::chrono::microseconds delay{0};
};

// A misbehaviour that has been added and not ended.
struct MisbehaviourInForce {
    std::uint64_t number = 0; // in the order of adding, never used again
    SelectedMisbehaviour selected;
    int seen = 0;   // matching events so far, while it strikes
    int struck = 0; // of these it has struck
};

// An answer that is held.
struct HeldCall {
    int connection = 0;
    std::int32_t messageId = 0;
};

// A way onto a Gateway's own thread: runs the task there, behind what has been given before. False,
// and the task is dropped, when the Gateway has stopped; the way may outlive it.
using WayOntoThread = std::function<bool(std::function<void()> task)>;

class Gateway {
public:
    using Limit = std::chrono::milliseconds;

    // Listens at once. Throws std::system_error when the address cannot be had.
    explicit Gateway(GatewayOptions options = {});
    ~Gateway();

    Gateway(const Gateway&) = delete;
    Gateway& operator=(const Gateway&) = delete;

    // The port that is listened on, and the host as given in the options.
    std::uint16_t port() const;
    const std::string& host() const;

    // Ends every connection and the thread; later calls are harmless.
    void stop();

    // -------------------------------------------------------------------------------- programs

    // Puts a program behind the Gateway, or another one in its place. Names have up to 8
    // characters.
    void setProgram(const std::string& name, std::shared_ptr<Program> program);

    // The same for a program that is one function. The reply goes out as the function made it; only
    // in extended mode a luwToken that still equals the request's gets the token of the unit of
    // work (0 when that has ended). A function that throws is answered with FLOW_EXCEPTION and its
    // text.
    void setReply(const std::string& name, ReplyFunction reply);

    // Puts a program in front of all others; null: none.
    void setFirstProgram(std::shared_ptr<FirstProgram> program);

    // How ESI requests are answered. Without it they get FLOW_ERROR 61451.
    void setEsiReply(std::function<EsiReply(const EsiRequest&)> reply);

    // The same for answers that take their time: the function keeps the right to answer, and
    // returns.
    void setEsiProgram(EsiProgram program);

    // How system list queries are answered, instead of from the options' systems.
    void setListReply(ReplyFunction reply);

    // Answers every request itself, whatever it is, with the bytes returned; programs and units of
    // work are left out. An empty function ends this. Handy for hand-made replies.
    void setRawReply(std::function<Bytes(const ReceivedRequest&)> reply);

    // The same for answers of several flows, of none, and for those that take their time.
    // Misbehaviours strike at each of the flows, in its header too.
    void setFlowsReply(std::function<std::vector<RawFlow>(const ReceivedRequest&)> reply);

    // For a program whose work is done elsewhere and whose data belong to the Gateway's thread.
    WayOntoThread wayOntoThread() const;

    // Number of units of work that are open on all connections.
    std::size_t openUnitsOfWork() const;

    // ---------------------------------------------------------------------------- misbehaviours

    // From now on; the first one added that matches a request and replaces its answer wins, the
    // others add up. Holding comes last of all, so what is held already carries the other faults.
    // Returns its number; 0 when the Gateway has stopped.
    std::uint64_t misbehave(Misbehaviour misbehaviour, Selector selector = everything());

    // Ends all of them, or one; what is held stays held. False when there is none of that number.
    void behave();
    bool behave(std::uint64_t number);

    // Ends all with this fault.
    void behave(Fault fault);

    // Those in force, in the order of adding.
    std::vector<MisbehaviourInForce> misbehavioursInForce();

    // Keeps the answers to matching requests from now on. Answers to handshakes and close flows are
    // never held.
    void hold(Selector selector = everything());

    // Sends everything that is held, oldest first, and ends every hold. Connections that have
    // stalled go on.
    void release();

    // Sends the oldest `count` held answers, or all held answers the newest first, or the ones to
    // the given message id. Holding goes on. Each returns how many were sent.
    std::size_t releaseNext(std::size_t count = 1);
    std::size_t releaseReversed();
    std::size_t releaseMessage(std::int32_t messageId);

    // What is held, the oldest first.
    std::vector<HeldCall> heldCalls();

    // Sends something right now, behind what has been sent before, on one connection or (0) on all
    // that are open. True when there was one to send on.
    bool sendRaw(Bytes bytes, int connection = 0);
    bool sendFlow(const Flow& flow, int connection = 0);
    bool sendPing(int connection = 0);
    bool sendClose(int connection = 0);
    bool sendConnectionError(std::int32_t gatewayRc, int connection = 0);
    bool sendError(std::int32_t messageId, std::int32_t gatewayRc, int connection = 0);
    bool sendException(std::int32_t messageId, const std::string& text, int connection = 0);

    // Ends one connection or (0) all that are open: drop closes it in order behind what has been
    // sent before, reset throws away what is under way and makes the client see a reset. True when
    // there was one. awaitClosed() tells when it is gone; a reset is done when the call returns.
    bool dropConnection(int connection = 0);
    bool resetConnection(int connection = 0);

    // Closes the Gateway's side of one connection or (0) of all that are open, behind what has been
    // sent before; it is read from as before. True when there was one.
    bool halfCloseConnection(int connection = 0);

    // Sends and reads nothing on one connection or (0) on all that are open for so long; what comes
    // meanwhile waits. True when there was one.
    bool partition(std::chrono::microseconds time, int connection = 0);

    // Runs the task on the Gateway's thread when so much time has passed by its clock; never when
    // the Gateway stops before.
    void after(std::chrono::microseconds delay, std::function<void()> task);

    // Stops taking bytes off the sockets of all connections, until resumed: a client that goes on
    // sending blocks once the buffers of the system are full.
    void stopReading();
    void resumeReading();

    // ----------------------------------------------------------------------------------- events

    // Each waits until the total since the start (or since forget()) has reached `count`, and
    // returns true; false when the limit has passed first.
    bool awaitConnections(std::size_t count = 1, Limit limit = kAwaitLimit); // accepted
    bool awaitHandshakes(std::size_t count = 1, Limit limit = kAwaitLimit);  // received
    bool awaitRequests(std::size_t count = 1,
                       Limit limit = kAwaitLimit); // received, also malformed ones
    bool awaitAnswers(std::size_t count = 1,
                      Limit limit = kAwaitLimit); // handed to the socket whole
    bool awaitCloseFlows(std::size_t count = 1, Limit limit = kAwaitLimit); // received
    bool awaitClosed(std::size_t count = 1, Limit limit = kAwaitLimit);     // connections ended
    bool awaitFindings(std::size_t count = 1, Limit limit = kAwaitLimit);   // malformed flows

    // Waits until so many answers are held at this moment.
    bool awaitHeld(std::size_t count = 1, Limit limit = kAwaitLimit);

    // Waits until so many bytes in all have arrived on all connections.
    bool awaitBytes(std::size_t count, Limit limit = kAwaitLimit);

    // The same totals, as they are now.
    std::size_t connectionCount() const;
    std::size_t handshakeCount() const;
    std::size_t requestCount() const;
    std::size_t answerCount() const;
    std::size_t closeFlowCount() const;
    std::size_t closedCount() const;
    std::size_t findingCount() const;
    std::size_t heldCount() const;

    // ---------------------------------------------------------------------------------- records

    // Copies of what was recorded, oldest first.
    std::vector<ConnectionRecord> connections() const;
    std::vector<ReceivedRequest> requests() const;
    std::vector<Finding> findings() const;

    // Shorthands: all bytes of one connection, empty when there is no such connection; and the
    // request that came last, empty when there was none.
    Bytes received(int connection = 1) const;
    Bytes sent(int connection = 1) const;
    std::optional<ReceivedRequest> lastRequest() const;

    // Forgets recorded requests, findings and bytes and sets the totals of requests, answers,
    // findings and bytes back to 0. Connections keep their numbers.
    void forget();

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace standin

#endif
