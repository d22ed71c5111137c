// Stream input dispatcher: the process-wide thread that takes events
// announcing readable data on a source (an HvTCPEvent of the source and an
// argument) and has a worker of its pool of 10 notify that source's observer.
// Its queue is UNLOCKED: producers serialise among themselves.
#ifndef HVUTIL_HVTCPIDISPATCHER_H
#define HVUTIL_HVTCPIDISPATCHER_H

#include <HvUtil/HvDispatcherThread.h>

#include <cstddef>
#include <new>

class HvTCPIDispatcher : public HvDispatcherThread {
public:
    // Workers of the pool.
    static constexpr unsigned int kPoolThreads = 10;

    // The instance, made and started on first demand from any thread. It
    // lives until the process ends.
    static HvTCPIDispatcher* getInstance();
    // The instance if it has been made, else null; never makes one.
    static HvTCPIDispatcher* sFind();

    // An HvTCPEvent: source->notifyObservers(argument) by a pool worker (by
    // this thread when all are busy). Other events, and sources that are not
    // observables, give no work.
    void process(HvBaseEvent* event) override;

    // Over-aligned, as every dispatcher: see HvDispatcherThread::sAllocate.
    static void* operator new(std::size_t size, std::align_val_t alignment);
    static void operator delete(void* p, std::size_t size, std::align_val_t alignment);

private:
    // Takes a reference on itself and starts the thread.
    HvTCPIDispatcher();
    // Gives back the reference on itself without deleting.
    ~HvTCPIDispatcher() override;

    static HvDispatcherThread* sCreate();
};

#endif
