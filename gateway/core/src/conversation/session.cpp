#include "conversation/session.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <exception>
#include <iterator>
#include <utility>

#include <asio/buffer.hpp>
#include <asio/error.hpp>
#include <asio/write.hpp>

namespace standin {

namespace {

constexpr std::size_t kMostWaiting = 4 * 1024 * 1024;
constexpr std::size_t kMostAtOnce = 16; // flows in one piece

// A client is asked after a minute of silence whether it is still there, and is not after another
// one without an answer. What it does not take for two minutes it will never take.
constexpr int kSilence = 60;       // seconds
constexpr int kBetweenProbes = 10; // seconds
constexpr int kProbes = 6;
constexpr int kUserTimeout = 120000; // milliseconds

void setOption(int socket, int level, int name, int value)
{
    // A system without the option does without.
    ::setsockopt(socket, level, name, &value, sizeof value);
}

void noticeVanishing(int socket)
{
    setOption(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
    setOption(socket, IPPROTO_TCP, TCP_KEEPIDLE, kSilence);
    setOption(socket, IPPROTO_TCP, TCP_KEEPINTVL, kBetweenProbes);
    setOption(socket, IPPROTO_TCP, TCP_KEEPCNT, kProbes);
    setOption(socket, IPPROTO_TCP, TCP_USER_TIMEOUT, kUserTimeout);
}

// A rate lets so many bytes through at a time, a twentieth of a second's.
std::size_t roomWithin(std::size_t rate, std::size_t most)
{
    return rate == 0 ? most : std::min(most, std::max<std::size_t>(1, rate / 20));
}

// The time that the bytes take, rounded up.
std::chrono::microseconds timeFor(std::size_t count, std::size_t rate)
{
    if (rate == 0) return std::chrono::microseconds(0);
    const std::uint64_t product = std::uint64_t{count} * 1000000U;
    return std::chrono::microseconds((product + rate - 1) / rate);
}

} // namespace

Session::Session(asio::ip::tcp::socket socket, int number, SessionOwner& owner)
    : socket_(std::move(socket)), number_(number), owner_(owner)
{
    // Every piece is to travel by itself.
    asio::error_code ignored;
    socket_.set_option(asio::ip::tcp::no_delay(true), ignored);
    socket_.non_blocking(true, ignored);
    noticeVanishing(socket_.native_handle());
}

void Session::start()
{
    readMore();
}

// ----------------------------------------------------------------------------------------- reading

void Session::setReading(bool reading)
{
    reading_ = reading;
    takeFlows();
    readMore();
}

void Session::readMore()
{
    if (!mayRead() || readUnderWay_ || waitsToRead()) return;
    readUnderWay_ = true;
    socket_.async_wait(asio::ip::tcp::socket::wait_read,
                       [self = shared_from_this()](const asio::error_code& error) {
                           self->guarded([&] { self->onReadable(error); });
                       });
}

void Session::onReadable(const asio::error_code& error)
{
    readUnderWay_ = false;
    if (ended_ || dropping_) return;
    if (error) return onReadFailed(error);
    if (cut_) return; // endCut() goes on with it
    ReadRoom& room = owner_.readRoom();
    const std::size_t most = roomWithin(owner_.receiveRate(*this), room.size());
    asio::error_code problem;
    const std::size_t count = socket_.read_some(asio::buffer(room.data(), most), problem);
    if (problem == asio::error::would_block) return readMore();
    if (problem) return onReadFailed(problem);
    takeArrived(room.data(), count);
    mayReadAt_ = owner_.timers().now() + timeFor(count, owner_.receiveRate(*this));
    ::explicit_bzero(room.data(), count); // there may be a password
    takeFlows();
    readMore();
}

void Session::takeArrived(const std::uint8_t* bytes, std::size_t count)
{
    owner_.onBytesReceived(*this, bytes, count);
    unread_.insert(unread_.end(), bytes, bytes + count);
}

// What goes wrong on one connection ends that one only.
template <typename Step>
void Session::guarded(Step step)
{
    try {
        step();
    } catch (const std::exception& failure) {
        if (ended_) throw;
        owner_.onFailed(*this, failure.what());
        reset();
    }
}

// While it lives, what is sent gathers.
class Session::Gathering {
public:
    explicit Gathering(Session& session)
        : session_(session), before_(std::exchange(session.gathering_, true))
    {
    }

    ~Gathering() { session_.gathering_ = before_; }

    Gathering(const Gathering&) = delete;
    Gathering& operator=(const Gathering&) = delete;

private:
    Session& session_;
    const bool before_;
};

// Answers to flows that came together go together, unless they are many.
void Session::takeFlows()
{
    try {
        const Gathering gathering(*this);
        while (mayRead() && !unread_.empty() && takeOneFlow()) {
            if (outgoing_.size() >= kMostAtOnce) sendGathered();
        }
    } catch (...) {
        sendWhatMay(); // the answers in front of what has failed
        throw;
    }
    sendWhatMay();
}

bool Session::takeOneFlow()
{
    std::optional<SplitFlow> split;
    try {
        split = splitFlow(unread_, stage_ == Stage::Connected ? Stream::ClientBeforeHandshake
                                                              : Stream::ClientBehindHandshake);
    } catch (const MalformedFlow& malformed) {
        owner_.onUnreadable(*this, malformed, std::exchange(unread_, {}));
        return false;
    }
    if (!split) return false;
    const Bytes raw = takeUnread(split->size);
    owner_.onFlow(*this, *split, raw);
    return true;
}

// Cuts bytes off the front. A large flow leaves no large room behind.
Bytes Session::takeUnread(std::size_t count)
{
    constexpr std::size_t kMostRoom = 1024 * 1024;
    const auto end = unread_.begin() + static_cast<std::ptrdiff_t>(count);
    Bytes taken(unread_.begin(), end);
    const auto stale = std::move(end, unread_.end(), unread_.begin());
    std::fill(stale, unread_.end(), std::uint8_t{0}); // there may be a password
    unread_.erase(stale, unread_.end());
    if (unread_.capacity() > kMostRoom) unread_.shrink_to_fit();
    return taken;
}

void Session::onReadFailed(const asio::error_code& error)
{
    if (!unread_.empty()) owner_.onCutShort(*this, unread_);
    if (error != asio::error::eof) return end(Ending::Reset);
    leaving_ = true;
    owner_.onLeaving(*this);
    if (stalled_) return end(Ending::ClosedByClient); // what has stalled goes nowhere any more
    endIfNothingIsLeft();
}

// ----------------------------------------------------------------------------------------- sending

// What goes to the system in one call.
struct Session::Piece {
    std::array<asio::const_buffer, kMostAtOnce> parts;
    std::size_t count = 0;
    bool isPlain = false;

    const asio::const_buffer* begin() const { return parts.data(); }
    const asio::const_buffer* end() const { return parts.data() + count; }
};

void Session::send(Bytes bytes, const Manner& manner, bool isAnswer)
{
    if (!isOpen() || silent_ || halfClosing_) return;
    waiting_ += bytes.size();
    outgoing_.push_back({std::move(bytes), manner, isAnswer});
    if (manner.latency.count() > 0)
        outgoing_.back().notBefore = owner_.timers().now() + manner.latency;
    sendWhatMay();
    if (!congested_ && waiting_ > kMostWaiting) setCongested(true);
}

void Session::setCongested(bool congested)
{
    congested_ = congested;
    owner_.onCongestion(*this, congested ? waiting_ : 0);
    takeFlows();
    readMore();
}

void Session::sendWhatMay()
{
    while (!ended_ && !outgoing_.empty() && !sendUnderWay_ && !gathering_ && !stalled_ &&
           !waitsToSend()) {
        sendPiece();
    }
}

void Session::sendGathered()
{
    if (!std::exchange(gathering_, false)) return;
    sendWhatMay();
    gathering_ = true;
}

// A flow in a manner of its own takes its turn among all that the loop has to do. So does what may
// end the session or a congestion, since neither is to happen to a caller between two flows.
void Session::sendPiece()
{
    const Piece piece = nextPiece();
    if (piece.isPlain && !congested_ && !leaving_) {
        asio::error_code problem; // the call below meets it again, and the loop tells of it
        const std::size_t count = socket_.write_some(piece, problem);
        if (!problem) return onPieceSent(count);
    }
    asio::async_write(
        socket_, piece,
        [self = shared_from_this()](const asio::error_code& error, std::size_t count) {
            self->sendUnderWay_ = false;
            self->guarded([&] { self->onPieceDone(error, count); });
        });
    sendUnderWay_ = true;
}

// Of the first flow what its manner lets through, and all behind it that nothing sets apart.
Session::Piece Session::nextPiece()
{
    Piece piece;
    Outgoing& first = outgoing_.front();
    const std::size_t rest = first.bytes.size() - first.done;
    std::size_t size = first.manner.pieceSize == 0 ? rest : std::min(first.manner.pieceSize, rest);
    if (first.manner.stallAt && *first.manner.stallAt > first.done)
        size = std::min(size, *first.manner.stallAt - first.done);
    size = roomWithin(owner_.sendRate(*this), size);
    add(piece, first, size);
    piece.isPlain = isPlain(first);
    for (auto flow = std::next(outgoing_.begin());
         piece.isPlain && piece.count < kMostAtOnce && flow != outgoing_.end(); ++flow) {
        if (!isPlain(*flow) || flow->notBefore.count() > 0) break;
        add(piece, *flow, flow->bytes.size());
    }
    return piece;
}

bool Session::isPlain(const Outgoing& flow) const
{
    return flow.manner.pieceSize == 0 && !flow.manner.stallAt && owner_.sendRate(*this) == 0;
}

// The owner is told first, so that a client which has the bytes finds them told.
void Session::add(Piece& piece, Outgoing& flow, std::size_t size)
{
    const std::uint8_t* const bytes = flow.bytes.data();
    const std::size_t end = flow.done + size;
    const std::size_t told = std::exchange(flow.told, std::max(flow.told, end));
    if (end > told) owner_.onBytesSending(*this, bytes + told, end - told);
    piece.parts[piece.count++] = asio::buffer(bytes + flow.done, size);
}

void Session::onPieceDone(const asio::error_code& error, std::size_t count)
{
    if (ended_) return;
    if (error) return end(leaving_ ? Ending::ClosedByClient : Ending::Reset);
    onPieceSent(count);
    sendWhatMay();
}

void Session::onPieceSent(std::size_t count)
{
    waiting_ -= count;
    maySendAt_ = owner_.timers().now() + timeFor(count, owner_.sendRate(*this));
    do {
        count -= takeSent(count);
    } while (count > 0);
    if (ended_) return;
    if (stalled_ && leaving_) return end(Ending::ClosedByClient);
    if (stalled_ && dropping_) outgoing_.clear();
    if (congested_ && waiting_ <= kMostWaiting) setCongested(false);
    endIfNothingIsLeft();
}

// So many bytes are with the system. Takes those of the first flow, and says how many they were.
std::size_t Session::takeSent(std::size_t count)
{
    Outgoing& flow = outgoing_.front();
    const std::size_t part = std::min(count, flow.bytes.size() - flow.done);
    flow.done += part;
    if (flow.manner.stallAt && flow.done >= std::min(*flow.manner.stallAt, flow.bytes.size())) {
        flow.manner.stallAt.reset();
        stalled_ = true;
    }
    if (flow.done == flow.bytes.size()) {
        const bool wasAnswer = flow.isAnswer;
        outgoing_.pop_front();
        if (wasAnswer) owner_.onAnswerSent(*this);
    }
    return part;
}

// --------------------------------------------------------------------------------- slow and silent

void Session::later(std::chrono::microseconds time, void (Session::*step)())
{
    owner_.timers().after(time, [weak = weak_from_this(), step] {
        const std::shared_ptr<Session> self = weak.lock();
        if (self != nullptr && !self->ended_) self->guarded([&] { (*self.*step)(); });
    });
}

// Whether nothing may be read yet; it is gone on with in time then.
bool Session::waitsToRead()
{
    const auto time = mayReadAt_ - owner_.timers().now();
    if (time.count() <= 0) return false;
    if (!readTimed_) later(time, &Session::readOn);
    readTimed_ = true;
    return true;
}

void Session::readOn()
{
    readTimed_ = false;
    readMore();
}

bool Session::waitsToSend()
{
    const auto first = std::max({maySendAt_, cutUntil_, outgoing_.front().notBefore});
    const auto time = first - owner_.timers().now();
    if (time.count() <= 0) return false;
    if (!sendTimed_) later(time, &Session::sendOn);
    sendTimed_ = true;
    return true;
}

void Session::sendOn()
{
    sendTimed_ = false;
    sendWhatMay();
}

void Session::cutOff(std::chrono::microseconds time)
{
    sendGathered();
    cutUntil_ = std::max(cutUntil_, owner_.timers().now() + time);
    cut_ = true;
    later(time, &Session::endCut);
}

void Session::endCut()
{
    if (!cut_ || owner_.timers().now() < cutUntil_) return;
    cut_ = false;
    takeFlows();
    readMore();
}

bool Session::resume()
{
    if (!std::exchange(stalled_, false)) return false;
    sendWhatMay();
    return true;
}

void Session::halfClose()
{
    if (!isOpen()) return;
    halfClosing_ = true;
    endIfNothingIsLeft();
}

void Session::answerIsHere()
{
    --expected_;
    if (!dropping_) endIfNothingIsLeft();
}

// ------------------------------------------------------------------------------------------ ending

void Session::drop()
{
    if (!isOpen()) return;
    dropping_ = true;
    if (stalled_) outgoing_.clear();
    if (!leaving_) owner_.onLeaving(*this);
    endIfNothingIsLeft();
}

// A session that is on its way out ends behind its last answer.
void Session::endIfNothingIsLeft()
{
    if (ended_ || !outgoing_.empty()) return;
    if (dropping_) return finishDrop();
    if (halfClosing_ && !std::exchange(halfClosed_, true)) {
        asio::error_code ignored;
        socket_.shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
    }
    if (leaving_ && expected_ == 0) end(Ending::ClosedByClient);
}

void Session::finishDrop()
{
    asio::error_code ignored;
    socket_.shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
    discardUnread();
    end(Ending::ClosedByGateway);
}

// Closing a socket with unread bytes makes the system send a reset, which could overtake the
// orderly end.
void Session::discardUnread()
{
    asio::error_code error;
    socket_.non_blocking(true, error);
    ReadRoom& room = owner_.readRoom();
    while (!error) {
        const std::size_t count = socket_.read_some(asio::buffer(room), error);
        ::explicit_bzero(room.data(), count); // there may be a password
    }
}

void Session::reset()
{
    if (ended_) return;
    sendGathered();
    asio::error_code ignored;
    socket_.set_option(asio::socket_base::linger(true, 0), ignored);
    end(Ending::Reset);
}

void Session::abandon()
{
    if (!ended_) end(Ending::ClosedByGateway);
}

void Session::end(Ending ending)
{
    const auto self = shared_from_this(); // the owner may let go of it
    ended_ = true;
    asio::error_code ignored;
    socket_.close(ignored);
    owner_.onEnded(*this, ending);
}

} // namespace standin
