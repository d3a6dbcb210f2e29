/*
 * descriptor_wait.h - waiting for one descriptor of any number. A set that select takes has room
 * for the numbers below FD_SETSIZE only; the others are polled. Neither needs memory of the heap.
 */
#ifndef DESCRIPTOR_WAIT_H
#define DESCRIPTOR_WAIT_H

#include <poll.h>
#include <sys/select.h>

#include <cerrno>
#include <ctime>

#include "lock_order.h"

constexpr int MILLISECONDS_PER_SECOND = 1000;
constexpr int POLL_WITHOUT_LIMIT = -1;

/* Polls one descriptor: what poll returns, but that a descriptor that is not open is a failure as
 * it is one of select's. */
inline int pollDescriptor(pollfd* polled, int milliseconds)
{
    int ready = poll(polled, 1, milliseconds);
    if (ready < 1 || (polled->revents & POLLNVAL) == 0) return ready;
    errno = EBADF;
    return -1;
}

/* What is left of a poll's limit, in milliseconds and at least 0. */
inline int millisecondsUntil(const timespec& deadline)
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    long long left = static_cast<long long>(deadline.tv_sec - now.tv_sec) *
                         MILLISECONDS_PER_SECOND +
                     (deadline.tv_nsec - now.tv_nsec) / 1000000;
    return left > 0 ? static_cast<int>(left) : 0;
}

inline int pollReadable(int descriptor, int timeout)
{
    pollfd polled = {descriptor, POLLIN, 0};
    timespec deadline = {};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += timeout;
    int ready;
    do {
        ready = pollDescriptor(&polled,
                               timeout == 0 ? POLL_WITHOUT_LIMIT : millisecondsUntil(deadline));
    } while (ready < 0 && errno == EINTR);
    return ready;
}

inline int selectReadable(int descriptor, int timeout)
{
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(descriptor, &readable);
    timeval limit = {timeout, 0};
    int ready;
    do {
        // What a signal has left of the limit is in it.
        ready = select(descriptor + 1, &readable, nullptr, nullptr,
                       timeout == 0 ? nullptr : &limit);
    } while (ready < 0 && errno == EINTR);
    return ready;
}

/* Waits until a descriptor is readable, for that many seconds or, with 0, without limit, whatever
 * signals arrive: 1, 0 once the time is over, or -1 with errno. */
inline int waitForReadable(int descriptor, int timeout)
{
    if (descriptor < 0) {
        errno = EBADF;
        return -1;
    }
    clapiCheckPeerWait();
    return descriptor < FD_SETSIZE ? selectReadable(descriptor, timeout)
                                   : pollReadable(descriptor, timeout);
}

inline int pollWritable(int descriptor, int timeout, bool* writable)
{
    pollfd polled = {descriptor, POLLOUT | POLLPRI, 0};
    int ready = pollDescriptor(&polled, timeout * MILLISECONDS_PER_SECOND);
    *writable = (polled.revents & (POLLOUT | POLLERR | POLLHUP)) != 0;
    return ready;
}

inline int selectWritable(int descriptor, int timeout, bool* writable)
{
    fd_set writing;
    fd_set failing;
    FD_ZERO(&writing);
    FD_ZERO(&failing);
    FD_SET(descriptor, &writing);
    FD_SET(descriptor, &failing);
    timeval limit = {timeout, 0};
    int ready = select(descriptor + 1, nullptr, &writing, &failing, &limit);
    *writable = FD_ISSET(descriptor, &writing);
    return ready;
}

/* Waits until a descriptor is writable or has out-of-band data, or failed, for that many seconds or
 * until a signal arrives: above 0, 0 once the time is over, or -1 with errno. */
inline int waitForWritable(int descriptor, int timeout, bool* writable)
{
    clapiCheckPeerWait();
    return descriptor < FD_SETSIZE ? selectWritable(descriptor, timeout, writable)
                                   : pollWritable(descriptor, timeout, writable);
}

#endif
