// The process-wide timer thread: it owns the HvScheduler, queues due requests
// to the timer dispatcher and sleeps until the next one is due or a new
// earliest request signals it. Also the factory of observer threads.
#ifndef HVUTIL_HVMONITORTHREAD_H
#define HVUTIL_HVMONITORTHREAD_H

#include <HvUtil/HvScheduler.h>
#include <HvUtil/HvThread.h>

#include <cstddef>

class HvObserverThread;

class HvMonitorThread : public HvThread {
public:
    // A monitor whose scheduler signals it. Not started. Throws HvSystemError
    // when the scheduler's mutex cannot be made.
    HvMonitorThread();
    ~HvMonitorThread() override;

    // The calling thread when it is a monitor thread; else the process-wide
    // monitor; else a new one, made the process-wide one, given an extra
    // reference that is released at process exit, and started. Creation is
    // serialised, so two first callers get the same monitor. Throws what
    // fork() throws (the failed monitor is not kept).
    static HvMonitorThread* sGetCurrent();
    // Starts a new observer thread and hands it `observable`; one new thread
    // per call. The handle may be dropped: the thread holds itself while it runs.
    static HvHandle<HvObserverThread> monitorObservable(HvObservable* observable);

    // Until terminated: processTimerEvents(), then waits as long as it says
    // (truncated to whole milliseconds, at least 1), or until signalled when
    // nothing is pending. A failing clock's HvSystemError ends the thread.
    void run() override;

    // The store that clients schedule in.
    HvScheduler& getScheduler() { return m_scheduler; }

    // The wait() time-out for a processTimerEvents() result: kNoTimeout for
    // 0.0, else whole milliseconds truncated toward zero with a floor of 1
    // (capped below kNoTimeout).
    static unsigned int sWaitTimeFor(double microseconds);

    // Storage through Velmora::DefaultStaticMemAllocator, tag "HvMonitorThread".
    static void* operator new(std::size_t size);
    static void operator delete(void* p, std::size_t size);

protected:
    // When the thread ends, however run() was left (or skipped): drops every
    // pending request and the scheduler's hold on this thread, and stops
    // being the process-wide monitor.
    void onMainExit() override;

private:
    HvScheduler m_scheduler;
};

#endif
