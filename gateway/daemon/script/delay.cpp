#include "script/delay.h"

#include <algorithm>
#include <cmath>

#include "conf/section.h"

namespace script {

namespace {

constexpr double kLongest = 3.6e9;      // microseconds
constexpr double kSigmasOfP99 = 2.3263; // of the normal distribution

double drawn(double value)
{
    return std::isfinite(value) ? std::clamp(value, 0.0, kLongest) : kLongest;
}

} // namespace

Delay Delay::read(const conf::Value& value)
{
    Delay delay;
    if (!value.isTable()) {
        delay.first_ = conf::timeIn(value, "delay");
        return delay;
    }
    const conf::Section section(value, "delay");
    section.expectOnly({"from", "to", "mean", "deviation", "median", "p99"});
    const auto from = section.time("from");
    const auto to = section.time("to");
    const auto mean = section.time("mean");
    const auto deviation = section.time("deviation");
    const auto median = section.time("median");
    const auto p99 = section.time("p99");
    const std::size_t count = value.entries.size();
    if (from && to && count == 2 && *from <= *to) {
        delay.kind_ = Kind::Uniform;
        delay.first_ = *from;
        delay.second_ = *to;
    } else if (mean && mean->count() > 0 && (count == 1 || (count == 2 && deviation))) {
        delay.kind_ = deviation ? Kind::Normal : Kind::Exponential;
        delay.first_ = *mean;
        delay.second_ = deviation.value_or(std::chrono::microseconds(0));
    } else if (median && p99 && count == 2 && median->count() > 0 && *median <= *p99) {
        delay.kind_ = Kind::LogNormal;
        delay.first_ = *median;
        delay.second_ = *p99;
    } else {
        conf::complain(value, "delay is none of: a time, from with a later to, mean, mean with "
                              "deviation, median with a longer p99");
    }
    return delay;
}

std::chrono::microseconds Delay::next(Chance& chance) const
{
    const auto first = static_cast<double>(first_.count());
    const auto second = static_cast<double>(second_.count());
    double value = first;
    switch (kind_) {
    case Kind::Fixed: break;
    case Kind::Uniform:
        value = std::uniform_real_distribution<double>(first, second)(chance);
        break;
    case Kind::Exponential: value = std::exponential_distribution<double>(1 / first)(chance); break;
    case Kind::Normal:
        if (second > 0) value = std::normal_distribution<double>(first, second)(chance);
        break;
    case Kind::LogNormal:
        value = first;
        if (second > first) {
            const double sigma = std::log(second / first) / kSigmasOfP99;
            value = std::lognormal_distribution<double>(std::log(first), sigma)(chance);
        }
        break;
    }
    return std::chrono::microseconds(static_cast<std::int64_t>(drawn(value)));
}

} // namespace script
