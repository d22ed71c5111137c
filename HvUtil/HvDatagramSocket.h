// A UDP socket: sends and receives HvDatagramPackets and, as an observable
// whose block() waits for one datagram, feeds each received datagram (as a
// packet of its own) to the datagram input dispatcher, which hands it to this
// socket's observer on a pool thread.
#ifndef HVUTIL_HVDATAGRAMSOCKET_H
#define HVUTIL_HVDATAGRAMSOCKET_H

#include <HvUtil/HvDatagramPacket.h>
#include <HvUtil/HvSocketImpl.h>

#include <atomic>

class HvDatagramSocket : public HvSocketImpl {
public:
    // A socket that receives datagrams of up to `bufferSize` bytes. Unless
    // `connect` is set it is bound to port:address (port 0 stays 0 in
    // getLocalPort()); with `connect` it is connected to that peer instead,
    // which Linux refuses (see connect()). Throws what HvSocketImpl::bind
    // and connect throw.
    HvDatagramSocket(unsigned int port, HvInetAddress address, bool connect, unsigned int bufferSize);
    ~HvDatagramSocket() override;

    // HvSocketImpl::connect as a datagram socket, then isConnected() becomes
    // true. The TCP_NODELAY step of that connect fails on a datagram socket
    // under Linux: it throws HvSocketError "HvSocketImpl::setsockopt(...)"
    // after the system connect succeeded, and the socket stays unconnected
    // here.
    void connect(HvInetAddress address, unsigned int port);

    // Sends the packet's length bytes from its offset (never more than its
    // buffer holds from there). Through HvSocketImpl::send, returning its
    // count or -1, when connected and the packet is addressed to the peer;
    // otherwise through HvSocketImpl::sendTo to the packet's address and
    // port, returning 0 (that send's result is not examined). -1 for null.
    int send(HvDatagramPacket* packet);
    // One receive into the packet's buffer at its offset, of at most its
    // length (and never more than its buffer holds from there); a longer
    // datagram is cut. Stores the sender's address and port; the packet's
    // length becomes the byte count, or -1 (4294967295) on failure, which
    // is returned. -1 for null.
    int receive(HvDatagramPacket* packet);

    // Relays the notification as any observable does.
    void onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object) override;
    // Waits for one datagram and, unless the system is shutting down, queues
    // an HvUDPEvent of this socket and a new packet (a copy of the bytes, the
    // sender and this socket's local endpoint) to the datagram input
    // dispatcher. An HvException while receiving closes the socket and is
    // queued instead of a packet. A failed receive queues nothing and logs
    // "HvDatagramSocket::block : recvfrom failure". Returns true, except
    // after a failed receive on a socket that holds no descriptor: a closed
    // socket has ended as a source.
    bool block() override;

    bool isConnected() const { return m_connected.load(std::memory_order_relaxed); }
    // The largest datagram that block() takes whole.
    unsigned int getBufferSize() const { return m_bufferSize; }

protected:
    // For subclasses whose descriptor is connected by other means than
    // connect() (which Linux makes fail): sends to the peer then go through
    // HvSocketImpl::send. The descriptor must really be connected: asking an
    // unconnected one for its peer makes it forget the descriptor.
    void setConnected(bool connected) { m_connected.store(connected, std::memory_order_relaxed); }

private:
    // Read by sending threads while connect() may run on another.
    std::atomic<bool> m_connected;
    unsigned int m_bufferSize;
    // Used by the receiving thread only; observers get copies.
    HvDatagramPacket m_receivePacket;
};

#endif
