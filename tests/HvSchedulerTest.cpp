#include <HvUtil/HvScheduler.h>

#include <HvUtil/HvMonitorThread.h>
#include <HvUtil/HvSystemError.h>
#include <HvUtil/HvTimer.h>
#include <HvUtil/HvTimerDispatcher.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <sys/time.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

// A gettimeofday() in place of the system's, which the library reads its wall
// clock through: a test can stop it at one microsecond, so that due times are
// exact and requests share a key, or make it fail. Only the test thread reads
// the clock while it is stopped: no monitor thread runs in this program.
static std::atomic<long long> fs_stoppedAt{0};
static std::atomic<int> fs_clockFailure{0};

extern "C" int gettimeofday(struct timeval* __restrict now, void* __restrict) noexcept
{
    if (int error = fs_clockFailure.load()) {
        errno = error;
        return -1;
    }
    if (long long stopped = fs_stoppedAt.load()) {
        now->tv_sec = static_cast<time_t>(stopped / 1000000);
        now->tv_usec = static_cast<suseconds_t>(stopped % 1000000);
        return 0;
    }
    struct timespec precise;
    clock_gettime(CLOCK_REALTIME, &precise);
    now->tv_sec = precise.tv_sec;
    now->tv_usec = precise.tv_nsec / 1000;
    return 0;
}

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

// An instant to stop the clock at; whole seconds plus a fraction, so that
// carries show.
const long long kStopped = 1700000000654321LL;

// A monitor that is never started: it counts the signals a scheduler gives it.
class SignalCountingMonitor : public HvMonitorThread {
public:
    void signal() override { signals.fetch_add(1); }
    std::atomic<int> signals{0};
};

// One notification as the observer saw it.
struct Delivery {
    const HvObject* object;
    double timerTime;
    pthread_t thread;
    int tag;
};

// Records every notification; the tag tells observers apart in a shared log.
class RecordingObserver : public HvObserver {
public:
    explicit RecordingObserver(int tag = 0, std::vector<Delivery>* log = nullptr, std::mutex* logMutex = nullptr)
        : m_tag(tag), m_log(log), m_logMutex(logMutex)
    {
    }
    void onNotification(HvHandle<HvObservable>, HvHandle<HvObject> object) override
    {
        const HvTimer* timer = dynamic_cast<const HvTimer*>(object.get());
        Delivery delivery{object.get(), timer ? timer->getTime() : -1.0, pthread_self(), m_tag};
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_deliveries.push_back(delivery);
        }
        if (m_log) {
            std::lock_guard<std::mutex> lock(*m_logMutex);
            m_log->push_back(delivery);
        }
    }
    std::size_t count()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_deliveries.size();
    }
    Delivery delivery(std::size_t index)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_deliveries.at(index);
    }

private:
    int m_tag;
    std::vector<Delivery>* m_log;
    std::mutex* m_logMutex;
    std::mutex m_mutex;
    std::vector<Delivery> m_deliveries;
};

// Holds the pool worker that notifies it until released.
class HoldingObserver : public HvObserver {
public:
    void onNotification(HvHandle<HvObservable>, HvHandle<HvObject>) override
    {
        entered.fetch_add(1);
        while (!released.load())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    static inline std::atomic<int> entered{0};
    static inline std::atomic<bool> released{false};
};

// Compares equal to any observer it is told to stand for.
class TwinObserver : public HvObserver {
public:
    explicit TwinObserver(const HvObject* twin) : m_twin(twin) {}
    int compareWith(const HvObject* other) const override { return other == m_twin ? 0 : HvObserver::compareWith(other); }

private:
    const HvObject* m_twin;
};

// Keeps whoever compares with it waiting until released.
class BlockingCompareObserver : public HvObserver {
public:
    int compareWith(const HvObject* other) const override
    {
        entered.store(true);
        while (!released.load())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return HvObserver::compareWith(other);
    }
    mutable std::atomic<bool> entered{false};
    std::atomic<bool> released{false};
};

// Schedules into its scheduler when destroyed.
class SchedulingOnDestruction : public HvObserver {
public:
    explicit SchedulingOnDestruction(HvScheduler& scheduler) : m_scheduler(scheduler) {}
    ~SchedulingOnDestruction() override { m_scheduler.schedule(60000, nullptr, nullptr); }

private:
    HvScheduler& m_scheduler;
};

class HvSchedulerTest : public ::testing::Test {
protected:
    HvSchedulerTest() : m_monitorLeaks("HvMonitorThread")
    {
        m_monitor = new SignalCountingMonitor;
        m_scheduler.reset(new HvScheduler(m_monitor));
    }
    ~HvSchedulerTest() override
    {
        fs_stoppedAt.store(0);
        fs_clockFailure.store(0);
        HvTime::sSetWallClockOffsetForTesting(0);
        m_scheduler.reset();
        // The monitor's own scheduler holds it: letting go deletes it.
        m_monitor->getScheduler().setMonitorThread(nullptr);
    }

    void stopClock() { fs_stoppedAt.store(kStopped); }

    hvtest::LeakCheck m_monitorLeaks;
    SignalCountingMonitor* m_monitor;
    std::unique_ptr<HvScheduler> m_scheduler;
};

} // namespace

TEST_F(HvSchedulerTest, ScheduleReturnsTheDueTimeInMicrosecondsAndCountsTheRequest)
{
    stopClock();
    HvHandle<HvObserver> observer(new HvObserver);
    EXPECT_EQ(0u, m_scheduler->getSize());
    EXPECT_EQ(static_cast<double>(kStopped) + 250000.0, m_scheduler->schedule(250, observer.get(), nullptr));
    EXPECT_EQ(1u, m_scheduler->getSize());
    EXPECT_EQ(static_cast<double>(kStopped), m_scheduler->schedule(0, observer.get(), nullptr));
    // Widened before the multiplication: 32 bits would wrap.
    EXPECT_EQ(static_cast<double>(kStopped) + 4294967295000.0, m_scheduler->schedule(4294967295u, observer.get(), nullptr));
    EXPECT_EQ(3u, m_scheduler->getSize());
    EXPECT_EQ(4, observer->getRefCount());
}

TEST_F(HvSchedulerTest, MonitorIsSignalledOnlyWhenANewRequestBecomesTheEarliest)
{
    stopClock();
    HvHandle<HvObserver> observer(new HvObserver);
    m_scheduler->schedule(100, observer.get(), nullptr);
    EXPECT_EQ(1, m_monitor->signals.load());
    m_scheduler->schedule(200, observer.get(), nullptr);
    EXPECT_EQ(1, m_monitor->signals.load());
    // Equal to the earliest is not earlier.
    m_scheduler->schedule(100, observer.get(), nullptr);
    EXPECT_EQ(1, m_monitor->signals.load());
    m_scheduler->schedule(50, observer.get(), nullptr);
    EXPECT_EQ(2, m_monitor->signals.load());
    EXPECT_EQ(4u, m_scheduler->getSize());
}

TEST_F(HvSchedulerTest, ScheduleZeroIsDueAtOnceAndQueuedInTheNextPass)
{
    stopClock();
    HvHandle<RecordingObserver> observer(new RecordingObserver);
    double due = m_scheduler->schedule(0, observer.get(), nullptr);
    EXPECT_EQ(static_cast<double>(kStopped), due);
    EXPECT_EQ(1, m_monitor->signals.load());
    EXPECT_EQ(0.0, m_scheduler->processTimerEvents());
    EXPECT_EQ(0u, m_scheduler->getSize());
    ASSERT_TRUE(hvtest::waitUntil([&] { return observer->count() == 1; }));
    EXPECT_EQ(due, observer->delivery(0).timerTime);
    EXPECT_FALSE(pthread_equal(pthread_self(), observer->delivery(0).thread));
}

TEST_F(HvSchedulerTest, PassReturnsTheMicrosecondsUntilTheNextRequest)
{
    stopClock();
    HvHandle<HvObserver> observer(new HvObserver);
    EXPECT_EQ(0.0, m_scheduler->processTimerEvents());
    m_scheduler->schedule(50, observer.get(), nullptr);
    EXPECT_EQ(50000.0, m_scheduler->processTimerEvents());
    EXPECT_EQ(1u, m_scheduler->getSize());
}

TEST_F(HvSchedulerTest, RequestNineHundredMicrosecondsAheadIsFiredAndOneThousandAndOneIsNot)
{
    stopClock();
    HvHandle<RecordingObserver> early(new RecordingObserver);
    double due = m_scheduler->schedule(1, early.get(), nullptr);
    HvTime::sSetWallClockOffsetForTesting(100);
    EXPECT_EQ(0.0, m_scheduler->processTimerEvents());
    EXPECT_EQ(0u, m_scheduler->getSize());
    ASSERT_TRUE(hvtest::waitUntil([&] { return early->count() == 1; }));
    // Fired early, but it carries its own time.
    EXPECT_EQ(due, early->delivery(0).timerTime);

    HvTime::sSetWallClockOffsetForTesting(0);
    HvHandle<RecordingObserver> late(new RecordingObserver);
    m_scheduler->schedule(2, late.get(), nullptr);
    HvTime::sSetWallClockOffsetForTesting(999);
    EXPECT_EQ(1001.0, m_scheduler->processTimerEvents());
    EXPECT_EQ(1u, m_scheduler->getSize());
    // Exactly a millisecond ahead is due.
    HvTime::sSetWallClockOffsetForTesting(1000);
    EXPECT_EQ(0.0, m_scheduler->processTimerEvents());
    EXPECT_TRUE(hvtest::waitUntil([&] { return late->count() == 1; }));
}

TEST_F(HvSchedulerTest, NilArgumentArrivesAsATimerWithTheDueTimeAndAGivenOneAsItIs)
{
    stopClock();
    HvHandle<RecordingObserver> observer(new RecordingObserver);
    HvHandle<HvObject> argument(new HvObject);
    double first = m_scheduler->schedule(0, observer.get(), nullptr);
    m_scheduler->processTimerEvents();
    ASSERT_TRUE(hvtest::waitUntil([&] { return observer->count() == 1; }));
    m_scheduler->schedule(0, observer.get(), argument.get());
    m_scheduler->processTimerEvents();
    ASSERT_TRUE(hvtest::waitUntil([&] { return observer->count() == 2; }));
    EXPECT_EQ(first, observer->delivery(0).timerTime);
    EXPECT_EQ(argument.get(), observer->delivery(1).object);
    EXPECT_EQ(-1.0, observer->delivery(1).timerTime);
    // The event let go of it once delivered.
    EXPECT_TRUE(hvtest::waitUntil([&] { return argument->getRefCount() == 1; }));
}

TEST_F(HvSchedulerTest, EqualDueTimesAreQueuedInTheOrderTheyWereScheduled)
{
    stopClock();
    // Every worker of the dispatcher's pool held: the dispatcher then
    // notifies on its own thread, one event after the other in queue order.
    HoldingObserver::entered.store(0);
    HoldingObserver::released.store(false);
    struct Release {
        ~Release() { HoldingObserver::released.store(true); }
    } release;
    HvHandle<HoldingObserver> holder(new HoldingObserver);
    const int workers = static_cast<int>(HvDispatcherThread::kDefaultPoolThreads);
    for (int i = 0; i < workers; ++i)
        m_scheduler->schedule(0, holder.get(), nullptr);
    m_scheduler->processTimerEvents();
    ASSERT_TRUE(hvtest::waitUntil([&] { return HoldingObserver::entered.load() == workers; }));

    std::mutex logMutex;
    std::vector<Delivery> log;
    std::vector<HvHandle<RecordingObserver>> observers;
    const int requests = 20;
    double key = 0.0;
    for (int i = 0; i < requests; ++i) {
        observers.push_back(HvHandle<RecordingObserver>(new RecordingObserver(i, &log, &logMutex)));
        double due = m_scheduler->schedule(0, observers.back().get(), nullptr);
        if (i > 0) {
            ASSERT_EQ(key, due);
        }
        key = due;
    }
    m_scheduler->processTimerEvents();
    bool all = hvtest::waitUntil([&] {
        std::lock_guard<std::mutex> lock(logMutex);
        return log.size() == static_cast<std::size_t>(requests);
    });
    HoldingObserver::released.store(true);
    ASSERT_TRUE(all);
    std::lock_guard<std::mutex> lock(logMutex);
    const pthread_t dispatcher = HvTimerDispatcher::getInstance()->getToken();
    for (int i = 0; i < requests; ++i) {
        EXPECT_EQ(i, log[i].tag);
        EXPECT_TRUE(pthread_equal(dispatcher, log[i].thread)) << i;
    }
}

TEST_F(HvSchedulerTest, TwoRequestsInOneMicrosecondAreCancelledTogetherOrOneByObserver)
{
    stopClock();
    HvHandle<RecordingObserver> first(new RecordingObserver);
    HvHandle<RecordingObserver> second(new RecordingObserver);
    double t = m_scheduler->schedule(10, first.get(), nullptr);
    ASSERT_EQ(t, m_scheduler->schedule(10, second.get(), nullptr));
    EXPECT_TRUE(m_scheduler->cancel(t));
    EXPECT_EQ(0u, m_scheduler->getSize());
    EXPECT_FALSE(m_scheduler->cancel(t));
    EXPECT_EQ(1, first->getRefCount());

    m_scheduler->schedule(10, first.get(), nullptr);
    m_scheduler->schedule(10, second.get(), nullptr);
    EXPECT_TRUE(m_scheduler->cancel(first.get(), t));
    EXPECT_EQ(1u, m_scheduler->getSize());
    EXPECT_FALSE(m_scheduler->cancel(first.get(), t));
    EXPECT_EQ(1u, m_scheduler->getSize());
    // What is left is the second observer's.
    HvTime::sSetWallClockOffsetForTesting(10000);
    m_scheduler->processTimerEvents();
    ASSERT_TRUE(hvtest::waitUntil([&] { return second->count() == 1; }));
    EXPECT_EQ(0u, first->count());
}

TEST_F(HvSchedulerTest, CancelByObserverTakesOnlyTheFirstThatComparesEqual)
{
    stopClock();
    HvHandle<HvObserver> wanted(new HvObserver);
    HvHandle<HvObserver> other(new HvObserver);
    HvHandle<HvObserver> twin(new TwinObserver(wanted.get()));
    double t = m_scheduler->schedule(10, other.get(), nullptr);
    m_scheduler->schedule(10, twin.get(), nullptr);
    m_scheduler->schedule(10, wanted.get(), nullptr);
    m_scheduler->schedule(20, wanted.get(), nullptr);
    // The stored observer is asked: the twin says it stands for `wanted`.
    EXPECT_TRUE(m_scheduler->cancel(wanted.get(), t));
    EXPECT_EQ(1, twin->getRefCount());
    EXPECT_EQ(3, wanted->getRefCount());
    EXPECT_TRUE(m_scheduler->cancel(wanted.get(), t));
    EXPECT_EQ(2, wanted->getRefCount());
    EXPECT_FALSE(m_scheduler->cancel(wanted.get(), t));
    EXPECT_EQ(2u, m_scheduler->getSize());
    // Nothing lies at some other time.
    EXPECT_FALSE(m_scheduler->cancel(wanted.get(), t + 1.0));
    EXPECT_FALSE(m_scheduler->cancel(t + 1.0));
}

TEST_F(HvSchedulerTest, CancelWithANilObserverTakesEveryRequestAtTheTimeAndIsTrueEvenForNone)
{
    stopClock();
    HvHandle<HvObserver> observer(new HvObserver);
    double t = m_scheduler->schedule(10, observer.get(), nullptr);
    m_scheduler->schedule(10, observer.get(), nullptr);
    m_scheduler->schedule(11, observer.get(), nullptr);
    EXPECT_TRUE(m_scheduler->cancel(nullptr, t));
    EXPECT_EQ(1u, m_scheduler->getSize());
    EXPECT_TRUE(m_scheduler->cancel(nullptr, t));
    EXPECT_TRUE(m_scheduler->cancel(nullptr, 12345.0));
    EXPECT_EQ(1u, m_scheduler->getSize());
}

TEST_F(HvSchedulerTest, CancelOfTimeZeroIsFalseAndLeavesARequestAtZeroAlone)
{
    stopClock();
    // The clock moved back to the epoch itself, so that a request lies at 0.0.
    HvTime::sSetWallClockOffsetForTesting(-kStopped);
    HvHandle<HvObserver> observer(new HvObserver);
    ASSERT_EQ(0.0, m_scheduler->schedule(0, observer.get(), nullptr));
    EXPECT_FALSE(m_scheduler->cancel(0.0));
    EXPECT_FALSE(m_scheduler->cancel(observer.get(), 0.0));
    EXPECT_FALSE(m_scheduler->cancel(nullptr, 0.0));
    EXPECT_EQ(1u, m_scheduler->getSize());
}

TEST_F(HvSchedulerTest, CancelOfTimeZeroDoesNotWaitForTheLock)
{
    stopClock();
    HvHandle<BlockingCompareObserver> blocker(new BlockingCompareObserver);
    HvHandle<HvObserver> observer(new HvObserver);
    double t = m_scheduler->schedule(10, blocker.get(), nullptr);
    // Holds the scheduler's lock while the stored observer is compared.
    std::thread holder([&] { m_scheduler->cancel(observer.get(), t); });
    ASSERT_TRUE(hvtest::waitUntil([&] { return blocker->entered.load(); }));
    std::atomic<int> results{0};
    std::atomic<bool> done{false};
    std::thread canceller([&] {
        results.fetch_add(m_scheduler->cancel(0.0) ? 1 : 0);
        results.fetch_add(m_scheduler->cancel(observer.get(), 0.0) ? 1 : 0);
        results.fetch_add(m_scheduler->cancel(nullptr, 0.0) ? 1 : 0);
        done.store(true);
    });
    bool returned = hvtest::waitUntil([&] { return done.load(); }, std::chrono::milliseconds(2000));
    blocker->released.store(true);
    holder.join();
    canceller.join();
    EXPECT_TRUE(returned);
    EXPECT_EQ(0, results.load());
    EXPECT_EQ(1u, m_scheduler->getSize());
}

TEST_F(HvSchedulerTest, NilStoredObserverMetByObserverCancelIsAssertedAndPassedOver)
{
    stopClock();
    hvtest::AssertionScope assertions;
    HvHandle<HvObserver> observer(new HvObserver);
    double t = m_scheduler->schedule(10, nullptr, nullptr);
    m_scheduler->schedule(10, observer.get(), nullptr);
    EXPECT_TRUE(m_scheduler->cancel(observer.get(), t));
    ASSERT_EQ(1u, hvtest::assertionCount());
    hvtest::expectAssertion(hvtest::lastAssertion(), "this != 0", "HvUtil/HvObject.h", 87);
    EXPECT_EQ(1u, m_scheduler->getSize());
    EXPECT_FALSE(m_scheduler->cancel(observer.get(), t));
    EXPECT_EQ(2u, hvtest::assertionCount());
    // The plain cancel takes the nil one without asking it anything.
    EXPECT_TRUE(m_scheduler->cancel(t));
    EXPECT_EQ(2u, hvtest::assertionCount());
}

TEST_F(HvSchedulerTest, RequestWithANilObserverEndsThePassWithZeroLeavingTheRestPending)
{
    stopClock();
    HvHandle<RecordingObserver> observer(new RecordingObserver);
    HvHandle<HvObject> argument(new HvObject);
    m_scheduler->schedule(0, nullptr, argument.get());
    m_scheduler->schedule(0, observer.get(), nullptr);
    EXPECT_EQ(0.0, m_scheduler->processTimerEvents());
    EXPECT_EQ(1u, m_scheduler->getSize());
    EXPECT_EQ(1, argument->getRefCount());
    // Only the next pass takes the due request behind it.
    EXPECT_EQ(0.0, m_scheduler->processTimerEvents());
    EXPECT_EQ(0u, m_scheduler->getSize());
    EXPECT_TRUE(hvtest::waitUntil([&] { return observer->count() == 1; }));
}

TEST_F(HvSchedulerTest, FiredRequestCannotBeCancelledAndIsStillDelivered)
{
    stopClock();
    HvHandle<RecordingObserver> observer(new RecordingObserver);
    double t = m_scheduler->schedule(0, observer.get(), nullptr);
    m_scheduler->processTimerEvents();
    EXPECT_FALSE(m_scheduler->cancel(t));
    EXPECT_FALSE(m_scheduler->cancel(observer.get(), t));
    EXPECT_TRUE(hvtest::waitUntil([&] { return observer->count() == 1; }));
}

TEST_F(HvSchedulerTest, SettingNoMonitorEmptiesTheStoreAndLaterRequestsSignalNobody)
{
    stopClock();
    int destroyed = 0;
    HvHandle<HvObserver> observer(new HvObserver);
    m_scheduler->schedule(10, observer.get(), new hvtest::CountingObject(destroyed));
    m_scheduler->schedule(20, observer.get(), new hvtest::CountingObject(destroyed));
    EXPECT_EQ(1, m_monitor->signals.load());
    m_scheduler->setMonitorThread(nullptr);
    EXPECT_EQ(0u, m_scheduler->getSize());
    EXPECT_EQ(2, destroyed);
    EXPECT_EQ(1, observer->getRefCount());
    // A new earliest request with no monitor to wake is kept, and nobody is
    // signalled (nor dereferenced).
    double t = m_scheduler->schedule(5, observer.get(), nullptr);
    EXPECT_EQ(1u, m_scheduler->getSize());
    EXPECT_EQ(1, m_monitor->signals.load());
    EXPECT_TRUE(m_scheduler->cancel(t));
    // A monitor set again is signalled again.
    m_scheduler->setMonitorThread(m_monitor);
    m_scheduler->schedule(5, observer.get(), nullptr);
    EXPECT_EQ(2, m_monitor->signals.load());
}

TEST_F(HvSchedulerTest, DestroyedSchedulerDropsItsRequestsWithoutNotification)
{
    stopClock();
    int destroyed = 0;
    HvHandle<RecordingObserver> observer(new RecordingObserver);
    {
        HvScheduler scheduler(m_monitor);
        scheduler.schedule(0, observer.get(), new hvtest::CountingObject(destroyed));
        scheduler.schedule(0, observer.get(), nullptr);
        EXPECT_EQ(3, observer->getRefCount());
    }
    EXPECT_EQ(1, destroyed);
    EXPECT_EQ(1, observer->getRefCount());
    EXPECT_EQ(0u, observer->count());
}

TEST_F(HvSchedulerTest, FailingClockThrowsFromScheduleFilingNothingAndFromThePass)
{
    stopClock();
    HvHandle<HvObserver> observer(new HvObserver);
    m_scheduler->schedule(10, observer.get(), nullptr);
    fs_clockFailure.store(EIO);
    HvHandle<HvException> thrown = hvtest::thrownBy([&] { m_scheduler->schedule(0, observer.get(), nullptr); });
    ASSERT_FALSE(thrown.isNull());
    EXPECT_STREQ("HvSystemError", thrown->getClassName());
    EXPECT_STREQ("gettimeofday", thrown->getMessage().c_str());
    EXPECT_EQ(EIO, HvHandle<HvSystemError>(thrown)->getErrorNumber());
    EXPECT_EQ(1u, m_scheduler->getSize());

    thrown = hvtest::thrownBy([&] { m_scheduler->processTimerEvents(); });
    ASSERT_FALSE(thrown.isNull());
    EXPECT_STREQ("gettimeofday", thrown->getMessage().c_str());
    EXPECT_EQ(1u, m_scheduler->getSize());

    // The lock was given back on the way out.
    fs_clockFailure.store(0);
    EXPECT_EQ(static_cast<double>(kStopped), m_scheduler->schedule(0, observer.get(), nullptr));
    EXPECT_EQ(2u, m_scheduler->getSize());
}

TEST_F(HvSchedulerTest, ObserverWhoseLastHandleGoesInACancelMayScheduleFromItsDestructor)
{
    stopClock();
    double t = m_scheduler->schedule(10, new SchedulingOnDestruction(*m_scheduler), nullptr);
    std::atomic<bool> done{false};
    std::atomic<bool> cancelled{false};
    std::thread canceller([&] {
        cancelled.store(m_scheduler->cancel(t));
        done.store(true);
    });
    bool returned = hvtest::waitUntil([&] { return done.load(); }, std::chrono::milliseconds(5000));
    if (!returned) {
        canceller.detach();
        FAIL() << "cancel() did not return: the destructor ran under the scheduler's lock";
    }
    canceller.join();
    EXPECT_TRUE(cancelled.load());
    // The request its destructor filed.
    EXPECT_EQ(1u, m_scheduler->getSize());

    t = m_scheduler->schedule(10, new SchedulingOnDestruction(*m_scheduler), nullptr);
    EXPECT_TRUE(m_scheduler->cancel(nullptr, t));
    EXPECT_EQ(2u, m_scheduler->getSize());
}

TEST_F(HvSchedulerTest, SizeFollowsEveryWayARequestLeaves)
{
    stopClock();
    HvHandle<HvObserver> observer(new HvObserver);
    double a = m_scheduler->schedule(1, observer.get(), nullptr);
    double b = m_scheduler->schedule(2, observer.get(), nullptr);
    m_scheduler->schedule(3, observer.get(), nullptr);
    m_scheduler->schedule(4, nullptr, nullptr);
    EXPECT_EQ(4u, m_scheduler->getSize());
    m_scheduler->cancel(a);
    EXPECT_EQ(3u, m_scheduler->getSize());
    m_scheduler->cancel(observer.get(), b);
    EXPECT_EQ(2u, m_scheduler->getSize());
    HvTime::sSetWallClockOffsetForTesting(2500);
    EXPECT_EQ(1500.0, m_scheduler->processTimerEvents());
    EXPECT_EQ(1u, m_scheduler->getSize());
    m_scheduler->setMonitorThread(nullptr);
    EXPECT_EQ(0u, m_scheduler->getSize());
}

TEST_F(HvSchedulerTest, OwnsOneMutexFromConstructionToDestruction)
{
    const long before = hvtest::liveMutexesBeyondPool();
    {
        HvScheduler scheduler(m_monitor);
        EXPECT_EQ(before + 1, hvtest::liveCount("HvMutex"));
    }
    EXPECT_EQ(before, hvtest::liveCount("HvMutex"));
}

TEST_F(HvSchedulerTest, HoldsTheMonitorItWasGivenUntilReplacedOrDestroyed)
{
    const int held = m_monitor->getRefCount();
    {
        HvScheduler scheduler(m_monitor);
        EXPECT_EQ(held + 1, m_monitor->getRefCount());
        scheduler.setMonitorThread(nullptr);
        EXPECT_EQ(held, m_monitor->getRefCount());
        scheduler.setMonitorThread(m_monitor);
        EXPECT_EQ(held + 1, m_monitor->getRefCount());
    }
    EXPECT_EQ(held, m_monitor->getRefCount());
    HvScheduler none(nullptr);
    HvHandle<HvObserver> observer(new HvObserver);
    none.schedule(0, observer.get(), nullptr);
    EXPECT_EQ(1u, none.getSize());
}
