// Shutdown with a thousand timers pending, the monitor thread asleep until
// the earliest of them, and the timer dispatcher with its pool running: the
// shutdown ends the monitor, which drops the timers unfired, wakes the
// dispatcher's queue through its hook, and completes in bounded time.
#include <HvUtil/HvMonitorThread.h>

#include <HvUtil/HvScheduler.h>
#include <HvUtil/HvTimerDispatcher.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

class CountingObserver : public HvObserver {
public:
    void onNotification(HvHandle<HvObservable>, HvHandle<HvObject>) override { count.fetch_add(1); }
    std::atomic<int> count{0};
};

} // namespace

TEST(HvShutdownTimers, ThousandPendingTimersAndASleepingMonitorDoNotHoldTheShutdown)
{
    HvMonitorThread* monitor = HvMonitorThread::sGetCurrent();
    HvScheduler& scheduler = monitor->getScheduler();
    HvHandle<CountingObserver> observer(new CountingObserver);

    // The dispatcher and a worker exist: a first timer went through.
    scheduler.schedule(0, observer.get(), nullptr);
    ASSERT_TRUE(hvtest::waitUntil([&] { return observer->count.load() == 1; }));
    ASSERT_NE(nullptr, HvTimerDispatcher::getTimerEventQueue());
    HvTimerDispatcher* dispatcher = HvTimerDispatcher::getInstance();

    const int destroyedBefore = hvtest::CountedValue::sDestroyed.load();
    for (int i = 0; i < 1000; ++i)
        scheduler.schedule(30000 + static_cast<unsigned int>(i), observer.get(), new hvtest::CountedValue(i));
    EXPECT_EQ(1000u, scheduler.getSize());
    ASSERT_TRUE(hvtest::waitUntil([&] { return monitor->getState() == HvThread::BLOCKED; }));
    ASSERT_TRUE(hvtest::waitUntil([&] { return dispatcher->getState() == HvThread::RUNNING; }));

    auto start = std::chrono::steady_clock::now();
    HvThread::sShutdown();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GT(10.0, seconds);
    EXPECT_TRUE(HvThread::sIsShutdownCompleted());

    // The monitor left its loop: the timers went unfired and it stopped
    // being the process-wide one (it stays allocated until exit).
    EXPECT_EQ(HvThread::DETACHED, monitor->getState());
    EXPECT_EQ(0u, scheduler.getSize());
    EXPECT_EQ(1000, hvtest::CountedValue::sDestroyed.load() - destroyedBefore);
    EXPECT_EQ(1, observer->count.load());
    EXPECT_EQ(1, monitor->getRefCount());
    // The dispatcher's thread ended, it forgot itself and went.
    EXPECT_EQ(nullptr, HvTimerDispatcher::getTimerEventQueue());
    EXPECT_TRUE(hvtest::waitUntil([] { return hvtest::liveCount("HvDispatcherThread") == 0; }));
    EXPECT_EQ(1, observer->getRefCount());
}
