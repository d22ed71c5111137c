// Shutdown while the stream output dispatcher is stuck in a send to a peer
// that never reads: the connection's send buffer is full, so the "UNBLOCK"
// sent to every socket must not wait for room, and closing the socket must
// wake the dispatcher. The shutdown completes in bounded time.
#include <HvUtil/HvTCPODispatcher.h>

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvClientSocket.h>
#include <HvUtil/HvTCPEvent.h>
#include <HvUtil/HvThread.h>

#include <tests/support/HvTestSockets.h>
#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

} // namespace

TEST(HvShutdownStalledPeer, ShutdownCompletesWhileTheOutputDispatcherWaitsOnAFullConnection)
{
    hvtest::RawListener listener;
    HvHandle<HvClientSocket> client(new HvClientSocket(hvtest::loopback(), listener.port(), HvInetAddress()));
    hvtest::Descriptor stalledPeer = listener.accept();
    ASSERT_TRUE(stalledPeer.valid());

    // Far more than both socket buffers hold; the peer reads none of it.
    HvHandle<HvByteArray> huge = HvByteArray::sCreate(64 * 1024 * 1024, nullptr);
    HvTCPODispatcher* output = HvTCPODispatcher::getInstance();
    output->getEventQueue()->addItem(new HvTCPEvent(client.get(), huge.get()));
    ASSERT_TRUE(hvtest::waitUntil([&] { return huge->getRefCount() > 1; }));
    // The dispatcher's thread is parked in the kernel's send.
    int outgoing = 0;
    int incoming = 0;
    ASSERT_TRUE(hvtest::waitUntil([&] {
        ioctl(client->getDescriptor(), TIOCOUTQ, &outgoing);
        ioctl(stalledPeer.get(), FIONREAD, &incoming);
        return outgoing > 0 && incoming > 0;
    }));

    // Run on another thread so that a hang fails the test instead of
    // stalling the suite.
    auto shutdown = std::async(std::launch::async, [] {
        const auto start = std::chrono::steady_clock::now();
        HvThread::sShutdown();
        return std::chrono::steady_clock::now() - start;
    });
    if (shutdown.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
        // The future's destructor would wait for the hung shutdown.
        std::fprintf(stderr, "shutdown did not complete while the peer was not reading\n");
        std::_Exit(1);
    }
    EXPECT_LT(shutdown.get(), std::chrono::seconds(30));
    EXPECT_TRUE(HvThread::sIsShutdownCompleted());
    EXPECT_EQ(0u, HvThread::sGetThreadCount());
    EXPECT_EQ(-1, client->getDescriptor());
}
