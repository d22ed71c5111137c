#include <HvUtil/HvKeyTable.h>

#include <HvUtil/HvException.h>
#include <HvUtil/HvMutex.h>
#include <HvUtil/HvString.h>
#include <HvUtil/HvStringBuffer.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

// The string hash worked out independently of the buffer's own: h * 5 plus
// each character as a signed char.
unsigned int textHash(const char* text)
{
    unsigned int hash = 0;
    for (; *text; ++text)
        hash = hash * 5 + static_cast<unsigned int>(static_cast<int>(static_cast<signed char>(*text)));
    return hash;
}

// Keys whose buckets in a 101-bucket table are known:
// "d" = 100; "AT" = 65 * 5 + 84 = 409 = 4 * 101 + 5; "BO" = 66 * 5 + 79 = 409.
const char* const kBucket100 = "d";
const char* const kBucket5 = "AT";
const char* const kAlsoBucket5 = "BO";

// The entry layout of the key table: key buffer, then value.
struct KeyEntry {
    HvStringBuffer* key;
    HvObject* value;
};

std::vector<std::string> keysInOrder(HvKeyTable& table)
{
    std::vector<std::string> keys;
    HvKeyTable::Iterator walk(table);
    while (walk.next())
        keys.push_back(walk.getKey().c_str());
    return keys;
}

} // namespace

// Every test must give back all string buffers and stripe locks it made.
class HvKeyTableTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        HvMutex::sInitialize();
        hvtest::CountedValue::sDestroyed = 0;
        m_buffers = hvtest::liveStringBuffers();
        m_mutexes = hvtest::liveCount("HvMutex");
    }
    void TearDown() override
    {
        EXPECT_EQ(m_buffers, hvtest::liveStringBuffers()) << "string buffers leaked";
        EXPECT_EQ(m_mutexes, hvtest::liveCount("HvMutex")) << "stripe locks leaked";
    }

    long m_buffers = 0;
    long m_mutexes = 0;
};

// ---------------------------------------------------------------- put

TEST_F(HvKeyTableTest, KeysUsedInOrderTestsLandInTheirBuckets)
{
    EXPECT_EQ(100u, textHash(kBucket100) % 101);
    EXPECT_EQ(5u, textHash(kBucket5) % 101);
    EXPECT_EQ(5u, textHash(kAlsoBucket5) % 101);
    EXPECT_EQ(textHash(kBucket5), HvString(kBucket5).hashCode());
    EXPECT_EQ(textHash(kBucket100), HvString(kBucket100).hashCode());
}

TEST_F(HvKeyTableTest, PutSameKeyTwiceReturnsFirstValue)
{
    HvHandle<hvtest::CountedValue> first(new hvtest::CountedValue(1));
    HvHandle<hvtest::CountedValue> second(new hvtest::CountedValue(2));
    HvKeyTable table;
    HvHandle<HvObject> previous = table.put("key", first.get());
    EXPECT_TRUE(previous.isNull());
    previous = table.put("key", second.get());
    EXPECT_EQ(first.get(), previous.get());
    EXPECT_EQ(1u, table.getCount());
    EXPECT_EQ(second.get(), table.get("key").get());
}

TEST_F(HvKeyTableTest, PutTakesOneReferenceOnKeyAndValue)
{
    HvString key("alpha");
    HvHandle<hvtest::CountedValue> value(new hvtest::CountedValue);
    {
        HvKeyTable table;
        EXPECT_TRUE(table.put(key, value.get()).isNull());
        EXPECT_EQ(2, key->getRefCount());
        EXPECT_EQ(2, value->getRefCount());
        EXPECT_EQ(1u, table.getCount());
    }
    // Destroying the table gives both back.
    EXPECT_EQ(1, key->getRefCount());
    EXPECT_EQ(1, value->getRefCount());
    EXPECT_EQ(0, hvtest::CountedValue::sDestroyed);
}

TEST_F(HvKeyTableTest, TableAloneKeepsAValueAlive)
{
    {
        HvKeyTable table;
        table.put("only", new hvtest::CountedValue(7));
        HvHandle<HvObject> got = table.get("only");
        ASSERT_FALSE(got.isNull());
        EXPECT_EQ(2, got->getRefCount());
        EXPECT_EQ(7, dynamic_cast<hvtest::CountedValue*>(got.get())->id());
        got = HvHandle<HvObject>();
        EXPECT_EQ(0, hvtest::CountedValue::sDestroyed);
    }
    EXPECT_EQ(1, hvtest::CountedValue::sDestroyed);
}

TEST_F(HvKeyTableTest, ReplaceReleasesOldKeyAndStoresCallersBuffer)
{
    HvString oldKey("same");
    HvString newKey("same");
    ASSERT_NE(oldKey.get(), newKey.get());
    HvHandle<hvtest::CountedValue> oldValue(new hvtest::CountedValue(1));
    HvHandle<hvtest::CountedValue> newValue(new hvtest::CountedValue(2));
    HvKeyTable table;
    table.put(oldKey, oldValue.get());
    EXPECT_EQ(2, oldKey->getRefCount());
    EXPECT_EQ(2, oldValue->getRefCount());

    HvHandle<HvObject> previous = table.put(newKey, newValue.get());
    EXPECT_EQ(oldValue.get(), previous.get());
    // The old key buffer is let go even though its text is equal.
    EXPECT_EQ(1, oldKey->getRefCount());
    EXPECT_EQ(2, newKey->getRefCount());
    // The old value: ours and the returned handle; the table let go of it.
    EXPECT_EQ(2, oldValue->getRefCount());
    previous = HvHandle<HvObject>();
    EXPECT_EQ(1, oldValue->getRefCount());
    EXPECT_EQ(2, newValue->getRefCount());

    HvKeyTable::Iterator walk(table);
    ASSERT_NE(nullptr, walk.next());
    EXPECT_EQ(newKey.get(), walk.getKey().get());
    EXPECT_EQ(newValue.get(), walk.getValue().get());
    EXPECT_EQ(1u, table.getCount());
}

TEST_F(HvKeyTableTest, ReplaceWithTheSameKeyAndValueKeepsOneReference)
{
    HvString key("k");
    HvHandle<hvtest::CountedValue> value(new hvtest::CountedValue);
    HvKeyTable table;
    table.put(key, value.get());
    HvHandle<HvObject> previous = table.put(key, value.get());
    EXPECT_EQ(value.get(), previous.get());
    previous = HvHandle<HvObject>();
    EXPECT_EQ(2, key->getRefCount());
    EXPECT_EQ(2, value->getRefCount());
    EXPECT_EQ(1u, table.getCount());
}

TEST_F(HvKeyTableTest, ReplacedValueHeldOnlyByTheTableDiesWithTheReturnedHandle)
{
    HvKeyTable table;
    table.put("k", new hvtest::CountedValue(1));
    HvHandle<HvObject> previous = table.put("k", new hvtest::CountedValue(2));
    ASSERT_FALSE(previous.isNull());
    EXPECT_EQ(1, dynamic_cast<hvtest::CountedValue*>(previous.get())->id());
    EXPECT_EQ(1, previous->getRefCount());
    EXPECT_EQ(0, hvtest::CountedValue::sDestroyed);
    previous = HvHandle<HvObject>();
    EXPECT_EQ(1, hvtest::CountedValue::sDestroyed);
    EXPECT_EQ(2, dynamic_cast<hvtest::CountedValue*>(table.get("k").get())->id());
}

TEST_F(HvKeyTableTest, DistinctKeysAreDistinctEntries)
{
    HvKeyTable table;
    table.put("a", new hvtest::CountedValue(1));
    table.put("b", new hvtest::CountedValue(2));
    table.put("A", new hvtest::CountedValue(3));
    EXPECT_EQ(3u, table.getCount());
    EXPECT_EQ(1, dynamic_cast<hvtest::CountedValue*>(table.get("a").get())->id());
    EXPECT_EQ(2, dynamic_cast<hvtest::CountedValue*>(table.get("b").get())->id());
    EXPECT_EQ(3, dynamic_cast<hvtest::CountedValue*>(table.get("A").get())->id());
}

// ---------------------------------------------------------------- empty keys

TEST_F(HvKeyTableTest, PutWithEmptyKeyThrowsAndLeavesTheTableIntact)
{
    HvString key("kept");
    HvHandle<hvtest::CountedValue> kept(new hvtest::CountedValue(1));
    HvHandle<hvtest::CountedValue> refused(new hvtest::CountedValue(2));
    HvKeyTable table;
    table.put(key, kept.get());

    HvString nullKey;
    HvString zeroLength(HvStringBuffer::sCreate("", 0, 16));
    ASSERT_FALSE(zeroLength.isNull());
    ASSERT_EQ(0u, zeroLength.length());

    EXPECT_EQ("NULL key value (HvStringBuffer*)", hvtest::messageOf([&] { table.put(nullKey, refused.get()); }));
    EXPECT_EQ("NULL key value (HvStringBuffer*)", hvtest::messageOf([&] { table.put(zeroLength, refused.get()); }));
    EXPECT_EQ("NULL key value (HvStringBuffer*)", hvtest::messageOf([&] { table.put(zeroLength, nullptr); }));

    // Nothing was taken or stored.
    EXPECT_EQ(1, refused->getRefCount());
    EXPECT_EQ(1, zeroLength->getRefCount());
    EXPECT_EQ(1u, table.getCount());
    EXPECT_EQ(kept.get(), table.get("kept").get());
    EXPECT_EQ(2, key->getRefCount());
    EXPECT_EQ(2, kept->getRefCount());
    // And it still works.
    EXPECT_TRUE(table.put("more", refused.get()).isNull());
    EXPECT_EQ(2u, table.getCount());
    EXPECT_EQ(refused.get(), table.get("more").get());
    EXPECT_EQ(kept.get(), table.get("kept").get());
}

TEST_F(HvKeyTableTest, PutWithEmptyKeyThrowsAPlainHvException)
{
    HvKeyTable table;
    hvtest::expectPlainHvException([&] { table.put(HvString(), nullptr); }, "NULL key value (HvStringBuffer*)");
    EXPECT_EQ(0u, table.getCount());
}

TEST_F(HvKeyTableTest, LookupsWithEmptyKeyGiveEmptyOrFalse)
{
    HvKeyTable table;
    table.put("x", new hvtest::CountedValue);
    HvString nullKey;
    HvString zeroLength(HvStringBuffer::sCreate("", 0, 16));
    for (const HvString& key : {nullKey, zeroLength}) {
        EXPECT_TRUE(table.get(key).isNull());
        EXPECT_TRUE(table.asynGet(key).isNull());
        EXPECT_FALSE(table.containsKey(key));
        EXPECT_FALSE(table.remove(key));
    }
    EXPECT_EQ(1u, table.getCount());
    EXPECT_EQ(0, hvtest::CountedValue::sDestroyed);
}

// ---------------------------------------------------------------- get, containsKey, contains

TEST_F(HvKeyTableTest, GetHandsOutAHandleWithoutTakingTheTablesReference)
{
    HvString key("g");
    HvHandle<hvtest::CountedValue> value(new hvtest::CountedValue);
    HvKeyTable table;
    table.put(key, value.get());
    {
        HvHandle<HvObject> got = table.get("g");
        EXPECT_EQ(value.get(), got.get());
        EXPECT_EQ(3, value->getRefCount());
    }
    EXPECT_EQ(2, value->getRefCount());
    EXPECT_EQ(2, key->getRefCount());
    EXPECT_TRUE(table.get("absent").isNull());
}

TEST_F(HvKeyTableTest, AsynGetFindsTheSameValue)
{
    HvHandle<hvtest::CountedValue> value(new hvtest::CountedValue);
    HvKeyTable table;
    table.put("a", value.get());
    EXPECT_EQ(value.get(), table.asynGet("a").get());
    EXPECT_TRUE(table.asynGet("b").isNull());
    EXPECT_EQ(2, value->getRefCount());
}

TEST_F(HvKeyTableTest, ContainsKeyTellsPresence)
{
    HvKeyTable table;
    table.put("here", new hvtest::CountedValue);
    EXPECT_TRUE(table.containsKey("here"));
    EXPECT_FALSE(table.containsKey("there"));
    EXPECT_FALSE(table.containsKey("Here"));
}

TEST_F(HvKeyTableTest, ContainsIsNotImplemented)
{
    HvHandle<hvtest::CountedValue> value(new hvtest::CountedValue);
    HvKeyTable table;
    table.put("v", value.get());
    EXPECT_EQ("Not implemented!", hvtest::messageOf([&] { table.contains(value.get()); }));
    EXPECT_EQ("Not implemented!", hvtest::messageOf([&] { table.contains(nullptr); }));
    EXPECT_EQ(2, value->getRefCount());
    EXPECT_EQ(1u, table.getCount());
}

// ---------------------------------------------------------------- null values

TEST_F(HvKeyTableTest, NullValueStoresTheKey)
{
    HvString key("nothing");
    HvKeyTable table;
    EXPECT_TRUE(table.put(key, nullptr).isNull());
    EXPECT_EQ(1u, table.getCount());
    EXPECT_TRUE(table.get("nothing").isNull());
    EXPECT_TRUE(table.asynGet("nothing").isNull());
    EXPECT_TRUE(table.containsKey("nothing"));
    EXPECT_EQ(2, key->getRefCount());
}

TEST_F(HvKeyTableTest, NullValueCanBeReplacedBothWays)
{
    HvHandle<hvtest::CountedValue> value(new hvtest::CountedValue);
    HvKeyTable table;
    table.put("k", nullptr);
    // The replaced value was null: an empty handle comes back.
    EXPECT_TRUE(table.put("k", value.get()).isNull());
    EXPECT_EQ(2, value->getRefCount());
    HvHandle<HvObject> previous = table.put("k", nullptr);
    EXPECT_EQ(value.get(), previous.get());
    previous = HvHandle<HvObject>();
    EXPECT_EQ(1, value->getRefCount());
    EXPECT_TRUE(table.containsKey("k"));
    EXPECT_EQ(1u, table.getCount());
}

TEST_F(HvKeyTableTest, RemovingANullValuedKeyReleasesTheKey)
{
    HvString key("k");
    HvKeyTable table;
    table.put(key, nullptr);
    EXPECT_TRUE(table.remove("k"));
    EXPECT_EQ(1, key->getRefCount());
    EXPECT_FALSE(table.containsKey("k"));
    EXPECT_EQ(0u, table.getCount());
}

// ---------------------------------------------------------------- remove and clear

TEST_F(HvKeyTableTest, RemoveReleasesOneReferenceOnKeyAndValue)
{
    HvString key("r");
    HvHandle<hvtest::CountedValue> held(new hvtest::CountedValue);
    HvKeyTable table;
    table.put(key, held.get());
    table.put("only", new hvtest::CountedValue);
    EXPECT_EQ(2u, table.getCount());

    EXPECT_TRUE(table.remove("r"));
    EXPECT_EQ(1, key->getRefCount());
    EXPECT_EQ(1, held->getRefCount());
    EXPECT_EQ(0, hvtest::CountedValue::sDestroyed);

    // A value held only by the table is destroyed.
    EXPECT_TRUE(table.remove("only"));
    EXPECT_EQ(1, hvtest::CountedValue::sDestroyed);
    EXPECT_EQ(0u, table.getCount());
}

TEST_F(HvKeyTableTest, RemoveOfAnAbsentKeyIsFalse)
{
    HvKeyTable table;
    EXPECT_FALSE(table.remove("none"));
    table.put("some", new hvtest::CountedValue);
    EXPECT_FALSE(table.remove("none"));
    EXPECT_TRUE(table.remove("some"));
    EXPECT_FALSE(table.remove("some"));
    EXPECT_EQ(1, hvtest::CountedValue::sDestroyed);
}

TEST_F(HvKeyTableTest, RemoveWithAnotherBufferOfTheSameText)
{
    HvString stored("text");
    HvKeyTable table;
    table.put(stored, new hvtest::CountedValue);
    HvString probe("text");
    EXPECT_TRUE(table.remove(probe));
    EXPECT_EQ(1, stored->getRefCount());
    EXPECT_EQ(1, probe->getRefCount());
}

TEST_F(HvKeyTableTest, ClearReleasesEverythingAndTheTableStaysUsable)
{
    long buffers = hvtest::liveStringBuffers();
    HvString key("held");
    HvHandle<hvtest::CountedValue> held(new hvtest::CountedValue);
    HvKeyTable table;
    table.put(key, held.get());
    for (int i = 0; i < 50; ++i)
        table.put(HvString(("k" + std::to_string(i)).c_str()), new hvtest::CountedValue(i));
    table.put("null", nullptr);
    EXPECT_EQ(52u, table.getCount());

    table.clear();
    EXPECT_EQ(0u, table.getCount());
    EXPECT_EQ(50, hvtest::CountedValue::sDestroyed);
    EXPECT_EQ(1, key->getRefCount());
    EXPECT_EQ(1, held->getRefCount());
    // Only our own key is left.
    EXPECT_EQ(buffers + 1, hvtest::liveStringBuffers());
    HvKeyTable::Iterator walk(table);
    EXPECT_FALSE(walk.hasNext());

    table.put("again", new hvtest::CountedValue);
    EXPECT_EQ(1u, table.getCount());
    EXPECT_TRUE(table.containsKey("again"));
    table.clear();
    table.clear();
    EXPECT_EQ(51, hvtest::CountedValue::sDestroyed);
}

TEST_F(HvKeyTableTest, DestructionReleasesEveryKeyAndValue)
{
    HvString key("k1");
    HvHandle<hvtest::CountedValue> held(new hvtest::CountedValue);
    {
        HvKeyTable table;
        table.put(key, held.get());
        table.put("k2", new hvtest::CountedValue);
        table.put("k3", nullptr);
        table.put("k4", new hvtest::CountedValue);
    }
    EXPECT_EQ(2, hvtest::CountedValue::sDestroyed);
    EXPECT_EQ(1, key->getRefCount());
    EXPECT_EQ(1, held->getRefCount());
}

TEST_F(HvKeyTableTest, TableHeldByHandleReleasesEverythingWithTheLastHandle)
{
    {
        HvHandle<HvKeyTable> table(new HvKeyTable(13, 3));
        table->put("a", new hvtest::CountedValue);
        table->put("b", new hvtest::CountedValue);
        HvHandle<HvKeyTable> other = table;
        table = HvHandle<HvKeyTable>();
        EXPECT_EQ(0, hvtest::CountedValue::sDestroyed);
        EXPECT_EQ(2u, other->getCount());
    }
    EXPECT_EQ(2, hvtest::CountedValue::sDestroyed);
}

// ---------------------------------------------------------------- clone

TEST_F(HvKeyTableTest, CloneHoldsOneMoreReferenceOnEveryKeyAndValue)
{
    HvString keyA("a");
    HvString keyB("b");
    HvHandle<hvtest::CountedValue> valueA(new hvtest::CountedValue(1));
    HvKeyTable table;
    table.put(keyA, valueA.get());
    table.put(keyB, nullptr);
    table.put("c", new hvtest::CountedValue(3));
    long mutexes = hvtest::liveCount("HvMutex");
    {
        HvObject* raw = table.clone();
        ASSERT_NE(nullptr, raw);
        EXPECT_EQ(0, raw->getRefCount());
        HvHandle<HvKeyTable> copy(dynamic_cast<HvKeyTable*>(raw));
        ASSERT_FALSE(copy.isNull());
        EXPECT_EQ(hvtest::liveCount("HvMutex"), mutexes + 1);
        EXPECT_EQ(3u, copy->getCount());
        EXPECT_EQ(3, keyA->getRefCount());
        EXPECT_EQ(3, keyB->getRefCount());
        EXPECT_EQ(3, valueA->getRefCount());
        // The same key buffers and values.
        EXPECT_EQ(valueA.get(), copy->get("a").get());
        EXPECT_TRUE(copy->containsKey("b"));
        EXPECT_TRUE(copy->get("b").isNull());
        EXPECT_EQ(table.get("c").get(), copy->get("c").get());
        bool sawA = false;
        HvKeyTable::Iterator walk(*copy);
        while (walk.next()) {
            if (std::string(walk.getKey().c_str()) == "a") {
                sawA = true;
                EXPECT_EQ(keyA.get(), walk.getKey().get());
            }
        }
        EXPECT_TRUE(sawA);
        // Independent contents.
        EXPECT_TRUE(copy->remove("a"));
        EXPECT_TRUE(table.containsKey("a"));
        EXPECT_EQ(2, keyA->getRefCount());
        copy->put("d", new hvtest::CountedValue(4));
        EXPECT_FALSE(table.containsKey("d"));
    }
    // Destroying the clone gives back its references.
    EXPECT_EQ(2, keyA->getRefCount());
    EXPECT_EQ(2, keyB->getRefCount());
    EXPECT_EQ(2, valueA->getRefCount());
    EXPECT_EQ(1, hvtest::CountedValue::sDestroyed); // the clone's own "d"
    EXPECT_EQ(3u, table.getCount());
    EXPECT_EQ(mutexes, hvtest::liveCount("HvMutex"));
}

TEST_F(HvKeyTableTest, CloneOfAStripedTableHasAsManyLocks)
{
    HvKeyTable table(101, 7);
    table.put("x", new hvtest::CountedValue);
    long mutexes = hvtest::liveCount("HvMutex");
    {
        HvHandle<HvKeyTable> copy(dynamic_cast<HvKeyTable*>(table.clone()));
        EXPECT_EQ(mutexes + 7, hvtest::liveCount("HvMutex"));
        EXPECT_TRUE(copy->containsKey("x"));
    }
    EXPECT_EQ(mutexes, hvtest::liveCount("HvMutex"));
}

TEST_F(HvKeyTableTest, ValueOutlivesTableWhenCloneStillHoldsIt)
{
    HvHandle<HvKeyTable> copy;
    {
        HvKeyTable table;
        table.put("v", new hvtest::CountedValue(5));
        copy = dynamic_cast<HvKeyTable*>(table.clone());
    }
    EXPECT_EQ(0, hvtest::CountedValue::sDestroyed);
    EXPECT_EQ(5, dynamic_cast<hvtest::CountedValue*>(copy->get("v").get())->id());
    copy = HvHandle<HvKeyTable>();
    EXPECT_EQ(1, hvtest::CountedValue::sDestroyed);
}

// ---------------------------------------------------------------- mAdd

TEST_F(HvKeyTableTest, MAddOfAnEqualEntryReturnsTheStoredOne)
{
    HvHandle<hvtest::CountedValue> value(new hvtest::CountedValue);
    HvKeyTable table;
    table.put("same", value.get());
    HvString probeKey("same");
    KeyEntry probe{probeKey.get(), nullptr};
    void* stored = table.mAdd(&probe);
    ASSERT_NE(nullptr, stored);
    EXPECT_NE(static_cast<void*>(&probe), stored);
    EXPECT_EQ(value.get(), static_cast<KeyEntry*>(stored)->value);
    EXPECT_EQ(1u, table.getCount());
    EXPECT_EQ(stored, table.mFind(&probe));
    // Nothing was taken by the unlocked add.
    EXPECT_EQ(1, probeKey->getRefCount());
    EXPECT_EQ(2, value->getRefCount());
}

// ---------------------------------------------------------------- iteration

TEST_F(HvKeyTableTest, IteratingAnEmptyTableEndsAtOnce)
{
    HvKeyTable table;
    HvKeyTable::Iterator walk(table);
    EXPECT_FALSE(walk.hasNext());
    EXPECT_EQ(nullptr, walk.next());
    EXPECT_TRUE(walk.getKey().isNull());
    EXPECT_TRUE(walk.getValue().isNull());
}

TEST_F(HvKeyTableTest, IterationGoesInBucketOrder)
{
    HvKeyTable table;
    table.put(kBucket100, new hvtest::CountedValue(100));
    table.put(kBucket5, new hvtest::CountedValue(5));
    HvKeyTable::Iterator walk(table);
    ASSERT_TRUE(walk.hasNext());
    ASSERT_NE(nullptr, walk.next());
    EXPECT_STREQ(kBucket5, walk.getKey().c_str());
    EXPECT_EQ(5, dynamic_cast<hvtest::CountedValue*>(walk.getValue().get())->id());
    ASSERT_TRUE(walk.hasNext());
    ASSERT_NE(nullptr, walk.next());
    EXPECT_STREQ(kBucket100, walk.getKey().c_str());
    EXPECT_EQ(100, dynamic_cast<hvtest::CountedValue*>(walk.getValue().get())->id());
    EXPECT_FALSE(walk.hasNext());
    EXPECT_EQ(nullptr, walk.next());
    // Nothing is current after the end.
    EXPECT_TRUE(walk.getKey().isNull());
    EXPECT_TRUE(walk.getValue().isNull());
}

TEST_F(HvKeyTableTest, ChainsKeepInsertionOrder)
{
    HvKeyTable table;
    table.put(kAlsoBucket5, nullptr);
    table.put(kBucket5, nullptr);
    table.put(kBucket100, nullptr);
    EXPECT_EQ((std::vector<std::string>{kAlsoBucket5, kBucket5, kBucket100}), keysInOrder(table));
}

TEST_F(HvKeyTableTest, ResetRestartsTheWalk)
{
    HvKeyTable table;
    table.put(kBucket5, nullptr);
    table.put(kBucket100, nullptr);
    HvKeyTable::Iterator walk(table);
    ASSERT_NE(nullptr, walk.next());
    EXPECT_STREQ(kBucket5, walk.getKey().c_str());
    walk.reset();
    EXPECT_TRUE(walk.getKey().isNull());
    ASSERT_NE(nullptr, walk.next());
    EXPECT_STREQ(kBucket5, walk.getKey().c_str());
    ASSERT_NE(nullptr, walk.next());
    ASSERT_EQ(nullptr, walk.next());
    walk.reset();
    ASSERT_TRUE(walk.hasNext());
    ASSERT_NE(nullptr, walk.next());
    EXPECT_STREQ(kBucket5, walk.getKey().c_str());
}

TEST_F(HvKeyTableTest, KeysAndElementsWalkTheSameEntries)
{
    HvKeyTable table;
    HvHandle<hvtest::CountedValue> value(new hvtest::CountedValue(9));
    table.put(kBucket100, value.get());
    table.put(kBucket5, nullptr);
    HvKeyTable::Iterator keys = table.keys();
    HvKeyTable::Iterator elements = table.elements();
    for (int i = 0; i < 2; ++i) {
        ASSERT_NE(nullptr, keys.next());
        ASSERT_NE(nullptr, elements.next());
        EXPECT_EQ(keys.getKey().get(), elements.getKey().get());
        EXPECT_EQ(keys.getValue().get(), elements.getValue().get());
    }
    EXPECT_EQ(value.get(), elements.getValue().get());
    EXPECT_FALSE(keys.hasNext());
    EXPECT_FALSE(elements.hasNext());
}

TEST_F(HvKeyTableTest, RemovingTheEntryJustReturnedIsSafe)
{
    HvKeyTable table;
    for (int i = 0; i < 40; ++i)
        table.put(HvString(("key" + std::to_string(i)).c_str()), new hvtest::CountedValue(i));
    table.put(kBucket5, new hvtest::CountedValue(100));
    table.put(kAlsoBucket5, new hvtest::CountedValue(101));
    HvKeyTable::Iterator walk(table);
    int seen = 0;
    while (walk.next()) {
        ++seen;
        HvString key = walk.getKey();
        EXPECT_TRUE(table.remove(key));
        EXPECT_FALSE(table.containsKey(key));
    }
    EXPECT_EQ(42, seen);
    EXPECT_EQ(0u, table.getCount());
    EXPECT_EQ(42, hvtest::CountedValue::sDestroyed);
}

TEST_F(HvKeyTableTest, RehashChangesNothing)
{
    HvKeyTable table;
    table.put(kBucket100, nullptr);
    table.put(kBucket5, nullptr);
    table.rehash();
    EXPECT_EQ(2u, table.getCount());
    EXPECT_EQ((std::vector<std::string>{kBucket5, kBucket100}), keysInOrder(table));
}

TEST_F(HvKeyTableTest, OtherSizesWork)
{
    HvKeyTable small(1, 1);
    HvKeyTable striped(7, 3);
    for (int i = 0; i < 30; ++i) {
        std::string key = "s" + std::to_string(i);
        small.put(key.c_str(), new hvtest::CountedValue(i));
        striped.put(key.c_str(), new hvtest::CountedValue(i));
    }
    EXPECT_EQ(30u, small.getCount());
    EXPECT_EQ(30u, striped.getCount());
    for (int i = 0; i < 30; ++i) {
        std::string key = "s" + std::to_string(i);
        EXPECT_EQ(i, dynamic_cast<hvtest::CountedValue*>(small.get(key.c_str()).get())->id());
        EXPECT_EQ(i, dynamic_cast<hvtest::CountedValue*>(striped.get(key.c_str()).get())->id());
    }
    // One bucket: a single chain in insertion order.
    std::vector<std::string> keys = keysInOrder(small);
    ASSERT_EQ(30u, keys.size());
    for (int i = 0; i < 30; ++i)
        EXPECT_EQ("s" + std::to_string(i), keys[i]);
}

// ---------------------------------------------------------------- count

TEST_F(HvKeyTableTest, GetCountFollowsPutRemoveAndClear)
{
    HvKeyTable table;
    EXPECT_EQ(0u, table.getCount());
    table.put("a", nullptr);
    table.put("b", nullptr);
    table.put("a", new hvtest::CountedValue);
    EXPECT_EQ(2u, table.getCount());
    table.remove("a");
    EXPECT_EQ(1u, table.getCount());
    table.remove("absent");
    EXPECT_EQ(1u, table.getCount());
    table.clear();
    EXPECT_EQ(0u, table.getCount());
}

// ---------------------------------------------------------------- display

TEST_F(HvKeyTableTest, DisplayOfAnEmptyTable)
{
    HvKeyTable table;
    EXPECT_EQ("HvKeyTable\n", hvtest::displayOf(table));
}

TEST_F(HvKeyTableTest, DisplayPrintsEachKeyTwiceAndNoValue)
{
    HvString first(kBucket100);
    HvString second(kBucket5);
    HvKeyTable table;
    table.put(first, new hvtest::CountedValue);
    table.put(second, nullptr);
    // Each key is held by our handle and by the table.
    std::string expected = std::string("HvKeyTable") +
                           "\n " + kBucket5 + "\t" + "2 \t(" + hvtest::hexAddress(second.get()) + ")\tHvStringBuffer" +
                           kBucket5 +
                           "\n " + kBucket100 + "\t" + "2 \t(" + hvtest::hexAddress(first.get()) + ")\tHvStringBuffer" +
                           kBucket100 + "\n";
    EXPECT_EQ(expected, hvtest::displayOf(table));
}

TEST_F(HvKeyTableTest, DisplayShowsTheKeysOwnCount)
{
    HvKeyTable table;
    table.put("solo", nullptr);
    HvKeyTable::Iterator walk(table);
    ASSERT_NE(nullptr, walk.next());
    const HvStringBuffer* key = walk.getKey().get();
    walk.reset();
    // Only the table holds it now.
    std::string expected = "HvKeyTable\n solo\t1 \t(" + hvtest::hexAddress(key) + ")\tHvStringBuffersolo\n";
    EXPECT_EQ(expected, hvtest::displayOf(table));
}

// ---------------------------------------------------------------- threads

TEST_F(HvKeyTableTest, TwoThreadsOnAStripedTableLeakNothing)
{
    std::atomic<int> created{0};
    std::atomic<int> wrongValues{0};
    std::atomic<int> failures{0};
    {
        HvKeyTable table(101, 7);
        auto work = [&](const char* prefix) {
            try {
                std::vector<std::string> own;
                for (int i = 0; i < 40; ++i)
                    own.push_back(std::string(prefix) + std::to_string(i));
                std::vector<std::string> shared;
                for (int i = 0; i < 15; ++i)
                    shared.push_back("shared" + std::to_string(i));
                for (int round = 0; round < 150; ++round) {
                    for (size_t i = 0; i < own.size(); ++i) {
                        hvtest::CountedValue* value = new hvtest::CountedValue(round);
                        ++created;
                        table.put(own[i].c_str(), value);
                        // Nobody else writes these keys.
                        if (table.get(own[i].c_str()).get() != value)
                            ++wrongValues;
                        if ((i + round) % 3 == 0 && !table.remove(own[i].c_str()))
                            ++wrongValues;
                    }
                    for (size_t i = 0; i < shared.size(); ++i) {
                        ++created;
                        table.put(shared[i].c_str(), new hvtest::CountedValue(round));
                        HvHandle<HvObject> got = table.get(shared[i].c_str());
                        if (!got.isNull() && dynamic_cast<hvtest::CountedValue*>(got.get()) == nullptr)
                            ++wrongValues;
                        table.containsKey(shared[i].c_str());
                        if (round % 2 == 0)
                            table.remove(shared[i].c_str());
                    }
                }
            } catch (...) {
                ++failures;
            }
        };
        std::thread a(work, "left");
        std::thread b(work, "right");
        a.join();
        b.join();
        EXPECT_EQ(0, failures.load());
        EXPECT_EQ(0, wrongValues.load());
        // Every value still in the table is alive, every other one is gone.
        EXPECT_EQ(created.load() - static_cast<int>(table.getCount()), hvtest::CountedValue::sDestroyed.load());
        unsigned int walked = 0;
        HvKeyTable::Iterator walk(table);
        while (walk.next())
            ++walked;
        EXPECT_EQ(table.getCount(), walked);
        table.clear();
        EXPECT_EQ(0u, table.getCount());
        EXPECT_EQ(created.load(), hvtest::CountedValue::sDestroyed.load());
    }
    EXPECT_EQ(created.load(), hvtest::CountedValue::sDestroyed.load());
}
