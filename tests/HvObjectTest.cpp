#include <HvUtil/HvObject.h>

#include <HvUtil/HvAssertionFailure.h>
#include <HvUtil/HvByteArrayOutputStream.h>
#include <HvUtil/HvHandle.h>
#include <HvUtil/HvMutex.h>
#include <HvUtil/HvString.h>
#include <HvUtil/HvStringBuffer.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <pthread.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <typeinfo>

// Test classes live at global scope so that their mangled names are the
// plain "<length><name>" form that getClassName() trims.

// Counts destructions; its name has 10 or more characters.
class CountingObject : public HvObject {
public:
    explicit CountingObject(int* destroyed) : m_destroyed(destroyed) {}
    ~CountingObject() override { ++*m_destroyed; }

    HvMutex* mutex() const { return getObjectMutex(); }

private:
    int* m_destroyed;
};

// A name shorter than 10 characters.
class ShortObj : public HvObject {
};

namespace {

int sign(int value)
{
    return (value > 0) - (value < 0);
}

} // namespace

TEST(HvObject, NewObjectHasCountZero)
{
    HvObject object;
    EXPECT_EQ(object.getRefCount(), 0);
    EXPECT_EQ(hvtest::displayOf(object, false), "0\tvObject");
}

TEST(HvObject, ObjectCostsTwoWordsBeyondVtablePointer)
{
    EXPECT_EQ(sizeof(HvObject), 3 * sizeof(void*));
}

TEST(HvObject, DisplayAfterOneHandleWritesCountTabAndTrimmedName)
{
    HvHandle<HvObject> handle(new HvObject);
    EXPECT_EQ(hvtest::displayOf(*handle, false), "1\tvObject");
}

TEST(HvObject, VerboseDisplayAddsBlankTabAndParenthesisedAddress)
{
    HvHandle<HvObject> handle(new HvObject);
    HvHandle<HvObject> second(handle);
    EXPECT_EQ(hvtest::displayOf(*handle, true), "2 \t(" + hvtest::hexAddress(handle.get()) + ")\tvObject");
}

TEST(HvObject, GetClassNameSkipsTwoCharactersOfTheMangledName)
{
    HvObject object;
    EXPECT_STREQ(object.getClassName(), "vObject");

    HvString text("abc");
    EXPECT_STREQ(text->getClassName(), "HvStringBuffer");

    int destroyed = 0;
    CountingObject counting(&destroyed);
    EXPECT_STREQ(counting.getClassName(), "CountingObject");

    // Short names lose their first letter as well; that is kept on purpose.
    ShortObj shortObject;
    EXPECT_STREQ(shortObject.getClassName(), "hortObj");
}

TEST(HvObject, GetClassNameUsesTheDynamicType)
{
    HvString text("abc");
    const HvObject* asRoot = text.get();
    EXPECT_STREQ(asRoot->getClassName(), "HvStringBuffer");
    EXPECT_STREQ(hvtest::displayOf(*asRoot, false).c_str(), "1\tHvStringBuffer");
}

TEST(HvObject, PrintingNullPointerWritesNilHvObject)
{
    HvByteArrayOutputStream out(0);
    const HvObject* nothing = nullptr;
    out << nothing;
    EXPECT_EQ(hvtest::textOf(out), "Nil HvObject");
}

TEST(HvObject, PrintingObjectPointerWritesVerboseDisplay)
{
    HvHandle<HvObject> handle(new HvObject);
    HvByteArrayOutputStream out(0);
    out << handle.get();
    EXPECT_EQ(hvtest::textOf(out), "1 \t(" + hvtest::hexAddress(handle.get()) + ")\tvObject");
}

TEST(HvObject, IsSameClassComparesDynamicTypes)
{
    HvObject first;
    HvObject second;
    ShortObj shortObject;
    HvString text("abc");
    HvString other("xyz");

    EXPECT_TRUE(first.isSameClass(&second));
    EXPECT_TRUE(first.isSameClass(&first));
    EXPECT_FALSE(first.isSameClass(&shortObject));
    EXPECT_FALSE(shortObject.isSameClass(&first));
    EXPECT_FALSE(first.isSameClass(text.get()));
    EXPECT_TRUE(text->isSameClass(other.get()));
}

TEST(HvObject, IsSameClassOfNullThrowsBadTypeid)
{
    HvObject object;
    EXPECT_THROW(object.isSameClass(nullptr), std::bad_typeid);
}

TEST(HvObject, AddRefAndReleaseReturnTheNewCount)
{
    int destroyed = 0;
    CountingObject* object = new CountingObject(&destroyed);
    EXPECT_EQ(object->AddRef(), 1);
    EXPECT_EQ(object->AddRef(), 2);
    EXPECT_EQ(object->getRefCount(), 2);
    EXPECT_EQ(object->Release(true), 1);
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(object->Release(true), 0);
    EXPECT_EQ(destroyed, 1);
}

TEST(HvObject, ReleaseFalseToZeroLeavesObjectAliveAndReturnsZero)
{
    int destroyed = 0;
    CountingObject* object = new CountingObject(&destroyed);
    object->AddRef();
    EXPECT_EQ(object->Release(false), 0);
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(object->getRefCount(), 0);
    // Still usable, and destroyable by its owner since the count is 0.
    EXPECT_STREQ(object->getClassName(), "CountingObject");
    delete object;
    EXPECT_EQ(destroyed, 1);
}

TEST(HvObject, DestructionWithLiveReferencesThrowsAssertionFailure)
{
    hvtest::AssertionScope recorder;
    int destroyed = 0;
    CountingObject* object = new CountingObject(&destroyed);
    object->AddRef();

    HvHandle<HvException> caught;
    try {
        delete object;
    } catch (HvHandle<HvException>& e) {
        caught = e;
    }
    ASSERT_FALSE(caught.isNull());
    EXPECT_EQ(destroyed, 1);
    HvAssertionFailure* failure = dynamic_cast<HvAssertionFailure*>(caught.get());
    ASSERT_NE(failure, nullptr);
    EXPECT_STREQ(failure->getMessage().c_str(), "Destructing HvObject with live references");
    EXPECT_STREQ(failure->getFile(), "HvObject.cpp");
    EXPECT_EQ(failure->getLine(), 52u);
    EXPECT_TRUE(hvtest::looksLikeCompileTimestamp(failure->getTimestamp())) << failure->getTimestamp();

    EXPECT_EQ(hvtest::assertionCount(), 1u);
    hvtest::expectAssertion(hvtest::lastAssertion(), "Destructing HvObject with live references", "HvObject.cpp", 52);
}

TEST(HvObject, DefaultCloneThrowsCloningIsNotSupported)
{
    hvtest::AssertionScope recorder;
    HvObject object;
    HvHandle<HvException> caught;
    try {
        HvObject* copy = object.clone();
        ADD_FAILURE() << "clone returned " << copy;
    } catch (HvHandle<HvException>& e) {
        caught = e;
    }
    ASSERT_FALSE(caught.isNull());
    HvAssertionFailure* failure = dynamic_cast<HvAssertionFailure*>(caught.get());
    ASSERT_NE(failure, nullptr);
    EXPECT_STREQ(failure->getMessage().c_str(), "cloning is not supported");
    EXPECT_STREQ(failure->getFile(), "HvObject.cpp");
    EXPECT_EQ(failure->getLine(), 87u);
    EXPECT_TRUE(hvtest::looksLikeCompileTimestamp(failure->getTimestamp())) << failure->getTimestamp();
    EXPECT_EQ(hvtest::assertionCount(), 1u);
    hvtest::expectAssertion(hvtest::lastAssertion(), "cloning is not supported", "HvObject.cpp", 87);
    EXPECT_EQ(object.getRefCount(), 0);
}

TEST(HvObject, CompareWithIsAddressDifference)
{
    HvObject pair[2];
    EXPECT_EQ(pair[1].compareWith(&pair[0]), static_cast<int>(sizeof(HvObject)));
    EXPECT_EQ(pair[0].compareWith(&pair[1]), -static_cast<int>(sizeof(HvObject)));
    EXPECT_EQ(pair[0].compareWith(&pair[0]), 0);
}

TEST(HvObject, CompareWithOnDistinctObjectsIsNonZeroAndAntisymmetric)
{
    HvObject onStack;
    HvHandle<HvObject> onHeap(new HvObject);
    HvHandle<HvObject> another(new HvObject);

    int a = onStack.compareWith(onHeap.get());
    int b = onHeap->compareWith(&onStack);
    EXPECT_NE(a, 0);
    EXPECT_NE(b, 0);
    EXPECT_EQ(sign(a), -sign(b));

    int c = onHeap->compareWith(another.get());
    int d = another->compareWith(onHeap.get());
    EXPECT_NE(c, 0);
    EXPECT_EQ(sign(c), -sign(d));
    EXPECT_EQ(onHeap->compareWith(onHeap.get()), 0);
}

TEST(HvObject, HashCodeIsTheAddress)
{
    HvObject onStack;
    HvHandle<HvObject> onHeap(new HvObject);
    EXPECT_EQ(onStack.hashCode(), static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(&onStack)));
    EXPECT_EQ(onHeap->hashCode(), static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(onHeap.get())));
}

TEST(HvObject, CopyIsANewObjectWithCountZero)
{
    HvHandle<HvObject> original(new HvObject);
    HvObject copy(*original);
    EXPECT_EQ(copy.getRefCount(), 0);
    EXPECT_EQ(original->getRefCount(), 1);

    HvObject target;
    target = *original;
    EXPECT_EQ(target.getRefCount(), 0);
    EXPECT_EQ(original->getRefCount(), 1);
}

TEST(HvObject, ObjectMutexIsThePoolEntryOfTheCreatingThread)
{
    HvMutex::sInitialize();
    HvMutex* expected = HvMutex::sm_pMutex[HvMutex::sPoolIndex(pthread_self())];
    int destroyed = 0;
    CountingObject first(&destroyed);
    CountingObject second(&destroyed);
    ASSERT_NE(expected, nullptr);
    EXPECT_EQ(first.mutex(), expected);
    EXPECT_EQ(second.mutex(), expected);

    // Taking and dropping references leaves the mutex where it was.
    first.AddRef();
    first.Release(false);
    EXPECT_EQ(first.mutex(), expected);
}
