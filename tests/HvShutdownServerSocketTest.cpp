// Process-wide shutdown while a thread waits in accept() on a server socket:
// the socket step of the protocol wakes it, the thread ends and the
// protocol returns in bounded time, without handing anything to the
// server's observer.
#include <HvUtil/HvServerSocket.h>

#include <HvUtil/HvClientSocket.h>
#include <HvUtil/HvSocketFactory.h>
#include <HvUtil/HvThread.h>

#include <Velmora/LogCapture.h>

#include <tests/support/HvTestSockets.h>
#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

// Counts what the server hands over, from whichever thread.
class CountingObserver : public HvObserver {
public:
    void onNotification(HvHandle<HvObservable>, HvHandle<HvObject> object) override
    {
        if (dynamic_cast<HvClientSocket*>(object.get()))
            sockets.fetch_add(1);
        else
            others.fetch_add(1);
    }
    std::atomic<int> sockets{0};
    std::atomic<int> others{0};
};

} // namespace

TEST(HvShutdownServerSocket, ShutdownWakesTheAcceptingThreadAndCompletesInBoundedTime)
{
    HvHandle<HvServerSocket> server(new HvServerSocket(0, hvtest::loopback(), 5));
    unsigned int port = hvtest::localPortOf(server->getDescriptor());
    HvHandle<CountingObserver> observer(new CountingObserver);
    server->attachObserver(observer);
    std::atomic<pid_t> threadId{0};
    std::atomic<int> rounds{0};
    HvHandle<hvtest::LambdaThread> acceptor(new hvtest::LambdaThread([&](hvtest::LambdaThread& self) {
        threadId.store(hvtest::currentThreadId());
        while (self.getState() != HvThread::EXITING) {
            server->block();
            rounds.fetch_add(1);
        }
    }));
    acceptor->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return threadId.load() != 0; }));

    // The loop serves a connection before the shutdown.
    hvtest::Descriptor peer = hvtest::rawConnect(port);
    ASSERT_TRUE(peer.valid());
    ASSERT_TRUE(hvtest::waitUntil([&] { return observer->sockets.load() == 1; }));
    ASSERT_TRUE(hvtest::waitUntilWaitingIn(threadId.load(), {SYS_accept, SYS_accept4}));
    int roundsBefore = rounds.load();

    Velmora::LogCapture log("ferrowind.hv.HvSocketFactory");
    auto start = std::chrono::steady_clock::now();
    HvThread::sShutdown();
    auto took = std::chrono::steady_clock::now() - start;
    EXPECT_LT(took, std::chrono::seconds(10));

    EXPECT_EQ(0u, HvThread::sGetThreadCount());
    EXPECT_TRUE(HvThread::sIsShutdownCompleted());
    EXPECT_EQ(HvThread::DETACHED, acceptor->getState());
    // The wake-up accept ran one more round, and its result went nowhere.
    EXPECT_EQ(roundsBefore + 1, rounds.load());
    EXPECT_EQ(1, observer->sockets.load());
    EXPECT_EQ(0, observer->others.load());
    EXPECT_EQ(-1, server->getDescriptor());
    EXPECT_EQ(0u, HvSocketFactory::sSocketNum());
    EXPECT_TRUE(log.contains("Hv SIP stack : Closing all sockets"));
    // The connection accepted before the shutdown was closed by it too.
    bool closed = false;
    EXPECT_EQ("UNBLOCK", hvtest::readAll(peer.get(), &closed));
    EXPECT_TRUE(closed);
    server->detachObserver(observer);
}

TEST(HvShutdownServerSocket, BlockAfterShutdownNotifiesNobody)
{
    ASSERT_TRUE(HvThread::sShuttingDown());
    HvHandle<HvServerSocket> server(new HvServerSocket(0, hvtest::loopback(), 5));
    HvHandle<CountingObserver> observer(new CountingObserver);
    server->attachObserver(observer);
    hvtest::Descriptor peer = hvtest::rawConnect(hvtest::localPortOf(server->getDescriptor()));
    ASSERT_TRUE(peer.valid());
    EXPECT_TRUE(server->block());
    EXPECT_EQ(0, observer->sockets.load());
    EXPECT_EQ(0, observer->others.load());
    server->detachObserver(observer);
    HvSocketFactory::sCloseAll();
}
