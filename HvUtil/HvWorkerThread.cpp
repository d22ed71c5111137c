#include <HvUtil/HvWorkerThread.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvThreadPool.h>

#include <Velmora/Assertion.h>
#include <Velmora/Logger.h>

#include <cxxabi.h>

#include <exception>
#include <string>

namespace {

Velmora::AceCleanupLogger& logger()
{
    static Velmora::AceCleanupLogger& instance = Velmora::fileScopeLogger("HvWorkerThread");
    return instance;
}

// Work that throws outside shutdown is a programming error of the observer;
// during shutdown it is expected (sources and sockets are being closed).
void reportFailure(const std::string& message)
{
    const std::string text = "Catched a HvException in HvWorkerThread::run(): " + message;
    if (HvThread::sShuttingDown()) {
        logger().log(Velmora::Logger::DEBUG, text, "HvWorkerThread", 91);
        return;
    }
    logger().log(Velmora::Logger::ERROR, text, "HvWorkerThread", 91);
    Velmora::Assertion(false, "false", "HvWorkerThread", 91);
}

} // namespace

HvWorkerThread::HvWorkerThread(HvThreadPool* pool)
    : m_kind(kNone), m_pPool(pool), m_bLetGo(false)
{
}

HvWorkerThread::~HvWorkerThread()
{
}

void HvWorkerThread::doSourceNotifications(HvObservable* source, HvObject* object)
{
    m_kind = kSourceNotification;
    m_source = source;
    m_object = object;
    // The signal's mutex orders these stores before the worker's reads.
    signal();
}

void HvWorkerThread::doObserverNotifications(HvObserver* observer, HvObject* object)
{
    m_kind = kObserverNotification;
    m_observer = observer;
    m_object = object;
    signal();
}

bool HvWorkerThread::sCarryOut(unsigned int kind, HvObservable* source, HvObserver* observer,
                               const HvHandle<HvObject>& object, std::string& failure)
{
    try {
        // Work without its source or observer is skipped.
        if (kind == kSourceNotification && source)
            source->notifyObservers(object);
        else if (kind == kObserverNotification && observer)
            observer->onNotification(HvHandle<HvObservable>(), object);
        return true;
    } catch (HvHandle<HvException>& e) {
        failure = e.isNull() ? "" : e->getMessage().c_str();
    } catch (abi::__forced_unwind&) {
        // Thread cancellation must unwind on.
        throw;
    } catch (std::exception& e) {
        failure = e.what();
    } catch (...) {
        failure = "Unknown Exception";
    }
    return false;
}

void HvWorkerThread::run()
{
    bool terminatedWhileBusy = false;
    for (;;) {
        wait(kNoTimeout);
        if (getState() == EXITING)
            break;
        std::string failure;
        if (!sCarryOut(m_kind, m_source.get(), m_observer.get(), m_object, failure))
            reportFailure(failure);
        m_source = HvHandle<HvObservable>();
        m_observer = HvHandle<HvObserver>();
        m_object = HvHandle<HvObject>();
        // The pool let this worker go while it was busy (its destructor ran
        // on this thread): there is nothing to go back to.
        if (m_bLetGo)
            break;
        // Terminated during the job: back among the idle ones it could be
        // handed the next job, which it would never do.
        if (getState() == EXITING) {
            terminatedWhileBusy = true;
            break;
        }
        if (m_pPool)
            m_pPool->makeAvailable(this);
    }
    if (m_pPool && !sShuttingDown()) {
        if (terminatedWhileBusy)
            m_pPool->mCountOut(this);
        else
            m_pPool->remove(this);
    }
}

void HvWorkerThread::onMainExit()
{
    if (m_pPool)
        m_pPool->mWorkerExited(this);
}
