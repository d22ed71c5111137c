// One IPv4 socket descriptor and everything done with it: create, bind,
// listen, accept, connect, send and receive (stream and datagram), peer
// look-up and close. Every opened descriptor is registered with
// HvSocketFactory, and the payload of every transfer is copied to the default
// error stream when its level is above 5. Sockets are observables: the
// dispatcher threads call block() in a loop and observers get what it brought.
#ifndef HVUTIL_HVSOCKETIMPL_H
#define HVUTIL_HVSOCKETIMPL_H

#include <HvUtil/HvInetAddress.h>
#include <HvUtil/HvObservable.h>

#include <atomic>
#include <cstddef>
#include <optional>

class HvMutex;

class HvSocketImpl : public HvObservable {
public:
    // Transport kind of a socket.
    enum Transport : int { TCP = 0, UDP = 1 };
    // The network library's own two-valued transport type, which
    // convertTransport() produces.
    enum class NetTransport : int { TCP = 0, UDP = 1 };

    // Send and receive buffer sizes given to every socket this class creates,
    // connects or accepts. Default 245760 bytes (0x3C000): room for a burst of
    // large SIP messages on one connection without the sender blocking.
    // Failures to apply them are ignored. Writable at any time; read when a
    // socket is opened.
    static std::atomic<int> sm_SO_SNDBUF;
    static std::atomic<int> sm_SO_RCVBUF;

    // No descriptor, ports 0, addresses 0. Throws HvSystemError when the
    // socket's own mutex cannot be made.
    HvSocketImpl();
    // Stores the local port and address; creates nothing.
    HvSocketImpl(unsigned int localPort, HvInetAddress localAddress);
    // Closes a descriptor still held, then destroys the mutex.
    ~HvSocketImpl() override;

    HvSocketImpl(const HvSocketImpl&) = delete;
    HvSocketImpl& operator=(const HvSocketImpl&) = delete;

    // Creates a stream (or datagram) socket, applies the buffer sizes and
    // SO_REUSEADDR, binds it and registers it. The port is stored as given,
    // not read back. Throws HvException "socket alrady created" when a
    // descriptor is held, HvSocketError "socket(AF_INET, aType, 0)",
    // "HvSocketImpl::setsockopt(...)" or "bind".
    void bind(unsigned int port, HvInetAddress address, bool stream);
    // Throws HvSocketError "listen".
    void listen(int backlog);
    // Takes the next connection of the listening `server` into this object.
    // A failed accept throws nothing and leaves no descriptor.
    void accept(HvSocketImpl* server);
    // Creates the socket when none is held, connects it, sets TCP_NODELAY,
    // registers it and reads back the local end. Throws HvSocketError
    // "socket(AF_INET, SOCK_STREAM, 0)", "HvSocketImpl::connect : failed to
    // connect socket : errno=<E> errmsg=<text>" (also logged at error level),
    // "HvSocketImpl::setsockopt(...)" or "getsockname()".
    void connect(HvInetAddress address, unsigned int port, bool stream);

    // One send()/recv(): the byte count, or -1. -1 also when no descriptor is
    // held; a failed call closes the socket. A receive of 0 (peer closed)
    // leaves it open. Traffic is logged as "TCP" "Sent"/"Received".
    int send(const void* data, unsigned int length);
    int receive(void* buffer, unsigned int length);
    // Logs, then sends one datagram to address:port; the result is not examined.
    void sendTo(const void* data, unsigned int length, HvInetAddress address, unsigned int port);
    // One recvfrom(): the byte count with the sender's address and port (host
    // order) stored, or -1 with the outputs untouched.
    int receiveFrom(void* buffer, unsigned int length, HvInetAddress& address, unsigned int& port);
    // Bytes waiting, by a peek of at most 4 bytes: waits when nothing has
    // arrived. A failed peek writes "\nHvSocketImpl::available(): <text>" to
    // the error stream's debug stream at level 5 and gives 0.
    int available();

    // Throws HvSocketError "HvSocketImpl::setsockopt(...)" when TCP_NODELAY
    // cannot be set (a datagram socket refuses it).
    void setTcpNoDelay(bool on);

    // The peer; looked up with getRemoteInfo() while the cached port is 0.
    HvInetAddress getRemoteAddress();
    unsigned int getRemotePort();
    // getpeername(): the peer's address and port (host order). On failure
    // both are 0 and the descriptor is forgotten without being closed.
    void getRemoteInfo(HvInetAddress& address, unsigned int& port);

    // Sends the 7 bytes "UNBLOCK" to the socket's own local address and port,
    // so that a thread waiting in a receive on it returns. Nothing without a
    // descriptor.
    void sendLocalUnblockMessage();

    // Closes the descriptor, if one is held. A successful close leaves the
    // registry entry in place (it is replaced when the number is reused);
    // only a failed close removes it. While other threads are inside a call
    // on the descriptor, it is shut down at once (which makes their waits
    // return) and the last of them closes it.
    void close();

    // Writes the traffic banner and payload to the default error stream when
    // its level is above 5, a descriptor is held and length is not 0.
    void TCPlog(const char* transport, const char* direction, const void* data, unsigned int length);

    // TCP and UDP map to the network library's values; anything else to none.
    static std::optional<NetTransport> convertTransport(Transport transport);

    // The descriptor, -1 when none is held.
    int getDescriptor() const { return m_descriptor.load(std::memory_order_relaxed); }
    // Host byte order; 0 when unknown.
    unsigned int getLocalPort() const { return m_localPort.load(std::memory_order_relaxed); }
    HvInetAddress getLocalAddress() const;

    static void* operator new(std::size_t size);
    static void operator delete(void* p, std::size_t size);

protected:
    // Guards the lazy creation of what subclasses make once per socket.
    HvMutex* getMutex() const { return m_pMutex; }

    void setLocalPort(unsigned int port) { m_localPort.store(port, std::memory_order_relaxed); }
    void setLocalAddress(HvInetAddress address);
    void setRemote(HvInetAddress address, unsigned int port);

    // For constructors that fail after the descriptor was registered: takes
    // this object's entry out of the registry without letting the registry's
    // reference destroy an object that is still being constructed.
    void unregisterWhileConstructing();

private:
    // Applies sm_SO_SNDBUF and sm_SO_RCVBUF, ignoring failures.
    void applyBufferSizes(int descriptor);

    // Brackets a system call that may wait on the descriptor: beginCall()
    // gives the descriptor (-1 when none is held) and counts the caller in;
    // endCall() counts it out and carries out a close that came meanwhile.
    int beginCall();
    void endCall(int descriptor);
    // The system close and, when it fails, the removal of the entry.
    static void closeDescriptor(int descriptor);

    HvMutex* m_pMutex;
    // Read by other threads (shutdown closes every socket while its owner
    // may be sending or receiving), so these words are atomic.
    std::atomic<int> m_descriptor;
    std::atomic<unsigned int> m_localPort;
    std::atomic<unsigned int> m_localAddress;
    std::atomic<unsigned int> m_remotePort;
    std::atomic<unsigned int> m_remoteAddress;
    // Guarded by m_pMutex, held only for the bookkeeping, never across a
    // system call: threads inside a call on the descriptor, and the
    // descriptor whose close waits for them (-1 when none).
    unsigned int m_callers;
    int m_pendingClose;
};

#endif
