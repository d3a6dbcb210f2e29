// The Gateway's behaviour: accepts connections, understands flows, answers them, misbehaves.
//
// Thread: everything runs on the event loop's thread; the constructor and listen() are called
// before anything else does.
#ifndef STANDIN_SERVER_H
#define STANDIN_SERVER_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>

#include "conversation/call_book.h"
#include "conversation/event_loop.h"
#include "conversation/held_answers.h"
#include "conversation/recorder.h"
#include "conversation/session.h"
#include "conversation/timers.h"
#include "faults/fault_plan.h"
#include "programs/call_runner.h"
#include "standin/gateway.h"

namespace standin {

class Server : public SessionOwner {
public:
    using RawReply = std::function<Bytes(const ReceivedRequest&)>;
    using FlowsReply = std::function<std::vector<RawFlow>(const ReceivedRequest&)>;
    using EsiReplyFunction = std::function<EsiReply(const EsiRequest&)>;

    // The loop and the recorder must outlive the server. The loop is shared so that an answer that
    // comes late can tell that it has gone.
    Server(const GatewayOptions& options, std::shared_ptr<EventLoop> loop, Recorder& recorder);

    // Binds and listens; throws std::system_error. Returns the port.
    std::uint16_t listen(const std::string& host, std::uint16_t port);

    void startAccepting();

    // Ends every connection and stops accepting.
    void close();

    CallRunner& runner() { return runner_; }
    const CallRunner& runner() const { return runner_; }
    FaultPlan& plan() { return plan_; }
    HeldAnswers& held() { return held_; }
    void setEsiReply(EsiReplyFunction reply);
    void setEsiProgram(EsiProgram program) { esiProgram_ = std::move(program); }
    void setRawReply(RawReply reply) { rawReply_ = std::move(reply); }
    void setFlowsReply(FlowsReply reply) { flowsReply_ = std::move(reply); }

    // Sends answers that were taken out of held(); those whose connection has gone are dropped.
    void deliver(std::vector<HeldAnswer> answers);

    // The open connections: one, or with number 0 all.
    std::vector<std::shared_ptr<Session>> openSessions(int number) const;

    // Sends bytes that are no answer, in the manner of the connection.
    void send(Session& session, Bytes bytes, Manner manner = {});

    // Does something later, by the Gateway's clock.
    void after(std::chrono::microseconds delay, std::function<void()> task);

    // Lets all connections that have stalled go on.
    void resume();

    void setReading(bool reading);

    // A failure that belongs to no connection.
    void complain(const char* failure) const;

private:
    ReadRoom& readRoom() override { return readRoom_; }
    void onBytesReceived(Session& session, const std::uint8_t* bytes, std::size_t count) override;
    void onBytesSending(Session& session, const std::uint8_t* bytes, std::size_t count) override;
    void onFlow(Session& session, const SplitFlow& split, const Bytes& raw) override;
    void onUnreadable(Session& session, const MalformedFlow& malformed, const Bytes& raw) override;
    void onCutShort(Session& session, const Bytes& raw) override;
    void onLeaving(Session& session) override;
    void onAnswerSent(Session& session) override;
    void onCongestion(Session& session, std::size_t waiting) override;
    std::size_t sendRate(const Session& session) override;
    std::size_t receiveRate(const Session& session) override;
    Timers& timers() override { return timers_; }
    void onFailed(Session& session, const char* failure) override;
    void onEnded(Session& session, Ending ending) override;

    void acceptNext();
    void onAccepted(asio::ip::tcp::socket socket);
    void welcome(Session& session, const std::string& peer);
    void retryAccepting(const asio::error_code& error);

    void takeHandshake(Session& session, const SplitFlow& split, const Bytes& raw);
    void answerHandshake(Session& session);
    void takeCloseFlow(Session& session, const SplitFlow& split, const Bytes& raw);

    // Does what the strikes put in the place of the answer to a handshake or a close flow. False:
    // the good answer is to be sent.
    bool isReplaced(Session& session, const std::vector<Strike>& strikes);

    // Does to the connection what the strikes want, before anything is sent.
    void cutOff(Session& session, const std::vector<Strike>& strikes);
    static void end(Session& session, Answer::Then then);

    void takeRequest(Session& session, const SplitFlow& split, const Bytes& raw);
    void answerMalformed(Session& session, const FlowHeader& header,
                         const MalformedFlow& malformed);
    void sendError(Session& session, std::int32_t messageId, Bytes flow);
    void decodeBody(Session& session, const SplitFlow& split, ReceivedRequest& request);
    void answerRequest(Session& session, const ReceivedRequest& request);
    void answerInEarnest(const ReceivedRequest& request, const std::vector<Strike>& strikes);
    void giveFlows(const ReceivedRequest& request, const std::vector<Strike>& strikes);
    void runEci(const ReceivedRequest& request, const std::vector<Strike>& strikes);
    void answerEci(int connection, const FlowHeader& header, std::vector<Strike> strikes,
                   EciReply reply);
    void runEsi(const ReceivedRequest& request, const std::vector<Strike>& strikes);
    void answerEsi(int connection, std::int32_t messageId, const std::vector<Strike>& strikes,
                   const EsiReply& reply);

    // Runs what gives an answer, at once or later; a failure ends the connection.
    void guarded(int connection, const std::function<void()>& step);

    // The last stations of an answer: holding and collecting, then the connection.
    void answer(int connection, std::int32_t messageId, const std::vector<Strike>& strikes,
                Answer answer);
    void deliverOne(HeldAnswer held);
    void updateHeldCount() { recorder_.setHeld(held_.size()); }

    void report(const Session& session, const MalformedFlow& malformed, const Bytes& raw);
    bool logs(LogLevel level) const;
    void log(LogLevel level, const std::string& line) const;
    void log(LogLevel level, int connection, const std::string& line) const;

    LogSink log_;
    const LogLevel leastLevel_;
    std::shared_ptr<EventLoop> loop_;
    Recorder& recorder_;
    asio::ip::tcp::acceptor acceptor_;
    asio::steady_timer acceptTimer_;
    Timers timers_;                    // of answers that are kept for a time
    std::shared_ptr<Watcher> watcher_; // null: nobody watches
    CallBook calls_;
    CallRunner runner_;
    FaultPlan plan_;
    HeldAnswers held_;
    EsiProgram esiProgram_;
    RawReply rawReply_;
    FlowsReply flowsReply_;
    std::map<int, std::shared_ptr<Session>> sessions_; // by number
    ReadRoom readRoom_{};
    int lastNumber_ = 0;
    bool reading_ = true;
};

} // namespace standin

#endif
