// A process made busy the way a loaded SIP stack is when it is told to stop:
// a hundred accepted TCP connections, each served by an observer thread over
// its HvBufferedInputStream with half a message buffered; a thousand timers
// pending far in the future; the stream input dispatcher's pool held in
// notifications with more queued behind; the stream output dispatcher stuck
// in a send to a peer that stopped reading, with more queued behind; the
// datagram input dispatcher fed by a receiving thread under a flood; the
// datagram output dispatcher with thousands of packets queued. Shared by the
// shutdown test and the shutdown benchmark, so both measure the same state.
// Header-only and free of GoogleTest: setUp() reports what went wrong as
// text, and the caller decides how to fail.
#ifndef HVUTIL_TESTS_HVBUSYPROCESS_H
#define HVUTIL_TESTS_HVBUSYPROCESS_H

#include "HvTestIo.h"

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvClientSocket.h>
#include <HvUtil/HvDatagramPacket.h>
#include <HvUtil/HvDatagramSocket.h>
#include <HvUtil/HvDispatcherThread.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvInetAddress.h>
#include <HvUtil/HvInputStream.h>
#include <HvUtil/HvMonitorThread.h>
#include <HvUtil/HvMutex.h>
#include <HvUtil/HvObservable.h>
#include <HvUtil/HvObserver.h>
#include <HvUtil/HvObserverThread.h>
#include <HvUtil/HvProcess.h>
#include <HvUtil/HvScheduler.h>
#include <HvUtil/HvServerSocket.h>
#include <HvUtil/HvSocketFactory.h>
#include <HvUtil/HvTCPEvent.h>
#include <HvUtil/HvTCPIDispatcher.h>
#include <HvUtil/HvTCPODispatcher.h>
#include <HvUtil/HvThread.h>
#include <HvUtil/HvTimerDispatcher.h>
#include <HvUtil/HvUDPEvent.h>
#include <HvUtil/HvUDPIDispatcher.h>
#include <HvUtil/HvUDPODispatcher.h>

#include <Velmora/MemAllocator.h>

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace hvbusy {

using TagCounts = std::vector<std::pair<std::string, Velmora::AllocationStats>>;

// ---------------------------------------------------------------- raw peers

inline HvInetAddress loopback()
{
    HvInetAddress address;
    address.setAddress(htonl(INADDR_LOOPBACK));
    return address;
}

inline sockaddr_in loopbackAddress(unsigned int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

// The port (host order) a descriptor is bound to; 0 when it cannot be read.
inline unsigned int localPortOf(int descriptor)
{
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (descriptor < 0 || getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return 0;
    return ntohs(address.sin_port);
}

// Open descriptors of this process, the directory stream's own excluded.
inline int openDescriptorCount()
{
    DIR* directory = opendir("/proc/self/fd");
    if (!directory)
        return -1;
    int count = 0;
    while (dirent* entry = readdir(directory))
        if (entry->d_name[0] != '.')
            ++count;
    closedir(directory);
    return count - 1;
}

// Kernel id of the calling thread.
inline pid_t currentThreadId()
{
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

// True while thread `thread` of this process is inside system call `call`.
inline bool isWaitingIn(pid_t thread, long call)
{
    std::ifstream state("/proc/self/task/" + std::to_string(thread) + "/syscall");
    long first = -1;
    return (state >> first) && first == call;
}

// Polls `condition` every millisecond until it holds or `limit` has passed.
template <class Condition>
bool waitUntil(Condition condition, std::chrono::milliseconds limit = std::chrono::milliseconds(20000))
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Bytes the kernel holds for `descriptor` that nobody has read yet; -1 when
// it cannot be asked.
inline int unreadBytes(int descriptor)
{
    int count = 0;
    return ::ioctl(descriptor, FIONREAD, &count) == 0 ? count : -1;
}

// Everything a peer sends until it closes or `timeoutMs` passes without
// data; `closed` tells whether the end was an orderly close.
inline std::string readUntilClosed(int descriptor, bool& closed, int timeoutMs = 10000)
{
    std::string text;
    closed = false;
    char buffer[4096];
    for (;;) {
        pollfd ready{descriptor, POLLIN, 0};
        if (::poll(&ready, 1, timeoutMs) != 1)
            return text;
        ssize_t got = ::recv(descriptor, buffer, sizeof buffer, 0);
        if (got == 0) {
            closed = true;
            return text;
        }
        if (got < 0)
            return text;
        text.append(buffer, static_cast<std::size_t>(got));
    }
}

// A raw TCP or UDP socket on 127.0.0.1, closed when destroyed.
class RawSocket {
public:
    explicit RawSocket(int type) : m_descriptor(::socket(AF_INET, type, 0))
    {
        sockaddr_in address = loopbackAddress(0);
        if (m_descriptor != -1 && ::bind(m_descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
            close();
    }
    ~RawSocket() { close(); }
    RawSocket(const RawSocket&) = delete;
    RawSocket& operator=(const RawSocket&) = delete;

    int get() const { return m_descriptor; }
    unsigned int port() const { return localPortOf(m_descriptor); }
    void close()
    {
        if (m_descriptor != -1)
            ::close(m_descriptor);
        m_descriptor = -1;
    }

private:
    int m_descriptor;
};

// ---------------------------------------------------------------- observers

// A thread whose body is a function; ends when the body returns.
class FunctionThread : public HvThread {
public:
    explicit FunctionThread(std::function<void(FunctionThread&)> body) : m_body(std::move(body)) {}
    void run() override { m_body(*this); }

private:
    std::function<void(FunctionThread&)> m_body;
};

// One accepted connection, served as the responder serves one: its own
// observer thread blocks in the buffered input stream, which frames whole
// messages and notifies them here.
class Connection : public HvObserver {
public:
    void onNotification(HvHandle<HvObservable>, HvHandle<HvObject> object) override
    {
        if (dynamic_cast<HvDatagramPacket*>(object.get())) {
            threadId.store(currentThreadId());
            packets.fetch_add(1);
        } else if (dynamic_cast<HvException*>(object.get())) {
            failures.fetch_add(1);
        }
    }

    HvHandle<HvClientSocket> socket;
    HvHandle<HvInputStream> input;
    HvHandle<HvObserverThread> thread;
    int peer = -1;
    std::atomic<pid_t> threadId{0};
    std::atomic<int> packets{0};
    std::atomic<int> failures{0};
};

// Holds the pool thread that notifies it until the shutdown has begun, the
// way a handler stuck in slow work holds it.
class HoldingObserver : public HvObserver {
public:
    void onNotification(HvHandle<HvObservable>, HvHandle<HvObject>) override
    {
        entered.fetch_add(1);
        while (!HvThread::sShuttingDown())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::atomic<int> entered{0};
};

class CountingObserver : public HvObserver {
public:
    void onNotification(HvHandle<HvObservable>, HvHandle<HvObject>) override { count.fetch_add(1); }
    std::atomic<int> count{0};
};

// ---------------------------------------------------------------- the process

// Makes the library objects that live until the process ends, whatever a
// shutdown does (the object mutex pool, the process object, the stream
// dispatchers of the singleton registry, the socket registry, the monitor
// thread), and gives the allocator counts once they exist: what a run makes
// beyond them must be given back by the shutdown and the release of the
// run's own handles.
inline TagCounts makeProcessWideObjects()
{
    HvMutex::sInitialize();
    HvProcess::sGetCurrent();
    HvTCPODispatcher::getInstance();
    HvTCPIDispatcher::getInstance();
    HvMonitorThread::sGetCurrent();
    {
        HvHandle<HvDatagramSocket> first(new HvDatagramSocket(0, loopback(), false, 1));
        const int descriptor = first->getDescriptor();
        if (descriptor != -1 && HvSocketFactory::sFromHandle(descriptor).get() == first.get())
            HvSocketFactory::sRemoveHandle(descriptor);
        first->close();
    }
    return Velmora::allAllocationStats();
}

// Tags whose live count differs from `before`, as "tag before->now" lines;
// empty when every tag is back.
inline std::string allocationChanges(const TagCounts& before)
{
    std::map<std::string, long> start;
    for (const auto& entry : before)
        start[entry.first] = entry.second.liveCount;
    std::string changes;
    for (const auto& entry : Velmora::allAllocationStats()) {
        auto found = start.find(entry.first);
        const long was = found == start.end() ? 0 : found->second;
        if (entry.second.liveCount != was)
            changes += entry.first + " " + std::to_string(was) + "->" + std::to_string(entry.second.liveCount) + "\n";
    }
    return changes;
}

class BusyProcess {
public:
    static constexpr int kConnections = 100;
    static constexpr int kTimers = 1000;
    // Far enough ahead that none falls due while a slow build sets up.
    static constexpr unsigned int kTimerDelayMs = 600000;
    // More held notifications than the stream input pool has workers: the
    // pool's ten and the dispatcher itself are held, the rest stay queued.
    static constexpr int kStreamInputEvents = 20;
    static constexpr int kHeldStreamInputNotifications = HvTCPIDispatcher::kPoolThreads + 1;
    // The stream output dispatcher is stuck in this array, a peer that reads
    // nothing takes only what the socket buffers hold...
    static constexpr unsigned int kStuckSendBytes = 8u * 1024u * 1024u;
    // ...and this many sends wait behind it.
    static constexpr int kQueuedStreamSends = 100;
    static constexpr int kQueuedDatagrams = 4000;
    static constexpr std::size_t kFloodDatagramBytes = 512;

    BusyProcess() = default;
    ~BusyProcess() { stopFlood(); }
    BusyProcess(const BusyProcess&) = delete;
    BusyProcess& operator=(const BusyProcess&) = delete;

    // Builds the busy state and waits (bounded) until every part of it is at
    // work. False, with the reason in `failure`, when a part did not get there.
    bool setUp(std::string& failure)
    {
        try {
            return connect(failure) && scheduleTimers(failure) && occupyStreamOutput(failure) &&
                   occupyStreamInput(failure) && occupyDatagramInput(failure) && occupyDatagramOutput(failure);
        } catch (HvHandle<HvException>& e) {
            failure = std::string("set-up threw: ") + (e.isNull() ? "?" : e->getMessage().c_str());
            return false;
        }
    }

    // Runs the library's orderly shutdown on the calling thread; how long it
    // took, in seconds on the steady clock. Stops the flood afterwards.
    double shutdown()
    {
        const auto start = std::chrono::steady_clock::now();
        HvThread::sShutdown();
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        stopFlood();
        return seconds;
    }

    // After the shutdown: detaches the observers, drops every handle of the
    // set-up and closes the raw peers. The stream dispatchers live on in the
    // singleton registry, and the events still queued to them (the sends
    // behind the stuck one, the notifications behind the held ones) would go
    // only with them at exit; with their threads ended, they are taken out
    // and deleted here instead. Returns how many were, per dispatcher.
    struct Leftovers {
        int streamSends = 0;
        int streamNotifications = 0;
    };
    Leftovers release()
    {
        for (const HvHandle<Connection>& connection : m_connections) {
            if (!connection->input.isNull())
                connection->input->detachObserver(HvHandle<HvObserver>(connection.get()));
            if (connection->peer != -1)
                ::close(connection->peer);
            connection->peer = -1;
        }
        for (const HvHandle<HoldingObserver>& holder : m_holders)
            holder->detach();
        if (!m_received.isNull())
            m_received->detach();
        if (!m_timerObserver.isNull())
            m_timerObserver->detach();
        m_connections.clear();
        m_holders.clear();
        m_sources.clear();
        m_listener = HvHandle<HvServerSocket>();
        m_sending = HvHandle<HvClientSocket>();
        m_stuckArray = HvHandle<HvByteArray>();
        m_receiving = HvHandle<HvDatagramSocket>();
        m_receiver = HvHandle<FunctionThread>();
        m_received = HvHandle<CountingObserver>();
        m_timerObserver = HvHandle<CountingObserver>();
        m_stalledPeer.reset();
        m_stalledListener.reset();
        m_sink.reset();
        Leftovers left;
        left.streamSends = drainEnded(HvTCPODispatcher::sFind());
        left.streamNotifications = drainEnded(HvTCPIDispatcher::sFind());
        return left;
    }

    const std::vector<HvHandle<Connection>>& connections() const { return m_connections; }
    HvServerSocket* listener() const { return m_listener.get(); }
    HvClientSocket* sendingSocket() const { return m_sending.get(); }
    HvDatagramSocket* receivingSocket() const { return m_receiving.get(); }
    HvThread* receiver() const { return m_receiver.get(); }
    HvByteArray* stuckArray() const { return m_stuckArray.get(); }
    // The raw peer of the stream output dispatcher's socket.
    int stalledPeer() const { return m_stalledPeer ? m_stalledPeer->get() : -1; }
    // Stream input notifications that reached their observer so far.
    int streamNotificationsEntered() const
    {
        int entered = 0;
        for (const HvHandle<HoldingObserver>& holder : m_holders)
            entered += holder->entered.load();
        return entered;
    }
    int floodDatagramsReceived() const { return m_received.isNull() ? 0 : m_received->count.load(); }
    unsigned int timersPendingAtSetUp() const { return m_timersPending; }

private:
    bool connect(std::string& failure)
    {
        m_listener = new HvServerSocket(0, loopback(), kConnections + 8);
        const unsigned int port = localPortOf(m_listener->getDescriptor());
        for (int index = 0; index < kConnections; ++index) {
            HvHandle<Connection> connection(new Connection);
            connection->peer = ::socket(AF_INET, SOCK_STREAM, 0);
            sockaddr_in address = loopbackAddress(port);
            if (connection->peer == -1 ||
                ::connect(connection->peer, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
                failure = "raw connect " + std::to_string(index) + " failed";
                return false;
            }
            m_connections.push_back(connection);
            connection->socket = m_listener->accept();
            if (connection->socket->getDescriptor() == -1) {
                failure = "accept " + std::to_string(index) + " failed";
                return false;
            }
            connection->input = connection->socket->getInputStream();
            connection->input->attachObserver(HvHandle<HvObserver>(connection.get()));
            connection->thread = HvMonitorThread::monitorObservable(connection->input.get());
            // One whole message, so the framing is seen at work, then the
            // start of the next: headers without their end on even
            // connections, a body shorter than its Content-Length on odd ones.
            const std::string tag = std::to_string(index);
            std::string bytes = "OPTIONS sip:busy@127.0.0.1 SIP/2.0\r\nCall-ID: whole-" + tag +
                                "\r\nContent-Length: 0\r\n\r\n";
            if (index % 2 == 0)
                bytes += "INVITE sip:busy@127.0.0.1 SIP/2.0\r\nCall-ID: headers-" + tag + "\r\nCSeq: 1 INV";
            else
                bytes += "MESSAGE sip:busy@127.0.0.1 SIP/2.0\r\nCall-ID: body-" + tag +
                         "\r\nContent-Length: 100\r\n\r\nonly part of the body";
            if (!hvtest::sendAll(connection->peer, bytes)) {
                failure = "peer " + tag + " could not send";
                return false;
            }
        }
        // Each thread framed the whole message, took in the partial one and
        // waits in the socket for the rest.
        for (std::size_t index = 0; index < m_connections.size(); ++index) {
            Connection& connection = *m_connections[index];
            const int descriptor = connection.socket->getDescriptor();
            if (!waitUntil([&] {
                    return connection.packets.load() == 1 && unreadBytes(descriptor) == 0 &&
                           isWaitingIn(connection.threadId.load(), SYS_recvfrom);
                })) {
                failure = "connection " + std::to_string(index) + " did not buffer its partial message (packets " +
                          std::to_string(connection.packets.load()) + ", unread " +
                          std::to_string(unreadBytes(descriptor)) + ")";
                return false;
            }
        }
        return true;
    }

    bool scheduleTimers(std::string& failure)
    {
        HvMonitorThread* monitor = HvMonitorThread::sGetCurrent();
        HvScheduler& scheduler = monitor->getScheduler();
        m_timerObserver = new CountingObserver;
        // One timer goes through first, so that the timer dispatcher and a
        // worker of its pool exist and have a queue to be woken.
        scheduler.schedule(0, m_timerObserver.get(), nullptr);
        if (!waitUntil([&] { return m_timerObserver->count.load() == 1; })) {
            failure = "the first timer did not fire";
            return false;
        }
        for (int index = 0; index < kTimers; ++index)
            scheduler.schedule(kTimerDelayMs + static_cast<unsigned int>(index), m_timerObserver.get(),
                               HvByteArray::sCreate(16, nullptr).get());
        m_timersPending = scheduler.getSize();
        if (m_timersPending != static_cast<unsigned int>(kTimers)) {
            failure = "scheduler holds " + std::to_string(m_timersPending) + " timers";
            return false;
        }
        if (!waitUntil([&] { return monitor->getState() == HvThread::BLOCKED; })) {
            failure = "the monitor does not sleep";
            return false;
        }
        return true;
    }

    bool occupyStreamOutput(std::string& failure)
    {
        m_stalledListener.reset(new RawSocket(SOCK_STREAM));
        if (::listen(m_stalledListener->get(), 4) != 0) {
            failure = "raw listen failed";
            return false;
        }
        m_sending = new HvClientSocket(loopback(), m_stalledListener->port(), HvInetAddress());
        const int accepted = ::accept(m_stalledListener->get(), nullptr, nullptr);
        if (accepted == -1) {
            failure = "raw accept failed";
            return false;
        }
        m_stalledPeer.reset(new Adopted(accepted));
        m_stuckArray = HvByteArray::sCreate(kStuckSendBytes, nullptr);
        HvHandle<HvByteArray> behind = HvByteArray::sCreate("behind");
        HvTCPODispatcher* dispatcher = HvTCPODispatcher::getInstance();
        dispatcher->getEventQueue()->addItem(new HvTCPEvent(m_sending.get(), m_stuckArray.get()));
        for (int index = 0; index < kQueuedStreamSends; ++index)
            dispatcher->getEventQueue()->addItem(new HvTCPEvent(m_sending.get(), behind.get()));
        // The dispatcher took the large array (it holds the event) and the
        // rest waits in its queue.
        if (!waitUntil([&] {
                return m_stuckArray->getRefCount() > 1 && dispatcher->getEventQueue()->getSize() ==
                                                               static_cast<unsigned int>(kQueuedStreamSends);
            })) {
            failure = "the stream output dispatcher did not take the large send";
            return false;
        }
        return true;
    }

    bool occupyStreamInput(std::string& failure)
    {
        HvTCPIDispatcher* dispatcher = HvTCPIDispatcher::getInstance();
        for (int index = 0; index < kStreamInputEvents; ++index) {
            m_sources.push_back(HvHandle<HvObservable>(new HvObservable));
            m_holders.push_back(HvHandle<HoldingObserver>(new HoldingObserver));
            m_sources.back()->attachObserver(m_holders.back().get());
            dispatcher->getEventQueue()->addItem(new HvTCPEvent(m_sources.back().get(), nullptr));
        }
        int entered = 0;
        if (!waitUntil([&] {
                entered = streamNotificationsEntered();
                return entered == kHeldStreamInputNotifications;
            })) {
            failure = "stream input notifications held: " + std::to_string(entered);
            return false;
        }
        return true;
    }

    bool occupyDatagramInput(std::string& failure)
    {
        m_receiving = new HvDatagramSocket(0, loopback(), false, 2048);
        m_received = new CountingObserver;
        m_receiving->attachObserver(m_received.get());
        HvUDPIDispatcher::getInstance();
        HvDatagramSocket* receiving = m_receiving.get();
        m_receiver = new FunctionThread([receiving](FunctionThread& self) {
            while (self.getState() != HvThread::EXITING && receiving->block()) {
            }
        });
        m_receiver->fork();
        const unsigned int port = localPortOf(m_receiving->getDescriptor());
        m_flooding.store(true);
        m_flooder = std::thread([this, port] {
            RawSocket sender(SOCK_DGRAM);
            const std::string datagram(kFloodDatagramBytes, 'f');
            const sockaddr_in to = loopbackAddress(port);
            while (m_flooding.load(std::memory_order_relaxed))
                ::sendto(sender.get(), datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&to),
                         sizeof to);
        });
        if (!waitUntil([&] { return m_received->count.load() > 10; })) {
            failure = "the datagram input dispatcher delivered nothing";
            return false;
        }
        return true;
    }

    bool occupyDatagramOutput(std::string& failure)
    {
        m_sink.reset(new RawSocket(SOCK_DGRAM));
        HvUDPODispatcher::getInstance();
        for (int index = 0; index < kQueuedDatagrams; ++index) {
            HvHandle<HvByteArray> bytes = HvByteArray::sCreate(256, nullptr);
            HvUDPODispatcher::sAddEvent(
                new HvUDPEvent(nullptr, new HvDatagramPacket(bytes.get(), 0, 0, loopback(), m_sink->port())));
        }
        pollfd ready{m_sink->get(), POLLIN, 0};
        if (::poll(&ready, 1, 20000) != 1) {
            failure = "the datagram output dispatcher sent nothing";
            return false;
        }
        return true;
    }

    void stopFlood()
    {
        m_flooding.store(false);
        if (m_flooder.joinable())
            m_flooder.join();
    }

    // Deletes the events left in the queue of a dispatcher whose thread has
    // ended (it alone took from that queue, so nobody else does now).
    static int drainEnded(HvDispatcherThread* dispatcher)
    {
        if (!dispatcher || dispatcher->getState() != HvThread::DETACHED)
            return 0;
        int drained = 0;
        HvEventQueue* queue = dispatcher->getEventQueue();
        while (queue->getSize() > 0) {
            std::unique_ptr<HvBaseEvent> event(queue->getItem());
            if (!event)
                break;
            ++drained;
        }
        return drained;
    }

    // An accepted raw descriptor, closed when destroyed.
    class Adopted {
    public:
        explicit Adopted(int descriptor) : m_descriptor(descriptor) {}
        ~Adopted() { ::close(m_descriptor); }
        Adopted(const Adopted&) = delete;
        Adopted& operator=(const Adopted&) = delete;
        int get() const { return m_descriptor; }

    private:
        int m_descriptor;
    };

    HvHandle<HvServerSocket> m_listener;
    std::vector<HvHandle<Connection>> m_connections;
    HvHandle<CountingObserver> m_timerObserver;
    unsigned int m_timersPending = 0;
    std::unique_ptr<RawSocket> m_stalledListener;
    std::unique_ptr<Adopted> m_stalledPeer;
    HvHandle<HvClientSocket> m_sending;
    HvHandle<HvByteArray> m_stuckArray;
    std::vector<HvHandle<HvObservable>> m_sources;
    std::vector<HvHandle<HoldingObserver>> m_holders;
    HvHandle<HvDatagramSocket> m_receiving;
    HvHandle<CountingObserver> m_received;
    HvHandle<FunctionThread> m_receiver;
    std::atomic<bool> m_flooding{false};
    std::thread m_flooder;
    std::unique_ptr<RawSocket> m_sink;
};

} // namespace hvbusy

#endif
