#include <HvUtil/HvTCPIDispatcher.h>
#include <HvUtil/HvObservable.h>
#include <HvUtil/HvTCPEvent.h>

namespace {

const char kTag[] = "HvTCPIDispatcher";
// Registry name of the instance.
const char kName[] = "HvTCPIDispatcher";

// Shutdown step: lets the dispatcher's thread, blocked on an empty queue,
// see its termination. Nothing when no instance was made.
void wakeQueue()
{
    if (HvTCPIDispatcher* instance = HvTCPIDispatcher::sFind())
        instance->getEventQueue()->WakeUpAll();
}

// Installed at load, so that the shutdown finds it whether or not an
// instance is ever made.
struct HookInstaller {
    HookInstaller() { HvThread::sSetShutdownHook(HvThread::WAKE_TCP_INPUT_DISPATCHER_QUEUE, &wakeQueue); }
};
const HookInstaller fs_hookInstaller;

} // namespace

void* HvTCPIDispatcher::operator new(std::size_t size, std::align_val_t alignment)
{
    return sAllocate(size, alignment, kTag);
}

void HvTCPIDispatcher::operator delete(void* p, std::size_t size, std::align_val_t alignment)
{
    sDeallocate(p, size, alignment, kTag);
}

HvTCPIDispatcher::HvTCPIDispatcher()
    : HvDispatcherThread(nullptr, kPoolThreads, HvEventQueue::UNLOCKED)
{
    // Kept until the registry lets go of the instance at exit: the thread's
    // end must not delete what the registry and the threads' caches point to.
    AddRef();
    try {
        fork();
    } catch (...) {
        Release(false);
        throw;
    }
}

HvTCPIDispatcher::~HvTCPIDispatcher()
{
    if (getRefCount() > 0)
        Release(false);
}

HvDispatcherThread* HvTCPIDispatcher::sCreate()
{
    return new HvTCPIDispatcher;
}

HvTCPIDispatcher* HvTCPIDispatcher::getInstance()
{
    static InstanceCache* const cache = sCreateInstanceCache();
    return static_cast<HvTCPIDispatcher*>(sGetOnDemandInstance(kName, *cache, &HvTCPIDispatcher::sCreate));
}

HvTCPIDispatcher* HvTCPIDispatcher::sFind()
{
    return static_cast<HvTCPIDispatcher*>(sFindOnDemandInstance(kName));
}

void HvTCPIDispatcher::process(HvBaseEvent* event)
{
    HvTCPEvent* tcpEvent = dynamic_cast<HvTCPEvent*>(event);
    if (!tcpEvent)
        return;
    getThreadPool().doSourceNotifications(dynamic_cast<HvObservable*>(tcpEvent->getObject()),
                                          tcpEvent->getArgument());
}
