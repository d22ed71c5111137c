// Pool of worker threads that deliver notifications off the caller's thread.
// Idle workers are reused last in, first out; the pool grows on demand up to
// its limit, and when every worker is busy the caller does the work itself.
#ifndef HVUTIL_HVTHREADPOOL_H
#define HVUTIL_HVTHREADPOOL_H

#include <atomic>
#include <condition_variable>
#include <vector>

class HvMutex;
class HvObject;
class HvObservable;
class HvObserver;
class HvThread;
class HvWorkerThread;

class HvThreadPool {
public:
    // `thread` is the owning thread (kept, not used); `maxThreads` the most
    // workers the pool creates. Throws HvSystemError naming the failed
    // pthread call when its lock cannot be made.
    HvThreadPool(HvThread* thread, unsigned int maxThreads);
    // Terminates every worker (a busy one ends after its job) and waits until
    // each has stopped using the pool (a job that never ends keeps it
    // waiting). Called on one of its own workers, that worker is
    // let go instead and ends after its job.
    virtual ~HvThreadPool();

    HvThreadPool(const HvThreadPool&) = delete;
    HvThreadPool& operator=(const HvThreadPool&) = delete;

    // Makes a new worker through newThread(), binds it to this pool and only
    // then forks it, so that the pool holds it whenever its thread ends;
    // returns it without putting it among the idle ones. Throws what fork()
    // throws. Not virtual: a pool that makes its own kind of worker
    // overrides newThread().
    HvWorkerThread* createThread();

    // The most recently idle worker, else a new one while fewer than the
    // limit exist and the system is not shutting down, else null. A worker
    // that was terminated while idle is dropped, never handed out.
    HvWorkerThread* getAvailable();
    // Puts the worker back among the idle ones; nothing during shutdown.
    void makeAvailable(HvWorkerThread* worker);
    // Forgets an idle worker (the order of the others is kept); a worker that
    // is not idle is not found and nothing changes.
    void remove(HvWorkerThread* worker);

    // source->notifyObservers(object) by a worker, or by the caller when none
    // is available.
    void doSourceNotifications(HvObservable* source, HvObject* object);
    // observer->onNotification(nil, object) by a worker, or by the caller
    // when none is available.
    void doObserverNotifications(HvObserver* observer, HvObject* object);
    // The same work on the calling thread: kind 1 source notification, kind 2
    // observer notification, anything else nothing. An HvException thrown by
    // the work is caught and not rethrown (dropped silently during shutdown).
    void mDoItYourSelf(unsigned int kind, HvObservable* source, HvObserver* observer, HvObject* object);

    int getThreadCount() const { return m_threadCount.load(std::memory_order_relaxed); }
    int getAvailableCount() const;
    int getBusyCount() const;
    int getMaxThreads() const { return m_maxThreads; }
    HvThread* getThread() const { return m_pThread; }

protected:
    // Constructs, without starting it, a worker bound to this pool (its
    // constructor given this pool). Default: a plain HvWorkerThread.
    virtual HvWorkerThread* newThread();

private:
    friend class HvWorkerThread;
    // Binds a new worker to this pool before it is forked: the pool keeps a
    // reference on it until the pool is destroyed, and waits for it then.
    void attachWorker(HvWorkerThread* worker);
    // Counts out a worker that was terminated while busy and so never came
    // back among the idle ones (remove() only finds idle workers).
    void mCountOut(HvWorkerThread* worker);
    // Called by a worker's thread when it ends: it no longer uses the pool.
    void mWorkerExited(HvWorkerThread* worker);
    bool mIsAttached(HvWorkerThread* worker) const;

    int m_maxThreads;
    // Raised outside the lock by getAvailable(), so two creators together
    // may pass the limit by one each.
    std::atomic<int> m_threadCount;
    std::vector<HvWorkerThread*> m_available;
    HvMutex* m_pLock;

    HvThread* m_pThread;
    // Every worker made for this pool, each with one reference held.
    std::vector<HvWorkerThread*> m_workers;
    // Workers whose thread may still use the pool.
    int m_attachedCount;
    bool m_bClosing;
    std::condition_variable_any m_workerExited;
};

#endif
