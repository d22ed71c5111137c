// A connected stream socket: made by connecting to a peer or by accepting
// from an HvServerSocket. It stamps the time of its last transfer, and makes
// its input and output streams once, on first request.
#ifndef HVUTIL_HVCLIENTSOCKET_H
#define HVUTIL_HVCLIENTSOCKET_H

#include <HvUtil/HvSocketImpl.h>
#include <HvUtil/HvTime.h>

#include <atomic>
#include <cstddef>

class HvByteArray;
class HvInputStream;
class HvOutputStream;
class HvServerSocket;

class HvClientSocket : public HvSocketImpl {
public:
    // Accepts the next connection of `server`; a failed accept leaves a
    // socket without descriptor (its transfers give -1).
    explicit HvClientSocket(HvServerSocket* server);
    // Binds to `local` (port 0) first when it is not 0, then connects to
    // remote:port. Throws what HvSocketImpl::bind and connect throw.
    HvClientSocket(HvInetAddress remote, unsigned int port, HvInetAddress local);
    // Closes, then lets go of the streams (which forget this socket).
    ~HvClientSocket() override;

    // HvSocketImpl::connect as a stream socket.
    void connect(HvInetAddress address, unsigned int port);

    // Transfers `length` bytes at buffer + offset; the count or -1 (the
    // socket is then closed). Stamp the activity time whatever the result.
    int send(const void* buffer, unsigned int length, unsigned int offset);
    int receive(void* buffer, unsigned int length, unsigned int offset);
    // The array's bytes from offset; a length of 0 or beyond the array means
    // up to its end. An offset beyond the array transfers nothing. A null
    // array transfers nothing and gives 0.
    int send(HvByteArray* array, unsigned int offset, unsigned int length);
    int receive(HvHandle<HvByteArray> array, unsigned int offset, unsigned int length);

    // The socket's input and output streams, made once under the socket's
    // own mutex and kept.
    HvHandle<HvInputStream> getInputStream();
    HvHandle<HvOutputStream> getOutputStream();

    // Relays the notification as any observable does.
    void onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object) override;
    // Blocks in the input stream until data arrives or the peer goes, then
    // notifies the observers with a nil tick. False once the stream has ended.
    bool block() override;

    // When the socket was made or last sent or received.
    HvTime getLastActivityTime() const { return HvTime(m_lastActivity.load(std::memory_order_relaxed)); }

    static void* operator new(std::size_t size);
    static void operator delete(void* p, std::size_t size);

private:
    void stampActivity();

    // Written by the sending and the receiving thread alike.
    std::atomic<double> m_lastActivity;
    HvHandle<HvInputStream> m_inputStream;
    HvHandle<HvOutputStream> m_outputStream;
};

#endif
