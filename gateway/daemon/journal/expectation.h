// What a list of expectations says about calls.
//
// Thread: one at a time.
#ifndef JOURNAL_EXPECTATION_H
#define JOURNAL_EXPECTATION_H

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "conf/section.h"
#include "journal/journal_line.h"
#include "script/call_match.h"

namespace journal {

class Expectation {
public:
    // One [[call]]. Throws conf::Wrong.
    explicit Expectation(const conf::Value& value);

    bool fits(const Entry& entry) const;

    std::uint32_t line() const { return line_; }
    std::int64_t least() const { return least_; }
    std::int64_t most() const { return most_; }

private:
    void readAnswer(const conf::Value& value);
    void readTimes(const conf::Value& value);
    bool fitsAnswer(const Entry& entry) const;

    std::uint32_t line_;
    script::CallMatch match_;
    std::string type_ = "program";
    std::int64_t least_ = 1;
    std::int64_t most_ = 1;
    std::optional<bool> isAnswered_;
    std::optional<std::int64_t> code_;
    std::optional<std::string> abend_;
    std::optional<std::int64_t> gateway_;
    std::optional<std::string> flow_;
    std::optional<script::DataMatch> commarea_;
    std::vector<std::pair<std::string, script::DataMatch>> containers_;
    std::optional<std::vector<std::string>> faults_;
    std::optional<std::int64_t> within_; // microseconds
};

struct Expectations {
    std::vector<Expectation> calls;
    bool inOrder = true;
    bool othersToo = false;
};

// Throws conf::Wrong.
Expectations readExpectations(const conf::Value& file);

} // namespace journal

#endif
