// A point in time: microseconds since the Unix epoch, held as one double and
// copied by value. Ordered by the plain < of that double, which is the key
// order of the timer store.
#ifndef HVUTIL_HVTIME_H
#define HVUTIL_HVTIME_H

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
    static HvTime sGetCurrentTime();

private:
    double m_time;
};

#endif
