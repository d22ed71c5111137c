// Shutdown with all four network dispatchers running and busy: the stream
// output dispatcher blocked in a send to a peer that reads slowly, the
// stream input dispatcher and its pool held in notifications, the datagram
// input dispatcher fed by a receiving thread under a flood of datagrams, and
// the datagram output dispatcher with thousands of packets queued. Every one
// of them ends and the shutdown completes in bounded time.
#include <HvUtil/HvDispatcherThread.h>

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvClientSocket.h>
#include <HvUtil/HvDatagramPacket.h>
#include <HvUtil/HvDatagramSocket.h>
#include <HvUtil/HvObservable.h>
#include <HvUtil/HvTCPEvent.h>
#include <HvUtil/HvTCPIDispatcher.h>
#include <HvUtil/HvTCPODispatcher.h>
#include <HvUtil/HvUDPEvent.h>
#include <HvUtil/HvUDPIDispatcher.h>
#include <HvUtil/HvUDPODispatcher.h>

#include <tests/support/HvTestSockets.h>
#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

// Holds its notifying thread until the shutdown has begun.
class HoldingObserver : public HvObserver {
public:
    void onNotification(HvHandle<HvObservable>, HvHandle<HvObject>) override
    {
        m_entered.fetch_add(1);
        while (!HvThread::sShuttingDown())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::atomic<int> m_entered{0};
};

// Counts what it is given.
class CountingObserver : public HvObserver {
public:
    void onNotification(HvHandle<HvObservable>, HvHandle<HvObject>) override { m_count.fetch_add(1); }
    std::atomic<int> m_count{0};
};

// Checked when the program exits, after the singleton registry (made during
// the test) has been torn down: the stream dispatchers, whose threads ended
// in the shutdown, are deleted by the registry's clean-up.
struct ExitCheck {
    ~ExitCheck()
    {
        const long left = hvtest::liveCount("HvTCPIDispatcher") + hvtest::liveCount("HvTCPODispatcher");
        if (left != 0) {
            std::fprintf(stderr, "%ld stream dispatcher(s) outlived the singleton registry\n", left);
            std::_Exit(1);
        }
    }
};
const ExitCheck fs_exitCheck;

} // namespace

TEST(HvShutdownDispatchers, AllFourBusyDispatchersEndAndTheShutdownCompletes)
{
    // Stream output: a 32 MB array to a peer that reads slowly until the
    // connection goes, and more behind it.
    hvtest::RawListener listener;
    HvHandle<HvClientSocket> client(new HvClientSocket(hvtest::loopback(), listener.port(), HvInetAddress()));
    hvtest::Descriptor slowPeer = listener.accept();
    ASSERT_TRUE(slowPeer.valid());
    std::atomic<long> peerReceived{0};
    std::thread slowReader([&] {
        char buffer[4096];
        for (;;) {
            if (!hvtest::waitReady(slowPeer.get(), POLLIN, 60000))
                break;
            ssize_t got = ::recv(slowPeer.get(), buffer, sizeof buffer, 0);
            if (got <= 0)
                break;
            peerReceived.fetch_add(got);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    HvHandle<HvByteArray> huge = HvByteArray::sCreate(32 * 1024 * 1024, nullptr);
    HvHandle<HvByteArray> behind = HvByteArray::sCreate("behind");
    HvTCPODispatcher* tcpOutput = HvTCPODispatcher::getInstance();
    tcpOutput->getEventQueue()->addItem(new HvTCPEvent(client.get(), huge.get()));
    for (int index = 0; index < 100; ++index)
        tcpOutput->getEventQueue()->addItem(new HvTCPEvent(client.get(), behind.get()));

    // Stream input: more held notifications than the pool has workers.
    HvTCPIDispatcher* tcpInput = HvTCPIDispatcher::getInstance();
    std::vector<HvHandle<HvObservable>> sources;
    std::vector<HvHandle<HoldingObserver>> holders;
    for (int index = 0; index < 20; ++index) {
        sources.push_back(HvHandle<HvObservable>(new HvObservable));
        holders.push_back(HvHandle<HoldingObserver>(new HoldingObserver));
        sources.back()->attachObserver(holders.back().get());
        tcpInput->getEventQueue()->addItem(new HvTCPEvent(sources.back().get(), nullptr));
    }

    // Datagram input: a receiving thread under a flood of datagrams.
    HvHandle<HvDatagramSocket> receiving(new HvDatagramSocket(hvtest::freeUdpPort(), hvtest::loopback(), false, 2048));
    HvHandle<CountingObserver> received(new CountingObserver);
    receiving->attachObserver(received.get());
    HvUDPIDispatcher::getInstance();
    HvHandle<hvtest::LambdaThread> receiver(new hvtest::LambdaThread([&](hvtest::LambdaThread& self) {
        while (self.getState() != HvThread::EXITING && receiving->block()) {
        }
    }));
    receiver->fork();
    std::atomic<bool> flooding{true};
    const unsigned int receivingPort = receiving->getLocalPort();
    std::thread flooder([&] {
        hvtest::RawUdpSocket sender;
        const std::string datagram(512, 'f');
        while (flooding.load())
            sender.sendTo(receivingPort, datagram);
    });

    // Datagram output: thousands of packets queued to a receiver.
    hvtest::RawUdpSocket sink;
    HvUDPODispatcher::getInstance();
    for (int index = 0; index < 4000; ++index) {
        HvHandle<HvByteArray> bytes = HvByteArray::sCreate(256, nullptr);
        HvUDPODispatcher::sAddEvent(
            new HvUDPEvent(nullptr, new HvDatagramPacket(bytes.get(), 0, 0, hvtest::loopback(), sink.port())));
    }

    // All four are at work.
    ASSERT_TRUE(hvtest::waitUntil([&] { return huge->getRefCount() > 1 && tcpOutput->getEventQueue()->getSize() > 0; }));
    int entered = 0;
    ASSERT_TRUE(hvtest::waitUntil([&] {
        entered = 0;
        for (const HvHandle<HoldingObserver>& holder : holders)
            entered += holder->m_entered.load();
        return entered == 11;
    }));
    EXPECT_EQ(10, tcpInput->getThreadPool().getBusyCount());
    ASSERT_TRUE(hvtest::waitUntil([&] { return received->m_count.load() > 10; }));
    ASSERT_TRUE(hvtest::waitReady(sink.descriptor(), POLLIN));

    const auto start = std::chrono::steady_clock::now();
    HvThread::sShutdown();
    const auto elapsed = std::chrono::steady_clock::now() - start;
    flooding = false;
    flooder.join();
    slowReader.join();
    EXPECT_LT(peerReceived.load(), 32L * 1024 * 1024);
    EXPECT_LT(elapsed, std::chrono::seconds(30));

    EXPECT_TRUE(HvThread::sIsShutdownCompleted());
    EXPECT_EQ(0u, HvThread::sGetThreadCount());
    EXPECT_TRUE(hvtest::hasEnded(receiver.get()));
    // The stream dispatchers stay registered, their threads ended.
    EXPECT_TRUE(hvtest::hasEnded(tcpOutput));
    EXPECT_TRUE(hvtest::hasEnded(tcpInput));
    EXPECT_EQ(tcpOutput, HvTCPODispatcher::sFind());
    EXPECT_EQ(tcpInput, HvTCPIDispatcher::sFind());
    // The stream output dispatcher let go of the array it was writing: the
    // shutdown closed its socket under the send.
    EXPECT_EQ(1, huge->getRefCount());
    EXPECT_EQ(-1, client->getDescriptor());
    // The datagram dispatchers ended and forgot themselves; their objects are gone.
    EXPECT_EQ(nullptr, HvUDPIDispatcher::getUDPEventQueue());
    EXPECT_EQ(nullptr, HvUDPODispatcher::getUDPEventQueue());
    EXPECT_TRUE(hvtest::waitUntil([] {
        return hvtest::liveCount("HvUDPIDispatcher") == 0 && hvtest::liveCount("HvUDPODispatcher") == 0;
    }));
    // Events still queued went with their queues.
    EXPECT_EQ(0, hvtest::liveCount("HvUDPEvent"));

    received->detach();
    for (const HvHandle<HoldingObserver>& holder : holders)
        holder->detach();
}
