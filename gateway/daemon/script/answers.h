// Answers calls as the script says that is in force, in front of all programs.
//
// What is kept by name belongs to a connection or a unit of work and goes with it. How often each
// part of the script has answered begins anew with a new script.
//
// Thread: the Gateway's, once it has been constructed.
#ifndef SCRIPT_ANSWERS_H
#define SCRIPT_ANSWERS_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "script/script.h"
#include "standin/log.h"
#include "standin/program.h"

namespace script {

// The code for a wrong password of a user whom the script knows.
constexpr std::int32_t kSecurityError = -27;

class Answers final : public standin::FirstProgram {
public:
    // Does `work` on some thread, and behind it `then` on the Gateway's. False, and neither is
    // done, when there is too much to do already.
    using Aside = std::function<bool(std::function<void()> work, std::function<void()> then)>;

    Answers(std::shared_ptr<const Script> script, standin::LogSink log);

    // How passwords are looked at from now on; at first that is done at once.
    void hashAside(Aside aside) { aside_ = std::move(aside); }

    // Puts another script in force and returns the one that was.
    std::shared_ptr<const Script> replace(std::shared_ptr<const Script> script);

    // How many [[on]] the script has.
    std::size_t rules() const { return script_->rules.size(); }

    // Each of them, and how many calls it has answered since it is in force.
    struct RuleState {
        std::uint32_t line = 0;
        std::string calls; // that it means
        std::uint64_t matches = 0;
    };
    std::vector<RuleState> state() const;

    bool takes(const standin::ProgramCall& call) override;
    std::optional<standin::EciReply> call(const standin::ProgramCall& call) override;
    std::int32_t commit(const standin::UnitOfWork& unit) override;
    void backout(const standin::UnitOfWork& unit) override;
    void connectionEnded(int connection) override;

private:
    // The call as far as it is needed behind its password.
    struct Turn {
        standin::EciRequest request;
        int connection = 0;
        std::int32_t message = 0;
        std::int32_t unit = 0; // token; 0: none
    };

    struct Secret;

    // Where a rule stands: for all, for a connection or for a unit of work.
    struct Position {
        std::uint64_t calls = 0;
        std::size_t answer = 0;   // which one comes next
        std::uint64_t inARow = 0; // how often that one has been given
    };
    using PositionKey = std::pair<const Rule*, std::int64_t>;

    struct Kept {
        State ofConnection;
        std::map<std::int32_t, State> ofUnits;
    };

    const Rule* ruleFor(const Turn& turn) const;
    bool isMet(const Rule& rule, const Turn& turn) const;
    PositionKey keyOf(const Rule& rule, const Turn& turn) const;
    const Answer& nextAnswer(const Rule& rule, Position& position) const;

    std::optional<standin::EciReply> answer(const Rule& rule, const Turn& turn,
                                            const std::function<standin::PendingReply()>& later);
    std::optional<standin::EciReply> carryOut(const Answer& answer, const Situation& situation,
                                              const Turn& turn,
                                              const std::function<standin::PendingReply()>& later);
    bool changeContainers(standin::EciReply& reply, const Answer& answer,
                          const Situation& situation) const;
    void checkPassword(Turn turn, const std::shared_ptr<Secret>& secret, const std::string& hash,
                       const standin::PendingReply& pending);
    void answerBehindPassword(const Turn& turn, bool isRight, const standin::PendingReply& pending);
    void forget(const standin::UnitOfWork& unit);
    void log(standin::LogLevel level, const Turn& turn, const std::string& text) const;

    std::shared_ptr<const Script> script_;
    standin::LogSink log_;
    Aside aside_;
    Chance chance_;
    std::map<PositionKey, Position> positions_; // the second number: 0, a connection, or a token
    std::map<const Rule*, std::uint64_t> matches_;
    std::map<std::string, std::uint64_t> counters_;
    std::map<int, Kept> kept_; // by connection
};

} // namespace script

#endif
