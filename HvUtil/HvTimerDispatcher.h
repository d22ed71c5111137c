// The process-wide dispatcher thread of the timers: the monitor thread queues
// an HvTimerEvent for each due request, and this thread has a worker of its
// pool (itself, when all are busy) notify the request's observer, so client
// code never runs on the monitor thread. Started on first use; it forgets
// itself when its thread ends, and a later due request makes a new one.
#ifndef HVUTIL_HVTIMERDISPATCHER_H
#define HVUTIL_HVTIMERDISPATCHER_H

#include <HvUtil/HvDispatcherThread.h>

class HvTimerDispatcher : public HvDispatcherThread {
public:
    // The instance; on first use (or after the last one ended) makes it with
    // the default construction of HvDispatcherThread and forks its thread.
    // The pointer is valid while the thread runs.
    static HvTimerDispatcher* getInstance();
    // The existing instance's queue, or null when there is none; never makes
    // one. Valid while the instance's thread runs.
    static HvEventQueue* getTimerEventQueue();
    // Queues `event` (taking ownership) to the instance, made on first use,
    // holding the instance while the event goes in.
    static void sAddEvent(HvBaseEvent* event);

    // An HvTimerEvent: observer->onNotification(nil, argument) by a pool
    // worker (by this thread when all are busy). Other events give no work.
    void process(HvBaseEvent* event) override;
    // Forgets the instance when it is this one.
    void atExit() override;

private:
    // Makes the instance that getInstance() starts.
    static HvDispatcherThread* sCreate();

    HvTimerDispatcher();
    ~HvTimerDispatcher() override;
};

#endif
