#include <HvUtil/HvCriticalSection.h>

#include <HvUtil/HvException.h>
#include <HvUtil/HvSystemError.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <pthread.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

// Sections misused on purpose: their lock stays blocked for good, so they are
// parked here instead of being recycled or used again. A plain array is never
// torn down, so the pointers keep them reachable until the process ends.
HvCriticalSection* volatile fs_abandoned[64];
unsigned int fs_abandonedCount = 0;

} // namespace

TEST(HvCriticalSection, GlobalSectionExistsAndWorks)
{
    HvCriticalSection* global = HvCriticalSection::sm_pCriticalSection;
    ASSERT_NE(global, nullptr);
    global->enter();
    EXPECT_EQ(global->getDepth(), 1u);
    EXPECT_TRUE(pthread_equal(global->getOwner(), pthread_self()));
    global->leave();
    EXPECT_EQ(global->getDepth(), 0u);
    EXPECT_EQ(global->getOwner(), pthread_t(0));
}

TEST(HvCriticalSection, NewSectionIsFree)
{
    HvCriticalSection* section = HvCriticalSection::sAllocate();
    ASSERT_NE(section, nullptr);
    EXPECT_EQ(section->getDepth(), 0u);
    EXPECT_EQ(section->getOwner(), pthread_t(0));
    HvCriticalSection::sRecycle(section);
}

TEST(HvCriticalSection, EnterTwiceLeaveOnceLeavesOwnerSetAndDepthOne)
{
    HvCriticalSection* section = HvCriticalSection::sAllocate();
    section->enter();
    section->enter();
    EXPECT_EQ(section->getDepth(), 2u);
    section->leave();
    EXPECT_EQ(section->getDepth(), 1u);
    EXPECT_TRUE(pthread_equal(section->getOwner(), pthread_self()));
    section->leave();
    EXPECT_EQ(section->getDepth(), 0u);
    EXPECT_EQ(section->getOwner(), pthread_t(0));
    HvCriticalSection::sRecycle(section);
}

TEST(HvCriticalSection, RecycledSectionsComeBackLastInFirstOut)
{
    HvCriticalSection* a = HvCriticalSection::sAllocate();
    HvCriticalSection* b = HvCriticalSection::sAllocate();
    ASSERT_NE(a, b);
    int existing = HvCriticalSection::sGetExistingCount();
    ASSERT_LT(existing, HvCriticalSection::kPoolLimit);

    HvCriticalSection::sRecycle(a);
    HvCriticalSection::sRecycle(b);
    // Pooled sections still count as existing.
    EXPECT_EQ(HvCriticalSection::sGetExistingCount(), existing);

    long sections = hvtest::liveCount("HvCriticalSection");
    EXPECT_EQ(HvCriticalSection::sAllocate(), b);
    EXPECT_EQ(HvCriticalSection::sAllocate(), a);
    EXPECT_EQ(hvtest::liveCount("HvCriticalSection"), sections);
    EXPECT_EQ(HvCriticalSection::sGetExistingCount(), existing);

    HvCriticalSection::sRecycle(a);
    HvCriticalSection::sRecycle(b);
}

TEST(HvCriticalSection, AllocateAndRecycleAreCounted)
{
    unsigned int allocations = HvCriticalSection::sGetAllocateCount();
    unsigned int recycles = HvCriticalSection::sGetRecycleCount();
    HvCriticalSection* section = HvCriticalSection::sAllocate();
    EXPECT_EQ(HvCriticalSection::sGetAllocateCount(), allocations + 1);
    HvCriticalSection::sRecycle(section);
    EXPECT_EQ(HvCriticalSection::sGetRecycleCount(), recycles + 1);
}

TEST(HvCriticalSection, RecycleNullIsIgnoredButCounted)
{
    HvCriticalSection* section = HvCriticalSection::sAllocate();
    HvCriticalSection::sRecycle(section);

    unsigned int recycles = HvCriticalSection::sGetRecycleCount();
    int existing = HvCriticalSection::sGetExistingCount();
    long sections = hvtest::liveCount("HvCriticalSection");
    HvCriticalSection::sRecycle(nullptr);
    EXPECT_EQ(HvCriticalSection::sGetRecycleCount(), recycles + 1);
    EXPECT_EQ(HvCriticalSection::sGetExistingCount(), existing);
    EXPECT_EQ(hvtest::liveCount("HvCriticalSection"), sections);

    // The free list is untouched: its head is still the section put back last.
    HvCriticalSection* again = HvCriticalSection::sAllocate();
    EXPECT_EQ(again, section);
    HvCriticalSection::sRecycle(again);
}

TEST(HvCriticalSection, PooledSectionComesBackWithOldDepthAndOwner)
{
    HvCriticalSection* section = HvCriticalSection::sAllocate();
    section->enter();
    HvCriticalSection::sRecycle(section);

    HvCriticalSection* again = HvCriticalSection::sAllocate();
    ASSERT_EQ(again, section);
    EXPECT_EQ(again->getDepth(), 1u);
    EXPECT_TRUE(pthread_equal(again->getOwner(), pthread_self()));
    again->leave();
    EXPECT_EQ(again->getDepth(), 0u);
    HvCriticalSection::sRecycle(again);
}

TEST(HvCriticalSection, SectionsBeyondLimitAreDestroyedBelowItPooled)
{
    // Bring the number of existing sections to exactly the limit; pooled
    // ones are taken first and do not add to it.
    std::vector<HvCriticalSection*> held;
    while (HvCriticalSection::sGetExistingCount() < HvCriticalSection::kPoolLimit)
        held.push_back(HvCriticalSection::sAllocate());
    ASSERT_EQ(HvCriticalSection::sGetExistingCount(), 1024);

    long sections = hvtest::liveCount("HvCriticalSection");
    long mutexes = hvtest::liveCount("HvRecursiveMutex");

    // The 1024th existing section is destroyed, with its recursive mutex.
    HvCriticalSection::sRecycle(held.back());
    held.pop_back();
    EXPECT_EQ(HvCriticalSection::sGetExistingCount(), 1023);
    EXPECT_EQ(hvtest::liveCount("HvCriticalSection"), sections - 1);
    EXPECT_EQ(hvtest::liveCount("HvRecursiveMutex"), mutexes - 1);

    // With 1023 in existence a recycled section is pooled...
    HvCriticalSection* pooled = held.back();
    held.pop_back();
    HvCriticalSection::sRecycle(pooled);
    EXPECT_EQ(HvCriticalSection::sGetExistingCount(), 1023);
    EXPECT_EQ(hvtest::liveCount("HvCriticalSection"), sections - 1);
    EXPECT_EQ(hvtest::liveCount("HvRecursiveMutex"), mutexes - 1);

    // ...and handed out again by the next allocation.
    HvCriticalSection* again = HvCriticalSection::sAllocate();
    EXPECT_EQ(again, pooled);
    EXPECT_EQ(HvCriticalSection::sGetExistingCount(), 1023);
    held.push_back(again);

    // Going over the limit again and recycling twice: the first is destroyed,
    // the second pooled.
    held.push_back(HvCriticalSection::sAllocate());
    ASSERT_EQ(HvCriticalSection::sGetExistingCount(), 1024);
    HvCriticalSection::sRecycle(held.back());
    held.pop_back();
    EXPECT_EQ(HvCriticalSection::sGetExistingCount(), 1023);
    HvCriticalSection::sRecycle(held.back());
    held.pop_back();
    EXPECT_EQ(HvCriticalSection::sGetExistingCount(), 1023);

    for (HvCriticalSection* section : held)
        HvCriticalSection::sRecycle(section);
    EXPECT_EQ(HvCriticalSection::sGetExistingCount(), 1023);
    EXPECT_EQ(hvtest::liveCount("HvCriticalSection"), sections - 1);
    EXPECT_EQ(hvtest::liveCount("HvRecursiveMutex"), mutexes - 1);
}

TEST(HvCriticalSection, EnterFromTwoThreadsExcludesEachOther)
{
    HvCriticalSection* section = HvCriticalSection::sAllocate();
    section->enter();
    std::atomic<bool> started{false};
    std::atomic<bool> entered{false};
    bool ownerIsSelf = false;
    unsigned int depthSeen = 0;
    std::thread other([&] {
        started = true;
        section->enter();
        ownerIsSelf = pthread_equal(section->getOwner(), pthread_self());
        depthSeen = section->getDepth();
        entered = true;
        section->leave();
    });
    EXPECT_TRUE(hvtest::waitUntil([&] { return started.load(); }));
    std::this_thread::sleep_for(hvtest::kHoldWindow);
    EXPECT_FALSE(entered.load());
    section->leave();
    EXPECT_TRUE(hvtest::waitUntil([&] { return entered.load(); }));
    other.join();
    EXPECT_TRUE(ownerIsSelf);
    EXPECT_EQ(depthSeen, 1u);
    EXPECT_EQ(section->getDepth(), 0u);
    EXPECT_EQ(section->getOwner(), pthread_t(0));
    HvCriticalSection::sRecycle(section);
}

TEST(HvCriticalSection, SectionProtectsCounterAcrossThreads)
{
    HvCriticalSection* section = HvCriticalSection::sAllocate();
    const int kThreads = 2;
    const int kRounds = 10000;
    hvtest::ExclusionResult result =
        hvtest::runExclusively(kThreads, kRounds, [&] { section->enter(); }, [&] { section->leave(); });
    EXPECT_EQ(result.counter, static_cast<long>(kThreads) * kRounds);
    EXPECT_EQ(result.overlaps, 0);
    HvCriticalSection::sRecycle(section);
}

TEST(HvCriticalSection, LeaveByForeignThreadThrows)
{
    // The misuse leaves the section's lock unusable (its guard stays
    // locked), so this section is neither recycled nor used again.
    HvCriticalSection* section = HvCriticalSection::sAllocate();
    fs_abandoned[fs_abandonedCount++ % 64] = section;
    section->enter();
    HvHandle<HvException> e = hvtest::thrownOnOtherThread([&] { section->leave(); });
    ASSERT_FALSE(e.isNull()) << "leave() by a foreign thread did not throw";
    EXPECT_NE(dynamic_cast<HvSystemError*>(e.get()), nullptr);
    EXPECT_STREQ(e->getMessage().c_str(), "unlockI - not owner or not locked");
    // The intruder changed nothing: the real holder is still recorded.
    EXPECT_EQ(1u, section->getDepth());
    EXPECT_TRUE(pthread_equal(pthread_self(), section->getOwner()));
}

TEST(HvCriticalSection, LeaveOfAFreeSectionThrowsAndKeepsDepthZero)
{
    HvCriticalSection* section = HvCriticalSection::sAllocate();
    fs_abandoned[fs_abandonedCount++ % 64] = section;
    EXPECT_EQ(hvtest::messageOf([&] { section->leave(); }), "unlockI - not owner or not locked");
    EXPECT_EQ(0u, section->getDepth());
    EXPECT_EQ(pthread_t(0), section->getOwner());
}
