// A thread devoted to one observable: it calls the observable's block() over
// and over, so each notification that block() makes runs on this thread.
// Idle until it is given the observable; after a block() that returns false
// (the source ended) it waits for the next signal.
#ifndef HVUTIL_HVOBSERVERTHREAD_H
#define HVUTIL_HVOBSERVERTHREAD_H

#include <HvUtil/HvThread.h>

#include <cstddef>
#include <mutex>

class HvObserverThread : public HvThread {
public:
    // A thread watching nothing yet. Not started: the creator forks it.
    HvObserverThread();
    ~HvObserverThread() override;

    // Watches `observable` from now on (a reference is held) and signals the
    // thread, so that a waiting run() starts blocking on it.
    void monitorObservable(HvObservable* observable);
    // The observable watched, nil until monitorObservable().
    HvHandle<HvObservable> getObservable() const;

    // Until terminated: waits for a signal, then calls block() while it
    // returns true. An HvException from block() never ends the thread: while
    // the process shuts down the thread signals itself, otherwise the line
    // "catch exception in HvObserverThread::block(): " and the message goes
    // to the default error stream's debug stream for HvException::sDebugToken;
    // then it waits again. A signal without an observable is waited out.
    void run() override;

    // Storage through Velmora::DefaultStaticMemAllocator, tag "HvObserverThread".
    static void* operator new(std::size_t size);
    static void operator delete(void* p, std::size_t size);

private:
    // Orders monitorObservable() against run()'s reading of the handle.
    mutable std::mutex m_observableMutex;
    HvHandle<HvObservable> m_observable;
};

#endif
