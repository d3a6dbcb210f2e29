// Runs ECI calls: finds the program, opens, continues and ends units of work.
//
// Thread: all functions run on the Gateway's thread, except openUnitsOfWork.
#ifndef STANDIN_CALL_RUNNER_H
#define STANDIN_CALL_RUNNER_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "standin/log.h"
#include "standin/program.h"
#include "standin/watcher.h"

namespace standin {

class CallRunner {
public:
    using Deliver = std::function<void(EciReply)>;
    using Later = std::function<void(std::function<void()>)>;

    CallRunner(LogSink log, std::size_t mostUnits);

    void setProgram(const std::string& name, std::shared_ptr<Program> program);
    void setFirstProgram(std::shared_ptr<FirstProgram> program) { first_ = std::move(program); }
    void setListReply(ReplyFunction reply);

    // Runs a request and hands its reply to `deliver`: before this returns, or later and then from
    // any thread. For that `later` gives a way that must bring a function onto the Gateway's
    // thread, or drop it when that has ended.
    //
    // With `failed` the client gets a code in place of the reply's own outcome, so the unit of work
    // that the call belongs to ends.
    void run(const EciRequest& request, std::int32_t messageId, int connection, bool failed,
             const Deliver& deliver, const std::function<Later()>& later);

    // Backs out the unit of work, if the connection has it open.
    void giveUp(std::int32_t token, int connection);

    // Backs out every unit of work that the connection has open.
    void connectionLost(int connection);

    // Nothing more comes on it, and connectionLost() has been called.
    void connectionEnded(int connection);

    std::size_t openUnitsOfWork() const { return openCount_; }

    // Is told of every unit of work; null: nobody is.
    void setWatcher(std::shared_ptr<Watcher> watcher) { watcher_ = std::move(watcher); }

private:
    // One unit of work and the programs that take part in it, in the order of their first call.
    struct OpenUnit {
        UnitOfWork id;
        std::vector<std::pair<std::string, std::shared_ptr<Program>>> members;
    };

    void runInUnit(const EciRequest& request, std::int32_t messageId, int connection, bool failed,
                   std::int32_t token, const Deliver& deliver, const std::function<Later()>& later);
    void runProgram(const EciRequest& request, std::int32_t messageId, int connection, bool failed,
                    OpenUnit* unit, const Deliver& deliver, const std::function<Later()>& later);
    EciReply endUnit(const EciRequest& request, int connection);

    std::shared_ptr<Program> findProgram(const ProgramCall& call) const;
    OpenUnit* findUnit(std::int32_t token, int connection);
    std::int32_t openUnit(int connection); // its token
    std::int32_t enlist(OpenUnit& unit, const std::string& name,
                        const std::shared_ptr<Program>& program);
    std::int32_t commitMembers(OpenUnit& unit);
    void backOut(std::int32_t token);
    void forgetUnit(std::int32_t token);

    // Puts the token into the reply, and ends the unit of work when the call in it failed.
    EciReply settle(EciReply reply, bool failed, std::int32_t requestToken, std::int32_t unitToken);

    void log(LogLevel level, const std::string& line) const;

    void tell(const OpenUnit& unit, UnitState::Stage stage) const;

    LogSink log_;
    std::shared_ptr<Watcher> watcher_;
    const std::size_t mostUnits_;
    std::map<std::string, std::shared_ptr<Program>> programs_;
    std::shared_ptr<FirstProgram> first_; // null: none
    ReplyFunction listReply_;
    std::map<std::int32_t, OpenUnit> units_; // by token
    std::int32_t lastToken_ = 0;
    std::atomic<std::size_t> openCount_{0};
};

} // namespace standin

#endif
