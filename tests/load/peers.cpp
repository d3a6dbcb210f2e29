#include "load/peers.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <list>
#include <mutex>
#include <optional>
#include <random>
#include <stdexcept>
#include <thread>

#include "load/connection_plan.h"
#include "standin/channel_changes.h"
#include "standin/wire.h"

namespace load {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// How long a peer takes at most where it takes its time, and for the rest of a connection's life
// once it has said goodbye.
constexpr int longestDelay = 10;
constexpr milliseconds limitOfGoodbye{200};
constexpr std::chrono::seconds limitOfStop{30};

enum class Ending { None, Close, Reset };

// Something that a peer will do.
struct Act {
    Clock::time_point due;
    standin::Bytes bytes;
    Ending ending = Ending::None;
};

struct Session {
    int descriptor = -1;
    standin::Bytes arrived;
    bool hasPlan = false;
    bool greeted = false;
    bool saidGoodbye = false;  // the peer
    bool heardGoodbye = false; // from the client
    bool over = false;
    ConnectionPlan plan;
    int connection = 0;
    int units = 0;
    std::vector<Act> acts;
    standin::Bytes unsent; // of an act that has begun; others wait
};

standin::Bytes wireBytes(const std::string& characters)
{
    return standin::Bytes(characters.begin(), characters.end());
}

std::string characters(const standin::Bytes& bytes)
{
    return std::string(bytes.begin(), bytes.end());
}

Program programOf(const std::string& name)
{
    int number = 0;
    for (const char* known : programNames) {
        if (name == known) return static_cast<Program>(number);
        number += 1;
    }
    throw std::runtime_error("there is no program " + name);
}

} // namespace

class Peers::Impl {
public:
    explicit Impl(unsigned seed) : random_(seed)
    {
        listen();
        wakeUp_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        thread_ = std::thread([this] { serve(); });
    }
    ~Impl() { stop(); }

    int port() const { return port_; }

    void stop()
    {
        if (!thread_.joinable()) return;
        std::uint64_t one = 1;
        if (::write(wakeUp_, &one, sizeof one) != sizeof one) note("the peers cannot be woken");
        thread_.join();
        for (Session& session : sessions_) {
            note("connection " + eightDigits(session.connection) + " has not ended");
            close(session.descriptor);
        }
        sessions_.clear();
        close(listener_);
        close(wakeUp_);
    }

    std::vector<std::string> problems()
    {
        std::lock_guard<std::mutex> guard(mutex_);
        return std::move(problems_);
    }

private:
    // ---- The thread ----

    void listen()
    {
        listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        socklen_t size = sizeof address;
        if (listener_ < 0 || bind(listener_, generic, size) != 0 || ::listen(listener_, 128) != 0 ||
            getsockname(listener_, generic, &size) != 0)
            throw std::runtime_error(std::string("no listener: ") + std::strerror(errno));
        port_ = ntohs(address.sin_port);
    }

    void serve()
    {
        while (!stopping_ || (!sessions_.empty() && Clock::now() < stopLimit_)) {
            std::vector<pollfd> waits{{listener_, POLLIN, 0}};
            if (!stopping_) waits.push_back({wakeUp_, POLLIN, 0});
            std::size_t first = waits.size();
            for (Session& session : sessions_)
                waits.push_back({session.descriptor, eventsOf(session), 0});
            if (poll(waits.data(), waits.size(), untilNextAct()) < 0 && errno != EINTR)
                note(std::string("poll: ") + std::strerror(errno));

            std::size_t position = first;
            for (Session& session : sessions_)
                if (waits[position++].revents != 0) hear(session);
            for (Session& session : sessions_) actWhereDue(session);
            if (waits[0].revents != 0) accept();
            if (first == 2 && waits[1].revents != 0) {
                stopping_ = true;
                stopLimit_ = Clock::now() + limitOfStop;
            }
            sessions_.remove_if([](const Session& session) { return session.over; });
        }
    }

    static short eventsOf(const Session& session)
    {
        return static_cast<short>(session.unsent.empty() ? POLLIN : POLLIN | POLLOUT);
    }

    // In milliseconds, as poll wants it.
    int untilNextAct() const
    {
        Clock::time_point next = Clock::now() + std::chrono::seconds(1);
        for (const Session& session : sessions_) {
            if (!session.unsent.empty()) continue;
            for (const Act& act : session.acts) next = std::min(next, act.due);
        }
        auto wait = std::chrono::duration_cast<milliseconds>(next - Clock::now());
        return std::max(0, static_cast<int>(wait.count()) + 1);
    }

    void accept()
    {
        int descriptor = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (descriptor < 0) return;
        int on = 1; // answers do not wait for one another
        setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        sessions_.emplace_back();
        sessions_.back().descriptor = descriptor;
    }

    // ---- What comes ----

    void hear(Session& session)
    {
        if (session.over) return;
        unsigned char piece[16384];
        ssize_t got = recv(session.descriptor, piece, sizeof piece, 0);
        if (got < 0 && (errno == EAGAIN || errno == EINTR)) return;
        if (got <= 0) {
            noteEndOf(session, got == 0 ? "ends the stream" : std::strerror(errno));
            end(session, Ending::Close);
            return;
        }
        session.arrived.insert(session.arrived.end(), piece, piece + got);
        try {
            readFlows(session);
        } catch (const std::exception& problem) {
            noteOf(session, problem.what());
            end(session, Ending::Close);
        }
    }

    void noteEndOf(const Session& session, const std::string& what)
    {
        if (!session.arrived.empty()) noteOf(session, what + " within a flow");
        if (session.greeted && !session.heardGoodbye && !session.saidGoodbye)
            noteOf(session, what + " without a goodbye");
    }

    void readFlows(Session& session)
    {
        while (!session.over) {
            std::optional<standin::SplitFlow> split = standin::splitFlow(session.arrived);
            if (!split) return;
            standin::checkClientHeader(split->flow.header);
            takeFlow(session, *split);
            session.arrived.erase(session.arrived.begin(),
                                  session.arrived.begin() +
                                      static_cast<std::ptrdiff_t>(split->size));
        }
    }

    void takeFlow(Session& session, const standin::SplitFlow& split)
    {
        switch (static_cast<standin::FlowType>(split.flow.header.flowType)) {
        case standin::FlowType::Handshake: takeHandshake(session, split); return;
        case standin::FlowType::Request: takeRequest(session, split); return;
        case standin::FlowType::Close: takeGoodbye(session); return;
        default: throw std::runtime_error("a flow of a type that clients do not send");
        }
    }

    void takeHandshake(Session& session, const standin::SplitFlow& split)
    {
        if (session.hasPlan) throw std::runtime_error("a second handshake");
        standin::Handshake handshake = standin::decodeHandshake(split.flow.body, split.headerSize);
        session.hasPlan = true;
        session.plan = ConnectionPlan::of(handshake.applidQualifier);
        session.connection = std::atoi(handshake.applid.c_str());
        switch (session.plan.greeting) {
        case Greeting::AtOnce: greet(session, 0); return;
        case Greeting::Late: greet(session, delay()); return;
        case Greeting::Goodbye:
            greet(session, 0);
            sayGoodbye(session);
            return;
        case Greeting::Refusal:
            send(session, 0,
                 standin::encodeErrorFlow(standin::kHandshakeMessageId, refusalOfGreeting, "BASE"),
                 Ending::Close);
            return;
        case Greeting::Drop: send(session, delay(), {}, Ending::Close); return;
        case Greeting::Reset: send(session, delay(), {}, Ending::Reset); return;
        case Greeting::Never: return;
        }
    }

    void greet(Session& session, int after)
    {
        session.greeted = true;
        send(session, after, standin::encodeHandshakeAccepted());
    }

    void takeGoodbye(Session& session)
    {
        if (session.heardGoodbye) return; // each of two closes says it
        session.heardGoodbye = true;
        switch (session.plan.farewell) {
        case Farewell::Answer: send(session, 0, standin::encodeCloseFlow(), Ending::Close); return;
        case Farewell::Late:
            send(session, delay(), standin::encodeCloseFlow(), Ending::Close);
            return;
        case Farewell::Drop: send(session, 0, {}, Ending::Close); return;
        case Farewell::Reset: send(session, 0, {}, Ending::Reset); return;
        }
    }

    // The client's end of the stream follows; if it does not, the peer's does.
    void sayGoodbye(Session& session)
    {
        session.saidGoodbye = true;
        send(session, 0, standin::encodeCloseFlow());
        send(session, static_cast<int>(limitOfGoodbye.count()), {}, Ending::Close);
    }

    // ---- Requests ----

    void takeRequest(Session& session, const standin::SplitFlow& split)
    {
        if (!session.greeted) throw std::runtime_error("a request before the handshake");
        // The request of a call that was on its way when the goodbye went out gets no answer.
        if (session.heardGoodbye || session.saidGoodbye) return;
        const standin::FlowHeader& header = split.flow.header;
        if (header.requestType == "ESI") {
            answerPassword(session, header.messageId,
                           standin::decodeEsiRequest(split.flow.body, split.headerSize));
            return;
        }
        standin::EciRequest request = standin::decodeEciRequest(split.flow.body, split.headerSize);
        if (request.callType == standin::kCallListSystems)
            answerQuery(session, header.messageId, request);
        else if (request.endsUnitOfWork())
            answerEnd(session, header.messageId, request);
        else
            answerCall(session, header.messageId, request);
    }

    void answerPassword(Session& session, int messageId, const standin::EsiRequest& request)
    {
        standin::EsiReply reply;
        reply.invalidCount = session.connection;
        reply.lastVerified.year = 2026;
        if (request.currentPassword == wrongPassword) reply.vornRc = -302;
        send(session, mayBeLate(), standin::encodeEsiReply(messageId, reply));
    }

    // Two systems, called as the connection is.
    void answerQuery(Session& session, int messageId, const standin::EciRequest& request)
    {
        standin::SystemEntry entry;
        entry.name = eightDigits(session.connection);
        entry.description = "a system";
        standin::EciReply reply = standin::EciReply::systemList(request, {entry, entry});
        send(session, mayBeLate(), standin::encodeEciReply(messageId, reply));
    }

    void answerEnd(Session& session, int messageId, const standin::EciRequest& request)
    {
        if (connectionOfUnit(request.luwToken) != session.connection)
            throw std::runtime_error("the end of another connection's unit of work");
        standin::EciReply reply = standin::EciReply::to(request);
        reply.luwToken = 0;
        send(session, mayBeLate(), standin::encodeEciReply(messageId, reply));
    }

    void answerCall(Session& session, int messageId, const standin::EciRequest& request)
    {
        Program program = programOf(request.program);
        switch (program) {
        case Program::Refused:
            send(session, mayBeLate(), standin::encodeErrorFlow(messageId, 61445, "ECI"));
            return;
        case Program::Throws:
            send(session, mayBeLate(),
                 standin::encodeExceptionFlow(messageId, "out of order", "ECI"));
            return;
        case Program::Drops: send(session, mayBeLate(), {}, Ending::Close); return;
        case Program::Resets: send(session, mayBeLate(), {}, Ending::Reset); return;
        case Program::Goodbye: sayGoodbye(session); return;
        default: break;
        }
        standin::EciReply reply = answer(session, request);
        if (program == Program::Abends) reply = standin::EciReply::abend(request, abendCode);
        if (request.extendMode == standin::kModeExtended)
            reply.luwToken = request.luwToken != 0 ? unitOf(session, request) : newUnit(session);
        send(session, mayBeLate(), standin::encodeEciReply(messageId, reply));
    }

    static int unitOf(const Session& session, const standin::EciRequest& request)
    {
        if (connectionOfUnit(request.luwToken) != session.connection)
            throw std::runtime_error("a unit of work of another connection");
        return request.luwToken;
    }

    static int newUnit(Session& session)
    {
        session.units = (session.units + 1) % unitsPerConnection;
        return session.connection * unitsPerConnection + session.units;
    }

    static standin::EciReply answer(const Session& session, const standin::EciRequest& request)
    {
        if (!request.channel) {
            std::string given = answerTo(characters(request.commarea), session.connection);
            return standin::EciReply::withCommarea(request, wireBytes(given));
        }
        standin::ChannelChanges changes(*request.channel);
        const standin::Container* in = changes.find("IN");
        standin::Container out;
        out.name = "OUT";
        out.data = wireBytes(
            answerTo(in != nullptr ? characters(in->data) : "nothing", session.connection));
        changes.put(out);
        standin::EciReply reply = standin::EciReply::to(request);
        if (programOf(request.program) == Program::Large) {
            standin::Container bulk;
            bulk.name = bulkName;
            bulk.data.assign(bulkLength, 'b');
            changes.put(bulk);
        }
        reply.channel = changes.records();
        return reply;
    }

    // ---- Acting ----

    int delay() { return 1 + static_cast<int>(random_() % longestDelay); }

    int mayBeLate() { return random_() % 4 == 0 ? delay() : 0; }

    void send(Session& session, int after, standin::Bytes bytes, Ending ending = Ending::None)
    {
        session.acts.push_back({Clock::now() + milliseconds(after), std::move(bytes), ending});
        actWhereDue(session);
    }

    void actWhereDue(Session& session)
    {
        if (session.over) return;
        Clock::time_point now = Clock::now();
        sendOn(session);
        for (std::size_t next = 0;
             next < session.acts.size() && session.unsent.empty() && !session.over;) {
            if (session.acts[next].due > now) {
                next += 1;
                continue;
            }
            Act act = std::move(session.acts[next]);
            session.acts.erase(session.acts.begin() + static_cast<std::ptrdiff_t>(next));
            session.unsent = std::move(act.bytes);
            sendOn(session);
            if (act.ending == Ending::None) continue;
            if (session.unsent.empty())
                end(session, act.ending);
            else
                session.acts.insert(session.acts.begin(), Act{act.due, {}, act.ending});
        }
    }

    // As much as there is room for on the way to the client, which may have gone. One that stays
    // and reads nothing does not end either, which is noted then.
    void sendOn(Session& session)
    {
        if (session.unsent.empty()) return;
        ssize_t sent = ::send(session.descriptor, session.unsent.data(), session.unsent.size(),
                              MSG_NOSIGNAL);
        if (sent < 0 && (errno == EAGAIN || errno == EINTR)) return;
        if (sent < 0 && errno != EPIPE && errno != ECONNRESET)
            noteOf(session, std::strerror(errno));
        auto gone = sent < 0 ? session.unsent.end() : session.unsent.begin() + sent;
        session.unsent.erase(session.unsent.begin(), gone);
    }

    static void end(Session& session, Ending ending)
    {
        if (session.over) return;
        session.over = true;
        if (ending == Ending::Reset) {
            linger atOnce{1, 0};
            setsockopt(session.descriptor, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        }
        close(session.descriptor);
    }

    // ---- Notes ----

    void note(const std::string& text)
    {
        std::lock_guard<std::mutex> guard(mutex_);
        problems_.push_back("peer: " + text);
    }

    void noteOf(const Session& session, const std::string& text)
    {
        note("connection " + eightDigits(session.connection) + ": " + text);
    }

    std::mt19937 random_;
    int listener_ = -1;
    int wakeUp_ = -1;
    int port_ = 0;
    bool stopping_ = false;
    Clock::time_point stopLimit_;
    std::list<Session> sessions_;
    std::thread thread_;
    std::mutex mutex_;
    std::vector<std::string> problems_; // guarded by mutex_
};

Peers::Peers(unsigned seed) : impl_(std::make_unique<Impl>(seed)) {}

Peers::~Peers() = default;

int Peers::port() const
{
    return impl_->port();
}

void Peers::stop()
{
    impl_->stop();
}

std::vector<std::string> Peers::problems()
{
    return impl_->problems();
}

} // namespace load
