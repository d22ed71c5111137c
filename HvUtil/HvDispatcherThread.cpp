#include <HvUtil/HvDispatcherThread.h>
#include <HvUtil/HvBaseEvent.h>

#include <Velmora/Assertion.h>
#include <Velmora/MemAllocator.h>
#include <Velmora/Singleton.h>

#include <ace/TSS_T.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace {

const char kTag[] = "HvDispatcherThread";
const char kSingletonSource[] = "OnDemandSingleton";

} // namespace

class HvDispatcherThread::InstanceCache {
public:
    InstanceCache()
    {
        // Sets up the thread-specific key now, on the creating thread: ACE
        // would otherwise do it on the first access of each thread, behind
        // an unsynchronised flag.
        m_slots.ts_object(nullptr);
    }

    // The calling thread's slot, or null when it has none.
    HvDispatcherThread** slot() const { return m_slots.ts_object(); }
    // Gives the calling thread a slot holding `instance`; an earlier slot is freed.
    void remember(HvDispatcherThread* instance) { delete m_slots.ts_object(new HvDispatcherThread*(instance)); }

private:
    // Each thread's slot is freed by ACE when the thread ends.
    ACE_TSS<HvDispatcherThread*> m_slots;
};

void* HvDispatcherThread::sAllocate(std::size_t size, std::align_val_t alignment, const char* tag)
{
    const std::size_t align = static_cast<std::size_t>(alignment);
    const std::size_t blockSize = size + align + sizeof(void*);
    void* block = Velmora::DefaultStaticMemAllocator::allocate(blockSize, tag);
    const std::uintptr_t start = reinterpret_cast<std::uintptr_t>(block) + sizeof(void*);
    const std::uintptr_t object = (start + align - 1) & ~(static_cast<std::uintptr_t>(align) - 1);
    reinterpret_cast<void**>(object)[-1] = block;
    return reinterpret_cast<void*>(object);
}

void HvDispatcherThread::sDeallocate(void* p, std::size_t size, std::align_val_t alignment, const char* tag)
{
    if (!p)
        return;
    const std::size_t blockSize = size + static_cast<std::size_t>(alignment) + sizeof(void*);
    Velmora::DefaultStaticMemAllocator::deallocate(static_cast<void**>(p)[-1], blockSize, tag);
}

void* HvDispatcherThread::operator new(std::size_t size, std::align_val_t alignment)
{
    return sAllocate(size, alignment, kTag);
}

void HvDispatcherThread::operator delete(void* p, std::size_t size, std::align_val_t alignment)
{
    sDeallocate(p, size, alignment, kTag);
}

HvDispatcherThread::HvDispatcherThread()
    : m_threadPool(this, kDefaultPoolThreads), m_eventQueue(HvEventQueue::LOCKED)
{
}

HvDispatcherThread::HvDispatcherThread(HvThread* thread, unsigned int count, HvEventQueue::Policy policy)
    : m_threadPool(thread ? thread : this, count), m_eventQueue(policy)
{
}

HvDispatcherThread::~HvDispatcherThread()
{
}

void HvDispatcherThread::run()
{
    while (getState() != EXITING) {
        // Owned here from the moment it is taken, so that an exception from
        // process() does not lose it.
        std::unique_ptr<HvBaseEvent> event(m_eventQueue.getItem());
        if (!event)
            break;
        // Terminated while the event was being taken: nobody waits for its
        // work any more.
        if (getState() == EXITING)
            break;
        process(event.get());
    }
    // The pool keeps a plain pointer to this thread, not a counted handle:
    // there is no reference cycle to break here.
}

void HvDispatcherThread::atExit()
{
}

void HvDispatcherThread::onMainExit()
{
    atExit();
}

HvDispatcherThread::InstanceCache* HvDispatcherThread::sCreateInstanceCache()
{
    return new InstanceCache;
}

HvDispatcherThread* HvDispatcherThread::sGetOnDemandInstance(const char* name, InstanceCache& cache,
                                                             HvDispatcherThread* (*create)())
{
    if (HvDispatcherThread** ppSingleton = cache.slot()) {
        Velmora::Assertion(*ppSingleton != 0, "*ppSingleton != 0", kSingletonSource, 69);
        // A slot that lost its pointer is refilled from the registry below
        // instead of handing null to the caller.
        if (*ppSingleton)
            return *ppSingleton;
    }

    HvDispatcherThread* pFound;
    {
        std::lock_guard<std::recursive_mutex> lock(Velmora::OnDemandSingletonNoT::sGetMutex(name));
        Velmora::SingletonRegistry& registry = Velmora::SingletonRegistry::instance();
        pFound = static_cast<HvDispatcherThread*>(registry.find(name));
        if (!pFound) {
            HvDispatcherThread* pNewObj = create();
            pFound = static_cast<HvDispatcherThread*>(
                registry.registerObject(name, pNewObj, &HvDispatcherThread::sCleanupOnDemandInstance));
            Velmora::Assertion(pFound == pNewObj, "pFound == pNewObj", kSingletonSource, 90);
        }
    }
    Velmora::Assertion(pFound != 0, "pFound != 0", kSingletonSource, 97);
    if (pFound)
        cache.remember(pFound);
    return pFound;
}

HvDispatcherThread* HvDispatcherThread::sFindOnDemandInstance(const char* name)
{
    return static_cast<HvDispatcherThread*>(Velmora::SingletonRegistry::instance().find(name));
}

void HvDispatcherThread::sCleanupOnDemandInstance(void* object, void*)
{
    HvDispatcherThread* instance = static_cast<HvDispatcherThread*>(object);
    // Once its thread has ended, only the instance's reference on itself is
    // left. While the thread runs (the process exits without a shutdown),
    // the thread and the thread table still hold it: deleting it would pull
    // the object from under them, so it is left to the exiting process.
    if (instance->getRefCount() <= 1)
        delete instance;
}

void HvDispatcherThread::forkHoldingSelf()
{
    AddRef();
    try {
        fork();
    } catch (...) {
        Release(false);
        throw;
    }
}

void HvDispatcherThread::sWakeQueue(HvDispatcherThread* instance)
{
    if (instance)
        instance->getEventQueue()->WakeUpAll();
}

HvDispatcherThread* HvDispatcherThread::StartedOnFirstUse::get(Factory make)
{
    HvDispatcherThread* instance = find();
    if (instance)
        return instance;
    instance = make();
    m_instance.store(instance, std::memory_order_release);
    // From here on the thread owns the object: it is deleted when the thread
    // has ended and nobody holds it any more.
    try {
        instance->fork();
    } catch (...) {
        HvDispatcherThread* self = instance;
        m_instance.compare_exchange_strong(self, nullptr);
        delete instance;
        throw;
    }
    return instance;
}

HvHandle<HvDispatcherThread> HvDispatcherThread::StartedOnFirstUse::hold(Factory make)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    HvDispatcherThread* instance = find();
    if (!instance && make)
        instance = get(make);
    return HvHandle<HvDispatcherThread>(instance);
}

void HvDispatcherThread::StartedOnFirstUse::forget(HvDispatcherThread* instance)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_instance.compare_exchange_strong(instance, nullptr, std::memory_order_acq_rel);
}

void HvDispatcherThread::StartedOnFirstUse::wakeQueue()
{
    HvHandle<HvDispatcherThread> instance = hold(nullptr);
    sWakeQueue(instance.get());
}
