#include <HvUtil/HvHashTableBase.h>

#include <HvUtil/HvHandle.h>
#include <HvUtil/HvMutex.h>

#include <Velmora/MemAllocator.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

namespace {

// A plain entry: the first word is the key, as sDefaultHashFunc expects.
struct Pair {
    unsigned int key;
    unsigned int value;
};

// Keys only; the value does not take part.
bool sameKey(const void* a, const void* b)
{
    return static_cast<const Pair*>(a)->key == static_cast<const Pair*>(b)->key;
}

int fs_copyCalls = 0;

// Marks what it copies, so a test can tell it from a byte copy.
void copyTimesTen(void* destination, const void* source)
{
    ++fs_copyCalls;
    const Pair* from = static_cast<const Pair*>(source);
    Pair* to = static_cast<Pair*>(destination);
    to->key = from->key;
    to->value = from->value * 10;
}

const Pair* asPair(const void* entry)
{
    return static_cast<const Pair*>(entry);
}

// The keys of the entries in iteration order.
std::vector<unsigned int> keysInOrder(HvHashTableBase& table)
{
    std::vector<unsigned int> keys;
    HvHashTableBase::Iterator walk(table);
    while (walk.hasNext())
        keys.push_back(asPair(walk.next())->key);
    return keys;
}

} // namespace

// ---------------------------------------------------------------- construction

TEST(HvHashTableBase, NewTableIsEmpty)
{
    HvHashTableBase table(sizeof(Pair), &HvHashTableBase::sDefaultHashFunc, nullptr, nullptr, 101, 1);
    EXPECT_EQ(0u, table.getCount());
    EXPECT_EQ(101u, table.getBucketCount());
    Pair probe{1, 0};
    EXPECT_EQ(nullptr, table.find(&probe));
    EXPECT_EQ(nullptr, table.mFind(&probe));
}

TEST(HvHashTableBase, StripeLocksAreMadeAndGivenBack)
{
    long before = hvtest::liveMutexesBeyondPool();
    {
        HvHashTableBase one(sizeof(Pair), &HvHashTableBase::sDefaultHashFunc, nullptr, nullptr, 101, 1);
        EXPECT_EQ(before + 1, Velmora::allocationStats("HvMutex").liveCount);
        HvHashTableBase seven(sizeof(Pair), &HvHashTableBase::sDefaultHashFunc, nullptr, nullptr, 101, 7);
        EXPECT_EQ(before + 8, Velmora::allocationStats("HvMutex").liveCount);
    }
    EXPECT_EQ(before, Velmora::allocationStats("HvMutex").liveCount);
}

TEST(HvHashTableBase, TableHeldByHandleIsDestroyedWithItsLocks)
{
    long before = hvtest::liveMutexesBeyondPool();
    {
        HvHandle<HvHashTableBase> table(
            new HvHashTableBase(sizeof(Pair), &HvHashTableBase::sDefaultHashFunc, nullptr, nullptr, 13, 3));
        Pair entry{4, 40};
        table->add(&entry);
        EXPECT_EQ(before + 3, Velmora::allocationStats("HvMutex").liveCount);
        EXPECT_EQ(1, table->getRefCount());
    }
    EXPECT_EQ(before, Velmora::allocationStats("HvMutex").liveCount);
}

TEST(HvHashTableBase, ZeroLockCountStillMakesOneLock)
{
    long before = hvtest::liveMutexesBeyondPool();
    HvHashTableBase table(sizeof(Pair), &HvHashTableBase::sDefaultHashFunc, nullptr, nullptr, 11, 0);
    EXPECT_EQ(before + 1, Velmora::allocationStats("HvMutex").liveCount);
    Pair entry{3, 30};
    EXPECT_EQ(nullptr, table.add(&entry));
    EXPECT_NE(nullptr, table.find(&entry));
}

TEST(HvHashTableBase, ZeroBucketCountIsTreatedAsOneBucket)
{
    // Hashing modulo zero buckets would be undefined: one bucket is used.
    HvHashTableBase table(sizeof(Pair), &HvHashTableBase::sDefaultHashFunc, nullptr, nullptr, 0, 1);
    EXPECT_EQ(1u, table.getBucketCount());
    Pair a{7, 1}, b{8, 2};
    table.add(&a);
    table.add(&b);
    EXPECT_EQ(2u, table.getCount());
    EXPECT_EQ((std::vector<unsigned int>{7, 8}), keysInOrder(table));
}

// ---------------------------------------------------------------- hash function

TEST(HvHashTableBase, DefaultHashIsTheFirstWordOfTheEntry)
{
    Pair entry{0x12345678u, 0xCAFEu};
    EXPECT_EQ(0x12345678u, HvHashTableBase::sDefaultHashFunc(&entry));
    Pair other{0u, 0xFFFFFFFFu};
    EXPECT_EQ(0u, HvHashTableBase::sDefaultHashFunc(&other));
    unsigned char bytes[8] = {0x01, 0x02, 0x03, 0x04, 0xFF, 0xFF, 0xFF, 0xFF};
    unsigned int word;
    std::memcpy(&word, bytes, sizeof(word));
    EXPECT_EQ(word, HvHashTableBase::sDefaultHashFunc(bytes));
}

// ---------------------------------------------------------------- byte comparison and byte copy

TEST(HvHashTableBase, AddCopiesTheEntryIntoTheTable)
{
    HvHashTableBase table(sizeof(Pair), &HvHashTableBase::sDefaultHashFunc, nullptr, nullptr, 101, 1);
    Pair entry{5, 50};
    EXPECT_EQ(nullptr, table.add(&entry));
    EXPECT_EQ(1u, table.getCount());
    // The probe may change afterwards: the table holds its own copy.
    Pair probe = entry;
    entry.value = 0;
    void* found = table.find(&probe);
    ASSERT_NE(nullptr, found);
    EXPECT_NE(static_cast<void*>(&probe), found);
    EXPECT_EQ(5u, asPair(found)->key);
    EXPECT_EQ(50u, asPair(found)->value);
}

TEST(HvHashTableBase, NullCompareFunctionComparesAllEntryBytes)
{
    HvHashTableBase table(sizeof(Pair), &HvHashTableBase::sDefaultHashFunc, nullptr, nullptr, 101, 1);
    Pair a{5, 50};
    Pair b{5, 51};
    EXPECT_EQ(nullptr, table.add(&a));
    // Same key, different value: another entry for a byte comparison.
    EXPECT_EQ(nullptr, table.add(&b));
    EXPECT_EQ(2u, table.getCount());
    Pair missing{5, 52};
    EXPECT_EQ(nullptr, table.find(&missing));
    ASSERT_NE(nullptr, table.find(&b));
    EXPECT_EQ(51u, asPair(table.find(&b))->value);

    table.remove(&missing);
    EXPECT_EQ(2u, table.getCount());
    table.remove(&a);
    EXPECT_EQ(1u, table.getCount());
    EXPECT_EQ(nullptr, table.find(&a));
    EXPECT_NE(nullptr, table.find(&b));
}

TEST(HvHashTableBase, NullCopyFunctionCopiesEveryByte)
{
    struct Wide {
        unsigned int key;
        char text[20];
        double number;
    };
    HvHashTableBase table(sizeof(Wide), &HvHashTableBase::sDefaultHashFunc, nullptr, nullptr, 7, 1);
    Wide entry;
    std::memset(&entry, 0x5A, sizeof(entry));
    entry.key = 9;
    std::strcpy(entry.text, "nineteen characters");
    entry.number = 2.5;
    ASSERT_EQ(nullptr, table.add(&entry));
    void* found = table.find(&entry);
    ASSERT_NE(nullptr, found);
    EXPECT_EQ(0, std::memcmp(found, &entry, sizeof(entry)));
}

TEST(HvHashTableBase, MAddOfEqualEntryReturnsTheStoredOneAndAddsNothing)
{
    HvHashTableBase table(sizeof(Pair), &HvHashTableBase::sDefaultHashFunc, nullptr, nullptr, 101, 1);
    Pair entry{5, 50};
    EXPECT_EQ(nullptr, table.mAdd(&entry));
    void* stored = table.mFind(&entry);
    ASSERT_NE(nullptr, stored);
    Pair again{5, 50};
    EXPECT_EQ(stored, table.mAdd(&again));
    EXPECT_EQ(1u, table.getCount());
    // The locked form answers the same.
    EXPECT_EQ(stored, table.add(&again));
    EXPECT_EQ(1u, table.getCount());
}

TEST(HvHashTableBase, AddOfKeyEqualEntryKeepsTheStoredContents)
{
    HvHashTableBase table(sizeof(Pair), &HvHashTableBase::sDefaultHashFunc, &sameKey, nullptr, 101, 1);
    Pair first{5, 50};
    Pair second{5, 99};
    EXPECT_EQ(nullptr, table.add(&first));
    void* stored = table.add(&second);
    ASSERT_NE(nullptr, stored);
    EXPECT_EQ(50u, asPair(stored)->value);
    EXPECT_EQ(1u, table.getCount());
}

// ---------------------------------------------------------------- custom functions

TEST(HvHashTableBase, CustomCompareFindsByKeyOnly)
{
    HvHashTableBase table(sizeof(Pair), &HvHashTableBase::sDefaultHashFunc, &sameKey, nullptr, 101, 1);
    Pair entry{42, 7};
    table.add(&entry);
    Pair probe{42, 0};
    void* found = table.find(&probe);
    ASSERT_NE(nullptr, found);
    EXPECT_EQ(7u, asPair(found)->value);
    Pair other{43, 7};
    EXPECT_EQ(nullptr, table.find(&other));
    table.remove(&probe);
    EXPECT_EQ(0u, table.getCount());
    EXPECT_EQ(nullptr, table.find(&entry));
}

TEST(HvHashTableBase, CustomCopyFunctionFillsNewNodes)
{
    fs_copyCalls = 0;
    HvHashTableBase table(sizeof(Pair), &HvHashTableBase::sDefaultHashFunc, &sameKey, &copyTimesTen, 101, 1);
    Pair entry{5, 50};
    EXPECT_EQ(nullptr, table.add(&entry));
    EXPECT_EQ(1, fs_copyCalls);
    void* found = table.find(&entry);
    ASSERT_NE(nullptr, found);
    EXPECT_EQ(500u, asPair(found)->value);
    // No node, no copy.
    EXPECT_EQ(found, table.add(&entry));
    EXPECT_EQ(1, fs_copyCalls);
    Pair next{6, 3};
    table.mAdd(&next);
    EXPECT_EQ(2, fs_copyCalls);
    EXPECT_EQ(30u, asPair(table.mFind(&next))->value);
}

TEST(HvHashTableBase, CopyConstructorCopiesEntriesThroughTheCopyFunction)
{
    fs_copyCalls = 0;
    long before = hvtest::liveMutexesBeyondPool();
    HvHashTableBase source(sizeof(Pair), &HvHashTableBase::sDefaultHashFunc, &sameKey, &copyTimesTen, 101, 3);
    for (unsigned int key = 1; key <= 4; ++key) {
        Pair entry{key, key};
        source.add(&entry);
    }
    EXPECT_EQ(4, fs_copyCalls);
    {
        HvHashTableBase copy(source);
        EXPECT_EQ(8, fs_copyCalls);
        EXPECT_EQ(4u, copy.getCount());
        EXPECT_EQ(101u, copy.getBucketCount());
        // As many stripe locks as the source.
        EXPECT_EQ(before + 6, Velmora::allocationStats("HvMutex").liveCount);
        for (unsigned int key = 1; key <= 4; ++key) {
            Pair probe{key, 0};
            void* found = copy.find(&probe);
            ASSERT_NE(nullptr, found);
            // Copied twice by copyTimesTen: into the source, then into the copy.
            EXPECT_EQ(key * 100, asPair(found)->value);
            EXPECT_NE(source.find(&probe), found);
        }
        // Independent tables.
        Pair one{1, 0};
        copy.remove(&one);
        EXPECT_EQ(3u, copy.getCount());
        EXPECT_EQ(4u, source.getCount());
        EXPECT_NE(nullptr, source.find(&one));
    }
    EXPECT_EQ(before + 3, Velmora::allocationStats("HvMutex").liveCount);
}

TEST(HvHashTableBase, CopyOfEmptyTableIsEmpty)
{
    HvHashTableBase source(sizeof(Pair), &HvHashTableBase::sDefaultHashFunc, nullptr, nullptr, 17, 1);
    HvHashTableBase copy(source);
    EXPECT_EQ(0u, copy.getCount());
    HvHashTableBase::Iterator walk(copy);
    EXPECT_FALSE(walk.hasNext());
    Pair entry{1, 1};
    EXPECT_EQ(nullptr, copy.add(&entry));
    EXPECT_EQ(0u, source.getCount());
}

// ---------------------------------------------------------------- count, remove, clear

TEST(HvHashTableBase, GetCountFollowsAddsAndRemoves)
{
    HvHashTableBase table(sizeof(Pair), &HvHashTableBase::sDefaultHashFunc, &sameKey, nullptr, 5, 2);
    for (unsigned int key = 0; key < 20; ++key) {
        Pair entry{key, key};
        table.add(&entry);
        EXPECT_EQ(key + 1, table.getCount());
    }
    for (unsigned int key = 0; key < 20; key += 2) {
        Pair probe{key, 0};
        table.remove(&probe);
    }
    EXPECT_EQ(10u, table.getCount());
    Pair absent{100, 0};
    table.mRemove(&absent);
    EXPECT_EQ(10u, table.getCount());
    for (unsigned int key = 0; key < 20; ++key) {
        Pair probe{key, 0};
        EXPECT_EQ(key % 2 == 1, table.find(&probe) != nullptr) << key;
    }
}

TEST(HvHashTableBase, RemoveFromTheMiddleOfAChainKeepsTheRest)
{
    HvHashTableBase table(sizeof(Pair), &HvHashTableBase::sDefaultHashFunc, &sameKey, nullptr, 101, 1);
    // 3, 104 and 205 share bucket 3.
    for (unsigned int key : {3u, 104u, 205u}) {
        Pair entry{key, key};
        table.add(&entry);
    }
    Pair middle{104, 0};
    table.remove(&middle);
    EXPECT_EQ((std::vector<unsigned int>{3, 205}), keysInOrder(table));
    Pair head{3, 0};
    table.mRemove(&head);
    EXPECT_EQ((std::vector<unsigned int>{205}), keysInOrder(table));
    Pair tail{205, 0};
    table.remove(&tail);
    EXPECT_EQ(0u, table.getCount());
    EXPECT_TRUE(keysInOrder(table).empty());
}

TEST(HvHashTableBase, ClearRemovesEveryEntryAndTheTableStaysUsable)
{
    long before = hvtest::liveMutexesBeyondPool();
    {
        HvHashTableBase table(sizeof(Pair), &HvHashTableBase::sDefaultHashFunc, &sameKey, nullptr, 101, 4);
        for (unsigned int key = 0; key < 300; ++key) {
            Pair entry{key, key};
            table.add(&entry);
        }
        EXPECT_EQ(300u, table.getCount());
        table.clear();
        EXPECT_EQ(0u, table.getCount());
        EXPECT_TRUE(keysInOrder(table).empty());
        Pair entry{7, 7};
        EXPECT_EQ(nullptr, table.add(&entry));
        EXPECT_EQ(1u, table.getCount());
        table.clear();
        table.clear();
        EXPECT_EQ(0u, table.getCount());
    }
    EXPECT_EQ(before, Velmora::allocationStats("HvMutex").liveCount);
}

TEST(HvHashTableBase, EntriesWithManyLocksAreFoundUnderTheirStripe)
{
    HvHashTableBase table(sizeof(Pair), &HvHashTableBase::sDefaultHashFunc, &sameKey, nullptr, 101, 7);
    for (unsigned int key = 0; key < 500; ++key) {
        Pair entry{key * 31, key};
        ASSERT_EQ(nullptr, table.add(&entry));
    }
    for (unsigned int key = 0; key < 500; ++key) {
        Pair probe{key * 31, 0};
        void* found = table.find(&probe);
        ASSERT_NE(nullptr, found);
        EXPECT_EQ(key, asPair(found)->value);
    }
    for (unsigned int key = 0; key < 500; ++key) {
        Pair probe{key * 31, 0};
        table.remove(&probe);
    }
    EXPECT_EQ(0u, table.getCount());
}

// ---------------------------------------------------------------- iteration

TEST(HvHashTableBase, IteratingAnEmptyTableEndsAtOnce)
{
    HvHashTableBase table(sizeof(Pair), &HvHashTableBase::sDefaultHashFunc, nullptr, nullptr, 101, 1);
    HvHashTableBase::Iterator walk(table);
    EXPECT_FALSE(walk.hasNext());
    EXPECT_EQ(nullptr, walk.next());
    EXPECT_FALSE(walk.hasNext());
}

TEST(HvHashTableBase, IterationGoesBucketByBucket)
{
    HvHashTableBase table(sizeof(Pair), &HvHashTableBase::sDefaultHashFunc, &sameKey, nullptr, 101, 1);
    // Bucket 100 first, then bucket 5: the walk gives bucket 5 first.
    Pair late{100, 1};
    Pair early{5, 2};
    table.add(&late);
    table.add(&early);
    HvHashTableBase::Iterator walk(table);
    ASSERT_TRUE(walk.hasNext());
    EXPECT_EQ(5u, asPair(walk.next())->key);
    ASSERT_TRUE(walk.hasNext());
    EXPECT_EQ(100u, asPair(walk.next())->key);
    EXPECT_FALSE(walk.hasNext());
    EXPECT_EQ(nullptr, walk.next());
}

TEST(HvHashTableBase, ChainsKeepInsertionOrder)
{
    HvHashTableBase table(sizeof(Pair), &HvHashTableBase::sDefaultHashFunc, &sameKey, nullptr, 101, 1);
    for (unsigned int key : {104u, 3u, 205u}) {
        Pair entry{key, 0};
        table.add(&entry);
    }
    EXPECT_EQ((std::vector<unsigned int>{104, 3, 205}), keysInOrder(table));
}

TEST(HvHashTableBase, NextWithoutHasNextWalksEverything)
{
    HvHashTableBase table(sizeof(Pair), &HvHashTableBase::sDefaultHashFunc, &sameKey, nullptr, 101, 1);
    for (unsigned int key : {0u, 50u, 100u, 101u}) {
        Pair entry{key, 0};
        table.add(&entry);
    }
    HvHashTableBase::Iterator walk(table);
    std::vector<unsigned int> keys;
    while (void* entry = walk.next())
        keys.push_back(asPair(entry)->key);
    // 0 and 101 share bucket 0.
    EXPECT_EQ((std::vector<unsigned int>{0, 101, 50, 100}), keys);
    EXPECT_EQ(nullptr, walk.next());
}

TEST(HvHashTableBase, ResetRestartsTheWalk)
{
    HvHashTableBase table(sizeof(Pair), &HvHashTableBase::sDefaultHashFunc, &sameKey, nullptr, 101, 1);
    for (unsigned int key : {7u, 8u}) {
        Pair entry{key, 0};
        table.add(&entry);
    }
    HvHashTableBase::Iterator walk(table);
    EXPECT_EQ(7u, asPair(walk.next())->key);
    walk.reset();
    EXPECT_EQ(7u, asPair(walk.next())->key);
    EXPECT_EQ(8u, asPair(walk.next())->key);
    EXPECT_EQ(nullptr, walk.next());
    walk.reset();
    ASSERT_TRUE(walk.hasNext());
    EXPECT_EQ(7u, asPair(walk.next())->key);
}

TEST(HvHashTableBase, ResetSeesEntriesAddedAfterTheWalkEnded)
{
    HvHashTableBase table(sizeof(Pair), &HvHashTableBase::sDefaultHashFunc, &sameKey, nullptr, 101, 1);
    HvHashTableBase::Iterator walk(table);
    EXPECT_FALSE(walk.hasNext());
    Pair entry{0, 0};
    table.add(&entry);
    walk.reset();
    ASSERT_TRUE(walk.hasNext());
    EXPECT_EQ(0u, asPair(walk.next())->key);
}

TEST(HvHashTableBase, RemovingTheEntryJustReturnedIsSafe)
{
    HvHashTableBase table(sizeof(Pair), &HvHashTableBase::sDefaultHashFunc, &sameKey, nullptr, 101, 1);
    // Several chains of several nodes.
    for (unsigned int key = 0; key < 30; ++key) {
        Pair entry{key * 50, key};
        table.add(&entry);
    }
    HvHashTableBase::Iterator walk(table);
    unsigned int seen = 0;
    while (void* entry = walk.next()) {
        ++seen;
        Pair copy = *asPair(entry);
        if (copy.value % 2 == 0)
            table.remove(entry);
        Pair probe{copy.key, 0};
        EXPECT_EQ(copy.value % 2 == 1, table.find(&probe) != nullptr);
    }
    EXPECT_EQ(30u, seen);
    EXPECT_EQ(15u, table.getCount());
    walk.reset();
    while (void* entry = walk.next())
        EXPECT_EQ(1u, asPair(entry)->value % 2);
}

// ---------------------------------------------------------------- threads

TEST(HvHashTableBase, ConcurrentAddsAndRemovesOnStripesKeepTheCount)
{
    HvHashTableBase table(sizeof(Pair), &HvHashTableBase::sDefaultHashFunc, &sameKey, nullptr, 101, 7);
    auto work = [&table](unsigned int first) {
        for (unsigned int round = 0; round < 200; ++round) {
            for (unsigned int key = first; key < first + 50; ++key) {
                Pair entry{key, round};
                table.add(&entry);
            }
            for (unsigned int key = first; key < first + 50; key += 2) {
                Pair probe{key, 0};
                table.remove(&probe);
            }
        }
    };
    std::thread a(work, 0u);
    std::thread b(work, 1000u);
    a.join();
    b.join();
    // Each thread leaves its 25 odd keys.
    EXPECT_EQ(50u, table.getCount());
    table.clear();
    EXPECT_EQ(0u, table.getCount());
}
