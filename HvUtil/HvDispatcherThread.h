// A thread that owns an event queue and a thread pool and turns each queued
// event into work: the base of the network dispatchers (stream and datagram,
// input and output) and of the timer dispatcher. Producers on any thread add
// events to getEventQueue(); the dispatcher's own thread takes them one at a
// time and hands each to process().
#ifndef HVUTIL_HVDISPATCHERTHREAD_H
#define HVUTIL_HVDISPATCHERTHREAD_H

#include <HvUtil/HvEventQueue.h>
#include <HvUtil/HvThread.h>
#include <HvUtil/HvThreadPool.h>

#include <atomic>
#include <cstddef>
#include <mutex>
#include <new>

class HvBaseEvent;

class HvDispatcherThread : public HvThread {
public:
    // Pool limit of the default construction: enough workers that slow
    // observers do not hold up one another, few enough to stay cheap.
    static constexpr unsigned int kDefaultPoolThreads = 10;

    // Default construction: a pool of kDefaultPoolThreads workers bound to
    // this thread and a LOCKED queue, which any number of producers may use.
    // Not started: the owner forks it.
    HvDispatcherThread();
    // A pool of `count` workers bound to `thread` (null: this dispatcher) and
    // a queue with `policy`. Not started. Throws HvSystemError when a lock of
    // the pool or of a LOCKED queue cannot be made.
    HvDispatcherThread(HvThread* thread, unsigned int count, HvEventQueue::Policy policy);
    // Terminates the pool's workers and waits for them; deletes the events
    // still queued.
    ~HvDispatcherThread() override;

    // The dispatch loop: until the thread is terminated, takes the next event
    // (waiting while there is none), hands it to process() and deletes it. A
    // null event ends the loop; an event taken after terminate() is deleted
    // unprocessed. What process() throws ends the loop too (the event is
    // deleted).
    void run() override;

    // Turns one event into work; the event stays the caller's.
    virtual void process(HvBaseEvent* event) = 0;
    // Called on the thread when it ends, after run() returned or was skipped.
    // Does nothing here; singletons forget themselves in it.
    virtual void atExit();

    HvThreadPool& getThreadPool() { return m_threadPool; }
    // The queue that producers add events to.
    HvEventQueue* getEventQueue() { return &m_eventQueue; }

    // The process-wide instance of a dispatcher that is started on first use
    // and forgets itself when its thread ends, kept in a plain pointer.
    class StartedOnFirstUse {
    public:
        using Factory = HvDispatcherThread* (*)();

        // The instance; on first use (or after the last one ended) makes it
        // with `make` and forks its thread. Takes no lock: the first call
        // must come before other threads can race for it.
        HvDispatcherThread* get(Factory make);
        // The instance, or null; never makes one.
        HvDispatcherThread* find() const { return m_instance.load(std::memory_order_acquire); }
        // The instance with a reference held; made first with `make` when
        // there is none, unless `make` is null.
        HvHandle<HvDispatcherThread> hold(Factory make);
        // Forgets `instance` when it is the current one (its thread ends).
        void forget(HvDispatcherThread* instance);
        // The shutdown step: wakes the current instance's queue, if any.
        void wakeQueue();

    private:
        // Published with release order: whoever finds the pointer also sees
        // the object built.
        std::atomic<HvDispatcherThread*> m_instance{nullptr};
        // Orders hold() against forget(): whoever finds the pointer under it
        // may take a reference on the object.
        std::mutex m_mutex;
    };

    // The shutdown step of a dispatcher whose thread may be blocked on an
    // empty queue: lets it see its termination. Nothing for null.
    static void sWakeQueue(HvDispatcherThread* instance);
    // Puts a dispatcher's shutdown step in its slot when constructed: a
    // file-static one installs it as the library loads, so the shutdown finds
    // it whether or not an instance is ever made.
    struct ShutdownHookInstaller {
        ShutdownHookInstaller(ShutdownHook slot, ShutdownHookFunction hook) { sSetShutdownHook(slot, hook); }
    };

    // The embedded queue keeps each of its sides on cache lines of its own,
    // so dispatchers are over-aligned: their blocks come from the class
    // allocator, aligned within (see sAllocate).
    static void* operator new(std::size_t size, std::align_val_t alignment);
    static void operator delete(void* p, std::size_t size, std::align_val_t alignment);

protected:
    // One allocator block of size + alignment bytes under `tag`, holding the
    // object at the first suitably aligned address past a pointer-sized slot
    // that remembers where the block starts. For the class allocators of the
    // dispatchers.
    static void* sAllocate(std::size_t size, std::align_val_t alignment, const char* tag);
    // Gives back a block made by sAllocate() with the same size, alignment and tag.
    static void sDeallocate(void* p, std::size_t size, std::align_val_t alignment, const char* tag);

    // Calls atExit().
    void onMainExit() override;

    // Per-thread cache of one on-demand instance's pointer.
    class InstanceCache;
    // A cache for one on-demand instance; never destroyed, since threads may
    // ask for the instance until the process ends.
    static InstanceCache* sCreateInstanceCache();
    // The process-wide instance registered under `name` in the singleton
    // registry, made by `create` on first demand under the name's recursive
    // mutex. Each thread remembers it in `cache` and asks the registry only
    // once. `create` returns an instance that holds a reference on itself.
    // Failed checks are raised as Velmora::Assertion with source
    // "OnDemandSingleton": "*ppSingleton != 0" (line 69), "pFound == pNewObj"
    // (90), "pFound != 0" (97).
    static HvDispatcherThread* sGetOnDemandInstance(const char* name, InstanceCache& cache,
                                                    HvDispatcherThread* (*create)());
    // The registered instance under `name`, or null; never makes one.
    static HvDispatcherThread* sFindOnDemandInstance(const char* name);
    // For an instance kept in the singleton registry: takes the reference it
    // holds on itself until the registry lets go of it at exit (the end of
    // its thread must not delete what the registry and the threads' caches
    // point to), then starts the thread. Gives the reference back and
    // rethrows when the thread cannot be started.
    void forkHoldingSelf();


private:
    // Registry clean-up at exit: deletes an instance whose thread has ended,
    // and leaves one whose thread still runs to that thread.
    static void sCleanupOnDemandInstance(void* object, void* param);

    HvThreadPool m_threadPool;
    HvEventQueue m_eventQueue;
};

#endif
