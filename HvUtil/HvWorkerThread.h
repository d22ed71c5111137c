// A thread of an HvThreadPool: sleeps until it is handed one notification to
// deliver (a source notifying its observer, or an observer receiving an
// object), delivers it, and goes back to its pool.
#ifndef HVUTIL_HVWORKERTHREAD_H
#define HVUTIL_HVWORKERTHREAD_H

#include <HvUtil/HvThread.h>

#include <string>

class HvThreadPool;

class HvWorkerThread : public HvThread {
public:
    // Work kinds.
    static constexpr unsigned int kNone = 0;
    static constexpr unsigned int kSourceNotification = 1;
    static constexpr unsigned int kObserverNotification = 2;

    // A worker of `pool` (null: a worker without a pool). Not started: the
    // pool forks it.
    explicit HvWorkerThread(HvThreadPool* pool);
    ~HvWorkerThread() override;

    // Hand work to this idle worker and wake it: source->notifyObservers(object),
    // or observer->onNotification(nil, object).
    void doSourceNotifications(HvObservable* source, HvObject* object);
    void doObserverNotifications(HvObserver* observer, HvObject* object);

    // Carries out one piece of work of the given kind; work without its
    // source or observer is skipped. Returns false with the caught failure's
    // text when the work threw (thread cancellation passes through).
    static bool sCarryOut(unsigned int kind, HvObservable* source, HvObserver* observer,
                          const HvHandle<HvObject>& object, std::string& failure);

    // Until terminated: waits for work, delivers it, goes back to the pool.
    // A worker terminated during a job does not go back: it ends after it.
    // An HvException thrown by the work is logged on "ferrowind.hv.HvWorkerThread"
    // as "Catched a HvException in HvWorkerThread::run(): " and the message:
    // at debug level while the system shuts down, otherwise at error level
    // followed by the failed Velmora::Assertion "false". The worker goes on.
    void run() override;

    HvThreadPool* getPool() const { return m_pPool; }
    // The kind of the work handed over last.
    unsigned int getKind() const { return m_kind; }

protected:
    // Tells the pool that this worker no longer uses it.
    void onMainExit() override;

private:
    friend class HvThreadPool;

    unsigned int m_kind;
    HvHandle<HvObservable> m_source;
    HvHandle<HvObserver> m_observer;
    HvHandle<HvObject> m_object;
    HvThreadPool* m_pPool;
    // Set (with m_pPool cleared) by the pool's destructor when it runs on
    // this worker: the worker ends after its current job.
    bool m_bLetGo;
};

#endif
