// How long an answer of a script is kept: a time, or times by chance.
//
// Thread: any.
#ifndef SCRIPT_DELAY_H
#define SCRIPT_DELAY_H

#include <chrono>
#include <random>

#include "conf/value.h"

namespace script {

using Chance = std::mt19937_64;

class Delay {
public:
    // "50ms"; { from, to }, all alike; { mean }, exponential; { mean, deviation }, normal;
    // { median, p99 }, log-normal. Throws conf::Wrong.
    static Delay read(const conf::Value& value);

    // Between nothing and an hour.
    std::chrono::microseconds next(Chance& chance) const;

private:
    enum class Kind { Fixed, Uniform, Exponential, Normal, LogNormal };

    Kind kind_ = Kind::Fixed;
    std::chrono::microseconds first_{0};
    std::chrono::microseconds second_{0};
};

} // namespace script

#endif
