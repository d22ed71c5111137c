#include <HvUtil/HvRecursiveMutex.h>

#include <HvUtil/HvException.h>
#include <HvUtil/HvSystemError.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <pthread.h>

#include <atomic>
#include <cstring>
#include <thread>

namespace {

const char kNotOwner[] = "unlockI - not owner or not locked";

// A misused mutex keeps its guard locked for good, so it can be neither used
// nor destroyed cleanly again. Such mutexes are made on the heap and parked
// here on purpose instead of being deleted. A plain array is never torn down,
// so the pointers keep them reachable until the process ends.
HvRecursiveMutex* volatile fs_abandoned[64];
unsigned int fs_abandonedCount = 0;

HvRecursiveMutex* newAbandonedMutex()
{
    HvRecursiveMutex* mutex = new HvRecursiveMutex;
    fs_abandoned[fs_abandonedCount++ % 64] = mutex;
    return mutex;
}

} // namespace

TEST(HvRecursiveMutex, NewMutexIsFree)
{
    HvRecursiveMutex mutex;
    EXPECT_EQ(mutex.getDepth(), 0);
    EXPECT_EQ(mutex.getOwner(), pthread_t(0));
}

TEST(HvRecursiveMutex, HeapAllocationIsTaggedAndGivenBack)
{
    long before = hvtest::liveCount("HvRecursiveMutex");
    HvRecursiveMutex* mutex = new HvRecursiveMutex;
    EXPECT_EQ(hvtest::liveCount("HvRecursiveMutex"), before + 1);
    mutex->lock();
    mutex->unlock();
    delete mutex;
    EXPECT_EQ(hvtest::liveCount("HvRecursiveMutex"), before);
}

TEST(HvRecursiveMutex, OwnerRelocksWithoutBlocking)
{
    HvRecursiveMutex mutex;
    mutex.lock();
    mutex.lock();
    EXPECT_EQ(mutex.getDepth(), 2);
    EXPECT_TRUE(pthread_equal(mutex.getOwner(), pthread_self()));
    mutex.unlock();
    EXPECT_EQ(mutex.getDepth(), 1);
    EXPECT_TRUE(pthread_equal(mutex.getOwner(), pthread_self()));
    mutex.unlock();
    EXPECT_EQ(mutex.getDepth(), 0);
    EXPECT_EQ(mutex.getOwner(), pthread_t(0));
}

TEST(HvRecursiveMutex, LockThreeTimesNeedsThreeUnlocksBeforeOtherThreadGetsIt)
{
    HvRecursiveMutex mutex;
    mutex.lock();
    mutex.lock();
    mutex.lock();

    std::atomic<bool> started{false};
    std::atomic<bool> acquired{false};
    pthread_t otherOwner = 0;
    int otherDepth = -1;
    std::thread other([&] {
        started = true;
        mutex.lock();
        otherOwner = mutex.getOwner();
        otherDepth = mutex.getDepth();
        acquired = true;
        mutex.unlock();
    });
    EXPECT_TRUE(hvtest::waitUntil([&] { return started.load(); }));

    std::this_thread::sleep_for(hvtest::kHoldWindow);
    EXPECT_FALSE(acquired.load()) << "acquired at depth 3";
    mutex.unlock();
    std::this_thread::sleep_for(hvtest::kHoldWindow);
    EXPECT_FALSE(acquired.load()) << "acquired at depth 2";
    mutex.unlock();
    std::this_thread::sleep_for(hvtest::kHoldWindow);
    EXPECT_FALSE(acquired.load()) << "acquired at depth 1";
    EXPECT_EQ(mutex.getDepth(), 1);

    mutex.unlock();
    EXPECT_TRUE(hvtest::waitUntil([&] { return acquired.load(); }));
    other.join();
    EXPECT_EQ(otherDepth, 1);
    EXPECT_FALSE(pthread_equal(otherOwner, pthread_self()));
    EXPECT_EQ(mutex.getDepth(), 0);
    EXPECT_EQ(mutex.getOwner(), pthread_t(0));
}

TEST(HvRecursiveMutex, LockThreeThenOneUnlockLeavesDepthTwoSameOwner)
{
    HvRecursiveMutex mutex;
    mutex.lock(3);
    EXPECT_EQ(mutex.getDepth(), 3);
    mutex.unlock();
    EXPECT_EQ(mutex.getDepth(), 2);
    EXPECT_TRUE(pthread_equal(mutex.getOwner(), pthread_self()));

    // Still held: another thread has to wait for the two remaining unlocks.
    std::atomic<bool> started{false};
    std::atomic<bool> acquired{false};
    std::thread other([&] {
        started = true;
        mutex.lock();
        acquired = true;
        mutex.unlock();
    });
    EXPECT_TRUE(hvtest::waitUntil([&] { return started.load(); }));
    std::this_thread::sleep_for(hvtest::kHoldWindow);
    EXPECT_FALSE(acquired.load());
    mutex.unlock();
    std::this_thread::sleep_for(hvtest::kHoldWindow);
    EXPECT_FALSE(acquired.load());
    mutex.unlock();
    EXPECT_TRUE(hvtest::waitUntil([&] { return acquired.load(); }));
    other.join();
    EXPECT_EQ(mutex.getDepth(), 0);
}

TEST(HvRecursiveMutex, LockNByOwnerAddsNLevels)
{
    HvRecursiveMutex mutex;
    mutex.lock();
    mutex.lock(4);
    EXPECT_EQ(mutex.getDepth(), 5);
    for (int i = 0; i < 5; ++i)
        mutex.unlock();
    EXPECT_EQ(mutex.getDepth(), 0);
    EXPECT_EQ(mutex.getOwner(), pthread_t(0));
}

TEST(HvRecursiveMutex, UnlockByForeignThreadThrowsAndLeavesStateAlone)
{
    HvRecursiveMutex* mutex = newAbandonedMutex();
    mutex->lock();

    HvHandle<HvException> e = hvtest::thrownOnOtherThread([&] { mutex->unlock(); });
    ASSERT_FALSE(e.isNull()) << "unlock() by a foreign thread did not throw";
    EXPECT_NE(dynamic_cast<HvSystemError*>(e.get()), nullptr);
    EXPECT_STREQ(e->getMessage().c_str(), kNotOwner);
    EXPECT_EQ(mutex->getDepth(), 1);
    EXPECT_TRUE(pthread_equal(mutex->getOwner(), pthread_self()));
    // The guard stays locked after the misuse; the mutex is not touched again.
}

TEST(HvRecursiveMutex, UnlockOfFreeMutexThrows)
{
    HvRecursiveMutex* mutex = newAbandonedMutex();
    try {
        mutex->unlock();
        FAIL() << "unlock() of a free mutex did not throw";
    } catch (HvHandle<HvException>& e) {
        EXPECT_NE(dynamic_cast<HvSystemError*>(e.get()), nullptr);
        EXPECT_STREQ(e->getMessage().c_str(), kNotOwner);
    }
    EXPECT_EQ(mutex->getDepth(), 0);
    EXPECT_EQ(mutex->getOwner(), pthread_t(0));
}

TEST(HvRecursiveMutex, ExtraUnlockByOwnerThrows)
{
    HvRecursiveMutex* mutex = newAbandonedMutex();
    mutex->lock(2);
    mutex->unlock();
    mutex->unlock();
    try {
        mutex->unlock();
        FAIL() << "a third unlock() after lock(2) did not throw";
    } catch (HvHandle<HvException>& e) {
        EXPECT_STREQ(e->getMessage().c_str(), kNotOwner);
    }
    EXPECT_EQ(mutex->getDepth(), 0);
}

TEST(HvRecursiveMutex, WaitingThreadTakesOverWithItsOwnDepth)
{
    HvRecursiveMutex mutex;
    mutex.lock();
    std::atomic<bool> started{false};
    std::atomic<bool> acquired{false};
    std::atomic<bool> release{false};
    int depthSeen = -1;
    bool ownerIsSelf = false;
    std::thread other([&] {
        started = true;
        mutex.lock(2);
        depthSeen = mutex.getDepth();
        ownerIsSelf = pthread_equal(mutex.getOwner(), pthread_self());
        acquired = true;
        hvtest::waitUntil([&] { return release.load(); });
        mutex.unlock();
        mutex.unlock();
    });
    EXPECT_TRUE(hvtest::waitUntil([&] { return started.load(); }));
    std::this_thread::sleep_for(hvtest::kHoldWindow);
    EXPECT_FALSE(acquired.load());
    mutex.unlock();
    EXPECT_TRUE(hvtest::waitUntil([&] { return acquired.load(); }));
    release = true;
    other.join();
    EXPECT_EQ(depthSeen, 2);
    EXPECT_TRUE(ownerIsSelf);
    EXPECT_EQ(mutex.getDepth(), 0);
}

TEST(HvRecursiveMutex, ProtectsCounterAcrossThreadsWithNestedLocking)
{
    HvRecursiveMutex mutex;
    const int kThreads = 4;
    const int kRounds = 5000;
    auto enterTwice = [&] {
        mutex.lock();
        mutex.lock();
    };
    auto leaveTwice = [&] {
        mutex.unlock();
        mutex.unlock();
    };
    hvtest::ExclusionResult result = hvtest::runExclusively(kThreads, kRounds, enterTwice, leaveTwice);
    EXPECT_EQ(result.counter, static_cast<long>(kThreads) * kRounds);
    EXPECT_EQ(result.overlaps, 0);
    EXPECT_EQ(mutex.getDepth(), 0);
    EXPECT_EQ(mutex.getOwner(), pthread_t(0));
}
