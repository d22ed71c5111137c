#include <HvUtil/HvTokenTable.h>

#include <HvUtil/HvException.h>
#include <HvUtil/HvMutex.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <type_traits>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

int idOf(const HvHandle<HvObject>& value)
{
    hvtest::CountedValue* counted = dynamic_cast<hvtest::CountedValue*>(value.get());
    return counted ? counted->id() : -1;
}

// The entry layout of the token table: token, then value.
struct TokenEntry {
    unsigned int token;
    HvObject* value;
};

std::vector<unsigned int> tokensInOrder(HvTokenTable& table)
{
    std::vector<unsigned int> tokens;
    HvTokenTable::Iterator walk(table);
    while (walk.next())
        tokens.push_back(walk.getKey());
    return tokens;
}

} // namespace

// Every test must give back the stripe lock it made.
class HvTokenTableTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        HvMutex::sInitialize();
        hvtest::CountedValue::sDestroyed = 0;
        m_mutexes = hvtest::liveCount("HvMutex");
    }
    void TearDown() override { EXPECT_EQ(m_mutexes, hvtest::liveCount("HvMutex")) << "stripe locks leaked"; }

    long m_mutexes = 0;
};

// ---------------------------------------------------------------- put

TEST_F(HvTokenTableTest, PutSameTokenTwiceReturnsFirstValue)
{
    HvHandle<hvtest::CountedValue> first(new hvtest::CountedValue(1));
    HvHandle<hvtest::CountedValue> second(new hvtest::CountedValue(2));
    HvTokenTable table;
    EXPECT_TRUE(table.put(42, first.get()).isNull());
    HvHandle<HvObject> previous = table.put(42, second.get());
    EXPECT_EQ(first.get(), previous.get());
    EXPECT_EQ(1u, table.getCount());
    EXPECT_EQ(second.get(), table.get(42).get());
}

TEST_F(HvTokenTableTest, PutTakesOneReferenceOnTheValue)
{
    HvHandle<hvtest::CountedValue> value(new hvtest::CountedValue);
    {
        HvTokenTable table;
        table.put(1, value.get());
        EXPECT_EQ(2, value->getRefCount());
        table.put(2, value.get());
        EXPECT_EQ(3, value->getRefCount());
    }
    EXPECT_EQ(1, value->getRefCount());
    EXPECT_EQ(0, hvtest::CountedValue::sDestroyed);
}

TEST_F(HvTokenTableTest, ReplaceReleasesTheOldValue)
{
    HvHandle<hvtest::CountedValue> oldValue(new hvtest::CountedValue(1));
    HvHandle<hvtest::CountedValue> newValue(new hvtest::CountedValue(2));
    HvTokenTable table;
    table.put(9, oldValue.get());
    HvHandle<HvObject> previous = table.put(9, newValue.get());
    EXPECT_EQ(oldValue.get(), previous.get());
    EXPECT_EQ(2, oldValue->getRefCount());
    previous = HvHandle<HvObject>();
    EXPECT_EQ(1, oldValue->getRefCount());
    EXPECT_EQ(2, newValue->getRefCount());
}

TEST_F(HvTokenTableTest, ReplaceWithTheSameValueKeepsOneReference)
{
    HvHandle<hvtest::CountedValue> value(new hvtest::CountedValue);
    HvTokenTable table;
    table.put(3, value.get());
    EXPECT_EQ(value.get(), table.put(3, value.get()).get());
    EXPECT_EQ(2, value->getRefCount());
    EXPECT_EQ(1u, table.getCount());
}

TEST_F(HvTokenTableTest, ReplacedValueHeldOnlyByTheTableDiesWithTheReturnedHandle)
{
    HvTokenTable table;
    table.put(5, new hvtest::CountedValue(1));
    HvHandle<HvObject> previous = table.put(5, new hvtest::CountedValue(2));
    EXPECT_EQ(1, idOf(previous));
    EXPECT_EQ(0, hvtest::CountedValue::sDestroyed);
    previous = HvHandle<HvObject>();
    EXPECT_EQ(1, hvtest::CountedValue::sDestroyed);
    EXPECT_EQ(2, idOf(table.get(5)));
}

TEST_F(HvTokenTableTest, TokenZeroAndTheLargestTokenAreOrdinaryKeys)
{
    HvTokenTable table;
    table.put(0, new hvtest::CountedValue(10));
    table.put(0xFFFFFFFFu, new hvtest::CountedValue(20));
    EXPECT_EQ(10, idOf(table.get(0)));
    EXPECT_EQ(20, idOf(table.get(0xFFFFFFFFu)));
    EXPECT_TRUE(table.containsKey(0));
    EXPECT_TRUE(table.remove(0xFFFFFFFFu));
    EXPECT_EQ(1u, table.getCount());
}

// ---------------------------------------------------------------- get, containsKey, contains

TEST_F(HvTokenTableTest, GetHandsOutAHandleWithoutTakingTheTablesReference)
{
    HvHandle<hvtest::CountedValue> value(new hvtest::CountedValue);
    HvTokenTable table;
    table.put(8, value.get());
    {
        HvHandle<HvObject> got = table.get(8);
        EXPECT_EQ(value.get(), got.get());
        EXPECT_EQ(3, value->getRefCount());
    }
    EXPECT_EQ(2, value->getRefCount());
    EXPECT_TRUE(table.get(9).isNull());
}

TEST_F(HvTokenTableTest, ContainsKeyTellsPresence)
{
    HvTokenTable table;
    table.put(100, new hvtest::CountedValue);
    EXPECT_TRUE(table.containsKey(100));
    EXPECT_FALSE(table.containsKey(201));
    EXPECT_FALSE(table.containsKey(99));
}

TEST_F(HvTokenTableTest, ContainsIsNotImplemented)
{
    HvHandle<hvtest::CountedValue> value(new hvtest::CountedValue);
    HvTokenTable table;
    table.put(1, value.get());
    EXPECT_EQ("Not implemented!", hvtest::messageOf([&] { table.contains(value.get()); }));
    EXPECT_EQ("Not implemented!", hvtest::messageOf([&] { table.contains(nullptr); }));
    EXPECT_EQ(2, value->getRefCount());
    EXPECT_EQ(1u, table.getCount());
}

TEST_F(HvTokenTableTest, ContainsThrowsAPlainHvException)
{
    HvTokenTable table;
    hvtest::expectPlainHvException([&] { table.contains(nullptr); }, "Not implemented!");
}

// ---------------------------------------------------------------- null values

TEST_F(HvTokenTableTest, NullValueStoresTheToken)
{
    HvTokenTable table;
    EXPECT_TRUE(table.put(7, nullptr).isNull());
    EXPECT_EQ(1u, table.getCount());
    EXPECT_TRUE(table.get(7).isNull());
    EXPECT_TRUE(table.containsKey(7));
}

TEST_F(HvTokenTableTest, NullValueCanBeReplacedBothWays)
{
    HvHandle<hvtest::CountedValue> value(new hvtest::CountedValue);
    HvTokenTable table;
    table.put(7, nullptr);
    EXPECT_TRUE(table.put(7, value.get()).isNull());
    EXPECT_EQ(2, value->getRefCount());
    HvHandle<HvObject> previous = table.put(7, nullptr);
    EXPECT_EQ(value.get(), previous.get());
    previous = HvHandle<HvObject>();
    EXPECT_EQ(1, value->getRefCount());
    EXPECT_TRUE(table.containsKey(7));
    EXPECT_TRUE(table.remove(7));
    EXPECT_FALSE(table.containsKey(7));
}

// ---------------------------------------------------------------- remove and clear

TEST_F(HvTokenTableTest, RemoveReleasesOneReferenceOnTheValue)
{
    HvHandle<hvtest::CountedValue> held(new hvtest::CountedValue);
    HvTokenTable table;
    table.put(1, held.get());
    table.put(2, new hvtest::CountedValue);
    EXPECT_TRUE(table.remove(1));
    EXPECT_EQ(1, held->getRefCount());
    EXPECT_EQ(0, hvtest::CountedValue::sDestroyed);
    // A value held only by the table is destroyed.
    EXPECT_TRUE(table.remove(2));
    EXPECT_EQ(1, hvtest::CountedValue::sDestroyed);
    EXPECT_EQ(0u, table.getCount());
}

TEST_F(HvTokenTableTest, RemoveOfAnAbsentTokenIsFalse)
{
    HvTokenTable table;
    EXPECT_FALSE(table.remove(1));
    table.put(1, new hvtest::CountedValue);
    EXPECT_FALSE(table.remove(102));
    EXPECT_TRUE(table.remove(1));
    EXPECT_FALSE(table.remove(1));
    EXPECT_EQ(1, hvtest::CountedValue::sDestroyed);
}

TEST_F(HvTokenTableTest, ClearReleasesEverythingAndTheTableStaysUsable)
{
    HvHandle<hvtest::CountedValue> held(new hvtest::CountedValue);
    HvTokenTable table;
    table.put(1000, held.get());
    for (unsigned int token = 0; token < 60; ++token)
        table.put(token, new hvtest::CountedValue(static_cast<int>(token)));
    table.put(2000, nullptr);
    EXPECT_EQ(62u, table.getCount());
    table.clear();
    EXPECT_EQ(0u, table.getCount());
    EXPECT_EQ(60, hvtest::CountedValue::sDestroyed);
    EXPECT_EQ(1, held->getRefCount());
    EXPECT_TRUE(tokensInOrder(table).empty());
    table.put(3, new hvtest::CountedValue);
    EXPECT_TRUE(table.containsKey(3));
    table.clear();
    table.clear();
    EXPECT_EQ(61, hvtest::CountedValue::sDestroyed);
}

TEST_F(HvTokenTableTest, DestructionReleasesEveryValue)
{
    HvHandle<hvtest::CountedValue> held(new hvtest::CountedValue);
    {
        HvTokenTable table;
        table.put(1, held.get());
        table.put(2, new hvtest::CountedValue);
        table.put(3, nullptr);
        table.put(104, new hvtest::CountedValue);
    }
    EXPECT_EQ(2, hvtest::CountedValue::sDestroyed);
    EXPECT_EQ(1, held->getRefCount());
}

TEST_F(HvTokenTableTest, TableHeldByHandleReleasesEverythingWithTheLastHandle)
{
    {
        HvHandle<HvTokenTable> table(new HvTokenTable(7));
        table->put(1, new hvtest::CountedValue);
        table->put(8, new hvtest::CountedValue);
        EXPECT_EQ(7u, table->getBucketCount());
        EXPECT_EQ(2u, table->getCount());
    }
    EXPECT_EQ(2, hvtest::CountedValue::sDestroyed);
}

TEST_F(HvTokenTableTest, TokenTableUsesOneStripeLock)
{
    long before = hvtest::liveCount("HvMutex");
    {
        HvTokenTable table;
        EXPECT_EQ(before + 1, hvtest::liveCount("HvMutex"));
        HvTokenTable sized(13);
        EXPECT_EQ(before + 2, hvtest::liveCount("HvMutex"));
    }
    EXPECT_EQ(before, hvtest::liveCount("HvMutex"));
}

// ---------------------------------------------------------------- mAdd

TEST_F(HvTokenTableTest, MAddOfAnEqualEntryReturnsTheStoredOne)
{
    HvHandle<hvtest::CountedValue> value(new hvtest::CountedValue);
    HvTokenTable table;
    table.put(77, value.get());
    TokenEntry probe{77, nullptr};
    void* stored = table.mAdd(&probe);
    ASSERT_NE(nullptr, stored);
    EXPECT_NE(static_cast<void*>(&probe), stored);
    EXPECT_EQ(77u, static_cast<TokenEntry*>(stored)->token);
    EXPECT_EQ(value.get(), static_cast<TokenEntry*>(stored)->value);
    EXPECT_EQ(1u, table.getCount());
    EXPECT_EQ(stored, table.mFind(&probe));
    EXPECT_EQ(2, value->getRefCount());
}

// ---------------------------------------------------------------- iteration

TEST_F(HvTokenTableTest, IteratingAnEmptyTableEndsAtOnce)
{
    HvTokenTable table;
    HvTokenTable::Iterator walk(table);
    EXPECT_FALSE(walk.hasNext());
    EXPECT_EQ(nullptr, walk.next());
    EXPECT_TRUE(walk.getValue().isNull());
}

TEST_F(HvTokenTableTest, IterationGoesInBucketOrder)
{
    HvTokenTable table;
    table.put(100, new hvtest::CountedValue(100));
    table.put(5, new hvtest::CountedValue(5));
    HvTokenTable::Iterator walk(table);
    ASSERT_TRUE(walk.hasNext());
    ASSERT_NE(nullptr, walk.next());
    EXPECT_EQ(5u, walk.getKey());
    EXPECT_EQ(5, idOf(walk.getValue()));
    ASSERT_TRUE(walk.hasNext());
    ASSERT_NE(nullptr, walk.next());
    EXPECT_EQ(100u, walk.getKey());
    EXPECT_EQ(100, idOf(walk.getValue()));
    EXPECT_FALSE(walk.hasNext());
    EXPECT_EQ(nullptr, walk.next());
    EXPECT_TRUE(walk.getValue().isNull());
}

TEST_F(HvTokenTableTest, ChainsKeepInsertionOrder)
{
    HvTokenTable table;
    // 3 and 104 share bucket 3.
    table.put(3, nullptr);
    table.put(104, nullptr);
    EXPECT_EQ((std::vector<unsigned int>{3, 104}), tokensInOrder(table));

    HvTokenTable reversed;
    reversed.put(104, nullptr);
    reversed.put(3, nullptr);
    EXPECT_EQ((std::vector<unsigned int>{104, 3}), tokensInOrder(reversed));
}

TEST_F(HvTokenTableTest, ResetRestartsTheWalk)
{
    HvTokenTable table;
    table.put(5, nullptr);
    table.put(100, nullptr);
    HvTokenTable::Iterator walk(table);
    ASSERT_NE(nullptr, walk.next());
    EXPECT_EQ(5u, walk.getKey());
    walk.reset();
    ASSERT_NE(nullptr, walk.next());
    EXPECT_EQ(5u, walk.getKey());
    ASSERT_NE(nullptr, walk.next());
    EXPECT_EQ(100u, walk.getKey());
    EXPECT_EQ(nullptr, walk.next());
    walk.reset();
    ASSERT_TRUE(walk.hasNext());
    ASSERT_NE(nullptr, walk.next());
    EXPECT_EQ(5u, walk.getKey());
}

TEST_F(HvTokenTableTest, KeysAndElementsWalkTheSameEntries)
{
    HvHandle<hvtest::CountedValue> value(new hvtest::CountedValue(4));
    HvTokenTable table;
    table.put(4, value.get());
    table.put(40, nullptr);
    HvTokenTable::Iterator keys = table.keys();
    HvTokenTable::Iterator elements = table.elements();
    for (int i = 0; i < 2; ++i) {
        ASSERT_NE(nullptr, keys.next());
        ASSERT_NE(nullptr, elements.next());
        EXPECT_EQ(keys.getKey(), elements.getKey());
        EXPECT_EQ(keys.getValue().get(), elements.getValue().get());
    }
    EXPECT_FALSE(keys.hasNext());
    EXPECT_FALSE(elements.hasNext());
}

TEST_F(HvTokenTableTest, RemovingTheEntryJustReturnedIsSafe)
{
    HvTokenTable table;
    // Long chains: every token below 505 lands in one of 101 buckets.
    for (unsigned int token = 0; token < 505; token += 3)
        table.put(token, new hvtest::CountedValue(static_cast<int>(token)));
    unsigned int stored = table.getCount();
    HvTokenTable::Iterator walk(table);
    unsigned int seen = 0;
    while (walk.next()) {
        ++seen;
        unsigned int token = walk.getKey();
        EXPECT_TRUE(table.remove(token));
        EXPECT_FALSE(table.containsKey(token));
    }
    EXPECT_EQ(stored, seen);
    EXPECT_EQ(0u, table.getCount());
    EXPECT_EQ(static_cast<int>(stored), hvtest::CountedValue::sDestroyed);
}

TEST_F(HvTokenTableTest, RehashChangesNothing)
{
    HvTokenTable table;
    table.put(100, nullptr);
    table.put(5, nullptr);
    table.rehash();
    EXPECT_EQ(2u, table.getCount());
    EXPECT_EQ((std::vector<unsigned int>{5, 100}), tokensInOrder(table));
}

TEST_F(HvTokenTableTest, GetCountFollowsPutRemoveAndClear)
{
    HvTokenTable table(3);
    for (unsigned int token = 0; token < 10; ++token)
        table.put(token, nullptr);
    EXPECT_EQ(10u, table.getCount());
    table.put(4, new hvtest::CountedValue);
    EXPECT_EQ(10u, table.getCount());
    table.remove(4);
    table.remove(4);
    EXPECT_EQ(9u, table.getCount());
    table.clear();
    EXPECT_EQ(0u, table.getCount());
}

// ---------------------------------------------------------------- display

TEST_F(HvTokenTableTest, DisplayWritesOnlyTheClassName)
{
    HvTokenTable table;
    table.put(1, new hvtest::CountedValue);
    table.put(2, nullptr);
    EXPECT_EQ("HvTokenTable\n", hvtest::displayOf(table));
}

// ---------------------------------------------------------------- threads

TEST_F(HvTokenTableTest, TwoThreadsLeakNothing)
{
    std::atomic<int> created{0};
    std::atomic<int> wrongValues{0};
    std::atomic<int> failures{0};
    {
        HvTokenTable table;
        auto work = [&](unsigned int base) {
            try {
                for (int round = 0; round < 150; ++round) {
                    for (unsigned int token = base; token < base + 40; ++token) {
                        hvtest::CountedValue* value = new hvtest::CountedValue(round);
                        ++created;
                        table.put(token, value);
                        if (table.get(token).get() != value)
                            ++wrongValues;
                        if ((token + round) % 3 == 0 && !table.remove(token))
                            ++wrongValues;
                    }
                    // Shared tokens.
                    for (unsigned int token = 5000; token < 5015; ++token) {
                        ++created;
                        table.put(token, new hvtest::CountedValue(round));
                        table.get(token);
                        if (round % 2 == 0)
                            table.remove(token);
                    }
                }
            } catch (...) {
                ++failures;
            }
        };
        std::thread a(work, 0u);
        std::thread b(work, 1000u);
        a.join();
        b.join();
        EXPECT_EQ(0, failures.load());
        EXPECT_EQ(0, wrongValues.load());
        EXPECT_EQ(created.load() - static_cast<int>(table.getCount()), hvtest::CountedValue::sDestroyed.load());
        table.clear();
        EXPECT_EQ(created.load(), hvtest::CountedValue::sDestroyed.load());
    }
    EXPECT_EQ(created.load(), hvtest::CountedValue::sDestroyed.load());
}

TEST(HvTokenTable, IsNotCopyableBecauseACopyWouldNotHoldItsValues)
{
    EXPECT_FALSE(std::is_copy_constructible<HvTokenTable>::value);
    EXPECT_FALSE(std::is_copy_assignable<HvTokenTable>::value);
}
