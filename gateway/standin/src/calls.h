// Every call of a gateway, from when it comes until it is forgotten.
//
// Thread: any; one mutex guards everything.
#ifndef STANDIN_CALLS_H
#define STANDIN_CALLS_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>

#include "standin/call_record.h"

namespace standin {

struct KeptCall {
    CallRecord record;
    bool isDone = false; // its answer has gone out, or none will
};
using KeptCallPtr = std::shared_ptr<const KeptCall>;

class Calls {
public:
    void came(const CallRecord& call);
    void ended(const CallRecord& call);

    std::size_t cameCount() const;
    std::size_t endedCount() const;

    // True when there are so many by then.
    bool awaitCame(std::size_t count, std::chrono::milliseconds limit) const;
    bool awaitEnded(std::size_t count, std::chrono::milliseconds limit) const;

    // The call with this number, from 1 since the last forget(); null when there have been fewer.
    KeptCallPtr read(std::size_t number) const;

    // The one that has come last, forgotten or not; null before the first.
    KeptCallPtr last() const;

    void forget();

private:
    bool await(const std::size_t& total, std::size_t count, std::chrono::milliseconds limit) const;

    mutable std::mutex lock_;
    mutable std::condition_variable changed_;
    std::deque<KeptCallPtr> calls_;
    KeptCallPtr last_;
    std::uint64_t forgotten_ = 0; // so many calls came before the first one of calls_
    std::size_t came_ = 0;
    std::size_t ended_ = 0;
};

} // namespace standin

#endif
