// The programs behind a Gateway: what a client's ECI call runs.
//
// A Program sees every call that names it. Calls in extended mode belong to a unit of work, which
// the Gateway opens, continues and ends; a program that keeps data follows it through begin, commit
// and backout. The Gateway ends a unit of work by backout also when its connection is lost, and
// when a call in it is answered with a vornRc other than 0.
//
// All functions of a Program run on the thread of its Gateway, one at a time, and must not wait for
// another call. An answer that needs time is given later through a PendingReply.
#ifndef STANDIN_PROGRAM_H
#define STANDIN_PROGRAM_H

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "standin/messages.h"

namespace standin {

// Identifies a unit of work towards a program. Tokens are unique in one Gateway and never 0.
struct UnitOfWork {
    std::int32_t token = 0;
    int connection = 0; // number of the connection that opened it
};

// The right to answer one call later, from any thread, at most once. Copies share the right. When
// the connection is gone by then, or the Gateway itself, complete() has no effect.
template <typename Reply>
class Pending {
public:
    using Deliver = std::function<void(Reply)>;

    explicit Pending(Deliver deliver);

    void complete(Reply reply) const;

private:
    struct State;
    std::shared_ptr<State> state_;
};
using PendingReply = Pending<EciReply>;
using PendingEsiReply = Pending<EsiReply>;

// One call as a program sees it.
struct ProgramCall {
    const EciRequest& request;
    std::int32_t messageId;
    int connection;
    std::optional<UnitOfWork> unitOfWork; // empty in mode 0
    std::function<PendingReply()>
        answerLater; // to be called at most once, before returning nothing
};

class Program {
public:
    virtual ~Program() = default;

    // Runs the call (modes 0 and 1). Nothing is returned only after call.answerLater().
    virtual std::optional<EciReply> call(const ProgramCall& call) = 0;

    // The program becomes part of a unit of work. A result other than 0 is the vornRc of the
    // answer, and the unit of work is not entered.
    virtual std::int32_t begin(const UnitOfWork& unitOfWork);

    // The unit of work is continued by another call of the same program. Results as for begin;
    // another value than 0 backs the unit of work out.
    virtual std::int32_t resume(const UnitOfWork& unitOfWork);

    // The unit of work ends for good. A result other than 0 is the vornRc of the answer and means
    // that nothing was made lasting.
    virtual std::int32_t commit(const UnitOfWork& unitOfWork);

    // The unit of work is undone.
    virtual void backout(const UnitOfWork& unitOfWork);
};

// A program that is asked about every call before it goes to the program of its name, whether there
// is one or not. There may be one on a Gateway.
class FirstProgram : public Program {
public:
    // Whether it wants to run this call. If so, its call() follows, unless its begin() or resume()
    // refuses. The right to answer later is not given here yet.
    virtual bool takes(const ProgramCall& call) = 0;

    // Nothing more comes on this connection, and its units of work have ended.
    virtual void connectionEnded(int connection);
};

// A program made of one function, without interest in units of work.
using ReplyFunction = std::function<EciReply(const EciRequest& request)>;
std::shared_ptr<Program> makeProgram(ReplyFunction reply);

// "ECHO": returns the COMMAREA it was given, as long as the client wants it back; a channel is
// returned unchanged.
std::shared_ptr<Program> makeEcho();

// "ABEND": ends abnormally with vornRc -7; the abend code is the first four bytes of the COMMAREA,
// "AZZZ" when there are fewer.
std::shared_ptr<Program> makeAbend();

// "CHANECHO": returns a channel with every container unchanged, and no COMMAREA.
std::shared_ptr<Program> makeChannelEcho();

// "CHANEDIT": adds, deletes and changes containers as the container EDITS of its channel says; see
// docs/gateway.md.
std::shared_ptr<Program> makeChannelEdit();

// Abend code of a program that works on a channel and was called without one.
constexpr const char* kNoChannel = "ACHN";

} // namespace standin

#endif
