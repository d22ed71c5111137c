// The road a SIP message travels, measured on loopback next to plain POSIX
// sockets doing the same work:
//   - TCP output: byte arrays queued to the TCP output dispatcher and written
//     to a connection, against a send() loop on a raw socket;
//   - UDP round trip: a datagram received by HvDatagramSocket, handed through
//     the UDP input dispatcher's pool to an observer, answered through the UDP
//     output dispatcher, against a recvfrom()/sendto() echo thread;
//   - connection setup and teardown: connect, accept and close, against the
//     same calls on raw sockets.
// Both sides of each pair talk to the same kind of raw peer.
//
// Naming: BM_<Case>_Hv... measures this library, BM_<Case>_StdRaw... the anchor.
#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvClientSocket.h>
#include <HvUtil/HvDatagramPacket.h>
#include <HvUtil/HvDatagramSocket.h>
#include <HvUtil/HvInetAddress.h>
#include <HvUtil/HvServerSocket.h>
#include <HvUtil/HvTCPEvent.h>
#include <HvUtil/HvTCPODispatcher.h>
#include <HvUtil/HvThread.h>
#include <HvUtil/HvUDPEvent.h>
#include <HvUtil/HvUDPIDispatcher.h>
#include <HvUtil/HvUDPODispatcher.h>

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace {

// Same buffer sizes as the library gives its sockets, so the anchors do not
// win by buffering differently.
constexpr int kSocketBuffer = 245760;

HvInetAddress loopback()
{
    HvInetAddress address;
    address.setAddress(htonl(INADDR_LOOPBACK));
    return address;
}

[[noreturn]] void die(const char* what)
{
    std::perror(what);
    std::abort();
}

void setBuffers(int fd)
{
    int size = kSocketBuffer;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
}

unsigned int boundPort(int fd)
{
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        die("getsockname");
    return ntohs(address.sin_port);
}

sockaddr_in loopbackAddress(unsigned int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

int rawSocket(int type, unsigned int port)
{
    int fd = socket(AF_INET, type, 0);
    if (fd < 0)
        die("socket");
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setBuffers(fd);
    sockaddr_in address = loopbackAddress(port);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        die("bind");
    return fd;
}

int rawConnect(unsigned int port)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0)
        die("socket");
    setBuffers(fd);
    sockaddr_in address = loopbackAddress(port);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        die("connect");
    int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return fd;
}

// A count that one thread raises and another waits on, asleep: a waiting
// thread that spun would take a core from the threads under measurement,
// and this machine may have only two.
class Progress {
public:
    void add(std::uint64_t amount)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_count += amount;
        if (m_count >= m_target)
            m_reached.notify_one();
    }
    // Waits until the count reaches `target`; aborts the run after 30 s.
    void awaitAtLeast(std::uint64_t target, const char* what)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_target = target;
        if (!m_reached.wait_for(lock, std::chrono::seconds(30), [&] { return m_count >= target; })) {
            std::fprintf(stderr, "timed out waiting for %s\n", what);
            std::abort();
        }
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_reached;
    std::uint64_t m_count = 0;
    std::uint64_t m_target = ~std::uint64_t(0);
};

// ---------------------------------------------------------------------------
// TCP output

// Accepts one connection and reads everything from it, counting bytes.
class Drain {
public:
    Drain() : m_listener(rawSocket(SOCK_STREAM, 0))
    {
        if (listen(m_listener, 16) != 0)
            die("listen");
        m_thread = std::thread([this] { run(); });
    }
    ~Drain()
    {
        m_thread.join();
        ::close(m_listener);
    }
    unsigned int port() const { return boundPort(m_listener); }
    void awaitReceived(std::uint64_t bytes) { m_received.awaitAtLeast(bytes, "the receiver"); }

private:
    void run()
    {
        int fd = accept(m_listener, nullptr, nullptr);
        if (fd < 0)
            die("accept");
        setBuffers(fd);
        std::vector<char> buffer(1 << 18);
        for (;;) {
            ssize_t got = recv(fd, buffer.data(), buffer.size(), 0);
            if (got <= 0)
                break;
            m_received.add(static_cast<std::uint64_t>(got));
        }
        ::close(fd);
    }

    int m_listener;
    Progress m_received;
    std::thread m_thread;
};

// Arrays written per iteration: enough that queueing and draining overlap.
constexpr int kArraysPerBatch = 64;

void BM_TcpOutput_HvDispatcher(benchmark::State& state)
{
    const unsigned int size = static_cast<unsigned int>(state.range(0));
    Drain drain;
    HvHandle<HvClientSocket> socket(new HvClientSocket(loopback(), drain.port(), HvInetAddress()));
    HvHandle<HvByteArray> array = HvByteArray::sCreate(size, std::string(size, 'x').data());
    HvEventQueue* queue = HvTCPODispatcher::getInstance()->getEventQueue();
    std::uint64_t sent = 0;
    for (auto _ : state) {
        for (int i = 0; i < kArraysPerBatch; ++i)
            queue->addItem(new HvTCPEvent(socket.get(), array.get()));
        sent += std::uint64_t(size) * kArraysPerBatch;
        drain.awaitReceived(sent);
    }
    state.SetBytesProcessed(static_cast<int64_t>(sent));
    socket->close();
}
BENCHMARK(BM_TcpOutput_HvDispatcher)->Arg(4096)->Arg(65536)->UseRealTime();

void BM_TcpOutput_StdRawSendLoop(benchmark::State& state)
{
    const unsigned int size = static_cast<unsigned int>(state.range(0));
    Drain drain;
    int fd = rawConnect(drain.port());
    std::string array(size, 'x');
    std::uint64_t sent = 0;
    for (auto _ : state) {
        for (int i = 0; i < kArraysPerBatch; ++i) {
            unsigned int offset = 0;
            while (offset < size) {
                ssize_t n = send(fd, array.data() + offset, size - offset, 0);
                if (n < 0)
                    die("send");
                offset += static_cast<unsigned int>(n);
            }
        }
        sent += std::uint64_t(size) * kArraysPerBatch;
        drain.awaitReceived(sent);
    }
    state.SetBytesProcessed(static_cast<int64_t>(sent));
    ::close(fd);
}
BENCHMARK(BM_TcpOutput_StdRawSendLoop)->Arg(4096)->Arg(65536)->UseRealTime();

// ---------------------------------------------------------------------------
// UDP round trip

// Answers every packet it is handed with the same bytes, through the UDP
// output dispatcher, to the sender.
class Echo : public HvObserver {
public:
    void onNotification(HvHandle<HvObservable>, HvHandle<HvObject> object) override
    {
        HvDatagramPacket* packet = dynamic_cast<HvDatagramPacket*>(object.get());
        if (!packet)
            return;
        HvHandle<HvDatagramPacket> reply(new HvDatagramPacket(packet->getData().get(), packet->getOffset(),
                                                              packet->getLength(), packet->getAddress(),
                                                              packet->getPort(), HvInetAddress(), 0));
        HvUDPODispatcher::sAddEvent(new HvUDPEvent(this, reply.get()));
    }
};

// The library's UDP server: a datagram socket whose block() a receiving
// thread calls in a loop, feeding the UDP input dispatcher.
class HvEchoServer {
public:
    HvEchoServer()
        : m_socket(new HvDatagramSocket(0, loopback(), false, 65536)), m_echo(new Echo)
    {
        m_socket->attachObserver(m_echo);
        m_port = boundPort(m_socket->getDescriptor());
        m_thread = std::thread([this] {
            while (!m_stop.load(std::memory_order_acquire))
                m_socket->block();
        });
    }
    ~HvEchoServer()
    {
        m_stop.store(true, std::memory_order_release);
        // One more datagram wakes the receiving thread.
        int fd = rawSocket(SOCK_DGRAM, 0);
        sockaddr_in address = loopbackAddress(m_port);
        sendto(fd, "x", 1, 0, reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::close(fd);
        m_thread.join();
        m_socket->detachObserver(m_echo);
        m_socket->close();
    }
    unsigned int port() const { return m_port; }

private:
    HvHandle<HvDatagramSocket> m_socket;
    HvHandle<Echo> m_echo;
    unsigned int m_port = 0;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

// The anchor: recvfrom() and sendto() on one thread.
class RawEchoServer {
public:
    RawEchoServer() : m_fd(rawSocket(SOCK_DGRAM, 0))
    {
        m_thread = std::thread([this] {
            char buffer[65536];
            for (;;) {
                sockaddr_in peer{};
                socklen_t length = sizeof peer;
                ssize_t got = recvfrom(m_fd, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&peer), &length);
                if (got < 0 || m_stop.load(std::memory_order_acquire))
                    break;
                sendto(m_fd, buffer, static_cast<size_t>(got), 0, reinterpret_cast<sockaddr*>(&peer), length);
            }
        });
    }
    ~RawEchoServer()
    {
        m_stop.store(true, std::memory_order_release);
        shutdown(m_fd, SHUT_RDWR);
        int fd = rawSocket(SOCK_DGRAM, 0);
        sockaddr_in address = loopbackAddress(port());
        sendto(fd, "x", 1, 0, reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::close(fd);
        m_thread.join();
        ::close(m_fd);
    }
    unsigned int port() const { return boundPort(m_fd); }

private:
    int m_fd;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

// Sends `inFlight` datagrams of SIP-request size, then collects as many
// answers; a datagram lost on the way is counted, not waited for.
template <class Server>
void udpRoundTrips(benchmark::State& state, Server& server)
{
    const int inFlight = static_cast<int>(state.range(0));
    int fd = rawSocket(SOCK_DGRAM, 0);
    sockaddr_in address = loopbackAddress(server.port());
    std::string request(500, 'r');
    char reply[65536];
    int64_t answered = 0;
    int64_t lost = 0;
    for (auto _ : state) {
        for (int i = 0; i < inFlight; ++i)
            sendto(fd, request.data(), request.size(), 0, reinterpret_cast<sockaddr*>(&address), sizeof address);
        for (int i = 0; i < inFlight; ++i) {
            pollfd ready{fd, POLLIN, 0};
            if (poll(&ready, 1, 1000) != 1) {
                lost += inFlight - i;
                break;
            }
            if (recv(fd, reply, sizeof reply, 0) > 0)
                ++answered;
        }
    }
    state.SetItemsProcessed(answered);
    state.counters["lost"] = static_cast<double>(lost);
    ::close(fd);
}

void BM_UdpRoundTrip_HvDispatchers(benchmark::State& state)
{
    HvEchoServer server;
    udpRoundTrips(state, server);
}
BENCHMARK(BM_UdpRoundTrip_HvDispatchers)->Arg(1)->Arg(32)->UseRealTime();

void BM_UdpRoundTrip_StdRawEcho(benchmark::State& state)
{
    RawEchoServer server;
    udpRoundTrips(state, server);
}
BENCHMARK(BM_UdpRoundTrip_StdRawEcho)->Arg(1)->Arg(32)->UseRealTime();

// ---------------------------------------------------------------------------
// Connection setup and teardown

// One iteration: connect; the accepting thread accepts and closes; the
// client closes once the server side has closed.
void BM_ConnectAcceptClose_Hv(benchmark::State& state)
{
    HvHandle<HvServerSocket> server(new HvServerSocket(0, loopback(), 128));
    unsigned int port = boundPort(server->getDescriptor());
    Progress accepted;
    std::atomic<bool> stop{false};
    std::thread acceptor([&] {
        while (!stop.load(std::memory_order_acquire)) {
            HvHandle<HvClientSocket> connection = server->accept();
            connection->close();
            accepted.add(1);
        }
    });
    int64_t connected = 0;
    for (auto _ : state) {
        HvHandle<HvClientSocket> client(new HvClientSocket(loopback(), port, HvInetAddress()));
        ++connected;
        accepted.awaitAtLeast(static_cast<std::uint64_t>(connected), "accept");
        client->close();
    }
    stop.store(true, std::memory_order_release);
    HvHandle<HvClientSocket> last(new HvClientSocket(loopback(), port, HvInetAddress()));
    acceptor.join();
    last->close();
    server->close();
    state.SetItemsProcessed(connected);
}
BENCHMARK(BM_ConnectAcceptClose_Hv)->UseRealTime();

void BM_ConnectAcceptClose_StdRaw(benchmark::State& state)
{
    int listener = rawSocket(SOCK_STREAM, 0);
    if (listen(listener, 128) != 0)
        die("listen");
    unsigned int port = boundPort(listener);
    Progress accepted;
    std::atomic<bool> stop{false};
    std::thread acceptor([&] {
        while (!stop.load(std::memory_order_acquire)) {
            int fd = accept(listener, nullptr, nullptr);
            if (fd < 0)
                die("accept");
            setBuffers(fd);
            int on = 1;
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            ::close(fd);
            accepted.add(1);
        }
    });
    int64_t connected = 0;
    for (auto _ : state) {
        int fd = rawConnect(port);
        ++connected;
        accepted.awaitAtLeast(static_cast<std::uint64_t>(connected), "accept");
        ::close(fd);
    }
    stop.store(true, std::memory_order_release);
    int last = rawConnect(port);
    acceptor.join();
    ::close(last);
    ::close(listener);
    state.SetItemsProcessed(connected);
}
BENCHMARK(BM_ConnectAcceptClose_StdRaw)->UseRealTime();

// Threads of the library are created with inherited scheduling here, so the
// benchmark needs no real-time privileges.
const bool fs_inheritScheduling = [] {
    HvThread::sm_bRealTimeScheduling = false;
    return true;
}();

} // namespace
