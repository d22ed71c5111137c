#include <HvUtil/HvThreadPool.h>
#include <HvUtil/HvErrorStream.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvMutex.h>
#include <HvUtil/HvObservable.h>
#include <HvUtil/HvWorkerThread.h>

#include <algorithm>
#include <string>

HvThreadPool::HvThreadPool(HvThread* thread, unsigned int maxThreads)
    : m_maxThreads(static_cast<int>(maxThreads)), m_threadCount(0), m_pLock(HvMutex::sCreate()),
      m_pThread(thread), m_attachedCount(0), m_bClosing(false)
{
    // Failures of work done by callers are reported on the default error
    // stream, from any caller's thread: it is made here, not by two of them.
    HvErrorStream::sGetDefault();
}

HvThreadPool::~HvThreadPool()
{
    std::vector<HvWorkerThread*> workers;
    HvWorkerThread* self = dynamic_cast<HvWorkerThread*>(HvThread::sGetCurrentRegistered());
    {
        HvMutex::Lock lock(m_pLock);
        m_bClosing = true;
        m_available.clear();
        // Destroyed by one of its own workers: that worker cannot be waited
        // for, so it is let go and ends after its current job.
        if (self && self->m_pPool == this && mIsAttached(self)) {
            self->m_pPool = nullptr;
            self->m_bLetGo = true;
            --m_attachedCount;
        } else {
            self = nullptr;
        }
        workers = m_workers;
    }
    // Idle workers end at once, busy ones after their job; the references
    // held by the pool keep every one of them valid here.
    for (HvWorkerThread* worker : workers) {
        if (worker != self)
            worker->terminate();
    }
    {
        HvMutex::Lock lock(m_pLock);
        m_workerExited.wait(*m_pLock, [this] { return m_attachedCount == 0; });
        workers.clear();
        workers.swap(m_workers);
    }
    for (HvWorkerThread* worker : workers)
        worker->Release(true);
    HvMutex::sDestroy(m_pLock);
}

void HvThreadPool::attachWorker(HvWorkerThread* worker)
{
    // Held until the pool goes: a caller may still use a worker it took
    // from the pool after that worker's thread has ended.
    worker->AddRef();
    HvMutex::Lock lock(m_pLock);
    m_workers.push_back(worker);
    ++m_attachedCount;
}

bool HvThreadPool::mIsAttached(HvWorkerThread* worker) const
{
    return std::find(m_workers.begin(), m_workers.end(), worker) != m_workers.end();
}

void HvThreadPool::mWorkerExited(HvWorkerThread* worker)
{
    HvMutex::Lock lock(m_pLock);
    // A worker that ends during shutdown is not removed by remove(); it must
    // not be handed out again either.
    std::vector<HvWorkerThread*>::iterator found = std::find(m_available.begin(), m_available.end(), worker);
    if (found != m_available.end())
        m_available.erase(found);
    if (mIsAttached(worker))
        --m_attachedCount;
    m_workerExited.notify_all();
}

HvWorkerThread* HvThreadPool::newThread()
{
    return new HvWorkerThread(this);
}

HvWorkerThread* HvThreadPool::createThread()
{
    HvWorkerThread* worker = newThread();
    if (!worker)
        return nullptr;
    // Bound before it starts: a worker whose thread ends at once must still
    // be the pool's to hand out and to wait for.
    attachWorker(worker);
    try {
        worker->fork();
    } catch (...) {
        // Never started: it will not report its end, so it is detached here.
        {
            HvMutex::Lock lock(m_pLock);
            m_workers.erase(std::find(m_workers.begin(), m_workers.end(), worker));
            --m_attachedCount;
        }
        worker->Release(true);
        throw;
    }
    return worker;
}

HvWorkerThread* HvThreadPool::getAvailable()
{
    {
        HvMutex::Lock lock(m_pLock);
        while (!m_available.empty()) {
            HvWorkerThread* worker = m_available.back();
            m_available.pop_back();
            if (worker->getState() != HvThread::EXITING)
                return worker;
            // Terminated while idle: it would never take the job. It would
            // have counted itself out by remove(), which no longer finds it.
            if (!HvThread::sShuttingDown())
                m_threadCount.fetch_sub(1, std::memory_order_relaxed);
        }
        if (m_bClosing)
            return nullptr;
    }
    if (m_threadCount.load(std::memory_order_relaxed) >= m_maxThreads || HvThread::sShuttingDown())
        return nullptr;
    HvWorkerThread* worker = createThread();
    if (worker)
        m_threadCount.fetch_add(1, std::memory_order_relaxed);
    return worker;
}

void HvThreadPool::makeAvailable(HvWorkerThread* worker)
{
    if (HvThread::sShuttingDown())
        return;
    bool closing;
    {
        HvMutex::Lock lock(m_pLock);
        closing = m_bClosing;
        if (!closing)
            m_available.push_back(worker);
    }
    // The pool is going away: the worker ends instead of waiting for work.
    if (closing)
        worker->terminate();
}

void HvThreadPool::remove(HvWorkerThread* worker)
{
    HvMutex::Lock lock(m_pLock);
    std::vector<HvWorkerThread*>::iterator found = std::find(m_available.begin(), m_available.end(), worker);
    if (found == m_available.end())
        return;
    m_available.erase(found);
    m_threadCount.fetch_sub(1, std::memory_order_relaxed);
}

void HvThreadPool::mCountOut(HvWorkerThread*)
{
    HvMutex::Lock lock(m_pLock);
    m_threadCount.fetch_sub(1, std::memory_order_relaxed);
}

int HvThreadPool::getAvailableCount() const
{
    HvMutex::Lock lock(m_pLock);
    return static_cast<int>(m_available.size());
}

int HvThreadPool::getBusyCount() const
{
    HvMutex::Lock lock(m_pLock);
    return m_threadCount.load(std::memory_order_relaxed) - static_cast<int>(m_available.size());
}

void HvThreadPool::doSourceNotifications(HvObservable* source, HvObject* object)
{
    HvWorkerThread* worker = getAvailable();
    if (!worker)
        mDoItYourSelf(HvWorkerThread::kSourceNotification, source, nullptr, object);
    else
        worker->doSourceNotifications(source, object);
}

void HvThreadPool::doObserverNotifications(HvObserver* observer, HvObject* object)
{
    HvWorkerThread* worker = getAvailable();
    if (!worker)
        mDoItYourSelf(HvWorkerThread::kObserverNotification, nullptr, observer, object);
    else
        worker->doObserverNotifications(observer, object);
}

namespace {

// Written to the exception debug stream of the default error stream, like the
// failures that end a thread's run(): it appears where that stream has the
// exception debug mode set. Dropped silently during shutdown, when sources
// and sockets are being closed under the work.
void reportCaught(const char* message)
{
    if (HvThread::sShuttingDown())
        return;
    *HvErrorStream::sGetDefault()->getDebugStream(HvString(HvException::sDebugToken), 0)
        << "catch exception in HvThreadPool::mDoItYourSelf(): " << message << endl;
}

} // namespace

void HvThreadPool::mDoItYourSelf(unsigned int kind, HvObservable* source, HvObserver* observer, HvObject* object)
{
    std::string failure;
    if (!HvWorkerThread::sCarryOut(kind, source, observer, HvHandle<HvObject>(object), failure))
        reportCaught(failure.c_str());
}
