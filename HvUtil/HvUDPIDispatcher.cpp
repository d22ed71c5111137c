#include <HvUtil/HvUDPIDispatcher.h>
#include <HvUtil/HvUDPEvent.h>

#include <atomic>
#include <memory>
#include <mutex>

namespace {

const char kTag[] = "HvUDPIDispatcher";

// The instance, set from creation until its thread ends. Published with
// release order: a thread that finds the pointer also sees the object built.
std::atomic<HvUDPIDispatcher*> fsp_TheUDPIDispatcher{nullptr};

// Orders taking a reference on the instance against the instance forgetting
// itself as its thread ends: whoever finds the pointer under it may hold the
// object. Never destroyed: threads end while the process exits.
std::mutex& instanceMutex()
{
    static std::mutex* mutex = new std::mutex;
    return *mutex;
}

// Serialises the producers of the UNLOCKED queue that post through sAddEvent().
std::mutex& producerMutex()
{
    static std::mutex* mutex = new std::mutex;
    return *mutex;
}

// The instance with a reference held, made first when `create` is set.
HvHandle<HvUDPIDispatcher> holdInstance(bool create)
{
    std::lock_guard<std::mutex> lock(instanceMutex());
    HvUDPIDispatcher* instance = fsp_TheUDPIDispatcher.load(std::memory_order_acquire);
    if (!instance && create)
        instance = HvUDPIDispatcher::getInstance();
    return HvHandle<HvUDPIDispatcher>(instance);
}

// Shutdown step: lets the dispatcher's thread, blocked on an empty queue,
// see its termination. Nothing when there is no instance.
void wakeQueue()
{
    HvHandle<HvUDPIDispatcher> instance = holdInstance(false);
    if (!instance.isNull())
        instance->getEventQueue()->WakeUpAll();
}

// Installed at load, so that the shutdown finds it whether or not an
// instance is ever made.
struct HookInstaller {
    HookInstaller() { HvThread::sSetShutdownHook(HvThread::WAKE_UDP_INPUT_DISPATCHER_QUEUE, &wakeQueue); }
};
const HookInstaller fs_hookInstaller;

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

HvUDPIDispatcher* HvUDPIDispatcher::getInstance()
{
    HvUDPIDispatcher* instance = fsp_TheUDPIDispatcher.load(std::memory_order_acquire);
    if (instance)
        return instance;
    instance = new HvUDPIDispatcher;
    fsp_TheUDPIDispatcher.store(instance, std::memory_order_release);
    // From here on the thread owns the object: it is deleted when the thread
    // has ended and nobody holds it any more.
    try {
        instance->fork();
    } catch (...) {
        HvUDPIDispatcher* self = instance;
        fsp_TheUDPIDispatcher.compare_exchange_strong(self, nullptr);
        delete instance;
        throw;
    }
    return instance;
}

HvEventQueue* HvUDPIDispatcher::getUDPEventQueue()
{
    HvUDPIDispatcher* instance = fsp_TheUDPIDispatcher.load(std::memory_order_acquire);
    return instance ? instance->getEventQueue() : nullptr;
}

void HvUDPIDispatcher::sAddEvent(HvBaseEvent* event)
{
    std::unique_ptr<HvBaseEvent> owned(event);
    // Released after the producers' lock: the last reference may delete the
    // dispatcher, which waits for its pool.
    HvHandle<HvUDPIDispatcher> instance;
    std::lock_guard<std::mutex> producers(producerMutex());
    instance = holdInstance(true);
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
    std::lock_guard<std::mutex> lock(instanceMutex());
    HvUDPIDispatcher* self = this;
    fsp_TheUDPIDispatcher.compare_exchange_strong(self, nullptr, std::memory_order_acq_rel);
}
