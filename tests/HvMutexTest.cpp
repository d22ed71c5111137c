#include <HvUtil/HvMutex.h>

#include <HvUtil/HvObject.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace {

// Exposes the object mutex an HvObject borrowed from the pool.
class ProbeObject : public HvObject {
public:
    HvMutex* mutex() const { return getObjectMutex(); }
};

} // namespace

TEST(HvMutex, InitializeFillsAllPoolEntries)
{
    HvMutex::sInitialize();
    std::set<HvMutex*> distinct;
    for (unsigned int index = 0; index < HvMutex::kPoolSize; ++index) {
        ASSERT_NE(HvMutex::sm_pMutex[index], nullptr) << "entry " << index;
        distinct.insert(HvMutex::sm_pMutex[index]);
    }
    EXPECT_EQ(distinct.size(), 256u);
    EXPECT_GE(hvtest::liveCount("HvMutex"), 256);
}

TEST(HvMutex, SecondInitializeCreatesNothing)
{
    HvMutex::sInitialize();
    long before = hvtest::liveCount("HvMutex");
    HvMutex* first[HvMutex::kPoolSize];
    for (unsigned int index = 0; index < HvMutex::kPoolSize; ++index)
        first[index] = HvMutex::sm_pMutex[index];

    HvMutex::sInitialize();
    HvMutex::sInitialize();

    EXPECT_EQ(hvtest::liveCount("HvMutex"), before);
    for (unsigned int index = 0; index < HvMutex::kPoolSize; ++index) {
        ASSERT_NE(HvMutex::sm_pMutex[index], nullptr) << "entry " << index;
        EXPECT_EQ(HvMutex::sm_pMutex[index], first[index]) << "entry " << index;
    }
}

TEST(HvMutex, ObjectBorrowsPoolEntryOfCreatingThread)
{
    ProbeObject object;
    EXPECT_EQ(object.mutex(), HvMutex::sm_pMutex[HvMutex::sPoolIndex(pthread_self())]);

    HvMutex* otherThreadsMutex = nullptr;
    pthread_t otherThread{};
    std::thread creator([&] {
        ProbeObject made;
        otherThreadsMutex = made.mutex();
        otherThread = pthread_self();
    });
    creator.join();
    EXPECT_EQ(otherThreadsMutex, HvMutex::sm_pMutex[HvMutex::sPoolIndex(otherThread)]);
}

TEST(HvMutex, PoolIndexIsWithinThePool)
{
    for (std::uint64_t id : {std::uint64_t(0), std::uint64_t(1), std::uint64_t(0x7f0000000000),
                             ~std::uint64_t(0)})
        EXPECT_LT(HvMutex::sPoolIndex(static_cast<pthread_t>(id)), HvMutex::kPoolSize) << id;
}

TEST(HvMutex, ObjectsOfOneThreadShareOneEntry)
{
    std::vector<HvMutex*> seen;
    std::thread creator([&] {
        for (int i = 0; i < 10; ++i) {
            ProbeObject made;
            seen.push_back(made.mutex());
        }
    });
    creator.join();
    ASSERT_EQ(seen.size(), 10u);
    for (HvMutex* mutex : seen)
        EXPECT_EQ(mutex, seen.front());
}

TEST(HvMutex, ObjectsOfSixteenLiveThreadsSpreadOverAtLeastEightEntries)
{
    // All sixteen threads are alive at once, so their ids are distinct
    // descriptors; on 64-bit glibc those share their low 8 bits.
    constexpr int kThreads = 16;
    std::mutex guard;
    std::condition_variable allMade;
    int made = 0;
    std::set<HvMutex*> entries;
    std::vector<std::thread> creators;
    for (int t = 0; t < kThreads; ++t) {
        creators.emplace_back([&] {
            ProbeObject object;
            std::unique_lock<std::mutex> lock(guard);
            entries.insert(object.mutex());
            ++made;
            allMade.notify_all();
            allMade.wait_for(lock, std::chrono::seconds(10), [&] { return made == kThreads; });
        });
    }
    for (std::thread& creator : creators)
        creator.join();
    EXPECT_EQ(made, kThreads);
    EXPECT_GE(entries.size(), 8u);
}

TEST(HvMutex, TryLockCountIncrementsOnEveryLock)
{
    HvMutex* mutex = HvMutex::sCreate();
    unsigned int before = HvMutex::m_tryLockCount.load();
    unsigned int blockedBefore = HvMutex::m_lockCount.load();
    for (int i = 0; i < 3; ++i) {
        mutex->lock();
        mutex->unlock();
    }
    EXPECT_EQ(HvMutex::m_tryLockCount.load() - before, 3u);
    // A free mutex is won by the first non-blocking attempt.
    EXPECT_EQ(HvMutex::m_lockCount.load(), blockedBefore);
    HvMutex::sDestroy(mutex);
}

TEST(HvMutex, LockCountIncrementsWhenLockHasToWait)
{
    HvMutex* mutex = HvMutex::sCreate();
    // The waiter has to have spent its five attempts while the mutex was
    // held; a scheduler could delay it past the hold, so a few rounds are
    // allowed, but every round may count at most one blocking wait.
    bool counted = false;
    for (int round = 0; round < 5 && !counted; ++round) {
        unsigned int tryBefore = HvMutex::m_tryLockCount.load();
        unsigned int blockedBefore = HvMutex::m_lockCount.load();
        std::atomic<bool> acquired{false};
        mutex->lock();
        std::thread waiter([&] {
            mutex->lock();
            acquired = true;
            mutex->unlock();
        });
        // Failures before join() are EXPECTs: leaving with a joinable thread aborts.
        EXPECT_TRUE(hvtest::waitUntil([&] { return HvMutex::m_tryLockCount.load() - tryBefore >= 2; }));
        std::this_thread::sleep_for(hvtest::kHoldWindow);
        EXPECT_FALSE(acquired.load()) << "lock() returned while another thread held the mutex";
        mutex->unlock();
        EXPECT_TRUE(hvtest::waitUntil([&] { return acquired.load(); }));
        waiter.join();
        unsigned int blocked = HvMutex::m_lockCount.load() - blockedBefore;
        EXPECT_LE(blocked, 1u);
        counted = blocked == 1;
    }
    EXPECT_TRUE(counted);
    HvMutex::sDestroy(mutex);
}

TEST(HvMutex, CreateAndDestroyGiveStorageBack)
{
    long before = hvtest::liveCount("HvMutex");
    HvMutex* mutex = HvMutex::sCreate();
    ASSERT_NE(mutex, nullptr);
    EXPECT_EQ(hvtest::liveCount("HvMutex"), before + 1);
    HvMutex::sDestroy(mutex);
    EXPECT_EQ(hvtest::liveCount("HvMutex"), before);
    HvMutex::sDestroy(nullptr);
    EXPECT_EQ(hvtest::liveCount("HvMutex"), before);
}

TEST(HvMutex, ProtectsCounterAcrossThreads)
{
    HvMutex::sInitialize();
    HvMutex* mutex = HvMutex::sm_pMutex[7];
    const int kThreads = 4;
    const int kRounds = 20000;
    hvtest::ExclusionResult result =
        hvtest::runExclusively(kThreads, kRounds, [&] { mutex->lock(); }, [&] { mutex->unlock(); });
    EXPECT_EQ(result.counter, static_cast<long>(kThreads) * kRounds);
    EXPECT_EQ(result.overlaps, 0);
}

TEST(HvMutex, ScopedLockHoldsUntilScopeEnds)
{
    HvMutex* mutex = HvMutex::sCreate();
    std::atomic<bool> acquired{false};
    std::atomic<bool> waiting{false};
    std::thread waiter;
    {
        HvMutex::Lock hold(mutex);
        waiter = std::thread([&] {
            waiting = true;
            mutex->lock();
            acquired = true;
            mutex->unlock();
        });
        EXPECT_TRUE(hvtest::waitUntil([&] { return waiting.load(); }));
        std::this_thread::sleep_for(hvtest::kHoldWindow);
        EXPECT_FALSE(acquired.load());
    }
    EXPECT_TRUE(hvtest::waitUntil([&] { return acquired.load(); }));
    waiter.join();
    HvMutex::sDestroy(mutex);
}
