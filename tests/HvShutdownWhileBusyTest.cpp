// The orderly shutdown of a process at full work: a hundred connections with
// half a message buffered, each served by its own observer thread; a thousand
// timers pending; the four network dispatchers busy (stream input held in
// notifications, stream output stuck in a send to a peer that stopped
// reading, datagram input under a flood, datagram output with thousands of
// packets queued). The shutdown returns promptly, every thread of the
// library ends, every socket is closed, and every block allocated for the
// work is given back.
#include <HvUtil/HvThread.h>

#include <tests/support/HvBusyProcess.h>
#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

// The figure itself comes from bench/HvShutdownWhileBusyBench; this bound
// only has to hold in a sanitizer build on a loaded machine.
constexpr double kShutdownBoundSeconds = 5.0;

} // namespace

TEST(HvShutdownWhileBusy, ShutdownOfABusyProcessIsPromptAndGivesEverythingBack)
{
    const hvbusy::TagCounts atStart = hvbusy::makeProcessWideObjects();
    const int descriptorsAtStart = hvbusy::openDescriptorCount();
    const unsigned int threadsAtStart = HvThread::sGetThreadCount();
    // Made above and kept until exit, so the pointer stays good after the shutdown.
    HvMonitorThread* monitor = HvMonitorThread::sGetCurrent();
    ASSERT_EQ(0u, HvSocketFactory::sSocketNum());

    hvbusy::BusyProcess busy;
    std::string failure;
    ASSERT_TRUE(busy.setUp(failure)) << failure;
    ASSERT_EQ(static_cast<std::size_t>(hvbusy::BusyProcess::kConnections), busy.connections().size());
    EXPECT_EQ(static_cast<unsigned int>(hvbusy::BusyProcess::kTimers), busy.timersPendingAtSetUp());
    // Listener, connections, the stuck sender, the flooded receiver and the
    // datagram output socket are registered.
    EXPECT_EQ(static_cast<unsigned int>(hvbusy::BusyProcess::kConnections) + 4u, HvSocketFactory::sSocketNum());
    // The monitor, the stream dispatchers and their pool, then per run a
    // thread per connection, the receiver, the timer dispatcher with its
    // worker and the datagram dispatchers with theirs.
    EXPECT_GT(HvThread::sGetThreadCount(), threadsAtStart + hvbusy::BusyProcess::kConnections + 4u);

    const double seconds = busy.shutdown();
    std::printf("shutdown of the busy process took %.1f ms\n", seconds * 1000.0);
    EXPECT_LT(seconds, kShutdownBoundSeconds);

    // Every thread the library registered has ended.
    EXPECT_TRUE(HvThread::sIsShutdownCompleted());
    EXPECT_EQ(0u, HvThread::sGetThreadCount());
    for (const HvHandle<hvbusy::Connection>& connection : busy.connections()) {
        EXPECT_TRUE(hvtest::hasEnded(connection->thread.get()));
        EXPECT_EQ(1, connection->packets.load());
        EXPECT_EQ(0, connection->failures.load());
    }
    EXPECT_TRUE(hvtest::hasEnded(busy.receiver()));
    EXPECT_TRUE(hvtest::hasEnded(HvTCPODispatcher::sFind()));
    EXPECT_TRUE(hvtest::hasEnded(HvTCPIDispatcher::sFind()));
    // The monitor ended and dropped the pending timers unfired.
    EXPECT_TRUE(hvtest::hasEnded(monitor));
    EXPECT_EQ(0u, monitor->getScheduler().getSize());
    EXPECT_EQ(nullptr, HvUDPIDispatcher::getUDPEventQueue());
    EXPECT_EQ(nullptr, HvUDPODispatcher::getUDPEventQueue());
    EXPECT_EQ(nullptr, HvTimerDispatcher::getTimerEventQueue());

    // Every socket is closed; each connection's peer got "UNBLOCK" and an
    // orderly close, the stalled one whatever fitted in the buffers and then
    // the close.
    EXPECT_EQ(0u, HvSocketFactory::sSocketNum());
    EXPECT_EQ(-1, busy.listener()->getDescriptor());
    EXPECT_EQ(-1, busy.sendingSocket()->getDescriptor());
    EXPECT_EQ(-1, busy.receivingSocket()->getDescriptor());
    for (const HvHandle<hvbusy::Connection>& connection : busy.connections()) {
        EXPECT_EQ(-1, connection->socket->getDescriptor());
        bool closed = false;
        EXPECT_EQ("UNBLOCK", hvbusy::readUntilClosed(connection->peer, closed));
        EXPECT_TRUE(closed);
    }
    bool stalledClosed = false;
    const std::string stalledGot = hvbusy::readUntilClosed(busy.stalledPeer(), stalledClosed);
    EXPECT_TRUE(stalledClosed);
    EXPECT_LT(stalledGot.size(), static_cast<std::size_t>(hvbusy::BusyProcess::kStuckSendBytes));
    // The stream output dispatcher let go of the array it was sending.
    EXPECT_EQ(1, busy.stuckArray()->getRefCount());

    // The stream dispatchers stay in the singleton registry until exit, and
    // with them the events still queued: all the sends behind the stuck one,
    // and those notifications behind the held ones that the input dispatcher
    // did not hand out between the shutdown flag (which releases the held
    // ones) and its termination. Each notification event either reached its
    // observer or is left over.
    const int entered = busy.streamNotificationsEntered();
    const hvbusy::BusyProcess::Leftovers left = busy.release();
    EXPECT_EQ(hvbusy::BusyProcess::kQueuedStreamSends, left.streamSends);
    EXPECT_EQ(hvbusy::BusyProcess::kStreamInputEvents, entered + left.streamNotifications);
    std::printf("left in the stream output queue: %d, in the stream input queue: %d\n", left.streamSends,
                left.streamNotifications);

    // Threads that ended may still be letting go of their last objects (the
    // datagram and timer dispatchers delete themselves as they finish).
    std::string changes;
    EXPECT_TRUE(hvtest::waitUntil([&] {
        changes = hvbusy::allocationChanges(atStart);
        return changes.empty();
    })) << "allocator tags not back to their count at start:\n"
        << changes;
    EXPECT_EQ(descriptorsAtStart, hvbusy::openDescriptorCount());
}
