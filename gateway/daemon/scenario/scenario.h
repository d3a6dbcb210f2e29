// A scenario: what goes wrong when, as a TOML file says. docs/gateway.md describes such files.
//
// Everything here is a plain value.
#ifndef GATEWAY_SCENARIO_H
#define GATEWAY_SCENARIO_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "conf/value.h"
#include "standin/misbehaviour.h"

namespace scenario {

using Time = std::chrono::microseconds; // behind the beginning of the scenario

// What is done once.
enum class Deed { Drop, Reset, HalfClose, Close, Ping, Release };

struct Action {
    std::string text; // as the file has it
    Deed deed = Deed::Drop;
    int connection = 0; // 0: every one
};

struct Beginning {
    std::string text;
    standin::SelectedMisbehaviour misbehaviour;
    std::optional<Time> lasting; // nothing: until it is ended
};

struct Step {
    Time at{0};
    Time spread{0};                   // it comes up to so much later
    bool endsAll = false;             // what is ended comes first,
    std::vector<standin::Fault> ends; // then what begins,
    std::vector<Beginning> begins;    // then what is done
    std::vector<Action> actions;
};

struct Scenario {
    std::uint64_t seed = 1;
    std::optional<Time> every; // it begins anew so long behind its beginning
    std::optional<std::int64_t> times;
    std::vector<Step> steps;
};

// Throws conf::Wrong.
Scenario readScenario(const conf::Value& file);

// When the steps of one round come, in the order of the file; chance is the same for a seed.
std::vector<Time> timesOf(const Scenario& scenario, std::mt19937_64& chance);

} // namespace scenario

#endif
