#include <Velmora/MemAllocator.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using AllStats = std::vector<std::pair<std::string, Velmora::AllocationStats>>;

// The entry for `tag` in a listing; false when it is not listed.
bool findTag(const AllStats& all, const std::string& tag, Velmora::AllocationStats& stats)
{
    for (const auto& entry : all) {
        if (entry.first == tag) {
            stats = entry.second;
            return true;
        }
    }
    return false;
}

} // namespace

TEST(VelmoraMemAllocator, FixedSizeBlocksAreCountedUnderTheirTag)
{
    const char* tag = "VelmoraMemAllocatorTest::Fixed";
    void* first = Velmora::DefaultStaticMemAllocator::allocate(24, tag);
    void* second = Velmora::DefaultStaticMemAllocator::allocate(24, tag);
    EXPECT_EQ(2, Velmora::allocationStats(tag).liveCount);
    EXPECT_EQ(48, Velmora::allocationStats(tag).liveBytes);
    Velmora::DefaultStaticMemAllocator::deallocate(first, 24, tag);
    EXPECT_EQ(1, Velmora::allocationStats(tag).liveCount);
    Velmora::DefaultStaticMemAllocator::deallocate(second, 24, tag);
    EXPECT_EQ(0, Velmora::allocationStats(tag).liveCount);
    EXPECT_EQ(0, Velmora::allocationStats(tag).liveBytes);
}

TEST(VelmoraMemAllocator, EqualTagTextsShareOneCounterWhateverTheirAddress)
{
    std::string copy = "VelmoraMemAllocatorTest::Shared";
    void* block = Velmora::NoSizeMemAllocator::allocate(100, "VelmoraMemAllocatorTest::Shared");
    EXPECT_EQ(1, Velmora::allocationStats(copy.c_str()).liveCount);
    EXPECT_EQ(100, Velmora::allocationStats(copy.c_str()).liveBytes);
    Velmora::NoSizeMemAllocator::deallocate(block, copy.c_str());
    EXPECT_EQ(0, Velmora::allocationStats("VelmoraMemAllocatorTest::Shared").liveCount);
}

TEST(VelmoraMemAllocator, AllAllocationStatsListsEveryTagWithItsLiveCount)
{
    const char* tagA = "VelmoraMemAllocatorTest::ListedA";
    const char* tagB = "VelmoraMemAllocatorTest::ListedB";
    void* a1 = Velmora::DefaultStaticMemAllocator::allocate(8, tagA);
    void* a2 = Velmora::DefaultStaticMemAllocator::allocate(8, tagA);
    void* b = Velmora::NoSizeMemAllocator::allocate(33, tagB);

    AllStats all = Velmora::allAllocationStats();
    Velmora::AllocationStats stats{-1, -1};
    ASSERT_TRUE(findTag(all, tagA, stats));
    EXPECT_EQ(2, stats.liveCount);
    EXPECT_EQ(16, stats.liveBytes);
    ASSERT_TRUE(findTag(all, tagB, stats));
    EXPECT_EQ(1, stats.liveCount);
    EXPECT_EQ(33, stats.liveBytes);
    EXPECT_FALSE(findTag(all, "VelmoraMemAllocatorTest::NeverUsed", stats));

    Velmora::DefaultStaticMemAllocator::deallocate(a1, 8, tagA);
    Velmora::DefaultStaticMemAllocator::deallocate(a2, 8, tagA);
    Velmora::NoSizeMemAllocator::deallocate(b, tagB);

    // Released tags stay listed, at zero.
    all = Velmora::allAllocationStats();
    ASSERT_TRUE(findTag(all, tagA, stats));
    EXPECT_EQ(0, stats.liveCount);
    EXPECT_EQ(0, stats.liveBytes);
    ASSERT_TRUE(findTag(all, tagB, stats));
    EXPECT_EQ(0, stats.liveCount);
}

TEST(VelmoraMemAllocator, AllAllocationStatsIsSortedByTagWithoutDuplicates)
{
    void* block = Velmora::NoSizeMemAllocator::allocate(1, "VelmoraMemAllocatorTest::A");
    AllStats all = Velmora::allAllocationStats();
    Velmora::NoSizeMemAllocator::deallocate(block, "VelmoraMemAllocatorTest::A");
    ASSERT_FALSE(all.empty());
    for (std::size_t i = 1; i < all.size(); ++i)
        EXPECT_LT(all[i - 1].first, all[i].first);
}

TEST(VelmoraMemAllocator, ListingWhileOtherThreadsAllocateEndsBalanced)
{
    const char* tag = "VelmoraMemAllocatorTest::Threads";
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([tag] {
            for (int i = 0; i < 2000; ++i) {
                void* p = Velmora::DefaultStaticMemAllocator::allocate(16, tag);
                Velmora::DefaultStaticMemAllocator::deallocate(p, 16, tag);
            }
        });
    }
    for (int i = 0; i < 50; ++i) {
        AllStats all = Velmora::allAllocationStats();
        Velmora::AllocationStats stats{-1, -1};
        if (findTag(all, tag, stats)) {
            EXPECT_GE(stats.liveCount, 0);
            EXPECT_LE(stats.liveCount, 4);
        }
    }
    for (std::thread& thread : threads)
        thread.join();
    Velmora::AllocationStats stats{-1, -1};
    ASSERT_TRUE(findTag(Velmora::allAllocationStats(), tag, stats));
    EXPECT_EQ(0, stats.liveCount);
}
