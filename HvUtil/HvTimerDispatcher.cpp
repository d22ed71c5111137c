#include <HvUtil/HvTimerDispatcher.h>
#include <HvUtil/HvTimerEvent.h>

#include <memory>

namespace {

// The instance, set from creation until its thread ends, with the lock that
// orders holding it against its end. Never destroyed: threads end while the
// process exits.
HvDispatcherThread::StartedOnFirstUse& fsp_TheTimerDispatcher()
{
    static HvDispatcherThread::StartedOnFirstUse* instance = new HvDispatcherThread::StartedOnFirstUse;
    return *instance;
}

void wakeQueue()
{
    fsp_TheTimerDispatcher().wakeQueue();
}

const HvDispatcherThread::ShutdownHookInstaller fs_hookInstaller(HvThread::WAKE_TIMER_DISPATCHER_QUEUE, &wakeQueue);

} // namespace

// Allocated through HvDispatcherThread's own operator new, tag "HvDispatcherThread".
HvTimerDispatcher::HvTimerDispatcher()
    : HvDispatcherThread()
{
}

HvTimerDispatcher::~HvTimerDispatcher()
{
}

HvDispatcherThread* HvTimerDispatcher::sCreate()
{
    return new HvTimerDispatcher;
}

HvTimerDispatcher* HvTimerDispatcher::getInstance()
{
    // Made under the instance's lock, so that two first callers cannot both
    // make one. The thread holds the object while it runs.
    HvHandle<HvDispatcherThread> instance = fsp_TheTimerDispatcher().hold(&sCreate);
    return static_cast<HvTimerDispatcher*>(instance.get());
}

HvEventQueue* HvTimerDispatcher::getTimerEventQueue()
{
    HvDispatcherThread* instance = fsp_TheTimerDispatcher().find();
    return instance ? instance->getEventQueue() : nullptr;
}

void HvTimerDispatcher::sAddEvent(HvBaseEvent* event)
{
    std::unique_ptr<HvBaseEvent> owned(event);
    // Held while the event goes in: the instance's thread may end meanwhile,
    // and the last reference must not go while its queue is in use.
    HvHandle<HvDispatcherThread> instance = fsp_TheTimerDispatcher().hold(&sCreate);
    // The queue is LOCKED: any number of producers may add at once.
    instance->getEventQueue()->addItem(owned.release());
}

void HvTimerDispatcher::process(HvBaseEvent* event)
{
    HvTimerEvent* timerEvent = dynamic_cast<HvTimerEvent*>(event);
    if (!timerEvent)
        return;
    getThreadPool().doObserverNotifications(timerEvent->getObserver(), timerEvent->getArgument());
}

void HvTimerDispatcher::atExit()
{
    fsp_TheTimerDispatcher().forget(this);
}
