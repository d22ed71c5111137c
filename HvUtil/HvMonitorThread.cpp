#include <HvUtil/HvMonitorThread.h>
#include <HvUtil/HvObserverThread.h>

#include <Velmora/MemAllocator.h>

#include <ace/Object_Manager.h>

#include <atomic>
#include <mutex>

namespace {

const char kTag[] = "HvMonitorThread";

// The process-wide monitor, from its creation until its thread leaves the
// loop. The misspelt name is the one the rest of the stack knows it by.
std::atomic<HvMonitorThread*> fsp_TheMontitorThread{nullptr};

// Serialises making the process-wide monitor and its forgetting itself, so
// that two first callers never make two, and a caller never gets one that
// has just forgotten itself as newly made. Never destroyed: the monitor may
// end while the process exits.
std::mutex& creationMutex()
{
    static std::mutex* mutex = new std::mutex;
    return *mutex;
}

// At-exit clean-up: gives back the extra reference sGetCurrent() took, so that
// a monitor whose thread has ended goes; one still running keeps the
// references of its thread.
void deleteCleanupFunc(void* object, void*)
{
    static_cast<HvMonitorThread*>(object)->Release(true);
}

} // namespace

void* HvMonitorThread::operator new(std::size_t size)
{
    return Velmora::DefaultStaticMemAllocator::allocate(size, kTag);
}

void HvMonitorThread::operator delete(void* p, std::size_t size)
{
    Velmora::DefaultStaticMemAllocator::deallocate(p, size, kTag);
}

HvMonitorThread::HvMonitorThread()
    : m_scheduler(this)
{
}

HvMonitorThread::~HvMonitorThread()
{
}

HvMonitorThread* HvMonitorThread::sGetCurrent()
{
    if (HvMonitorThread* self = dynamic_cast<HvMonitorThread*>(sGetByToken(sGetCurrentThreadToken())))
        return self;
    if (HvMonitorThread* monitor = fsp_TheMontitorThread.load(std::memory_order_acquire))
        return monitor;

    std::lock_guard<std::mutex> lock(creationMutex());
    if (HvMonitorThread* monitor = fsp_TheMontitorThread.load(std::memory_order_acquire))
        return monitor;
    HvMonitorThread* monitor = new HvMonitorThread;
    // Its own scheduler holds it; this extra reference keeps it until exit, so
    // the pointer handed out stays valid after its thread ends.
    monitor->AddRef();
    ACE_Object_Manager::at_exit(monitor, &deleteCleanupFunc, nullptr, kTag);
    fsp_TheMontitorThread.store(monitor, std::memory_order_release);
    try {
        monitor->fork();
    } catch (...) {
        // A monitor that never runs would swallow every timer: it is not
        // kept, and the next call tries again. Dropping the scheduler's hold
        // leaves the at-exit reference as the last one.
        fsp_TheMontitorThread.store(nullptr, std::memory_order_release);
        monitor->m_scheduler.setMonitorThread(nullptr);
        throw;
    }
    return monitor;
}

HvHandle<HvObserverThread> HvMonitorThread::monitorObservable(HvObservable* observable)
{
    // Held across fork() and the hand-over: the thread could end (shutdown)
    // and let go of itself before the observable reaches it.
    HvHandle<HvObserverThread> thread(new HvObserverThread);
    thread->fork();
    thread->monitorObservable(observable);
    return thread;
}

unsigned int HvMonitorThread::sWaitTimeFor(double microseconds)
{
    if (microseconds == 0.0)
        return kNoTimeout;
    const double milliseconds = microseconds / 1000.0;
    // Never 0, so that the thread never spins on a request that is not yet
    // due; never kNoTimeout or beyond, which an unsigned cannot hold (a wall
    // clock stepped far back can push a wait there).
    if (milliseconds < 1.0)
        return 1;
    if (milliseconds >= static_cast<double>(kNoTimeout))
        return kNoTimeout - 1;
    return static_cast<unsigned int>(milliseconds);
}

void HvMonitorThread::run()
{
    while (getState() != EXITING)
        wait(sWaitTimeFor(m_scheduler.processTimerEvents()));
}

void HvMonitorThread::onMainExit()
{
    // Here rather than at the end of run(): also when run() was left by a
    // failing clock or skipped by an early terminate(), no dead monitor may
    // stay the process-wide one or keep its requests and itself alive.
    // main() holds its own reference until after this returns.
    m_scheduler.setMonitorThread(nullptr);
    std::lock_guard<std::mutex> lock(creationMutex());
    HvMonitorThread* self = this;
    fsp_TheMontitorThread.compare_exchange_strong(self, nullptr, std::memory_order_acq_rel);
}
