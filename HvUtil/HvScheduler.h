// The time-ordered store of pending one-shot timer requests, with the pass
// that takes the due ones out and queues them to the timer dispatcher. The
// monitor thread owns one (embedded by value) and drives it; any thread may
// schedule and cancel.
#ifndef HVUTIL_HVSCHEDULER_H
#define HVUTIL_HVSCHEDULER_H

#include <HvUtil/HvHandle.h>
#include <HvUtil/HvTime.h>

#include <atomic>
#include <functional>
#include <map>

class HvMonitorThread;
class HvMutex;
class HvObserver;

class HvScheduler {
public:
    // One pending request: who is notified and with what (may be nil).
    struct HvNotificationData {
        HvHandle<HvObserver> m_observer;
        HvHandle<HvObject> m_argument;
    };

    // An empty store; holds `monitor` (may be null), the thread signalled
    // when a new earliest request arrives. Throws HvSystemError naming the
    // failed pthread call when its mutex cannot be made; nothing is leaked.
    explicit HvScheduler(HvMonitorThread* monitor);
    // Drops every pending request without notification, releases the monitor.
    ~HvScheduler();

    HvScheduler(const HvScheduler&) = delete;
    HvScheduler& operator=(const HvScheduler&) = delete;

    // Files a request for `observer` to be notified with `argument` (nil:
    // an HvTimer carrying the due time) after `delayMs` milliseconds; returns
    // its identity, the due time in microseconds. Equal due times keep
    // their scheduling order. Signals the monitor when the request is the
    // new earliest. Throws HvSystemError "gettimeofday" (nothing filed) when
    // the clock cannot be read.
    double schedule(unsigned int delayMs, HvObserver* observer, HvObject* argument);
    // Removes every request due at exactly `time`; true if one was removed.
    // 0.0 is no timer: false at once.
    bool cancel(double time);
    // Removes the first request at `time` whose observer compares equal to
    // `observer`; true if one was removed. A nil observer removes every
    // request at `time` and gives true even when none was there. 0.0: false
    // at once. A nil stored observer met on the way raises the
    // Velmora::Assertion "this != 0" and is passed over.
    bool cancel(HvObserver* observer, double time);
    // Queues an HvTimerEvent to the timer dispatcher (made on first use) for
    // every request within 1 ms of its time, earliest first. Returns the
    // microseconds until the next request is due, or 0.0 when there is
    // nothing to wait for (also right after a request with a nil observer,
    // which is dropped and ends the pass). Only the monitor thread calls it.
    // Throws HvSystemError "gettimeofday" when the clock cannot be read.
    double processTimerEvents();
    // Replaces the monitor. Null first drops every pending request; a
    // scheduler without a monitor files requests but signals nobody.
    void setMonitorThread(HvMonitorThread* monitor);
    // Number of pending requests, read without the lock.
    unsigned int getSize() const { return m_size.load(std::memory_order_relaxed); }

private:
    using Store = std::multimap<HvTime, HvNotificationData, std::less<HvTime>>;
    // Moves [first, last) of the requests into `into` and updates the size;
    // called with the mutex held.
    void moveOut(Store::iterator first, Store::iterator last, Store& into);

    Store m_requests;
    // Written under the mutex, read without it by getSize().
    std::atomic<unsigned int> m_size;
    // Written under the mutex.
    HvHandle<HvMonitorThread> m_monitor;
    HvMutex* m_pMutex;
};

#endif
