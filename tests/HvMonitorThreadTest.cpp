#include <HvUtil/HvMonitorThread.h>

#include <HvUtil/HvScheduler.h>
#include <HvUtil/HvTime.h>
#include <HvUtil/HvTimer.h>
#include <HvUtil/HvTimerDispatcher.h>

#include <tests/support/HvFailingClock.h>
#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

const long long kHour = 3600LL * 1000000LL;

using Clock = std::chrono::steady_clock;

// Remembers when and how it was notified, on the clock the timers use.
class Probe : public HvObserver {
public:
    void onNotification(HvHandle<HvObservable>, HvHandle<HvObject> object) override
    {
        const HvTimer* timer = dynamic_cast<const HvTimer*>(object.get());
        timerTime.store(timer ? timer->getTime() : -1.0);
        firedAt.store(HvTime::sGetCurrentTime());
        steadyAt.store(Clock::now().time_since_epoch().count());
        thread.store(pthread_self());
        fired.fetch_add(1);
        if (throwText)
            HvException::sThrow(throwText);
    }
    double millisecondsFrom(Clock::time_point start) const
    {
        return std::chrono::duration<double, std::milli>(Clock::time_point(Clock::duration(steadyAt.load())) - start).count();
    }

    std::atomic<int> fired{0};
    std::atomic<double> firedAt{0.0};
    std::atomic<double> timerTime{0.0};
    std::atomic<Clock::rep> steadyAt{0};
    std::atomic<pthread_t> thread{0};
    const char* throwText = nullptr;
};

// A monitor that asks, on its own thread, which monitor is current.
class ProbeMonitor : public HvMonitorThread {
public:
    void run() override
    {
        seen.store(HvMonitorThread::sGetCurrent());
        HvMonitorThread::run();
    }
    std::atomic<HvMonitorThread*> seen{nullptr};
};

// Puts the clock switch and the offset back when a test ends.
class ClockSettings {
public:
    explicit ClockSettings(bool monotonic)
    {
        HvTime::sm_bMonotonicClock.store(monotonic);
        HvTime::sSetWallClockOffsetForTesting(0);
    }
    ~ClockSettings()
    {
        HvTime::sSetWallClockOffsetForTesting(0);
        HvTime::sm_bMonotonicClock.store(false);
    }
    ClockSettings(const ClockSettings&) = delete;
    ClockSettings& operator=(const ClockSettings&) = delete;
};

// The process-wide monitor, started and asleep.
HvMonitorThread* idleMonitor()
{
    HvMonitorThread* monitor = HvMonitorThread::sGetCurrent();
    EXPECT_TRUE(hvtest::waitUntil([&] { return monitor->getState() == HvThread::BLOCKED; }));
    return monitor;
}

// Steps the wall clock by `offset` right after a 200 ms timer was scheduled.
// A real step also ends at once every wait measured on the wall clock, which
// the kernel re-examines; a test offset cannot reach into the kernel, so the
// monitor is woken here as the step would wake it. On the monotonic clock the
// wake-up changes nothing, which is what the tests show.
struct SteppedTimer {
    HvHandle<Probe> probe{new Probe};
    Clock::time_point start;
    double due = 0.0;
};

std::unique_ptr<SteppedTimer> scheduleAndStep(long long offset)
{
    std::unique_ptr<SteppedTimer> timer(new SteppedTimer);
    HvMonitorThread* monitor = idleMonitor();
    timer->start = Clock::now();
    timer->due = monitor->getScheduler().schedule(200, timer->probe.get(), nullptr);
    HvTime::sSetWallClockOffsetForTesting(offset);
    monitor->signal();
    return timer;
}

} // namespace

// Must stay the first test: no monitor exists yet.
TEST(HvMonitorThreadTest, FirstCallersAtOnceGetOneStartedMonitor)
{
    EXPECT_EQ(0, hvtest::liveCount("HvMonitorThread"));
    const int callers = 4;
    std::vector<HvMonitorThread*> seen(callers, nullptr);
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int caller = 0; caller < callers; ++caller) {
        threads.emplace_back([&, caller] {
            while (!go.load()) {
            }
            seen[caller] = HvMonitorThread::sGetCurrent();
        });
    }
    go.store(true);
    for (std::thread& thread : threads)
        thread.join();
    ASSERT_NE(nullptr, seen[0]);
    for (HvMonitorThread* monitor : seen)
        EXPECT_EQ(seen[0], monitor);
    EXPECT_EQ(seen[0], HvMonitorThread::sGetCurrent());
    EXPECT_EQ(1, hvtest::liveCount("HvMonitorThread"));
    ASSERT_TRUE(hvtest::waitUntil([&] { return seen[0]->getState() == HvThread::BLOCKED; }));
    // The extra reference until exit, its scheduler's, its thread's and the table's.
    EXPECT_EQ(4, seen[0]->getRefCount());
    EXPECT_EQ(0u, seen[0]->getScheduler().getSize());
}

TEST(HvMonitorThreadTest, WaitIsUntilSignalledWhenNothingIsPendingElseWholeMillisecondsAtLeastOne)
{
    EXPECT_EQ(HvThread::kNoTimeout, HvMonitorThread::sWaitTimeFor(0.0));
    EXPECT_EQ(1u, HvMonitorThread::sWaitTimeFor(999.0));
    EXPECT_EQ(1u, HvMonitorThread::sWaitTimeFor(0.5));
    EXPECT_EQ(1u, HvMonitorThread::sWaitTimeFor(1000.0));
    EXPECT_EQ(1u, HvMonitorThread::sWaitTimeFor(1999.9));
    EXPECT_EQ(2u, HvMonitorThread::sWaitTimeFor(2000.0));
    EXPECT_EQ(50u, HvMonitorThread::sWaitTimeFor(50000.0));
    EXPECT_EQ(4294967294u, HvMonitorThread::sWaitTimeFor(4294967294000.0));
    // Beyond what a time-out can say: the longest one, never "none".
    EXPECT_EQ(4294967294u, HvMonitorThread::sWaitTimeFor(4294967295000.0));
    EXPECT_EQ(4294967294u, HvMonitorThread::sWaitTimeFor(1.0e18));
}

TEST(HvMonitorThreadTest, ScheduleWakesTheIdleMonitorWhichThenWaitsForTheDelay)
{
    HvMonitorThread* monitor = idleMonitor();
    HvHandle<Probe> probe(new Probe);
    Clock::time_point start = Clock::now();
    double due = monitor->getScheduler().schedule(50, probe.get(), nullptr);
    ASSERT_TRUE(hvtest::waitUntil([&] { return probe->fired.load() == 1; }));
    EXPECT_LE(49.0, probe->millisecondsFrom(start));
    EXPECT_GT(2000.0, probe->millisecondsFrom(start));
    EXPECT_LE(due - 1000.0, probe->firedAt.load());
    EXPECT_EQ(due, probe->timerTime.load());
    // On a worker of the timer dispatcher's pool.
    EXPECT_FALSE(pthread_equal(monitor->getToken(), probe->thread.load()));
    EXPECT_FALSE(pthread_equal(pthread_self(), probe->thread.load()));
    EXPECT_FALSE(pthread_equal(HvTimerDispatcher::getInstance()->getToken(), probe->thread.load()));
    EXPECT_EQ(0u, monitor->getScheduler().getSize());
    ASSERT_TRUE(hvtest::waitUntil([&] { return monitor->getState() == HvThread::BLOCKED; }));
}

TEST(HvMonitorThreadTest, LaterTimerFiresAfterAnEarlierOneScheduledBehindIt)
{
    HvMonitorThread* monitor = idleMonitor();
    HvHandle<Probe> late(new Probe);
    HvHandle<Probe> early(new Probe);
    Clock::time_point start = Clock::now();
    monitor->getScheduler().schedule(300, late.get(), nullptr);
    monitor->getScheduler().schedule(30, early.get(), nullptr);
    ASSERT_TRUE(hvtest::waitUntil([&] { return late->fired.load() == 1; }));
    EXPECT_EQ(1, early->fired.load());
    EXPECT_LE(29.0, early->millisecondsFrom(start));
    EXPECT_LE(299.0, late->millisecondsFrom(start));
    EXPECT_LT(early->millisecondsFrom(start), late->millisecondsFrom(start));
}

TEST(HvMonitorThreadTest, FromInsideAMonitorThreadTheCurrentMonitorIsThatThread)
{
    HvMonitorThread* processWide = idleMonitor();
    const long before = hvtest::liveCount("HvMonitorThread");
    HvHandle<ProbeMonitor> probeMonitor(new ProbeMonitor);
    probeMonitor->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return probeMonitor->seen.load() != nullptr; }));
    EXPECT_EQ(probeMonitor.get(), probeMonitor->seen.load());
    EXPECT_EQ(processWide, HvMonitorThread::sGetCurrent());

    // It drives its own scheduler like any monitor.
    HvHandle<Probe> probe(new Probe);
    probeMonitor->getScheduler().schedule(10, probe.get(), nullptr);
    ASSERT_TRUE(hvtest::waitUntil([&] { return probe->fired.load() == 1; }));

    probeMonitor->terminate();
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(probeMonitor.get()); }));
    EXPECT_EQ(processWide, HvMonitorThread::sGetCurrent());
    // Its scheduler let go of it when the thread ended: this handle is the last.
    EXPECT_EQ(1, probeMonitor->getRefCount());
    probeMonitor = HvHandle<ProbeMonitor>();
    EXPECT_EQ(before, hvtest::liveCount("HvMonitorThread"));
}

TEST(HvMonitorThreadTest, ObserverThatThrowsFromATimerDoesNotStopLaterTimers)
{
    // The worker reports the exception through an assertion as well.
    hvtest::AssertionScope assertions(&hvtest::ignoreAssertion);
    HvMonitorThread* monitor = idleMonitor();
    HvHandle<Probe> thrower(new Probe);
    thrower->throwText = "timer observer failed";
    HvHandle<Probe> second(new Probe);
    HvHandle<Probe> third(new Probe);
    monitor->getScheduler().schedule(10, thrower.get(), nullptr);
    monitor->getScheduler().schedule(10, thrower.get(), nullptr);
    monitor->getScheduler().schedule(30, second.get(), nullptr);
    monitor->getScheduler().schedule(60, third.get(), nullptr);
    ASSERT_TRUE(hvtest::waitUntil([&] { return third->fired.load() == 1; }));
    EXPECT_EQ(2, thrower->fired.load());
    EXPECT_EQ(1, second->fired.load());
    EXPECT_EQ(HvThread::BLOCKED, monitor->getState());
}

TEST(HvMonitorThreadTest, OnTheWallClockAStepBackOfAnHourHoldsTheTimerBack)
{
    ClockSettings settings(false);
    std::unique_ptr<SteppedTimer> timer = scheduleAndStep(-kHour);
    EXPECT_FALSE(hvtest::waitUntil([&] { return timer->probe->fired.load() != 0; }, std::chrono::milliseconds(1000)));
    EXPECT_TRUE(HvMonitorThread::sGetCurrent()->getScheduler().cancel(timer->due));
    EXPECT_EQ(0, timer->probe->fired.load());
}

TEST(HvMonitorThreadTest, OnTheWallClockAStepForwardOfAnHourFiresTheTimerAtOnce)
{
    ClockSettings settings(false);
    std::unique_ptr<SteppedTimer> timer = scheduleAndStep(kHour);
    ASSERT_TRUE(hvtest::waitUntil([&] { return timer->probe->fired.load() == 1; }));
    // Early: well before its 200 ms.
    EXPECT_GT(199.0, timer->probe->millisecondsFrom(timer->start));
    EXPECT_EQ(timer->due, timer->probe->timerTime.load());
}

TEST(HvMonitorThreadTest, OnTheMonotonicClockAStepBackOfAnHourChangesNothing)
{
    ClockSettings settings(true);
    std::unique_ptr<SteppedTimer> timer = scheduleAndStep(-kHour);
    ASSERT_TRUE(hvtest::waitUntil([&] { return timer->probe->fired.load() == 1; }));
    EXPECT_LE(199.0, timer->probe->millisecondsFrom(timer->start));
    EXPECT_GT(2000.0, timer->probe->millisecondsFrom(timer->start));
    EXPECT_EQ(timer->due, timer->probe->timerTime.load());
}

TEST(HvMonitorThreadTest, OnTheMonotonicClockAStepForwardOfAnHourChangesNothing)
{
    ClockSettings settings(true);
    std::unique_ptr<SteppedTimer> timer = scheduleAndStep(kHour);
    ASSERT_TRUE(hvtest::waitUntil([&] { return timer->probe->fired.load() == 1; }));
    EXPECT_LE(199.0, timer->probe->millisecondsFrom(timer->start));
    EXPECT_GT(2000.0, timer->probe->millisecondsFrom(timer->start));
}

TEST(HvMonitorThreadTest, TenThousandTimersFromTwoThreadsFireOnceEachAndNoneThatWasCancelled)
{
    HvMonitorThread* monitor = idleMonitor();
    HvScheduler& scheduler = monitor->getScheduler();
    // The dispatcher made before counting, by a first timer.
    {
        HvHandle<Probe> warmUp(new Probe);
        scheduler.schedule(0, warmUp.get(), nullptr);
        ASSERT_TRUE(hvtest::waitUntil([&] { return warmUp->fired.load() == 1; }));
    }
    const unsigned int sizeBefore = scheduler.getSize();
    const char* const tags[] = {"HvMonitorThread", "HvDispatcherThread", "HvMutex", "HvObserverThread"};
    std::vector<long> before;
    for (const char* tag : tags)
        before.push_back(hvtest::liveCount(tag));
    const int destroyedBefore = hvtest::CountedValue::sDestroyed.load();

    const int perThread = 5000;
    const int total = 2 * perThread;
    std::vector<HvHandle<Probe>> probes;
    for (int i = 0; i < total; ++i)
        probes.push_back(HvHandle<Probe>(new Probe));
    std::vector<double> due(total, 0.0);
    // 1: cancelled before it fired, 2: asked to cancel too late, 0: kept.
    std::vector<int> cancelled(total, 0);
    std::vector<std::thread> schedulers;
    for (int t = 0; t < 2; ++t) {
        schedulers.emplace_back([&, t] {
            std::mt19937 random(12345u + static_cast<unsigned int>(t));
            for (int n = 0; n < perThread; ++n) {
                const int i = t * perThread + n;
                const unsigned int delay = random() % 2001;
                HvObject* argument = (n % 4 < 2) ? new hvtest::CountedValue(i) : nullptr;
                due[i] = scheduler.schedule(delay, probes[i].get(), argument);
                if (n % 2 == 1)
                    cancelled[i] = scheduler.cancel(probes[i].get(), due[i]) ? 1 : 2;
            }
        });
    }
    for (std::thread& thread : schedulers)
        thread.join();
    const int created = total / 2;

    int expected = 0;
    double latest = 0.0;
    for (int i = 0; i < total; ++i) {
        if (cancelled[i] != 1)
            ++expected;
        if (due[i] > latest)
            latest = due[i];
    }
    // Nearly every cancel comes before its timer is due.
    EXPECT_LT(total / 2 - 100, total - expected);
    auto firedCount = [&] {
        int count = 0;
        for (const HvHandle<Probe>& probe : probes)
            count += probe->fired.load();
        return count;
    };
    ASSERT_TRUE(hvtest::waitUntil([&] { return firedCount() >= expected; }, std::chrono::milliseconds(60000)));
    // Past the latest due time, so a cancelled request would have fired by now.
    ASSERT_TRUE(hvtest::waitUntil([&] { return static_cast<double>(HvTime::sGetCurrentTime()) > latest + 100000.0; }));
    ASSERT_TRUE(hvtest::waitUntil([&] { return scheduler.getSize() == sizeBefore; }));
    EXPECT_EQ(expected, firedCount());

    int early = 0;
    int wrong = 0;
    for (int i = 0; i < total; ++i) {
        const int fired = probes[i]->fired.load();
        if (cancelled[i] == 1 ? fired != 0 : fired != 1)
            ++wrong;
        if (fired && probes[i]->firedAt.load() < due[i] - 1000.0)
            ++early;
    }
    EXPECT_EQ(0, wrong);
    EXPECT_EQ(0, early);
    EXPECT_EQ(sizeBefore, scheduler.getSize());
    // Every argument was let go by the store, the events and the workers.
    EXPECT_TRUE(hvtest::waitUntil([&] { return hvtest::CountedValue::sDestroyed.load() - destroyedBefore == created; }));
    for (std::size_t t = 0; t < before.size(); ++t)
        EXPECT_EQ(before[t], hvtest::liveCount(tags[t])) << tags[t];
    for (const HvHandle<Probe>& probe : probes)
        EXPECT_TRUE(hvtest::waitUntil([&] { return probe->getRefCount() == 1; }));
}

TEST(HvMonitorThreadTest, EndedMonitorDropsItsTimersAndTheNextCallerGetsANewOne)
{
    HvMonitorThread* old = idleMonitor();
    int destroyed = 0;
    HvHandle<Probe> probe(new Probe);
    old->getScheduler().schedule(10000, probe.get(), new hvtest::CountingObject(destroyed));
    old->terminate();
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(old); }));
    EXPECT_EQ(0u, old->getScheduler().getSize());
    EXPECT_EQ(1, destroyed);
    EXPECT_EQ(1, probe->getRefCount());
    // Only the reference released at exit is left.
    EXPECT_EQ(1, old->getRefCount());

    HvMonitorThread* fresh = nullptr;
    std::thread other([&] { fresh = HvMonitorThread::sGetCurrent(); });
    other.join();
    ASSERT_NE(nullptr, fresh);
    EXPECT_NE(old, fresh);
    EXPECT_EQ(fresh, HvMonitorThread::sGetCurrent());
    ASSERT_TRUE(hvtest::waitUntil([&] { return fresh->getState() == HvThread::BLOCKED; }));

    // A client still holding the ended monitor's scheduler files a request
    // there; nobody is woken and nothing breaks.
    double t = old->getScheduler().schedule(5, probe.get(), nullptr);
    EXPECT_EQ(1u, old->getScheduler().getSize());
    EXPECT_TRUE(old->getScheduler().cancel(t));

    fresh->getScheduler().schedule(5, probe.get(), nullptr);
    EXPECT_TRUE(hvtest::waitUntil([&] { return probe->fired.load() == 1; }));
}

TEST(HvMonitorThreadTest, FailingClockEndsTheMonitorWhichIsThenReplaced)
{
    HvMonitorThread* monitor = idleMonitor();
    int destroyed = 0;
    HvHandle<Probe> probe(new Probe);
    monitor->getScheduler().schedule(300, probe.get(), new hvtest::CountingObject(destroyed));
    ASSERT_TRUE(hvtest::waitUntil([&] { return monitor->getState() == HvThread::BLOCKED; }));
    {
        hvtest::DebugOutputCapture debug;
        fs_clockFailure.store(EFAULT);
        monitor->signal();
        bool ended = hvtest::waitUntil([&] { return hvtest::hasEnded(monitor); });
        fs_clockFailure.store(0);
        ASSERT_TRUE(ended);
        EXPECT_EQ("catch exception in HvThread::block(): gettimeofday\n", debug.text());
    }
    EXPECT_EQ(0u, monitor->getScheduler().getSize());
    EXPECT_EQ(1, destroyed);
    EXPECT_EQ(0, probe->fired.load());
    EXPECT_EQ(1, monitor->getRefCount());

    HvMonitorThread* fresh = HvMonitorThread::sGetCurrent();
    EXPECT_NE(monitor, fresh);
    fresh->getScheduler().schedule(5, probe.get(), nullptr);
    EXPECT_TRUE(hvtest::waitUntil([&] { return probe->fired.load() == 1; }));
}
