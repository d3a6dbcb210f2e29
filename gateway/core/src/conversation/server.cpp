#include "conversation/server.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

#include "codec/printable.h"
#include "standin/wipe.h"

namespace standin {

namespace {

constexpr auto kAcceptRetry = std::chrono::milliseconds(200);

std::string inQuotes(const std::string& text)
{
    return "\"" + printable(text) + "\"";
}

// The Gateway's code for a malformed header; anything without a code of its own is a system error.
std::int32_t codeFor(const FlowHeader& header)
{
    return header.flowVersion != kFlowVersion ? kGatewayBackLevel : kGatewaySystemError;
}

std::string describe(const EciRequest& request)
{
    if (request.callType == kCallListSystems)
        return "ECI system list for " + std::to_string(request.serverNum);
    std::string text = "ECI program=" + inQuotes(request.program) +
                       " mode=" + std::to_string(request.extendMode) +
                       " token=" + std::to_string(request.luwToken);
    if (!request.userId.empty()) text += " user=" + inQuotes(request.userId);
    text += " commarea=" + std::to_string(request.commarea.size()) + "/" +
            std::to_string(request.commareaLength);
    if (request.inboundLength) text += " wanted=" + std::to_string(*request.inboundLength);
    if (request.channel) {
        text += " channel=" + inQuotes(request.channel->name) +
                " containers=" + std::to_string(request.channel->containers.size());
    }
    return text;
}

std::string describe(const EsiRequest& request)
{
    return std::string("ESI ") + (request.callType == kEsiVerify ? "verify" : "change") +
           " user=" + inQuotes(request.userId) + " server=" + inQuotes(request.server);
}

std::string describe(const EciReply& reply)
{
    std::string text = "vornRc=" + std::to_string(reply.vornRc) +
                       " token=" + std::to_string(reply.luwToken) +
                       " commarea=" + std::to_string(reply.commarea.size());
    if (reply.channel) text += " containers=" + std::to_string(reply.channel->containers.size());
    if (reply.gatewayRc != 0) text += " gatewayRc=" + std::to_string(reply.gatewayRc);
    if (reply.vornRc == kServerAbend) {
        text += " abend=" + inQuotes(std::string(reply.abendCode.data(), reply.abendCode.size()));
    }
    return text;
}

std::string describe(const EsiReply& reply)
{
    std::string text = "ESI vornRc=" + std::to_string(reply.vornRc);
    if (reply.gatewayRc != 0) text += " gatewayRc=" + std::to_string(reply.gatewayRc);
    return text;
}

// Wipes what a request has of a password in clear, at the end of its way. One that was malformed
// may have had a password in front of what was wrong.
class PasswordWiper {
public:
    explicit PasswordWiper(ReceivedRequest& request) : request_(request) {}

    ~PasswordWiper()
    {
        if (request_.eci && request_.eci->password.empty()) return;
        if (request_.eci) wipe(request_.eci->password);
        wipeStack();
    }

    PasswordWiper(const PasswordWiper&) = delete;
    PasswordWiper& operator=(const PasswordWiper&) = delete;

private:
    ReceivedRequest& request_;
};

const char* describe(Ending ending)
{
    switch (ending) {
    case Ending::ClosedByClient: return "closed by the client";
    case Ending::ClosedByGateway: return "closed";
    case Ending::Reset: return "reset";
    case Ending::Open: break;
    }
    return "open";
}

} // namespace

Server::Server(const GatewayOptions& options, std::shared_ptr<EventLoop> loop, Recorder& recorder)
    : log_(options.log), leastLevel_(options.logFrom), loop_(std::move(loop)), recorder_(recorder),
      acceptor_(loop_->context()), acceptTimer_(loop_->context()), timers_(loop_, options.clock),
      watcher_(options.watcher), calls_(options.observer, options.arrivals, options.watcher),
      runner_(options.log, options.mostUnitsOfWork), plan_(options.seed)
{
    runner_.setWatcher(options.watcher);
    runner_.setListReply([systems = options.systems](const EciRequest& request) {
        return EciReply::systemList(request, systems);
    });
}

void Server::setEsiReply(EsiReplyFunction reply)
{
    if (!reply) return setEsiProgram(nullptr);
    setEsiProgram(
        [reply = std::move(reply)](const EsiRequest& request, const PendingEsiReply& pending) {
            pending.complete(reply(request));
        });
}

// ------------------------------------------------------------------------------------- connections

std::uint16_t Server::listen(const std::string& host, std::uint16_t port)
{
    asio::ip::tcp::resolver resolver(loop_->context());
    const auto found = resolver.resolve(host, std::to_string(port),
                                        asio::ip::tcp::resolver::passive);
    const asio::ip::tcp::endpoint endpoint = *found.begin();
    acceptor_.open(endpoint.protocol());
    acceptor_.set_option(asio::ip::tcp::acceptor::reuse_address(true));
    acceptor_.bind(endpoint);
    acceptor_.listen();
    return acceptor_.local_endpoint().port();
}

void Server::startAccepting()
{
    const asio::ip::tcp::endpoint endpoint = acceptor_.local_endpoint();
    log(LogLevel::Info,
        "listening on " + endpoint.address().to_string() + ":" + std::to_string(endpoint.port()));
    acceptNext();
}

void Server::acceptNext()
{
    acceptor_.async_accept([this](const asio::error_code& error, asio::ip::tcp::socket socket) {
        if (!acceptor_.is_open()) return;
        if (error) return retryAccepting(error);
        try {
            onAccepted(std::move(socket));
        } catch (const std::exception& failure) {
            complain(failure.what());
        }
        acceptNext();
    });
}

// Running out of descriptors ends by itself when connections close; until then accepting has to
// pause.
void Server::retryAccepting(const asio::error_code& error)
{
    log(LogLevel::Error, "cannot accept a connection: " + error.message());
    acceptTimer_.expires_after(kAcceptRetry);
    acceptTimer_.async_wait([this](const asio::error_code& stopped) {
        if (!stopped && acceptor_.is_open()) acceptNext();
    });
}

void Server::onAccepted(asio::ip::tcp::socket socket)
{
    asio::error_code gone;
    const asio::ip::tcp::endpoint endpoint = socket.remote_endpoint(gone);
    const std::string peer = gone ? "unknown"
                                  : endpoint.address().to_string() + ":" +
                                        std::to_string(endpoint.port());

    const int number = ++lastNumber_;
    const auto session = std::make_shared<Session>(std::move(socket), number, *this);
    sessions_[number] = session;
    guarded(number, [&] { welcome(*session, peer); });
}

void Server::welcome(Session& session, const std::string& peer)
{
    const int number = session.number();
    recorder_.connected(number, peer);
    if (watcher_ != nullptr) watcher_->connectionBegan(number, peer);
    log(LogLevel::Info, number, "accepted from " + peer);

    const std::vector<Strike> strikes = plan_.strike({Moment::Connect, number, 0, {}});
    const Answer::Then then = endingAtConnect(strikes);
    end(session, then);
    if (!session.isOpen()) return;
    session.setReading(reading_);
    session.start();
}

std::vector<std::shared_ptr<Session>> Server::openSessions(int number) const
{
    std::vector<std::shared_ptr<Session>> found;
    for (const auto& [key, session] : sessions_) {
        if ((number == 0 || number == key) && session->isOpen()) found.push_back(session);
    }
    return found;
}

void Server::send(Session& session, Bytes bytes, Manner manner)
{
    const std::vector<Strike> strikes = plan_.strike({Moment::Sending, session.number(), 0, {}});
    const Strike* pieces = findStrike(strikes, Fault::Pieces);
    if (pieces != nullptr) manner.pieceSize = static_cast<std::size_t>(pieces->misbehaviour.number);
    session.send(std::move(bytes), manner, false);
}

void Server::after(std::chrono::microseconds delay, std::function<void()> task)
{
    timers_.after(delay, std::move(task));
}

void Server::resume()
{
    for (const auto& session : openSessions(0)) session->resume();
}

std::size_t Server::sendRate(const Session& session)
{
    return static_cast<std::size_t>(plan_.standing(Fault::SendRate, session.number()));
}

std::size_t Server::receiveRate(const Session& session)
{
    return static_cast<std::size_t>(plan_.standing(Fault::ReceiveRate, session.number()));
}

void Server::setReading(bool reading)
{
    reading_ = reading;
    for (const auto& session : openSessions(0)) session->setReading(reading);
}

void Server::close()
{
    asio::error_code ignored;
    acceptor_.close(ignored);
    acceptTimer_.cancel();
    timers_.end();
    const std::map<int, std::shared_ptr<Session>> sessions = sessions_;
    for (const auto& [number, session] : sessions) session->abandon();
    log(LogLevel::Info, "stopped");
}

void Server::onBytesReceived(Session& session, const std::uint8_t* bytes, std::size_t count)
{
    recorder_.receivedBytes(session.number(), bytes, count);
}

void Server::onBytesSending(Session& session, const std::uint8_t* bytes, std::size_t count)
{
    recorder_.sentBytes(session.number(), bytes, count);
}

void Server::onAnswerSent(Session&)
{
    recorder_.answered();
}

void Server::onCongestion(Session& session, std::size_t waiting)
{
    if (waiting == 0) return log(LogLevel::Info, session.number(), "is read from again");
    log(LogLevel::Warning, session.number(),
        std::to_string(waiting) + " bytes wait to be taken; nothing more is read until they are");
}

// No request can continue or commit what the connection has open.
void Server::onLeaving(Session& session)
{
    runner_.connectionLost(session.number());
}

void Server::onFailed(Session& session, const char* failure)
{
    log(LogLevel::Error, session.number(), std::string("has failed: ") + printable(failure));
}

void Server::guarded(int connection, const std::function<void()>& step)
{
    try {
        step();
    } catch (const std::exception& failure) {
        const auto found = sessions_.find(connection);
        if (found == sessions_.end()) throw;
        const std::shared_ptr<Session> session = found->second;
        onFailed(*session, failure.what());
        session->reset();
    }
}

void Server::complain(const char* failure) const
{
    log(LogLevel::Error, std::string("a failure: ") + printable(failure));
}

// The connection's things go before the talk about it, which may fail.
void Server::onEnded(Session& session, Ending ending)
{
    const int number = session.number();
    runner_.connectionLost(number);
    held_.forgetConnection(number);
    plan_.forget(number);
    sessions_.erase(number);
    updateHeldCount();
    runner_.connectionEnded(number);
    calls_.endConnection(number);
    if (watcher_ != nullptr) watcher_->connectionEnded(number, ending);
    const bool untimely = ending != Ending::ClosedByGateway &&
                          session.stage() != Session::Stage::Closing;
    log(untimely ? LogLevel::Warning : LogLevel::Info, number,
        std::string(describe(ending)) + (untimely ? " without a close flow" : ""));
    recorder_.ended(number, ending);
}

// ------------------------------------------------------------------------------------------- flows

void Server::onFlow(Session& session, const SplitFlow& split, const Bytes& raw)
{
    switch (static_cast<FlowType>(split.flow.header.flowType)) {
    case FlowType::Handshake: return takeHandshake(session, split, raw);
    case FlowType::Close: return takeCloseFlow(session, split, raw);
    case FlowType::Request: return takeRequest(session, split, raw);
    default: break;
    }
    try {
        checkClientHeader(split.flow.header);
    } catch (const MalformedFlow& malformed) {
        report(session, malformed, raw);
    }
    session.drop();
}

void Server::onUnreadable(Session& session, const MalformedFlow& malformed, const Bytes& raw)
{
    report(session, malformed, raw);
    session.drop();
}

void Server::onCutShort(Session& session, const Bytes& raw)
{
    report(session, MalformedFlow(raw.size(), "the connection ends within a flow"), raw);
}

void Server::report(const Session& session, const MalformedFlow& malformed, const Bytes& raw)
{
    log(LogLevel::Error, session.number(), std::string("malformed flow: ") + malformed.what());
    recorder_.found({session.number(), malformed.offset(), malformed.problem(), raw});
}

void Server::takeHandshake(Session& session, const SplitFlow& split, const Bytes& raw)
{
    const FlowHeader& header = split.flow.header;
    try {
        checkClientHeader(header);
        const Handshake handshake = decodeHandshake(split.flow.body, split.headerSize);
        if (session.stage() != Session::Stage::Connected)
            throw MalformedFlow(8, "a second handshake");
        log(LogLevel::Info, session.number(),
            "handshake applid=" + inQuotes(handshake.applid) +
                " qualifier=" + inQuotes(handshake.applidQualifier));
        recorder_.receivedHandshake(session.number(), handshake);
        if (watcher_ != nullptr) watcher_->handshakeCame(session.number(), handshake);
    } catch (const MalformedFlow& malformed) {
        report(session, malformed, raw);
        send(session, encodeErrorFlow(kHandshakeMessageId, codeFor(header), "BASE"));
        return session.drop();
    }
    answerHandshake(session);
}

void Server::answerHandshake(Session& session)
{
    const std::vector<Strike> strikes = plan_.strike({Moment::Handshake, session.number(), 0, {}});
    if (isReplaced(session, strikes)) return;
    session.setStage(Session::Stage::Ready);
    recorder_.acceptedHandshake(session.number());
    send(session, encodeHandshakeAccepted(), plan_.mannerFor(strikes));
}

void Server::takeCloseFlow(Session& session, const SplitFlow& split, const Bytes& raw)
{
    try {
        checkClientHeader(split.flow.header);
    } catch (const MalformedFlow& malformed) {
        report(session, malformed, raw);
    }
    log(LogLevel::Info, session.number(), "close flow");
    recorder_.receivedCloseFlow(session.number());
    session.setStage(Session::Stage::Closing);
    runner_.connectionLost(session.number());
    const std::vector<Strike> strikes = plan_.strike({Moment::CloseFlow, session.number(), 0, {}});
    if (!isReplaced(session, strikes)) send(session, encodeCloseFlow(), plan_.mannerFor(strikes));
}

bool Server::isReplaced(Session& session, const std::vector<Strike>& strikes)
{
    for (const Strike& strike : strikes) {
        log(LogLevel::Warning, session.number(),
            "misbehaving: " + std::string(nameOf(strike.misbehaviour.fault)));
    }
    cutOff(session, strikes);
    std::optional<Answer> answer = replacedAnswer(strikes, {});
    if (!answer) return false;
    const Manner manner = plan_.mannerFor(strikes);
    for (Bytes& flow : answer->flows) send(session, std::move(flow), manner);
    end(session, answer->then);
    return true;
}

void Server::cutOff(Session& session, const std::vector<Strike>& strikes)
{
    for (const Strike& strike : strikes) {
        if (strike.misbehaviour.fault == Fault::Partition)
            session.cutOff(std::chrono::milliseconds(strike.misbehaviour.number));
    }
}

void Server::end(Session& session, Answer::Then then)
{
    if (then == Answer::Then::FallSilent) session.fallSilent();
    if (then == Answer::Then::HalfClose) session.halfClose();
    if (then == Answer::Then::Drop) session.drop();
    if (then == Answer::Then::Reset) session.reset();
}

// ---------------------------------------------------------------------------------------- requests

void Server::takeRequest(Session& session, const SplitFlow& split, const Bytes& raw)
{
    ReceivedRequest request;
    const PasswordWiper wiper(request);
    request.connection = session.number();
    request.header = split.flow.header;
    request.raw = raw;
    try {
        checkClientHeader(request.header);
        decodeBody(session, split, request);
    } catch (const MalformedFlow& malformed) {
        report(session, malformed, raw);
        recorder_.receivedRequest(request);
        calls_.begin(request, malformed.what());
        runner_.giveUp(tokenOf(split.flow), session.number());
        return answerMalformed(session, request.header, malformed);
    }
    // Recorded first, so that a client which has its answer finds its request recorded.
    recorder_.receivedRequest(request);
    calls_.begin(request);
    answerRequest(session, request);
}

void Server::answerMalformed(Session& session, const FlowHeader& header,
                             const MalformedFlow& malformed)
{
    const std::int32_t id = header.messageId;
    if (id < 1) return session.drop();
    if (header.flowVersion != kFlowVersion)
        return sendError(session, id, encodeErrorFlow(id, kGatewayBackLevel, "BASE"));
    if (header.requestType != "ECI" && header.requestType != "ESI")
        return sendError(session, id, encodeErrorFlow(id, kGatewayInvalidRequestType, "BASE"));
    sendError(session, id, encodeExceptionFlow(id, malformed.what(), header.requestType));
}

// The answer to a request that no misbehaviour can strike at.
void Server::sendError(Session& session, std::int32_t messageId, Bytes flow)
{
    calls_.answer(session.number(), messageId, {flow});
    send(session, std::move(flow));
}

void Server::decodeBody(Session& session, const SplitFlow& split, ReceivedRequest& request)
{
    if (request.header.requestType == "ECI") {
        request.eci = decodeEciRequest(split.flow.body, split.headerSize);
    } else {
        request.esi = decodeEsiRequest(split.flow.body, split.headerSize);
    }
    if (!logs(LogLevel::Info)) return;
    log(LogLevel::Info, session.number(),
        "request " + std::to_string(request.header.messageId) + " " +
            (request.eci ? describe(*request.eci) : describe(*request.esi)));
}

void Server::answerRequest(Session& session, const ReceivedRequest& request)
{
    const FlowHeader& header = request.header;
    if (session.stage() != Session::Stage::Ready) {
        const bool early = session.stage() == Session::Stage::Connected;
        log(LogLevel::Warning, session.number(),
            "request " + std::to_string(header.messageId) +
                (early ? " before the handshake" : " behind the close flow"));
        if (!early) return calls_.refuse(session.number());
        return sendError(session, header.messageId,
                         encodeErrorFlow(header.messageId, kGatewayRefused, header.requestType));
    }

    const std::string program = request.eci ? request.eci->program : std::string();
    const std::vector<Strike> strikes = plan_.strike(
        {Moment::Request, session.number(), header.messageId, program});
    for (const Strike& strike : strikes) {
        log(LogLevel::Warning, session.number(),
            "request " + std::to_string(header.messageId) +
                " misbehaving: " + std::string(nameOf(strike.misbehaviour.fault)));
        calls_.struckBy(session.number(), header.messageId,
                        std::string(nameOf(strike.misbehaviour.fault)));
    }
    cutOff(session, strikes);
    if (std::optional<Answer> replaced = replacedAnswer(strikes, header)) {
        if (request.eci && isReplacedByAnError(strikes))
            runner_.giveUp(request.eci->luwToken, session.number());
        answer(session.number(), header.messageId, strikes, std::move(*replaced));
    } else {
        answerInEarnest(request, strikes);
    }
}

void Server::answerInEarnest(const ReceivedRequest& request, const std::vector<Strike>& strikes)
{
    const FlowHeader& header = request.header;
    const auto give = [&](Answer given) {
        answer(request.connection, header.messageId, strikes, std::move(given));
    };
    try {
        if (rawReply_) {
            give(spoiledAnswer(strikes, rawReply_(request)));
        } else if (flowsReply_) {
            giveFlows(request, strikes);
        } else if (request.eci) {
            runEci(request, strikes);
        } else if (esiProgram_) {
            runEsi(request, strikes);
        } else {
            give(spoiledAnswer(strikes, makeErrorFlow(header.messageId, kGatewayInvalidRequestType,
                                                      header.requestType)));
        }
    } catch (const std::exception& failure) {
        log(LogLevel::Error, request.connection,
            "request " + std::to_string(header.messageId) +
                " has failed: " + printable(failure.what()));
        if (request.eci) runner_.giveUp(request.eci->luwToken, request.connection);
        calls_.exception(request.connection, header.messageId, failure.what());
        give(spoiledAnswer(
            strikes, makeExceptionFlow(header.messageId, failure.what(), header.requestType)));
    }
}

void Server::giveFlows(const ReceivedRequest& request, const std::vector<Strike>& strikes)
{
    const int connection = request.connection;
    const std::int32_t messageId = request.header.messageId;
    const std::shared_ptr<Session> session = sessions_.at(connection);
    for (RawFlow& flow : flowsReply_(request)) {
        Answer given = spoiledFlow(strikes, std::move(flow.bytes));
        if (flow.delay.count() <= 0) {
            answer(connection, messageId, strikes, std::move(given));
            continue;
        }
        session->expectAnswer();
        timers_.after(flow.delay, [this, session, messageId, strikes, given = std::move(given)] {
            guarded(session->number(), [&] {
                answer(session->number(), messageId, strikes, given);
                session->answerIsHere();
            });
        });
    }
}

void Server::runEci(const ReceivedRequest& request, const std::vector<Strike>& strikes)
{
    const int connection = request.connection;
    const FlowHeader header = request.header;
    const auto deliverReply = [this, connection, header, strikes](EciReply reply) {
        if (reply.delay.count() <= 0)
            return answerEci(connection, header, strikes, std::move(reply));
        timers_.after(reply.delay, [this, connection, header, strikes, reply] {
            guarded(connection, [&] { answerEci(connection, header, strikes, reply); });
        });
    };
    const auto later = [this, connection]() -> CallRunner::Later {
        return [this, connection, way = wayOnto(loop_)](std::function<void()> task) {
            way([this, connection, task = std::move(task)] { guarded(connection, task); });
        };
    };
    const std::shared_ptr<Session> session = sessions_.at(connection);
    session->expectAnswer();
    try {
        runner_.run(*request.eci, header.messageId, connection, hasGatewayRc(strikes), deliverReply,
                    later);
    } catch (...) {
        session->answerIsHere(); // the exception becomes it
        throw;
    }
}

void Server::answerEci(int connection, const FlowHeader& header, std::vector<Strike> strikes,
                       EciReply reply)
{
    const auto found = sessions_.find(connection);
    if (found == sessions_.end()) return; // the answer comes too late
    const std::shared_ptr<Session> session = found->second;
    const std::int32_t messageId = header.messageId;
    std::vector<Strike> own;
    for (const std::string& fault : reply.faults) {
        own.push_back({parseMisbehaviour(fault).misbehaviour, 0});
        log(LogLevel::Warning, connection,
            "answer " + std::to_string(messageId) + " misbehaving: " + fault);
        calls_.struckBy(connection, messageId, fault.substr(0, fault.find('=')));
    }
    cutOff(*session, own);
    strikes.insert(strikes.end(), own.begin(), own.end());
    if (!reply.faults.empty() && (isReplacedByAnError(strikes) || hasGatewayRc(strikes))) {
        runner_.giveUp(reply.luwToken, connection);
        reply.luwToken = 0;
    }
    if (logs(LogLevel::Info)) {
        log(LogLevel::Info, connection,
            "answer " + std::to_string(messageId) + " " + describe(reply));
    }
    calls_.reply(connection, messageId, reply);
    std::optional<Answer> replaced;
    if (!reply.faults.empty()) replaced = replacedAnswer(strikes, header);
    answer(connection, messageId, strikes,
           replaced ? std::move(*replaced)
                    : spoiledAnswer(strikes, makeEciReply(messageId, reply)));
    session->answerIsHere();
}

void Server::runEsi(const ReceivedRequest& request, const std::vector<Strike>& strikes)
{
    const int connection = request.connection;
    const std::int32_t messageId = request.header.messageId;
    const auto deliverReply = [this, connection, messageId, strikes](const EsiReply& reply) {
        guarded(connection, [&] { answerEsi(connection, messageId, strikes, reply); });
    };
    const std::weak_ptr<EventLoop> loop = loop_;
    const PendingEsiReply pending([loop, deliverReply](const EsiReply& reply) {
        const std::shared_ptr<EventLoop> alive = loop.lock();
        if (alive != nullptr) alive->dispatch([deliverReply, reply] { deliverReply(reply); });
    });
    const std::shared_ptr<Session> session = sessions_.at(connection);
    session->expectAnswer();
    try {
        esiProgram_(*request.esi, pending);
    } catch (...) {
        session->answerIsHere(); // the exception becomes it
        throw;
    }
}

void Server::answerEsi(int connection, std::int32_t messageId, const std::vector<Strike>& strikes,
                       const EsiReply& reply)
{
    const auto found = sessions_.find(connection);
    if (found == sessions_.end()) return; // the answer comes too late
    const std::shared_ptr<Session> session = found->second;
    log(LogLevel::Info, connection, "answer " + std::to_string(messageId) + " " + describe(reply));
    calls_.reply(connection, messageId, reply);
    answer(connection, messageId, strikes, spoiledAnswer(strikes, makeEsiReply(messageId, reply)));
    session->answerIsHere();
}

// ----------------------------------------------------------------------------------------- answers

void Server::answer(int connection, std::int32_t messageId, const std::vector<Strike>& strikes,
                    Answer answer)
{
    if (sessions_.count(connection) == 0) return; // the answer comes too late
    answer.manner = plan_.mannerFor(strikes);
    HeldAnswer held{connection, messageId, std::move(answer)};
    if (findStrike(strikes, Fault::Hold) != nullptr) {
        held_.hold(std::move(held));
        return updateHeldCount();
    }
    if (const Strike* reverse = findStrike(strikes, Fault::Reverse)) {
        const auto wanted = static_cast<std::size_t>(reverse->misbehaviour.number);
        return deliver(held_.collect(reverse->entry, wanted, std::move(held)));
    }
    deliverOne(std::move(held));
}

void Server::deliver(std::vector<HeldAnswer> answers)
{
    for (HeldAnswer& held : answers) deliverOne(std::move(held));
    updateHeldCount();
}

void Server::deliverOne(HeldAnswer held)
{
    const auto found = sessions_.find(held.connection);
    if (found == sessions_.end()) return;
    const std::shared_ptr<Session> session = found->second;

    const std::vector<Strike> strikes = plan_.strike({Moment::Sending, held.connection, 0, {}});
    const Strike* pieces = findStrike(strikes, Fault::Pieces);
    Manner manner = held.answer.manner;
    if (pieces != nullptr) manner.pieceSize = static_cast<std::size_t>(pieces->misbehaviour.number);
    const std::optional<std::size_t> stallAt = std::exchange(manner.stallAt, std::nullopt);
    std::vector<Bytes>& flows = held.answer.flows;
    if (session->isOpen()) calls_.answer(held.connection, held.messageId, flows);
    for (Bytes& flow : flows) {
        const bool isLast = &flow == &flows.back();
        if (isLast) manner.stallAt = stallAt;
        session->send(std::move(flow), manner, isLast);
    }

    end(*session, held.answer.then);
}

// --------------------------------------------------------------------------------------------- log

bool Server::logs(LogLevel level) const
{
    return log_ && level >= leastLevel_;
}

void Server::log(LogLevel level, const std::string& line) const
{
    if (logs(level)) log_(level, line);
}

void Server::log(LogLevel level, int connection, const std::string& line) const
{
    if (logs(level)) log_(level, "connection " + std::to_string(connection) + ": " + line);
}

} // namespace standin
