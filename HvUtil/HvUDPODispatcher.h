// Datagram output dispatcher: the process-wide thread that sends queued
// packets (HvUDPEvent whose object is an HvDatagramPacket) through one shared
// datagram socket, made on the first packet unless one was given. Sends
// happen strictly in queue order on this thread. Its queue is LOCKED, so any
// thread may post. Started on first use; it forgets itself when its thread
// ends, and a later first use makes a new one.
#ifndef HVUTIL_HVUDPODISPATCHER_H
#define HVUTIL_HVUDPODISPATCHER_H

#include <HvUtil/HvDatagramSocket.h>
#include <HvUtil/HvDispatcherThread.h>

#include <cstddef>
#include <new>
#include <mutex>

class HvUDPODispatcher : public HvDispatcherThread {
public:
    // Receive buffer size of the shared socket this dispatcher makes: it
    // only sends, so a modest buffer serves.
    static constexpr unsigned int kSocketBufferSize = 49152;

    // The instance; on first use (or after the last one ended) makes it and
    // forks its thread. Takes no lock: the first call must come before other
    // threads can race for it. The pointer is valid while the thread runs.
    static HvUDPODispatcher* getInstance();
    // The existing instance's queue, or null when there is none; never makes
    // one. Valid while the instance's thread runs.
    static HvEventQueue* getUDPEventQueue();
    // Queues `event` (taking ownership) to the instance, made on first use,
    // holding the instance while the event goes in.
    static void sAddEvent(HvBaseEvent* event);

    // Sends the packet of an HvUDPEvent through the shared socket, making
    // that socket first when none is held (local port 0, any address,
    // kSocketBufferSize). Events without a packet send nothing. Throws what
    // making the socket throws.
    void process(HvBaseEvent* event) override;
    // Forgets the instance when it is this one.
    void atExit() override;

    // Null is ignored; otherwise closes the socket held so far (unless it is
    // `socket` itself) and holds `socket` instead. Any thread.
    void setDatagramSocket(HvDatagramSocket* socket);
    // The shared socket; empty until the first packet or setDatagramSocket().
    HvHandle<HvDatagramSocket> getDatagramSocket() const;

    // Over-aligned, as every dispatcher: see HvDispatcherThread::sAllocate.
    static void* operator new(std::size_t size, std::align_val_t alignment);
    static void operator delete(void* p, std::size_t size, std::align_val_t alignment);

private:
    // Makes the instance that getInstance() starts.
    static HvDispatcherThread* sCreate();

    HvUDPODispatcher();
    // Closes the socket it holds.
    ~HvUDPODispatcher() override;

    // Guards the handle: setDatagramSocket() runs on other threads than
    // process().
    mutable std::mutex m_socketMutex;
    HvHandle<HvDatagramSocket> m_socket;
};

#endif
