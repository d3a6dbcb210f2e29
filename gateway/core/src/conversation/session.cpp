#include "conversation/session.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <exception>
#include <utility>

#include <asio/buffer.hpp>
#include <asio/error.hpp>
#include <asio/write.hpp>

namespace standin {

namespace {

constexpr std::size_t kMostWaiting = 4 * 1024 * 1024;

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

} // namespace

Session::Session(asio::ip::tcp::socket socket, int number, SessionOwner& owner)
    : socket_(std::move(socket)), number_(number), owner_(owner)
{
    // Every piece is to travel by itself.
    asio::error_code ignored;
    socket_.set_option(asio::ip::tcp::no_delay(true), ignored);
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
    if (!mayRead() || readUnderWay_) return;
    readUnderWay_ = true;
    socket_.async_read_some(
        asio::buffer(arrived_),
        [self = shared_from_this()](const asio::error_code& error, std::size_t count) {
            self->guarded([&] { self->onArrived(error, count); });
        });
}

void Session::onArrived(const asio::error_code& error, std::size_t count)
{
    readUnderWay_ = false;
    if (ended_ || dropping_) return;
    if (error) return onReadFailed(error);
    owner_.onBytesReceived(*this, arrived_.data(), count);
    unread_.insert(unread_.end(), arrived_.begin(),
                   arrived_.begin() + static_cast<std::ptrdiff_t>(count));
    ::explicit_bzero(arrived_.data(), count); // there may be a password
    takeFlows();
    readMore();
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

void Session::takeFlows()
{
    while (mayRead() && !unread_.empty() && takeOneFlow()) {}
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
    endIfNothingIsLeft();
}

// ----------------------------------------------------------------------------------------- sending

void Session::send(Bytes bytes, std::size_t pieceSize, bool isAnswer)
{
    if (!isOpen()) return;
    waiting_ += bytes.size();
    outgoing_.push_back({std::move(bytes), pieceSize, isAnswer});
    if (outgoing_.size() == 1) sendNextPiece();
    if (!congested_ && waiting_ > kMostWaiting) setCongested(true);
}

void Session::setCongested(bool congested)
{
    congested_ = congested;
    owner_.onCongestion(*this, congested ? waiting_ : 0);
    takeFlows();
    readMore();
}

void Session::sendNextPiece()
{
    const Outgoing& flow = outgoing_.front();
    const std::size_t rest = flow.bytes.size() - flow.done;
    const std::size_t size = flow.pieceSize == 0 ? rest : std::min(flow.pieceSize, rest);
    // Told first, so that a client which has the bytes finds them told.
    owner_.onBytesSending(*this, flow.bytes.data() + flow.done, size);
    asio::async_write(
        socket_, asio::buffer(flow.bytes.data() + flow.done, size),
        [self = shared_from_this()](const asio::error_code& error, std::size_t count) {
            self->guarded([&] { self->onPieceDone(error, count); });
        });
}

void Session::onPieceDone(const asio::error_code& error, std::size_t count)
{
    if (ended_) return;
    if (error) return end(leaving_ ? Ending::ClosedByClient : Ending::Reset);
    onPieceSent(count);
}

void Session::onPieceSent(std::size_t count)
{
    Outgoing& flow = outgoing_.front();
    flow.done += count;
    waiting_ -= count;
    if (flow.done == flow.bytes.size()) {
        const bool wasAnswer = flow.isAnswer;
        outgoing_.pop_front();
        if (wasAnswer) owner_.onAnswerSent(*this);
    }
    if (ended_) return;
    if (!outgoing_.empty()) sendNextPiece();
    if (congested_ && waiting_ <= kMostWaiting) setCongested(false);
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
    if (!leaving_) owner_.onLeaving(*this);
    endIfNothingIsLeft();
}

// A session that is on its way out ends behind its last answer.
void Session::endIfNothingIsLeft()
{
    if (ended_ || !outgoing_.empty()) return;
    if (dropping_) return finishDrop();
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
    while (!error) socket_.read_some(asio::buffer(arrived_), error);
}

void Session::reset()
{
    if (ended_) return;
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
