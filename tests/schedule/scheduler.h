/*
 * scheduler.h - holds threads of the library at its schedule points.
 *
 *     Hold hold(SchedulePoint::requestArmed);       // the next thread that comes by stops
 *     ... start a call in a thread ...
 *     hold.awaitArrival();                          // it is there
 *     ... let something else happen ...
 *     hold.release();
 *
 * A hold takes the first thread that reaches the point, with the subject given or any, and no
 * other. A thread that passes with nobody waiting for it goes on at once. Waits have no time limit
 * of their own: a test that hangs is ended by the test runner's.
 */
#ifndef SCHEDULER_H
#define SCHEDULER_H

#include <condition_variable>
#include <functional>
#include <list>
#include <mutex>

#include "schedule_points.h"

namespace schedule {

class Hold {
public:
    /* Stops the first thread that reaches the point about that subject; null for any subject. */
    explicit Hold(SchedulePoint point, const void* subject = nullptr, int passesBefore = 0);
    ~Hold(); // releases

    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

    void awaitArrival();     // returns when a thread is held
    const void* heldAbout(); // the subject of the point at which it is held; waits for it
    void release();          // lets it go, or, if it has not come yet, pass
    bool hasArrived();

private:
    friend void reach(SchedulePoint point, const void* subject);

    SchedulePoint point;
    const void* subject;
    int passesBefore; // threads that pass before one is held
    const void* about = nullptr;
    bool arrived = false;
    bool released = false;
    bool left = true; // no thread is inside the hold
};

/* Counts how often a point has been reached, and waits for the nth time. */
class Counter {
public:
    explicit Counter(SchedulePoint point, const void* subject = nullptr);
    ~Counter();
    Counter(const Counter&) = delete;
    Counter& operator=(const Counter&) = delete;

    void await(int times);
    int times();

private:
    friend void reach(SchedulePoint point, const void* subject);

    SchedulePoint point;
    const void* subject;
    int count = 0;
};

void reach(SchedulePoint point, const void* subject);

} // namespace schedule

#endif
