// What misbehaviours do to the connections through the relay. The Gateway is asked and answers as
// ever, and so it is recorded; they strike at what an application gets of it.
//
// Thread: the relay's thread only.
#ifndef GATEWAY_MISBEHAVING_H
#define GATEWAY_MISBEHAVING_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <vector>

#include "conversation/held_answers.h"
#include "faults/fault_plan.h"
#include "record/flow_stream.h"
#include "standin/misbehaviour.h"

namespace record {

// The misbehaviours, and the answers that they keep back.
class Misbehaving {
public:
    // Brings an answer to the application of a connection, if that is still there.
    using Give = std::function<void(int connection, const standin::Answer& answer)>;

    Misbehaving(const std::vector<standin::SelectedMisbehaviour>& misbehaviours, Give give);

    // Whether there is any. Without one, bytes need not be looked at.
    bool isAny() const { return isAny_; }

    std::vector<standin::Strike> strike(const standin::Event& event) { return plan_.strike(event); }

    // An answer that has been struck goes its way, or is kept.
    void give(int connection, std::int32_t messageId, const std::vector<standin::Strike>& strikes,
              standin::Answer answer);

    // Gives everything that is held, the oldest first, and ends every hold. How much it was.
    std::size_t release();

    void forget(int connection) { held_.forgetConnection(connection); }

private:
    standin::FaultPlan plan_;
    standin::HeldAnswers held_;
    const Give give_;
    bool isAny_ = false;
};

// One connection that they may strike at.
class Victim {
public:
    using Log = std::function<void(const std::string& line)>;

    Victim(Misbehaving& misbehaving, int connection, Log log);
    ~Victim() { misbehaving_.forget(connection_); }

    Victim(const Victim&) = delete;
    Victim& operator=(const Victim&) = delete;

    // It has been accepted: what becomes of it.
    standin::Answer::Then accepted();

    // The application has sent this, which goes on as it is.
    void asked(const std::uint8_t* bytes, std::size_t count);

    // The Gateway has sent this; what the application gets of it is given by and by.
    void answered(const std::uint8_t* bytes, std::size_t count);

    // The Gateway sends nothing more: what is left of it is given.
    void answeredAll();

    // In pieces of so many bytes the next answer is sent; 0: as a whole.
    std::size_t pieceSize();

private:
    struct Asked {
        standin::FlowHeader header;
        std::vector<standin::Strike> strikes;
    };

    void onFlowOfTheApplication(const standin::SplitFlow& split);
    void onRequest(const standin::SplitFlow& split);
    void onFlowOfTheGateway(const standin::SplitFlow& split);
    bool replaces(standin::Moment moment);
    void pass(standin::Bytes bytes);
    void log(const std::string& what, const standin::Strike& strike) const;

    Misbehaving& misbehaving_;
    const int connection_;
    const Log log_;
    FlowStream fromApplication_;
    FlowStream fromGateway_;
    std::map<std::int32_t, std::deque<Asked>> asked_; // by message id, the oldest first
    std::size_t waiting_ = 0;                         // in asked_
    bool isGreeted_ = false;                          // the Gateway has answered the handshake
    bool isClosing_ = false;                          // the application has sent a close flow
};

} // namespace record

#endif
