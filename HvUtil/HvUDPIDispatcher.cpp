#include <HvUtil/HvUDPIDispatcher.h>
#include <HvUtil/HvUDPEvent.h>

#include <memory>
#include <mutex>

namespace {

const char kTag[] = "HvUDPIDispatcher";

// The instance, set from creation until its thread ends, with the lock that
// orders holding it against its end. Never destroyed: threads end while the
// process exits.
HvDispatcherThread::StartedOnFirstUse& fsp_TheUDPIDispatcher()
{
    static HvDispatcherThread::StartedOnFirstUse* instance = new HvDispatcherThread::StartedOnFirstUse;
    return *instance;
}

// Serialises the producers of the UNLOCKED queue that post through sAddEvent().
std::mutex& producerMutex()
{
    static std::mutex* mutex = new std::mutex;
    return *mutex;
}

void wakeQueue()
{
    fsp_TheUDPIDispatcher().wakeQueue();
}

const HvDispatcherThread::ShutdownHookInstaller fs_hookInstaller(HvThread::WAKE_UDP_INPUT_DISPATCHER_QUEUE, &wakeQueue);

} // namespace

void* HvUDPIDispatcher::operator new(std::size_t size, std::align_val_t alignment)
{
    return sAllocate(size, alignment, kTag);
}

void HvUDPIDispatcher::operator delete(void* p, std::size_t size, std::align_val_t alignment)
{
    sDeallocate(p, size, alignment, kTag);
}

HvUDPIDispatcher::HvUDPIDispatcher()
    : HvDispatcherThread(nullptr, kPoolThreads, HvEventQueue::UNLOCKED)
{
}

HvUDPIDispatcher::~HvUDPIDispatcher()
{
}

HvDispatcherThread* HvUDPIDispatcher::sCreate()
{
    return new HvUDPIDispatcher;
}

HvUDPIDispatcher* HvUDPIDispatcher::getInstance()
{
    return static_cast<HvUDPIDispatcher*>(fsp_TheUDPIDispatcher().get(&sCreate));
}

HvEventQueue* HvUDPIDispatcher::getUDPEventQueue()
{
    HvDispatcherThread* instance = fsp_TheUDPIDispatcher().find();
    return instance ? instance->getEventQueue() : nullptr;
}

void HvUDPIDispatcher::sAddEvent(HvBaseEvent* event)
{
    std::unique_ptr<HvBaseEvent> owned(event);
    // Released after the producers' lock: the last reference may delete the
    // dispatcher, which waits for its pool.
    HvHandle<HvDispatcherThread> instance;
    std::lock_guard<std::mutex> producers(producerMutex());
    instance = fsp_TheUDPIDispatcher().hold(&sCreate);
    instance->getEventQueue()->addItem(owned.release());
}

void HvUDPIDispatcher::process(HvBaseEvent* event)
{
    HvUDPEvent* udpEvent = dynamic_cast<HvUDPEvent*>(event);
    if (!udpEvent)
        return;
    getThreadPool().doObserverNotifications(udpEvent->getObserver(), udpEvent->getObject());
}

void HvUDPIDispatcher::atExit()
{
    fsp_TheUDPIDispatcher().forget(this);
}
