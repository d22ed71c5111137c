// A point in time: microseconds since the Unix epoch, held as one double and
// copied by value. Ordered by the plain < of that double, which is the key
// order of the timer store.
#ifndef HVUTIL_HVTIME_H
#define HVUTIL_HVTIME_H

#include <sys/time.h>

#include <atomic>

class HvTime {
public:
    // The epoch itself (0).
    HvTime() : m_time(0.0) {}
    // The given number of microseconds since the epoch.
    HvTime(double microseconds) : m_time(microseconds) {}

    // The microseconds since the epoch.
    operator double() const { return m_time; }
    // Earlier than `other`.
    bool operator<(const HvTime& other) const { return m_time < other.m_time; }

    // The wall clock now, from gettimeofday(): seconds x 1,000,000 + microseconds.
    // Throws HvSystemError "gettimeofday" when the clock cannot be read.
    // With sm_bMonotonicClock set: the monotonic clock instead (see there);
    // throws HvSystemError "clock_gettime" when it cannot be read.
    static HvTime sGetCurrentTime();

    // Timers on a clock that no one can set. Default false: sGetCurrentTime()
    // reads the wall clock and HvThread::wait() measures its time-outs on it,
    // so an NTP step or a `date` moves every pending timer by the step (a
    // step back of an hour delays each by an hour, a step forward fires them
    // all at once). True: sGetCurrentTime() reads CLOCK_MONOTONIC, in whole
    // microseconds since an unspecified start (not the epoch: HvTimer times
    // and the activity stamps of client sockets are then on that clock too),
    // and wait() measures its time-outs on CLOCK_MONOTONIC as well. Set it
    // before the first timer is scheduled and leave it: due times taken on one
    // clock mean nothing on the other, so a request filed before a change is
    // due at once or in decades after it.
    static std::atomic<bool> sm_bMonotonicClock;

    // The wall clock as the library reads it, the one place where it does:
    // gettimeofday() moved by the test offset. Returns what gettimeofday()
    // returned (-1 with errno on failure, `now` then untouched). When
    // `offset` is given it receives the offset that was applied, so that a
    // deadline taken on this clock can be handed to a system wait, which
    // measures on the unmoved clock.
    static int sReadWallClock(struct timeval* now, long long* offset = nullptr);

    // Test seam: moves the wall clock the library reads by `microseconds`
    // (0 puts it back), as a step of the system clock would, without
    // touching the machine's clock. The monotonic clock is not moved.
    static void sSetWallClockOffsetForTesting(long long microseconds);
    // The offset set last.
    static long long sGetWallClockOffsetForTesting();

private:
    double m_time;
};

#endif
