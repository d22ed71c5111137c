#include <HvUtil/HvScheduler.h>
#include <HvUtil/HvMonitorThread.h>
#include <HvUtil/HvMutex.h>
#include <HvUtil/HvObserver.h>
#include <HvUtil/HvTimer.h>
#include <HvUtil/HvTimerDispatcher.h>
#include <HvUtil/HvTimerEvent.h>

#include <iterator>
#include <utility>

HvScheduler::HvScheduler(HvMonitorThread* monitor)
    : m_size(0), m_pMutex(nullptr)
{
    // The mutex comes first: if it cannot be made, no handle has been taken
    // yet whose release could destroy a monitor that is still being built
    // around this scheduler.
    m_pMutex = HvMutex::sCreate();
    m_monitor = monitor;
}

HvScheduler::~HvScheduler()
{
    HvMutex::sDestroy(m_pMutex);
}

double HvScheduler::schedule(unsigned int delayMs, HvObserver* observer, HvObject* argument)
{
    // Read before the lock, so that a failing clock files nothing.
    const double now = HvTime::sGetCurrentTime();
    const double due = static_cast<double>(static_cast<unsigned long long>(delayMs)) * 1000.0 + now;

    // Released after the lock: it may be the last reference. Taken only when
    // the monitor must be woken, so the common case costs no reference count.
    HvHandle<HvMonitorThread> monitor;
    {
        HvMutex::Lock lock(m_pMutex);
        // Only a new earliest request changes how long the monitor sleeps.
        const bool earliest = m_requests.empty() || static_cast<double>(m_requests.begin()->first) > due;
        // An equal key goes after the equal keys already there.
        m_requests.emplace(HvTime(due), HvNotificationData{HvHandle<HvObserver>(observer), HvHandle<HvObject>(argument)});
        m_size.store(static_cast<unsigned int>(m_requests.size()), std::memory_order_relaxed);
        if (earliest)
            monitor = m_monitor;
    }
    // A scheduler whose monitor has gone (it left its loop) keeps the request
    // but has nobody to wake.
    if (!monitor.isNull())
        monitor->signal();
    return due;
}

bool HvScheduler::cancel(double time)
{
    if (time == 0.0)
        return false;
    // Destroyed after the lock: the last handle on an observer may run a
    // destructor that schedules or cancels.
    Store removed;
    {
        HvMutex::Lock lock(m_pMutex);
        std::pair<Store::iterator, Store::iterator> range = m_requests.equal_range(HvTime(time));
        moveOut(range.first, range.second, removed);
    }
    return !removed.empty();
}

bool HvScheduler::cancel(HvObserver* observer, double time)
{
    if (time == 0.0)
        return false;
    Store removed;
    bool found = false;
    {
        HvMutex::Lock lock(m_pMutex);
        std::pair<Store::iterator, Store::iterator> range = m_requests.equal_range(HvTime(time));
        if (!observer) {
            moveOut(range.first, range.second, removed);
            found = true;
        } else {
            for (Store::iterator entry = range.first; entry != range.second; ++entry) {
                const HvHandle<HvObserver>& stored = entry->second.m_observer;
                if (stored.isNull()) {
                    // The handle's own check, reported as it would be; the
                    // entry cannot match, so the walk goes on past it.
                    Velmora::Assertion(false, "this != 0", HV_OBJECT_HEADER_PATH, HV_OBJECT_EMPTY_HANDLE_LINE);
                    continue;
                }
                if (stored->compareWith(observer) == 0) {
                    moveOut(entry, std::next(entry), removed);
                    found = true;
                    break;
                }
            }
        }
    }
    return found;
}

void HvScheduler::moveOut(Store::iterator first, Store::iterator last, Store& into)
{
    // Node hand-over: no allocation and no copy under the lock; the entries
    // die with `into`, after the caller has released the lock.
    while (first != last)
        into.insert(m_requests.extract(first++));
    m_size.store(static_cast<unsigned int>(m_requests.size()), std::memory_order_relaxed);
}

double HvScheduler::processTimerEvents()
{
    double result = 0.0;
    for (;;) {
        HvHandle<HvObserver> observer;
        HvHandle<HvObject> argument;
        double due;
        {
            HvMutex::Lock lock(m_pMutex);
            if (m_requests.empty())
                return result;
            Store::iterator first = m_requests.begin();
            due = first->first;
            const double remaining = due - static_cast<double>(HvTime::sGetCurrentTime());
            // Due once within a millisecond of its time: the monitor sleeps
            // in whole milliseconds, so firing up to 1 ms early beats firing late.
            if (remaining > 1000.0)
                return remaining;
            observer = std::move(first->second.m_observer);
            argument = std::move(first->second.m_argument);
            m_requests.erase(first);
            m_size.store(static_cast<unsigned int>(m_requests.size()), std::memory_order_relaxed);
        }
        // A request without an observer ends the pass with 0.0, so the
        // requests behind it wait for the next schedule() to signal the
        // monitor. Callers rely on that; keep it.
        if (observer.isNull())
            return result;
        if (argument.isNull())
            argument = new HvTimer(HvTime(due));
        HvTimerDispatcher::sAddEvent(new HvTimerEvent(observer.get(), argument.get()));
    }
}

void HvScheduler::setMonitorThread(HvMonitorThread* monitor)
{
    // Both released after the lock: either may hold the last reference.
    Store dropped;
    HvHandle<HvMonitorThread> previous(monitor);
    {
        HvMutex::Lock lock(m_pMutex);
        if (!monitor) {
            dropped.swap(m_requests);
            m_size.store(0, std::memory_order_relaxed);
        }
        std::swap(previous, m_monitor);
    }
}
