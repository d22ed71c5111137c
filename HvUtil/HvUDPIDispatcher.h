// Datagram input dispatcher: the process-wide thread that takes the events
// of received datagrams (an HvUDPEvent of the receiving socket and the packet
// or the exception that ended the receive) and has a worker of its pool of 10
// hand each to its observer. Started on first use; it forgets itself when its
// thread ends, and a later first use makes a new one.
#ifndef HVUTIL_HVUDPIDISPATCHER_H
#define HVUTIL_HVUDPIDISPATCHER_H

#include <HvUtil/HvDispatcherThread.h>

#include <cstddef>
#include <new>

class HvUDPIDispatcher : public HvDispatcherThread {
public:
    // Workers of the pool.
    static constexpr unsigned int kPoolThreads = 10;

    // The instance; on first use (or after the last one ended) makes it and
    // forks its thread. Takes no lock: the first call must come before other
    // threads can race for it. The pointer is valid while the thread runs.
    static HvUDPIDispatcher* getInstance();
    // The existing instance's queue, or null when there is none; never makes
    // one. Valid while the instance's thread runs.
    static HvEventQueue* getUDPEventQueue();
    // Queues `event` (taking ownership) to the instance, made on first use,
    // holding the instance while the event goes in. The queue is UNLOCKED:
    // producers that post through here are serialised with each other.
    static void sAddEvent(HvBaseEvent* event);

    // An HvUDPEvent: observer->onNotification(nil, object) by a pool worker
    // (by this thread when all are busy). Other events give no work.
    void process(HvBaseEvent* event) override;
    // Forgets the instance when it is this one.
    void atExit() override;

    // Over-aligned, as every dispatcher: see HvDispatcherThread::sAllocate.
    static void* operator new(std::size_t size, std::align_val_t alignment);
    static void operator delete(void* p, std::size_t size, std::align_val_t alignment);

private:
    // Makes the instance that getInstance() starts.
    static HvDispatcherThread* sCreate();

    HvUDPIDispatcher();
    ~HvUDPIDispatcher() override;
};

#endif
