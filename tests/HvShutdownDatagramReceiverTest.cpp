// Shutdown while threads wait in HvDatagramSocket::block(): the "UNBLOCK"
// datagram (or the closing of the socket) releases each receiver, nothing is
// queued any more, and the shutdown completes in bounded time.
#include <HvUtil/HvDatagramSocket.h>

#include <HvUtil/HvThread.h>
#include <HvUtil/HvUDPIDispatcher.h>

#include <Velmora/LogCapture.h>

#include <tests/support/HvTestSockets.h>
#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <vector>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

class Collector : public HvObserver {
public:
    void onNotification(HvHandle<HvObservable>, HvHandle<HvObject> object) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_objects.push_back(object);
    }
    std::size_t count()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_objects.size();
    }

private:
    std::mutex m_mutex;
    std::vector<HvHandle<HvObject>> m_objects;
};

// True when the kernel reports the thread as sleeping (state S).
bool isSleeping(pid_t thread)
{
    std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    std::string::size_type end = text.rfind(')');
    return end != std::string::npos && end + 2 < text.size() && text[end + 2] == 'S';
}

// A thread that serves one socket the way an observer thread does: block()
// again and again while it returns true and the thread is not terminated.
struct Receiver {
    HvHandle<HvDatagramSocket> socket;
    HvHandle<Collector> collector;
    HvHandle<hvtest::LambdaThread> thread;
    std::atomic<pid_t> id{0};
    std::atomic<int> blocks{0};

    explicit Receiver(HvDatagramSocket* datagramSocket) : socket(datagramSocket), collector(new Collector)
    {
        socket->attachObserver(collector.get());
        thread = HvHandle<hvtest::LambdaThread>(new hvtest::LambdaThread([this](hvtest::LambdaThread& self) {
            id = static_cast<pid_t>(syscall(SYS_gettid));
            while (self.getState() != HvThread::EXITING && socket->block())
                blocks.fetch_add(1);
        }));
        thread->fork();
    }
};

int countOf(const std::vector<std::string>& messages, const std::string& text)
{
    int count = 0;
    for (const std::string& message : messages)
        count += message == text ? 1 : 0;
    return count;
}

} // namespace

TEST(HvShutdownDatagramReceiver, ReceiversBlockedInBlockAreReleasedAndShutdownCompletes)
{
    hvtest::RawUdpSocket peer;
    // On 127.0.0.1 with its port, on any address with its port, and on any
    // address with port 0: the last one's "UNBLOCK" cannot reach it (its
    // local port is kept as 0), only the closing of its socket can.
    Receiver loopbackReceiver(new HvDatagramSocket(hvtest::freeUdpPort(), hvtest::loopback(), false, 1024));
    Receiver anyReceiver(new HvDatagramSocket(hvtest::freeUdpPort(), HvInetAddress(), false, 1024));
    Receiver portZeroReceiver(new HvDatagramSocket(0, HvInetAddress(), false, 1024));

    // Each serves datagrams until the shutdown.
    ASSERT_TRUE(peer.sendTo(loopbackReceiver.socket->getLocalPort(), "one"));
    ASSERT_TRUE(peer.sendTo(anyReceiver.socket->getLocalPort(), "two"));
    ASSERT_TRUE(peer.sendTo(hvtest::localPortOf(portZeroReceiver.socket->getDescriptor()), "three"));
    for (Receiver* receiver : {&loopbackReceiver, &anyReceiver, &portZeroReceiver}) {
        ASSERT_TRUE(hvtest::waitUntil([&] { return receiver->collector->count() == 1; }));
        ASSERT_TRUE(hvtest::waitUntil([&] { return receiver->id.load() != 0 && isSleeping(receiver->id.load()); }));
    }

    Velmora::LogCapture log("ferrowind.hv.HvDatagramSocket");
    const auto start = std::chrono::steady_clock::now();
    HvThread::sShutdown();
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_LT(elapsed, std::chrono::seconds(20));

    EXPECT_TRUE(HvThread::sIsShutdownCompleted());
    EXPECT_EQ(0u, HvThread::sGetThreadCount());
    for (Receiver* receiver : {&loopbackReceiver, &anyReceiver, &portZeroReceiver}) {
        EXPECT_TRUE(hvtest::hasEnded(receiver->thread.get()));
        // The datagram served before, then the wake-up.
        EXPECT_EQ(2, receiver->blocks.load());
        EXPECT_EQ(-1, receiver->socket->getDescriptor());
        // What woke the receiver was not queued.
        EXPECT_EQ(1u, receiver->collector->count());
    }
    EXPECT_EQ(3, countOf(log.messages(), "Not adding an event because shutting down"));
    // The input dispatcher has ended with the rest and forgotten itself.
    EXPECT_EQ(nullptr, HvUDPIDispatcher::getUDPEventQueue());

    for (Receiver* receiver : {&loopbackReceiver, &anyReceiver, &portZeroReceiver})
        receiver->collector->detach();
}
