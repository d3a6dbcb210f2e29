// Times of answers, in buckets that are narrow where times are short: each power of two has sixteen
// of them, so that a percentile is right to about 6 %.
#ifndef QPX_STATISTICS_H
#define QPX_STATISTICS_H

#include <array>
#include <cstdint>

namespace qpx {

class Statistics {
public:
    void add(std::uint64_t nanoseconds);
    void add(const Statistics& other);

    std::uint64_t count() const { return count_; }
    double least() const; // milliseconds, like all of them; 0 if there is none
    double most() const;
    double mean() const;
    double deviation() const;

    // The time that this share of all, 0 to 1, does not exceed.
    double percentile(double share) const;

    // How many took from 2^n to less than 2^(n+1) microseconds; n = 0 has the shorter ones too.
    static constexpr unsigned kDoublings = 32;
    std::array<std::uint64_t, kDoublings> doublings() const;

private:
    static constexpr unsigned kParts = 16;

    std::array<std::uint64_t, 64 * kParts> buckets_{};
    std::uint64_t count_ = 0;
    std::uint64_t least_ = 0;
    std::uint64_t most_ = 0;
    double sum_ = 0;
    double squares_ = 0;
};

} // namespace qpx

#endif
