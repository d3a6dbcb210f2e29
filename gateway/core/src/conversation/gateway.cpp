// The public face: brings every call onto the Gateway's thread, or to the recorder.

#include "standin/gateway.h"

#include <utility>

#include "conversation/event_loop.h"
#include "conversation/recorder.h"
#include "conversation/server.h"

namespace standin {

class Gateway::Impl {
public:
    explicit Impl(GatewayOptions options)
        : host_(std::move(options.host)), loop_(std::make_shared<EventLoop>()),
          recorder_(options.recording), server_(options, loop_, recorder_),
          port_(server_.listen(host_, options.port))
    {
        loop_->start([this](const char* failure) { server_.complain(failure); });
        onThread([](Server& server) { server.startAccepting(); });
    }

    ~Impl() { stop(); }

    void stop()
    {
        loop_->stop([this] { server_.close(); });
    }

    // Runs the task on the Gateway's thread and waits for it; nothing happens after stop().
    template <typename Task>
    void onThread(Task task)
    {
        loop_->runAndWait([this, &task] { task(server_); });
    }

    // Does something to one connection or to all; true when there was one.
    template <typename Action>
    bool onSessions(int connection, Action action)
    {
        bool any = false;
        onThread([&](Server& server) {
            for (const auto& session : server.openSessions(connection)) {
                action(server, *session);
                any = true;
            }
        });
        return any;
    }

    bool sendBytes(const Bytes& bytes, int connection)
    {
        return onSessions(connection,
                          [&](Server& server, Session& session) { server.send(session, bytes); });
    }

    // Sends the answers that `take` takes out of what is held; returns how many there were.
    template <typename Take>
    std::size_t releaseSome(Take take)
    {
        std::size_t count = 0;
        onThread([&](Server& server) {
            std::vector<HeldAnswer> answers = take(server.held());
            count = answers.size();
            server.deliver(std::move(answers));
        });
        return count;
    }

    const std::string& host() const { return host_; }
    std::uint16_t port() const { return port_; }
    Recorder& recorder() { return recorder_; }
    const Recorder& recorder() const { return recorder_; }
    const Server& server() const { return server_; }
    WayOntoThread wayOntoThread() const { return wayOnto(loop_); }

private:
    const std::string host_;
    const std::shared_ptr<EventLoop> loop_;
    Recorder recorder_;
    Server server_;
    const std::uint16_t port_;
};

Gateway::Gateway(GatewayOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {}

Gateway::~Gateway() = default;

std::uint16_t Gateway::port() const
{
    return impl_->port();
}

const std::string& Gateway::host() const
{
    return impl_->host();
}

void Gateway::stop()
{
    impl_->stop();
}

// ---------------------------------------------------------------------------------------- programs

void Gateway::setProgram(const std::string& name, std::shared_ptr<Program> program)
{
    impl_->onThread([&](Server& server) { server.runner().setProgram(name, std::move(program)); });
}

void Gateway::setReply(const std::string& name, ReplyFunction reply)
{
    setProgram(name, makeProgram(std::move(reply)));
}

void Gateway::setFirstProgram(std::shared_ptr<FirstProgram> program)
{
    impl_->onThread([&](Server& server) { server.runner().setFirstProgram(std::move(program)); });
}

void Gateway::setEsiReply(std::function<EsiReply(const EsiRequest&)> reply)
{
    impl_->onThread([&](Server& server) { server.setEsiReply(std::move(reply)); });
}

void Gateway::setEsiProgram(EsiProgram program)
{
    impl_->onThread([&](Server& server) { server.setEsiProgram(std::move(program)); });
}

void Gateway::setListReply(ReplyFunction reply)
{
    impl_->onThread([&](Server& server) { server.runner().setListReply(std::move(reply)); });
}

void Gateway::setRawReply(std::function<Bytes(const ReceivedRequest&)> reply)
{
    impl_->onThread([&](Server& server) { server.setRawReply(std::move(reply)); });
}

void Gateway::setFlowsReply(std::function<std::vector<RawFlow>(const ReceivedRequest&)> reply)
{
    impl_->onThread([&](Server& server) { server.setFlowsReply(std::move(reply)); });
}

WayOntoThread Gateway::wayOntoThread() const
{
    return impl_->wayOntoThread();
}

std::size_t Gateway::openUnitsOfWork() const
{
    return impl_->server().runner().openUnitsOfWork();
}

// ----------------------------------------------------------------------------------- misbehaviours

std::uint64_t Gateway::misbehave(Misbehaviour misbehaviour, Selector selector)
{
    std::uint64_t number = 0;
    impl_->onThread([&](Server& server) {
        number = server.plan().add(std::move(misbehaviour), std::move(selector));
    });
    return number;
}

void Gateway::behave(Fault fault)
{
    impl_->onThread([&](Server& server) { server.plan().clear(fault); });
}

void Gateway::behave()
{
    impl_->onThread([](Server& server) { server.plan().clear(); });
}

bool Gateway::behave(std::uint64_t number)
{
    bool ended = false;
    impl_->onThread([&](Server& server) { ended = server.plan().remove(number); });
    return ended;
}

std::vector<MisbehaviourInForce> Gateway::misbehavioursInForce()
{
    std::vector<MisbehaviourInForce> inForce;
    impl_->onThread([&](Server& server) { inForce = server.plan().inForce(); });
    return inForce;
}

void Gateway::hold(Selector selector)
{
    misbehave(Fault::Hold, std::move(selector));
}

void Gateway::release()
{
    impl_->onThread([](Server& server) { server.plan().clear(Fault::Hold); });
    impl_->releaseSome([](HeldAnswers& held) { return held.takeAll(); });
    impl_->onThread([](Server& server) { server.resume(); });
}

std::size_t Gateway::releaseNext(std::size_t count)
{
    return impl_->releaseSome([count](HeldAnswers& held) { return held.takeOldest(count); });
}

std::size_t Gateway::releaseReversed()
{
    return impl_->releaseSome([](HeldAnswers& held) { return held.takeReversed(); });
}

std::size_t Gateway::releaseMessage(std::int32_t messageId)
{
    return impl_->releaseSome(
        [messageId](HeldAnswers& held) { return held.takeMessage(messageId); });
}

std::vector<HeldCall> Gateway::heldCalls()
{
    std::vector<HeldCall> calls;
    impl_->onThread([&](Server& server) {
        for (const HeldAnswer& answer : server.held().all())
            calls.push_back({answer.connection, answer.messageId});
    });
    return calls;
}

bool Gateway::sendRaw(Bytes bytes, int connection)
{
    return impl_->sendBytes(bytes, connection);
}

bool Gateway::sendFlow(const Flow& flow, int connection)
{
    return impl_->sendBytes(encodeFlow(flow), connection);
}

bool Gateway::sendPing(int connection)
{
    return impl_->sendBytes(encodePing(), connection);
}

bool Gateway::sendClose(int connection)
{
    return impl_->sendBytes(encodeCloseFlow(), connection);
}

bool Gateway::sendConnectionError(std::int32_t gatewayRc, int connection)
{
    return impl_->sendBytes(encodeErrorFlow(kHandshakeMessageId, gatewayRc, "BASE"), connection);
}

bool Gateway::sendError(std::int32_t messageId, std::int32_t gatewayRc, int connection)
{
    return impl_->sendBytes(encodeErrorFlow(messageId, gatewayRc, "ECI"), connection);
}

bool Gateway::sendException(std::int32_t messageId, const std::string& text, int connection)
{
    return impl_->sendBytes(encodeExceptionFlow(messageId, text, "ECI"), connection);
}

bool Gateway::dropConnection(int connection)
{
    return impl_->onSessions(connection, [](Server&, Session& session) { session.drop(); });
}

bool Gateway::resetConnection(int connection)
{
    return impl_->onSessions(connection, [](Server&, Session& session) { session.reset(); });
}

bool Gateway::halfCloseConnection(int connection)
{
    return impl_->onSessions(connection, [](Server&, Session& session) { session.halfClose(); });
}

bool Gateway::partition(std::chrono::microseconds time, int connection)
{
    return impl_->onSessions(connection, [&](Server&, Session& session) { session.cutOff(time); });
}

void Gateway::after(std::chrono::microseconds delay, std::function<void()> task)
{
    impl_->onThread([&](Server& server) { server.after(delay, std::move(task)); });
}

void Gateway::stopReading()
{
    impl_->onThread([](Server& server) { server.setReading(false); });
}

void Gateway::resumeReading()
{
    impl_->onThread([](Server& server) { server.setReading(true); });
}

// ------------------------------------------------------------------------------------------ events

bool Gateway::awaitConnections(std::size_t count, Limit limit)
{
    return impl_->recorder().await(&Totals::connections, count, limit);
}

bool Gateway::awaitHandshakes(std::size_t count, Limit limit)
{
    return impl_->recorder().await(&Totals::handshakes, count, limit);
}

bool Gateway::awaitRequests(std::size_t count, Limit limit)
{
    return impl_->recorder().await(&Totals::requests, count, limit);
}

bool Gateway::awaitAnswers(std::size_t count, Limit limit)
{
    return impl_->recorder().await(&Totals::answers, count, limit);
}

bool Gateway::awaitCloseFlows(std::size_t count, Limit limit)
{
    return impl_->recorder().await(&Totals::closeFlows, count, limit);
}

bool Gateway::awaitClosed(std::size_t count, Limit limit)
{
    return impl_->recorder().await(&Totals::closed, count, limit);
}

bool Gateway::awaitFindings(std::size_t count, Limit limit)
{
    return impl_->recorder().await(&Totals::findings, count, limit);
}

bool Gateway::awaitHeld(std::size_t count, Limit limit)
{
    return impl_->recorder().await(&Totals::held, count, limit);
}

bool Gateway::awaitBytes(std::size_t count, Limit limit)
{
    return impl_->recorder().await(&Totals::bytes, count, limit);
}

std::size_t Gateway::connectionCount() const
{
    return impl_->recorder().total(&Totals::connections);
}

std::size_t Gateway::handshakeCount() const
{
    return impl_->recorder().total(&Totals::handshakes);
}

std::size_t Gateway::requestCount() const
{
    return impl_->recorder().total(&Totals::requests);
}

std::size_t Gateway::answerCount() const
{
    return impl_->recorder().total(&Totals::answers);
}

std::size_t Gateway::closeFlowCount() const
{
    return impl_->recorder().total(&Totals::closeFlows);
}

std::size_t Gateway::closedCount() const
{
    return impl_->recorder().total(&Totals::closed);
}

std::size_t Gateway::findingCount() const
{
    return impl_->recorder().total(&Totals::findings);
}

std::size_t Gateway::heldCount() const
{
    return impl_->recorder().total(&Totals::held);
}

// ----------------------------------------------------------------------------------------- records

std::vector<ConnectionRecord> Gateway::connections() const
{
    return impl_->recorder().connections();
}

std::vector<ReceivedRequest> Gateway::requests() const
{
    return impl_->recorder().requests();
}

std::vector<Finding> Gateway::findings() const
{
    return impl_->recorder().findings();
}

Bytes Gateway::received(int connection) const
{
    for (const ConnectionRecord& record : connections()) {
        if (record.number == connection) return record.received;
    }
    return {};
}

Bytes Gateway::sent(int connection) const
{
    for (const ConnectionRecord& record : connections()) {
        if (record.number == connection) return record.sent;
    }
    return {};
}

std::optional<ReceivedRequest> Gateway::lastRequest() const
{
    const std::vector<ReceivedRequest> all = requests();
    if (all.empty()) return std::nullopt;
    return all.back();
}

void Gateway::forget()
{
    impl_->recorder().forget();
}

} // namespace standin
