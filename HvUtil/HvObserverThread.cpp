#include <HvUtil/HvObserverThread.h>
#include <HvUtil/HvErrorStream.h>
#include <HvUtil/HvException.h>

#include <Velmora/Logger.h>
#include <Velmora/MemAllocator.h>
#include <Velmora/TraceScope.h>

namespace {

const char kTag[] = "HvObserverThread";
const char kSource[] = "HvObserverThread";

Velmora::AceCleanupLogger& logger()
{
    static Velmora::AceCleanupLogger& instance = Velmora::fileScopeLogger("HvObserverThread");
    return instance;
}

} // namespace

void* HvObserverThread::operator new(std::size_t size)
{
    return Velmora::DefaultStaticMemAllocator::allocate(size, kTag);
}

void HvObserverThread::operator delete(void* p, std::size_t size)
{
    Velmora::DefaultStaticMemAllocator::deallocate(p, size, kTag);
}

HvObserverThread::HvObserverThread()
{
}

HvObserverThread::~HvObserverThread()
{
}

void HvObserverThread::monitorObservable(HvObservable* observable)
{
    // Released after the lock: it may be the last reference.
    HvHandle<HvObservable> previous(observable);
    {
        std::lock_guard<std::mutex> lock(m_observableMutex);
        std::swap(previous, m_observable);
    }
    signal();
}

HvHandle<HvObservable> HvObserverThread::getObservable() const
{
    std::lock_guard<std::mutex> lock(m_observableMutex);
    return m_observable;
}

void HvObserverThread::run()
{
    Velmora::TraceScope trace(logger(), "HvObserverThread::run", kSource, __LINE__);
    for (;;) {
        wait(kNoTimeout);
        if (getState() == EXITING)
            return;
        // Held for the whole round, so that a new observable handed over
        // meanwhile cannot take the one being blocked on from under it.
        HvHandle<HvObservable> observable = getObservable();
        if (observable.isNull())
            continue;
        try {
            while (observable->block() && getState() != EXITING) {
            }
        } catch (HvHandle<HvException>& e) {
            if (sShuttingDown()) {
                // Lets the wait below return, so the thread sees its termination.
                signal();
            } else {
                HvOutputStream* out =
                    HvErrorStream::sGetDefault()->getDebugStream(HvString(HvException::sDebugToken), 0);
                *out << "catch exception in HvObserverThread::block(): "
                     << (e.isNull() ? HvString() : e->getMessage()) << endl;
            }
        }
    }
}
