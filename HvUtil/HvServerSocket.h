// A listening stream socket. Its block() accepts one connection and hands
// the new HvClientSocket (or the failure) to its observer.
#ifndef HVUTIL_HVSERVERSOCKET_H
#define HVUTIL_HVSERVERSOCKET_H

#include <HvUtil/HvSocketImpl.h>

#include <cstddef>

class HvClientSocket;

class HvServerSocket : public HvSocketImpl {
public:
    // Bound to address:port and listening with `backlog`. Throws what
    // HvSocketImpl::bind and listen throw.
    HvServerSocket(unsigned int port, HvInetAddress address, int backlog);
    ~HvServerSocket() override;

    // Relays the notification as any observable does.
    void onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object) override;
    // Accepts one connection; the observer gets the new client socket, or the
    // HvException that accept() threw, unless the process is shutting down.
    // Always true.
    bool block() override;
    // A new HvClientSocket accepted from this server (without descriptor when
    // the system accept failed).
    virtual HvHandle<HvClientSocket> accept();

    static void* operator new(std::size_t size);
    static void operator delete(void* p, std::size_t size);
};

#endif
