#include <HvUtil/HvTCPIDispatcher.h>
#include <HvUtil/HvObservable.h>
#include <HvUtil/HvTCPEvent.h>

namespace {

const char kTag[] = "HvTCPIDispatcher";
// Registry name of the instance.
const char kName[] = "HvTCPIDispatcher";

void wakeQueue()
{
    HvDispatcherThread::sWakeQueue(HvTCPIDispatcher::sFind());
}

const HvDispatcherThread::ShutdownHookInstaller fs_hookInstaller(HvThread::WAKE_TCP_INPUT_DISPATCHER_QUEUE, &wakeQueue);

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
    forkHoldingSelf();
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
