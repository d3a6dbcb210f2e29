// One connection: reads bytes, cuts them into flows, and sends flows one behind the other. What the
// flows mean is its owner's business.
//
// Ownership: the owner holds sessions by shared_ptr; the operations under way keep their session
// alive until they are over. A session tells its owner when it has ended, once.
//
// A client that does not take what is sent to it is not read from either, once 4 MB wait for it.
//
// Thread: the Gateway's thread only.
#ifndef STANDIN_SESSION_H
#define STANDIN_SESSION_H

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>

#include <asio/ip/tcp.hpp>

#include "conversation/timers.h"
#include "faults/answer.h"
#include "standin/records.h"
#include "standin/wire.h"

namespace standin {

class Session;

// Where what arrives is read into. It is one for all sessions, since none keeps anything there.
using ReadRoom = std::array<std::uint8_t, 65536>;

class SessionOwner {
public:
    virtual ReadRoom& readRoom() = 0;

    virtual void onBytesReceived(Session& session, const std::uint8_t* bytes,
                                 std::size_t count) = 0;
    virtual void onBytesSending(Session& session, const std::uint8_t* bytes, std::size_t count) = 0;

    // `raw` is the whole flow.
    virtual void onFlow(Session& session, const SplitFlow& split, const Bytes& raw) = 0;

    // The bytes at hand are no flow; nothing more can be read from them.
    virtual void onUnreadable(Session& session, const MalformedFlow& malformed,
                              const Bytes& raw) = 0;

    // The client closed its side in the middle of a flow.
    virtual void onCutShort(Session& session, const Bytes& raw) = 0;

    // Nothing more is read from the client: it has closed its side, or is about to be dropped. The
    // session ends when what is under way to it has been sent.
    virtual void onLeaving(Session& session) = 0;

    virtual void onAnswerSent(Session& session) = 0;

    // So many bytes wait to be taken by the client that nothing more is read from it; or (0) that
    // is over.
    virtual void onCongestion(Session& session, std::size_t waiting) = 0;

    // How many bytes a second are sent and read; 0: as many as can be.
    virtual std::size_t sendRate(const Session& session) = 0;
    virtual std::size_t receiveRate(const Session& session) = 0;
    virtual Timers& timers() = 0;

    // Something that the session's bytes led to has failed, as an allocation may; it ends then.
    virtual void onFailed(Session& session, const char* failure) = 0;
    virtual void onEnded(Session& session, Ending ending) = 0;

protected:
    ~SessionOwner() = default;
};

class Session : public std::enable_shared_from_this<Session> {
public:
    // What the session's client has done so far; kept here for the owner.
    enum class Stage { Connected, Ready, Closing };

    Session(asio::ip::tcp::socket socket, int number, SessionOwner& owner);

    int number() const { return number_; }
    bool isOpen() const { return !ended_ && !dropping_; }

    Stage stage() const { return stage_; }
    void setStage(Stage stage) { stage_ = stage; }

    // Begins to read.
    void start();

    // Sends the bytes behind what is under way. With `isAnswer` the owner is told when the last one
    // has been handed to the system.
    void send(Bytes bytes, const Manner& manner, bool isAnswer);

    // Closes the connection in order, behind what is under way.
    void drop();

    // Closes the connection at once with a reset. Only what would wait for the answers to the flows
    // that came with its own still goes out.
    void reset();

    // Closes the connection at once, without caring for what is under way.
    void abandon();

    // Closes its own side behind what is under way, and reads on; nothing more is sent.
    void halfClose();

    // Nothing more is sent from now on.
    void fallSilent() { silent_ = true; }

    // Sends and reads nothing for so long.
    void cutOff(std::chrono::microseconds time);

    // Goes on sending when it has stalled. True when it had.
    bool resume();

    void setReading(bool reading);

    // An answer is being made that will be sent later; a client that closes its side meanwhile gets
    // it all the same. The second one ends this.
    void expectAnswer() { ++expected_; }
    void answerIsHere();

private:
    struct Outgoing {
        Bytes bytes;
        Manner manner;
        bool isAnswer;
        std::chrono::microseconds notBefore{0};
        std::size_t told = 0; // bytes that the owner knows of
        std::size_t done = 0; // bytes handed to the system
    };
    struct Piece;
    class Gathering;

    bool mayRead() const { return isOpen() && !leaving_ && reading_ && !congested_ && !cut_; }
    void readMore();
    bool waitsToRead();
    bool waitsToSend();
    void later(std::chrono::microseconds time, void (Session::*step)());
    void readOn();
    void sendOn();
    void endCut();
    void onReadable(const asio::error_code& error);
    void takeArrived(const std::uint8_t* bytes, std::size_t count);
    void onPieceDone(const asio::error_code& error, std::size_t count);
    template <typename Step>
    void guarded(Step step);
    void takeFlows();
    bool takeOneFlow();
    Bytes takeUnread(std::size_t count);
    void onReadFailed(const asio::error_code& error);
    bool isPlain(const Outgoing& flow) const;
    Piece nextPiece();
    void add(Piece& piece, Outgoing& flow, std::size_t size);
    void sendWhatMay();
    void sendGathered(); // what waits for the answers to the flows that came with its own
    void sendPiece();
    void onPieceSent(std::size_t count);
    std::size_t takeSent(std::size_t count);
    void setCongested(bool congested);
    void finishDrop();
    void endIfNothingIsLeft();
    void discardUnread();
    void end(Ending ending);

    asio::ip::tcp::socket socket_;
    const int number_;
    SessionOwner& owner_;
    Stage stage_ = Stage::Connected;
    Bytes unread_; // received, not yet a whole flow
    std::deque<Outgoing> outgoing_;
    std::size_t waiting_ = 0; // bytes in outgoing_ that have not been handed to the system
    bool reading_ = true;
    bool congested_ = false;
    bool readUnderWay_ = false;
    bool sendUnderWay_ = false;
    bool gathering_ = false; // what is to be sent waits for what else comes of the same bytes
    int expected_ = 0;       // answers that are being made
    bool leaving_ = false;   // the client has closed its side
    bool dropping_ = false;
    bool ended_ = false;

    // By the clock of the timers.
    std::chrono::microseconds mayReadAt_{0};
    std::chrono::microseconds maySendAt_{0};
    std::chrono::microseconds cutUntil_{0};
    bool cut_ = false;       // until then
    bool readTimed_ = false; // readOn() comes
    bool sendTimed_ = false; // sendOn() comes
    bool stalled_ = false;   // until it is resumed
    bool silent_ = false;
    bool halfClosing_ = false; // it closes its own side behind what is under way
    bool halfClosed_ = false;
};

} // namespace standin

#endif
