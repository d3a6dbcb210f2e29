#include "schedule/scheduler.h"

#include <algorithm>

namespace schedule {

namespace {

// A receiver thread may still come by while the program ends, so nothing of this is destroyed.
std::mutex& guard = *new std::mutex;
std::condition_variable& changed = *new std::condition_variable;
std::list<Hold*>& holds = *new std::list<Hold*>;
std::list<Counter*>& counters = *new std::list<Counter*>;

bool matches(SchedulePoint wanted, const void* wantedSubject, SchedulePoint point,
             const void* subject)
{
    return wanted == point && (wantedSubject == nullptr || wantedSubject == subject);
}

} // namespace

Hold::Hold(SchedulePoint wantedPoint, const void* wantedSubject, int passes)
    : point(wantedPoint), subject(wantedSubject), passesBefore(passes)
{
    std::lock_guard<std::mutex> lock(guard);
    holds.push_back(this);
}

Hold::~Hold()
{
    std::unique_lock<std::mutex> lock(guard);
    released = true;
    holds.remove(this);
    changed.notify_all();
    changed.wait(lock, [this] { return left; });
}

void Hold::awaitArrival()
{
    std::unique_lock<std::mutex> lock(guard);
    changed.wait(lock, [this] { return arrived; });
}

const void* Hold::heldAbout()
{
    awaitArrival();
    std::lock_guard<std::mutex> lock(guard);
    return about;
}

void Hold::release()
{
    std::lock_guard<std::mutex> lock(guard);
    released = true;
    changed.notify_all();
}

bool Hold::hasArrived()
{
    std::lock_guard<std::mutex> lock(guard);
    return arrived;
}

Counter::Counter(SchedulePoint wantedPoint, const void* wantedSubject)
    : point(wantedPoint), subject(wantedSubject)
{
    std::lock_guard<std::mutex> lock(guard);
    counters.push_back(this);
}

Counter::~Counter()
{
    std::lock_guard<std::mutex> lock(guard);
    counters.remove(this);
}

void Counter::await(int wanted)
{
    std::unique_lock<std::mutex> lock(guard);
    changed.wait(lock, [&] { return count >= wanted; });
}

int Counter::times()
{
    std::lock_guard<std::mutex> lock(guard);
    return count;
}

void reach(SchedulePoint point, const void* subject)
{
    std::unique_lock<std::mutex> lock(guard);
    for (Counter* counter : counters)
        if (matches(counter->point, counter->subject, point, subject)) counter->count += 1;
    changed.notify_all();

    auto found = std::find_if(holds.begin(), holds.end(), [&](Hold* hold) {
        return !hold->arrived && !hold->released &&
               matches(hold->point, hold->subject, point, subject);
    });
    if (found == holds.end()) return;
    Hold* hold = *found;
    if (hold->passesBefore > 0) {
        hold->passesBefore -= 1;
        return;
    }
    hold->about = subject;
    hold->arrived = true;
    hold->left = false;
    changed.notify_all();
    changed.wait(lock, [hold] { return hold->released; });
    hold->left = true;
    changed.notify_all();
}

} // namespace schedule

void clapiReached(SchedulePoint point, const void* subject)
{
    schedule::reach(point, subject);
}
