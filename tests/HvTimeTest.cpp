#include <HvUtil/HvTime.h>

#include <HvUtil/HvSystemError.h>
#include <HvUtil/HvThread.h>

#include <tests/support/HvFailingClock.h>
#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <functional>
#include <map>
#include <vector>
#include <sys/time.h>
#include <time.h>


namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

const long long kHour = 3600LL * 1000000LL;

double microsecondsNow()
{
    struct timespec precise;
    clock_gettime(CLOCK_REALTIME, &precise);
    return static_cast<double>(precise.tv_sec) * 1000000.0 + static_cast<double>(precise.tv_nsec / 1000);
}

double monotonicMicrosecondsNow()
{
    struct timespec precise;
    clock_gettime(CLOCK_MONOTONIC, &precise);
    return static_cast<double>(precise.tv_sec) * 1000000.0 + static_cast<double>(precise.tv_nsec / 1000);
}

// Puts the clock switch and the wall clock offset back when a test ends,
// whatever it asserted.
class ClockSettings {
public:
    explicit ClockSettings(bool monotonic, long long offset = 0)
    {
        HvTime::sm_bMonotonicClock.store(monotonic);
        HvTime::sSetWallClockOffsetForTesting(offset);
    }
    ~ClockSettings()
    {
        HvTime::sm_bMonotonicClock.store(false);
        HvTime::sSetWallClockOffsetForTesting(0);
        fs_clockFailure.store(0);
    }
    ClockSettings(const ClockSettings&) = delete;
    ClockSettings& operator=(const ClockSettings&) = delete;
};

// How long one wait(milliseconds) of a forked thread lasted, in milliseconds
// of the steady clock; -1 when the thread did not finish within 10 s.
double measureWait(unsigned int milliseconds)
{
    std::atomic<double> elapsed{-1.0};
    std::atomic<bool> done{false};
    HvHandle<hvtest::LambdaThread> thread(new hvtest::LambdaThread([&](hvtest::LambdaThread& self) {
        auto start = std::chrono::steady_clock::now();
        self.wait(milliseconds);
        elapsed.store(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
        done.store(true);
    }));
    thread->fork();
    if (!hvtest::waitUntil([&] { return done.load(); }))
        return -1.0;
    EXPECT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(thread.get()); }));
    return elapsed.load();
}

} // namespace

TEST(HvTime, DefaultIsTheEpoch)
{
    HvTime time;
    EXPECT_EQ(0.0, static_cast<double>(time));
}

TEST(HvTime, KeepsTheMicrosecondsItWasGiven)
{
    HvTime time(1234567.5);
    EXPECT_EQ(1234567.5, static_cast<double>(time));
    HvTime copy = time;
    EXPECT_EQ(1234567.5, static_cast<double>(copy));
    HvTime negative(-3.0);
    EXPECT_EQ(-3.0, static_cast<double>(negative));
}

TEST(HvTime, OrderIsThatOfTheDoubles)
{
    HvTime early(1000.0);
    HvTime late(1000.25);
    EXPECT_TRUE(early < late);
    EXPECT_FALSE(late < early);
    EXPECT_FALSE(early < HvTime(1000.0));
    EXPECT_TRUE(std::less<HvTime>()(early, late));
}

TEST(HvTime, MultimapKeepsEqualTimesInInsertionOrder)
{
    std::multimap<HvTime, int> pending;
    pending.insert({HvTime(20.0), 1});
    pending.insert({HvTime(10.0), 2});
    pending.insert({HvTime(20.0), 3});
    pending.insert({HvTime(15.0), 4});
    std::vector<int> order;
    for (const auto& entry : pending)
        order.push_back(entry.second);
    EXPECT_EQ((std::vector<int>{2, 4, 1, 3}), order);
}

TEST(HvTime, CurrentTimeIsTheWallClockInWholeMicroseconds)
{
    double before = microsecondsNow();
    HvTime now = HvTime::sGetCurrentTime();
    double after = microsecondsNow();
    EXPECT_LE(before, static_cast<double>(now));
    EXPECT_LE(static_cast<double>(now), after);
    EXPECT_EQ(std::floor(static_cast<double>(now)), static_cast<double>(now));
    // Seconds since 1970 times a million: far beyond what milliseconds would give.
    EXPECT_GT(static_cast<double>(now), 1.0e15);
}

TEST(HvTime, CurrentTimeNeverGoesBackBetweenCalls)
{
    HvTime previous = HvTime::sGetCurrentTime();
    for (int i = 0; i < 1000; ++i) {
        HvTime next = HvTime::sGetCurrentTime();
        EXPECT_FALSE(next < previous);
        previous = next;
    }
}

TEST(HvTime, FailingClockThrowsSystemErrorNamedAfterTheCall)
{
    fs_clockFailure.store(EFAULT);
    HvHandle<HvException> thrown = hvtest::thrownBy([] { HvTime::sGetCurrentTime(); });
    fs_clockFailure.store(0);
    ASSERT_FALSE(thrown.isNull());
    EXPECT_STREQ("HvSystemError", thrown->getClassName());
    EXPECT_STREQ("gettimeofday", thrown->getMessage().c_str());
    HvHandle<HvSystemError> error(thrown);
    EXPECT_EQ(EFAULT, error->getErrorNumber());
}

TEST(HvTime, MonotonicClockIsOffByDefault)
{
    EXPECT_FALSE(HvTime::sm_bMonotonicClock.load());
    EXPECT_EQ(0, HvTime::sGetWallClockOffsetForTesting());
}

TEST(HvTime, WallClockOffsetMovesTheCurrentTimeByItsAmount)
{
    ClockSettings settings(false, -kHour);
    double before = microsecondsNow();
    HvTime now = HvTime::sGetCurrentTime();
    double after = microsecondsNow();
    EXPECT_LE(before - kHour, static_cast<double>(now));
    EXPECT_LE(static_cast<double>(now), after - kHour);

    HvTime::sSetWallClockOffsetForTesting(kHour);
    before = microsecondsNow();
    now = HvTime::sGetCurrentTime();
    after = microsecondsNow();
    EXPECT_LE(before + kHour, static_cast<double>(now));
    EXPECT_LE(static_cast<double>(now), after + kHour);
}

TEST(HvTime, ReadWallClockReportsTheOffsetAndKeepsMicrosecondsInRange)
{
    ClockSettings settings(false);
    // Offsets that borrow from and carry into the seconds.
    for (long long offset : {-1LL, -999999LL, -1000001LL, 1LL, 999999LL, 1000001LL, -kHour, kHour}) {
        HvTime::sSetWallClockOffsetForTesting(offset);
        double before = microsecondsNow();
        struct timeval now;
        long long applied = 12345;
        ASSERT_EQ(0, HvTime::sReadWallClock(&now, &applied));
        double after = microsecondsNow();
        EXPECT_EQ(offset, applied);
        EXPECT_LE(0, now.tv_usec);
        EXPECT_GT(1000000, now.tv_usec);
        double read = static_cast<double>(now.tv_sec) * 1000000.0 + static_cast<double>(now.tv_usec);
        EXPECT_LE(before + static_cast<double>(offset), read) << offset;
        EXPECT_LE(read, after + static_cast<double>(offset)) << offset;
    }
}

TEST(HvTime, ReadWallClockGivesTheFailureOfGettimeofdayAndLeavesTheTimeAlone)
{
    ClockSettings settings(false, kHour);
    fs_clockFailure.store(EINVAL);
    struct timeval now = {7, 8};
    errno = 0;
    EXPECT_EQ(-1, HvTime::sReadWallClock(&now));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(7, now.tv_sec);
    EXPECT_EQ(8, now.tv_usec);
}

TEST(HvTime, MonotonicClockReadsClockMonotonicInWholeMicroseconds)
{
    ClockSettings settings(true);
    double before = monotonicMicrosecondsNow();
    HvTime now = HvTime::sGetCurrentTime();
    double after = monotonicMicrosecondsNow();
    EXPECT_LE(before, static_cast<double>(now));
    EXPECT_LE(static_cast<double>(now), after);
    EXPECT_EQ(std::floor(static_cast<double>(now)), static_cast<double>(now));
}

TEST(HvTime, MonotonicClockIsNotMovedByAWallClockStep)
{
    ClockSettings settings(true);
    for (long long offset : {-kHour, kHour}) {
        HvTime::sSetWallClockOffsetForTesting(offset);
        double before = monotonicMicrosecondsNow();
        HvTime now = HvTime::sGetCurrentTime();
        double after = monotonicMicrosecondsNow();
        EXPECT_LE(before, static_cast<double>(now));
        EXPECT_LE(static_cast<double>(now), after);
    }
}

TEST(HvTime, MonotonicClockDoesNotDependOnGettimeofday)
{
    ClockSettings settings(true);
    fs_clockFailure.store(EFAULT);
    HvHandle<HvException> thrown = hvtest::thrownBy([] { HvTime::sGetCurrentTime(); });
    EXPECT_TRUE(thrown.isNull());
}

TEST(HvTime, WaitTimeOutIsMeasuredOnTheWallClockWithoutAndWithAStep)
{
    for (long long offset : {0LL, -kHour, kHour}) {
        ClockSettings settings(false, offset);
        double elapsed = measureWait(200);
        // The deadline is taken on the library's clock and handed to the
        // system on its own: a step made before the wait neither ends it at
        // once nor stretches it by the step.
        EXPECT_LE(199.0, elapsed) << offset;
        EXPECT_GT(2000.0, elapsed) << offset;
    }
}

TEST(HvTime, WaitTimeOutIsMeasuredOnTheMonotonicClockWhenSwitchedOn)
{
    for (long long offset : {0LL, -kHour, kHour}) {
        ClockSettings settings(true, offset);
        double elapsed = measureWait(200);
        EXPECT_LE(199.0, elapsed) << offset;
        EXPECT_GT(2000.0, elapsed) << offset;
    }
}

TEST(HvTime, TimedWaitOnAWallClockThatCannotBeReadEndsAtOnce)
{
    ClockSettings settings(false);
    fs_clockFailure.store(EFAULT);
    // The deadline then lies long past: the wait returns as timed out
    // instead of sleeping on an undefined deadline.
    double elapsed = measureWait(5000);
    EXPECT_LE(0.0, elapsed);
    EXPECT_GT(2000.0, elapsed);
}

TEST(HvTime, SignalledWaitReturnsEarlyOnEitherClock)
{
    for (bool monotonic : {false, true}) {
        ClockSettings settings(monotonic);
        std::atomic<double> elapsed{-1.0};
        HvHandle<hvtest::LambdaThread> thread(new hvtest::LambdaThread([&](hvtest::LambdaThread& self) {
            auto start = std::chrono::steady_clock::now();
            self.wait(20000);
            elapsed.store(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
        }));
        thread->fork();
        ASSERT_TRUE(hvtest::waitUntil([&] { return thread->getState() == HvThread::BLOCKED; }));
        thread->signal();
        ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(thread.get()); }));
        EXPECT_LE(0.0, elapsed.load());
        EXPECT_GT(10000.0, elapsed.load()) << monotonic;
    }
}
