// Raw POSIX peers for socket tests, on the loopback interface only: a
// listening socket on an ephemeral port, connecting and accepting with
// time-outs, reading everything a peer sent, resetting a connection, UDP
// sockets, and the count of the process's open descriptors. The library's
// sockets are always tested against these, never against themselves, so
// that a fault cannot hide on both ends. Header-only.
#ifndef HVUTIL_TESTS_HVTESTSOCKETS_H
#define HVUTIL_TESTS_HVTESTSOCKETS_H

#include "HvTestIo.h"

#include <HvUtil/HvClientSocket.h>
#include <HvUtil/HvInetAddress.h>
#include <HvUtil/HvSocketFactory.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <string>
#include <vector>

namespace hvtest {

// Default time a raw peer waits for its socket to become ready.
constexpr int kPeerTimeoutMs = 10000;

// 127.0.0.1 as the library takes it.
inline HvInetAddress loopback()
{
    HvInetAddress address;
    address.setAddress(htonl(INADDR_LOOPBACK));
    return address;
}

inline sockaddr_in loopbackAddress(unsigned int port)
{
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<unsigned short>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// The port (host order) a descriptor is bound to, 0 when it cannot be read.
inline unsigned int localPortOf(int descriptor)
{
    sockaddr_in address;
    socklen_t length = sizeof address;
    if (getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return 0;
    return ntohs(address.sin_port);
}

// The peer's port (host order), 0 when there is none.
inline unsigned int peerPortOf(int descriptor)
{
    sockaddr_in address;
    socklen_t length = sizeof address;
    if (getpeername(descriptor, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return 0;
    return ntohs(address.sin_port);
}

// True while `descriptor` names an open file of this process.
inline bool isOpenDescriptor(int descriptor)
{
    return descriptor >= 0 && fcntl(descriptor, F_GETFD) != -1;
}

// Number of open descriptors of this process, from /proc/self/fd (the
// directory stream's own descriptor excluded).
inline int openDescriptorCount()
{
    DIR* directory = opendir("/proc/self/fd");
    if (!directory) {
        ADD_FAILURE() << "cannot list /proc/self/fd";
        return -1;
    }
    int count = 0;
    while (dirent* entry = readdir(directory)) {
        if (entry->d_name[0] != '.')
            ++count;
    }
    closedir(directory);
    return count - 1;
}

// Kernel id of the calling thread.
inline pid_t currentThreadId()
{
    return static_cast<pid_t>(syscall(SYS_gettid));
}

// True while thread `thread` of this process waits inside one of the given
// system calls (SYS_recvfrom, SYS_accept, ...), as /proc reports it.
inline bool isWaitingIn(pid_t thread, std::initializer_list<long> calls)
{
    std::ifstream state("/proc/self/task/" + std::to_string(thread) + "/syscall");
    std::string first;
    if (!(state >> first))
        return false;
    for (long call : calls) {
        if (first == std::to_string(call))
            return true;
    }
    return false;
}

// Waits until thread `thread` is inside one of the given system calls.
inline bool waitUntilWaitingIn(pid_t thread, std::initializer_list<long> calls, int timeoutMs = kPeerTimeoutMs)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!isWaitingIn(thread, calls)) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        poll(nullptr, 0, 1);
    }
    return true;
}

// Waits until `descriptor` is ready for `events`; false on time-out.
inline bool waitReady(int descriptor, short events, int timeoutMs = kPeerTimeoutMs)
{
    pollfd entry{descriptor, events, 0};
    return poll(&entry, 1, timeoutMs) == 1;
}

// Owns one descriptor; closes it when destroyed.
class Descriptor {
public:
    explicit Descriptor(int descriptor = -1) : m_descriptor(descriptor) {}
    ~Descriptor() { reset(); }
    Descriptor(Descriptor&& other) noexcept : m_descriptor(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        if (this != &other) {
            reset();
            m_descriptor = other.release();
        }
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return m_descriptor; }
    bool valid() const { return m_descriptor >= 0; }
    int release()
    {
        int descriptor = m_descriptor;
        m_descriptor = -1;
        return descriptor;
    }
    void reset()
    {
        if (m_descriptor >= 0)
            ::close(m_descriptor);
        m_descriptor = -1;
    }

private:
    int m_descriptor;
};

// A TCP socket listening on 127.0.0.1, on an ephemeral port unless one is given.
class RawListener {
public:
    explicit RawListener(unsigned int port = 0, int backlog = 64) : m_socket(socket(AF_INET, SOCK_STREAM, 0))
    {
        int on = 1;
        setsockopt(m_socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in address = loopbackAddress(port);
        if (::bind(m_socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(m_socket.get(), backlog) != 0)
            ADD_FAILURE() << "raw listener: " << std::strerror(errno);
        m_port = localPortOf(m_socket.get());
    }

    unsigned int port() const { return m_port; }
    int descriptor() const { return m_socket.get(); }

    // The next connection, or an invalid descriptor after the time-out.
    Descriptor accept(int timeoutMs = kPeerTimeoutMs)
    {
        if (!waitReady(m_socket.get(), POLLIN, timeoutMs))
            return Descriptor();
        return Descriptor(::accept(m_socket.get(), nullptr, nullptr));
    }

private:
    Descriptor m_socket;
    unsigned int m_port = 0;
};

// A TCP connection from a raw socket to 127.0.0.1:port (invalid on failure).
inline Descriptor rawConnect(unsigned int port)
{
    Descriptor connection(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address = loopbackAddress(port);
    if (::connect(connection.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        return Descriptor();
    return connection;
}

// A loopback port on which nothing listens: a connect to it is refused.
inline unsigned int closedPort()
{
    Descriptor probe(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address = loopbackAddress(0);
    ::bind(probe.get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
    return localPortOf(probe.get());
}

// A loopback UDP port nobody uses at the moment of the call.
inline unsigned int freeUdpPort()
{
    Descriptor probe(socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_in address = loopbackAddress(0);
    ::bind(probe.get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
    return localPortOf(probe.get());
}

// Reads until `count` bytes have come, the peer closes or the time-out passes.
inline std::string readExactly(int descriptor, std::size_t count, int timeoutMs = kPeerTimeoutMs)
{
    std::string result;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    char buffer[4096];
    while (result.size() < count) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !waitReady(descriptor, POLLIN, static_cast<int>(left.count())))
            break;
        std::size_t want = std::min(sizeof buffer, count - result.size());
        ssize_t got = ::recv(descriptor, buffer, want, 0);
        if (got <= 0)
            break;
        result.append(buffer, static_cast<std::size_t>(got));
    }
    return result;
}

// Everything the peer sends until it closes (or the time-out passes); `closed`
// tells whether the end was an orderly close.
inline std::string readAll(int descriptor, bool* closed = nullptr, int timeoutMs = kPeerTimeoutMs)
{
    std::string result;
    if (closed)
        *closed = false;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    char buffer[4096];
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !waitReady(descriptor, POLLIN, static_cast<int>(left.count())))
            break;
        ssize_t got = ::recv(descriptor, buffer, sizeof buffer, 0);
        if (got == 0 && closed)
            *closed = true;
        if (got <= 0)
            break;
        result.append(buffer, static_cast<std::size_t>(got));
    }
    return result;
}

// Closes the connection with a reset (RST) instead of an orderly close.
inline void resetConnection(Descriptor& connection)
{
    linger hard{1, 0};
    setsockopt(connection.get(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    connection.reset();
}

// A UDP socket bound to 127.0.0.1, on an ephemeral port unless one is given.
class RawUdpSocket {
public:
    explicit RawUdpSocket(unsigned int port = 0) : m_socket(socket(AF_INET, SOCK_DGRAM, 0))
    {
        sockaddr_in address = loopbackAddress(port);
        if (::bind(m_socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
            ADD_FAILURE() << "raw UDP socket: " << std::strerror(errno);
        m_port = localPortOf(m_socket.get());
    }

    unsigned int port() const { return m_port; }
    int descriptor() const { return m_socket.get(); }

    // Sends one datagram to 127.0.0.1:port.
    bool sendTo(unsigned int port, const std::string& data)
    {
        sockaddr_in address = loopbackAddress(port);
        return ::sendto(m_socket.get(), data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&address),
                        sizeof address) == static_cast<ssize_t>(data.size());
    }

    // One datagram, a zero-length one included, into `text`; false after the
    // time-out. `senderPort` gets its source port.
    bool receive(std::string& text, unsigned int* senderPort = nullptr, int timeoutMs = kPeerTimeoutMs)
    {
        if (!waitReady(m_socket.get(), POLLIN, timeoutMs))
            return false;
        // Room for the largest UDP payload, so nothing is ever cut here.
        std::vector<char> buffer(65536);
        sockaddr_in sender;
        socklen_t length = sizeof sender;
        ssize_t got = ::recvfrom(m_socket.get(), buffer.data(), buffer.size(), 0,
                                 reinterpret_cast<sockaddr*>(&sender), &length);
        if (got < 0)
            return false;
        text.assign(buffer.data(), static_cast<std::size_t>(got));
        if (senderPort)
            *senderPort = ntohs(sender.sin_port);
        return true;
    }

    // One datagram, or "" after the time-out; `senderPort` gets its source port.
    std::string receive(unsigned int* senderPort = nullptr, int timeoutMs = kPeerTimeoutMs)
    {
        std::string text;
        receive(text, senderPort, timeoutMs);
        return text;
    }

private:
    Descriptor m_socket;
    unsigned int m_port = 0;
};

// A client socket connected to a raw peer, and a stream of type `Stream`
// made on that socket. At the end the socket is closed and taken out of the
// registry, which otherwise keeps closed sockets until their number is reused.
template <class Stream>
struct StreamOnRawPeer {
    RawListener listener;
    HvHandle<HvClientSocket> socket;
    Descriptor peer;
    HvHandle<Stream> stream;
    int descriptor = -1;

    StreamOnRawPeer()
    {
        socket = new HvClientSocket(loopback(), listener.port(), HvInetAddress());
        peer = listener.accept();
        EXPECT_TRUE(peer.valid());
        descriptor = socket->getDescriptor();
        stream = new Stream(socket.get());
    }
    ~StreamOnRawPeer()
    {
        socket->close();
        if (HvSocketFactory::sFromHandle(descriptor).get() == socket.get())
            HvSocketFactory::sRemoveHandle(descriptor);
    }
};

} // namespace hvtest

#endif
