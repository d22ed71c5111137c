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

#include <cstddef>
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

private:
    // Registry clean-up at exit: deletes an instance whose thread has ended,
    // and leaves one whose thread still runs to that thread.
    static void sCleanupOnDemandInstance(void* object, void* param);

    HvThreadPool m_threadPool;
    HvEventQueue m_eventQueue;
};

#endif
