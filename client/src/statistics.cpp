#include "statistics.h"

#include <algorithm>
#include <cmath>

namespace qpx {

namespace {

constexpr double kNanosecondsOfAMillisecond = 1e6;
constexpr unsigned kPartBits = 4;

unsigned highestBit(std::uint64_t value)
{
    return 63U - static_cast<unsigned>(__builtin_clzll(value));
}

// Values below 16 have a bucket each; above, the four bits behind the highest one choose.
unsigned bucketOf(std::uint64_t value)
{
    if (value < 16) return static_cast<unsigned>(value);
    const unsigned high = highestBit(value);
    const auto part = static_cast<unsigned>(value >> (high - kPartBits)) & 15U;
    return ((high - kPartBits + 1) << kPartBits) + part;
}

// The largest value of a bucket.
std::uint64_t endOf(unsigned bucket)
{
    if (bucket < 16) return bucket;
    const unsigned shift = (bucket >> kPartBits) - 1;
    return ((16ULL + (bucket & 15U) + 1) << shift) - 1;
}

} // namespace

void Statistics::add(std::uint64_t nanoseconds)
{
    const auto value = static_cast<double>(nanoseconds);
    buckets_[bucketOf(nanoseconds)] += 1;
    least_ = count_ == 0 ? nanoseconds : std::min(least_, nanoseconds);
    most_ = std::max(most_, nanoseconds);
    count_ += 1;
    sum_ += value;
    squares_ += value * value;
}

void Statistics::add(const Statistics& other)
{
    if (other.count_ == 0) return;
    for (std::size_t i = 0; i < buckets_.size(); ++i) buckets_[i] += other.buckets_[i];
    least_ = count_ == 0 ? other.least_ : std::min(least_, other.least_);
    most_ = std::max(most_, other.most_);
    count_ += other.count_;
    sum_ += other.sum_;
    squares_ += other.squares_;
}

double Statistics::least() const
{
    return static_cast<double>(least_) / kNanosecondsOfAMillisecond;
}

double Statistics::most() const
{
    return static_cast<double>(most_) / kNanosecondsOfAMillisecond;
}

double Statistics::mean() const
{
    return count_ == 0 ? 0 : sum_ / static_cast<double>(count_) / kNanosecondsOfAMillisecond;
}

double Statistics::deviation() const
{
    if (count_ == 0) return 0;
    const double mean = sum_ / static_cast<double>(count_);
    const double variance = squares_ / static_cast<double>(count_) - mean * mean;
    return std::sqrt(std::max(0.0, variance)) / kNanosecondsOfAMillisecond;
}

double Statistics::percentile(double share) const
{
    const auto wanted = static_cast<std::uint64_t>(std::ceil(share * static_cast<double>(count_)));
    std::uint64_t seen = 0;
    for (unsigned i = 0; i < buckets_.size(); ++i) {
        seen += buckets_[i];
        if (seen >= wanted && seen > 0)
            return static_cast<double>(std::min(endOf(i), most_)) / kNanosecondsOfAMillisecond;
    }
    return 0;
}

std::array<std::uint64_t, Statistics::kDoublings> Statistics::doublings() const
{
    std::array<std::uint64_t, kDoublings> counts{};
    for (unsigned i = 0; i < buckets_.size(); ++i) {
        if (buckets_[i] == 0) continue;
        const std::uint64_t microseconds = std::max<std::uint64_t>(1, endOf(i) / 1000);
        counts[std::min(kDoublings - 1, highestBit(microseconds))] += buckets_[i];
    }
    return counts;
}

} // namespace qpx
