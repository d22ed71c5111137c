// The argument an observer receives from a timer whose client gave none: it
// carries the time at which the request was scheduled to fire.
#ifndef HVUTIL_HVTIMER_H
#define HVUTIL_HVTIMER_H

#include <HvUtil/HvObject.h>
#include <HvUtil/HvTime.h>

class HvTimer : public HvObject {
public:
    // A timer due at `time` (microseconds, on the clock of HvTime::sGetCurrentTime()).
    explicit HvTimer(HvTime time);
    ~HvTimer() override;

    // The due time of the request, in microseconds: the identity that
    // HvScheduler::schedule() returned for it.
    double getTime() const { return m_time; }

private:
    HvTime m_time;
};

#endif
