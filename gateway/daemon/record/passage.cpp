#include "record/passage.h"

#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <exception>
#include <utility>

#include <asio/buffer.hpp>
#include <asio/connect.hpp>
#include <asio/error.hpp>
#include <asio/write.hpp>

#include "log/log_text.h"

namespace record {

using asio::ip::tcp;
using standin::Answer;
using standin::LogLevel;

namespace {

std::string textOf(const tcp::endpoint& endpoint)
{
    return endpoint.address().to_string() + ":" + std::to_string(endpoint.port());
}

// Bytes travel on as they have come, and a side that has vanished is noticed.
void prepare(tcp::socket& socket)
{
    asio::error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    socket.set_option(asio::socket_base::keep_alive(true), ignored);
}

void resetAndClose(tcp::socket& socket)
{
    asio::error_code ignored;
    socket.set_option(asio::socket_base::linger(true, 0), ignored);
    socket.close(ignored);
}

// Closing a socket with unread bytes would make the system send a reset.
void closeInOrder(tcp::socket& socket)
{
    asio::error_code error;
    socket.shutdown(tcp::socket::shutdown_send, error);
    socket.non_blocking(true, error);
    std::array<std::uint8_t, 4096> thrownAway;
    while (!error) socket.read_some(asio::buffer(thrownAway), error);
    socket.close(error);
}

bool hasError(tcp::socket& socket)
{
    int error = 0;
    socklen_t size = sizeof error;
    return ::getsockopt(socket.native_handle(), SOL_SOCKET, SO_ERROR, &error, &size) != 0 ||
           error != 0;
}

} // namespace

Passage::Passage(asio::io_context& context, tcp::socket application, Folder& folder,
                 standin::LogSink log, Ended ended)
    : resolver_(context), application_(std::move(application)),
      gateway_(context), ways_{{{Side::Application, application_, gateway_},
                                {Side::Gateway, gateway_, application_}}},
      recording_(folder), log_(std::move(log)), ended_(std::move(ended))
{
    prepare(application_);
}

void Passage::log(LogLevel level, const std::string& line) const
{
    if (!log_) return;
    log_(level, "connection " + std::to_string(recording_.number()) + ": " + line);
}

// What goes wrong with the recording ends the recording, and not the connection.
template <typename Step>
void Passage::recording(Step step)
{
    if (!isRecording_) return;
    try {
        step();
    } catch (const std::exception& failure) {
        isRecording_ = false;
        log(LogLevel::Error, "is not recorded any more: " + log_text::printable(failure.what()));
    }
}

// ----------------------------------------------------------------------------------- the beginning

void Passage::start(const Gateway& gateway)
{
    asio::error_code gone;
    const tcp::endpoint peer = application_.remote_endpoint(gone);
    const std::string application = gone ? "unknown" : textOf(peer);
    place_ = gateway.host + ":" + gateway.port;
    log(LogLevel::Info, "accepted from " + application + ", recorded in " + recording_.file());
    recording([&] { recording_.opened(application, place_); });
    if (victim_) {
        const Answer::Then then = victim_->accepted();
        if (then != Answer::Then::GoOn) return endOnPurpose(then);
    }
    resolver_.async_resolve(gateway.host, gateway.port,
                            [self = shared_from_this()](const asio::error_code& error,
                                                        const tcp::resolver::results_type& places) {
                                if (self->over_) return;
                                if (error) return self->refuse(error.message());
                                self->connect(places);
                            });
}

void Passage::connect(const tcp::resolver::results_type& places)
{
    asio::async_connect(
        gateway_, places,
        [self = shared_from_this()](const asio::error_code& error, const tcp::endpoint&) {
            if (self->over_) return;
            // A Gateway that accepts and resets at once may do both before anybody looks.
            if (error == asio::error::connection_reset) return self->reset(Side::Gateway);
            if (error) return self->refuse(error.message());
            self->onConnected();
        });
}

void Passage::refuse(const std::string& problem)
{
    log(LogLevel::Error, "cannot connect to " + place_ + ": " + problem);
    recording([&] { recording_.happened(Side::Gateway, "unreachable"); });
    resetAndClose(application_);
    end("refused");
}

void Passage::onConnected()
{
    prepare(gateway_);
    for (Way& way : ways_) {
        watchForReset(way);
        passOn(way);
    }
}

// --------------------------------------------------------------------------------------- both ways

void Passage::passOn(Way& way)
{
    if (way.isReading) return;
    way.isReading = true;
    way.in.async_read_some(
        asio::buffer(way.buffer),
        [self = shared_from_this(), &way](const asio::error_code& error, std::size_t count) {
            self->onRead(way, error, count);
        });
}

// Recorded first, so that who has the bytes finds them recorded.
void Passage::onRead(Way& way, const asio::error_code& error, std::size_t count)
{
    way.isReading = false;
    if (over_) return;
    if (error == asio::error::eof) return onSourceClosed(way);
    if (error) return reset(way.from);
    recording([&] { recording_.passed(way.from, way.buffer.data(), count); });
    if (victim_ && way.from == Side::Application) victim_->asked(way.buffer.data(), count);
    if (victim_ && way.from == Side::Gateway) {
        victim_->answered(way.buffer.data(), count);
        if (!over_ && given_.empty()) onAllGiven();
        return;
    }
    asio::async_write(
        way.out, asio::buffer(way.buffer.data(), count),
        [self = shared_from_this(), &way](const asio::error_code& failed, std::size_t done) {
            self->onPassed(way, failed, done);
        });
}

// A target that takes nothing more may have sent something before, which the other way still
// brings.
void Passage::onPassed(Way& way, const asio::error_code& error, std::size_t count)
{
    ::explicit_bzero(way.buffer.data(), count); // there may be a password
    if (over_) return;
    if (!error) return passOn(way);
    way.isOver = true;
    way.hasFailed = true;
    finishIfOver();
}

void Passage::onSourceClosed(Way& way)
{
    if (victim_ && way.from == Side::Gateway && !isGatewayClosed_) {
        isGatewayClosed_ = true;
        victim_->answeredAll();
        if (!over_ && given_.empty()) onAllGiven();
        return;
    }
    recording([&] { recording_.happened(way.from, "closed"); });
    way.isOver = true;
    asio::error_code ignored;
    way.out.shutdown(tcp::socket::shutdown_send, ignored);
    finishIfOver();
}

void Passage::finishIfOver()
{
    if (!ways_[0].isOver || !ways_[1].isOver) return;
    for (const Way& way : ways_) {
        if (way.hasFailed)
            return reset(way.from == Side::Application ? Side::Gateway : Side::Application);
    }
    end("closed");
}

// A side that nothing is read from at the moment, since the other one is slow, may be reset. When
// it is read from the reading tells, behind what has come before.
void Passage::watchForReset(Way& way)
{
    way.in.async_wait(tcp::socket::wait_error,
                      [self = shared_from_this(), &way](const asio::error_code& error) {
                          if (error || self->over_ || way.isReading) return;
                          if (hasError(way.in)) self->reset(way.from);
                      });
}

// --------------------------------------------------------------------------------- on the way back

void Passage::endanger(Misbehaving& misbehaving, int connection)
{
    victim_.emplace(misbehaving, connection,
                    [this](const std::string& line) { log(LogLevel::Warning, line); });
}

void Passage::give(const Answer& answer)
{
    if (over_ || isDropping_ || ways_[1].isOver) return;
    const std::size_t pieceSize = victim_->pieceSize();
    for (const standin::Bytes& flow : answer.flows) {
        if (!flow.empty()) given_.push_back({flow, pieceSize, 0});
    }
    if (answer.then == Answer::Then::Reset) return endOnPurpose(answer.then);
    isDropping_ = answer.then == Answer::Then::Drop;
    if (isGiving_) return;
    if (!given_.empty()) return giveNext();
    if (isDropping_) endOnPurpose(answer.then);
}

void Passage::giveNext()
{
    const Given& next = given_.front();
    const std::size_t rest = next.bytes.size() - next.done;
    const std::size_t size = next.pieceSize == 0 ? rest : std::min(next.pieceSize, rest);
    isGiving_ = true;
    asio::async_write(
        application_, asio::buffer(next.bytes.data() + next.done, size),
        [self = shared_from_this()](const asio::error_code& error, std::size_t count) {
            self->onGiven(error, count);
        });
}

void Passage::onGiven(const asio::error_code& error, std::size_t count)
{
    isGiving_ = false;
    if (over_) return;
    if (error) {
        ways_[1].isOver = true;
        ways_[1].hasFailed = true;
        return finishIfOver();
    }
    given_.front().done += count;
    if (given_.front().done == given_.front().bytes.size()) given_.pop_front();
    if (!given_.empty()) return giveNext();
    onAllGiven();
}

void Passage::onAllGiven()
{
    if (isDropping_) return endOnPurpose(Answer::Then::Drop);
    if (ways_[1].isOver) return;
    if (isGatewayClosed_) return onSourceClosed(ways_[1]);
    passOn(ways_[1]);
}

// The application's connection ends as the misbehaviour wants it, and that to the Gateway with it.
void Passage::endOnPurpose(Answer::Then then)
{
    recording([&] { recording_.happened(Side::Application, "dropped"); });
    if (then == Answer::Then::Reset) {
        resetAndClose(application_);
    } else {
        closeInOrder(application_);
    }
    end(then == Answer::Then::Reset ? "reset on purpose" : "dropped on purpose");
}

// ----------------------------------------------------------------------------------------- the end

void Passage::reset(Side by)
{
    recording([&] { recording_.happened(by, "reset"); });
    resetAndClose(application_);
    resetAndClose(gateway_);
    end(by == Side::Application ? "reset by the application" : "reset by the gateway");
}

void Passage::stop()
{
    if (over_) return;
    recording([&] { recording_.happened(Side::Gateway, "stopped"); });
    end("stopped");
}

void Passage::end(const char* how)
{
    const auto self = shared_from_this(); // the owner lets go of it
    over_ = true;
    asio::error_code ignored;
    resolver_.cancel();
    application_.close(ignored);
    gateway_.close(ignored);
    log(LogLevel::Info, how);
    ended_(self);
}

} // namespace record
