// What the library can be refused besides the calls of faults.h: an event that is not armed, which
// the callers of clapiSetEvent are ready for though no system brings it about.
//
//     Refusal refusal(Refused::EventArmed);              // the next one of this thread
//     EXPECT_RC(-9, lockChannel(token));
//     EXPECT_TRUE(refusal.hasHappened());
//
// Only the calling thread's calls count, from the making of the refusal to its end; there is one
// at a time. Belongs to unit_tests only; see support/wrapped_calls.cmake.
#ifndef SUPPORT_REFUSALS_H
#define SUPPORT_REFUSALS_H

namespace support {

enum class Refused {
    EventArmed // clapiSetEvent says that it has failed, and leaves the event as it is
};

class Refusal {
public:
    explicit Refusal(Refused what, int nth = 1);
    ~Refusal();
    Refusal(const Refusal&) = delete;
    Refusal& operator=(const Refusal&) = delete;

    bool hasHappened() const;
};

} // namespace support

#endif
