// Stream output dispatcher: the process-wide thread that writes queued byte
// arrays to client sockets (HvTCPEvent of an HvClientSocket and an
// HvByteArray), each array whole and in order, strictly in queue order. It
// has no pool workers; its queue is LOCKED, so any thread may post.
#ifndef HVUTIL_HVTCPODISPATCHER_H
#define HVUTIL_HVTCPODISPATCHER_H

#include <HvUtil/HvDispatcherThread.h>

#include <cstddef>
#include <new>

class HvTCPODispatcher : public HvDispatcherThread {
public:
    // The instance, made and started on first demand from any thread. It
    // lives until the process ends.
    static HvTCPODispatcher* getInstance();
    // The instance if it has been made, else null; never makes one.
    static HvTCPODispatcher* sFind();

    // Sends the event's array through its socket from the first byte on,
    // resuming after partial sends, until all is sent or a send fails (the
    // failed send has closed the socket; the rest is dropped). An event that
    // is not an HvTCPEvent (null included) raises the Velmora::Assertion
    // "VELMORA_DYNCAST_ASSERT(HvTCPEvent, pEvent) != 0" (source
    // "HvTCPODispatcher", line 70) and sends nothing; so does an event
    // without a client socket or without an array.
    void process(HvBaseEvent* event) override;

    // Over-aligned, as every dispatcher: see HvDispatcherThread::sAllocate.
    static void* operator new(std::size_t size, std::align_val_t alignment);
    static void operator delete(void* p, std::size_t size, std::align_val_t alignment);

private:
    // Takes a reference on itself and starts the thread.
    HvTCPODispatcher();
    // Gives back the reference on itself without deleting.
    ~HvTCPODispatcher() override;

    static HvDispatcherThread* sCreate();
};

#endif
