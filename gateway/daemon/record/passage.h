// One connection through the relay: a socket to the application, one to the Gateway, and a way in
// each direction between them. Each way has one buffer and reads again when that has been taken, so
// a side that is slow slows down the other one, as it does without a relay. A half-close is passed
// on behind the bytes in front of it, and a reset at once. With misbehaviours, what comes from the
// Gateway goes through their hands; it is read from again when the application has taken that.
//
// Ownership: the owner holds passages by shared_ptr; the operations under way keep theirs alive. A
// passage tells its owner when it has ended, once.
//
// Thread: the relay's thread only.
#ifndef GATEWAY_PASSAGE_H
#define GATEWAY_PASSAGE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <asio/ip/tcp.hpp>

#include "record/misbehaving.h"
#include "record/recording.h"
#include "standin/log.h"

namespace record {

class Passage : public std::enable_shared_from_this<Passage> {
public:
    struct Gateway {
        std::string host;
        std::string port;
    };
    using Ended = std::function<void(const std::shared_ptr<Passage>& passage)>;

    Passage(asio::io_context& context, asio::ip::tcp::socket application, Folder& folder,
            standin::LogSink log, Ended ended);

    // Misbehaviours may strike at it, as at the connection of this number. They give the
    // application what the Gateway has sent, with give().
    void endanger(Misbehaving& misbehaving, int connection);
    void give(const standin::Answer& answer);

    // Connects to the Gateway, and passes on from then.
    void start(const Gateway& gateway);

    // Ends it from outside.
    void stop();

private:
    struct Way {
        Way(Side side, asio::ip::tcp::socket& source, asio::ip::tcp::socket& target)
            : from(side), in(source), out(target)
        {
        }

        const Side from;
        asio::ip::tcp::socket& in;
        asio::ip::tcp::socket& out;
        std::array<std::uint8_t, 65536> buffer{};
        bool isReading = false;
        bool isOver = false;    // nothing more is read
        bool hasFailed = false; // its target takes nothing more
    };

    void connect(const asio::ip::tcp::resolver::results_type& places);
    void onConnected();
    void passOn(Way& way);
    void onRead(Way& way, const asio::error_code& error, std::size_t count);
    void onPassed(Way& way, const asio::error_code& error, std::size_t count);
    void onSourceClosed(Way& way);
    void watchForReset(Way& way);
    void finishIfOver();
    void giveNext();
    void onGiven(const asio::error_code& error, std::size_t count);
    void onAllGiven();
    void endOnPurpose(standin::Answer::Then then);
    void refuse(const std::string& problem);
    void reset(Side by);
    void end(const char* how);

    template <typename Step>
    void recording(Step step);
    void log(standin::LogLevel level, const std::string& line) const;

    asio::ip::tcp::resolver resolver_;
    asio::ip::tcp::socket application_;
    asio::ip::tcp::socket gateway_;
    std::array<Way, 2> ways_;
    Recording recording_;
    bool isRecording_ = true;
    const standin::LogSink log_;
    const Ended ended_;
    std::string place_; // of the Gateway

    // With misbehaviours only, between the Gateway and the application.
    struct Given {
        standin::Bytes bytes;
        std::size_t pieceSize; // 0: as a whole
        std::size_t done;
    };
    std::optional<Victim> victim_;
    std::deque<Given> given_;
    bool isGiving_ = false;
    bool isDropping_ = false;      // it ends behind what has been given
    bool isGatewayClosed_ = false; // so does what comes from the Gateway
    bool over_ = false;
};

} // namespace record

#endif
