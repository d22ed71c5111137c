#include <HvUtil/HvTime.h>

#include <HvUtil/HvSystemError.h>

#include <tests/support/HvFailingClock.h>
#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <functional>
#include <map>
#include <sys/time.h>
#include <time.h>


namespace {

double microsecondsNow()
{
    struct timespec precise;
    clock_gettime(CLOCK_REALTIME, &precise);
    return static_cast<double>(precise.tv_sec) * 1000000.0 + static_cast<double>(precise.tv_nsec / 1000);
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
