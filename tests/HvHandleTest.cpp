#include <HvUtil/HvHandle.h>

#include <HvUtil/HvAssertionFailure.h>
#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvString.h>
#include <HvUtil/HvStringBuffer.h>

#include <Velmora/Assertion.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace {

// Counts its destructions.
class Counted : public HvObject {
public:
    explicit Counted(std::atomic<int>* destroyed) : m_destroyed(destroyed) {}
    ~Counted() override { ++*m_destroyed; }

    int value = 7;

private:
    std::atomic<int>* m_destroyed;
};

// Another type, unrelated to Counted except through HvObject.
class Unrelated : public HvObject {
};

// Owns a child object that nothing else refers to.
class Owner : public HvObject {
public:
    HvHandle<HvObject> child;
};

// Thrown by the handler below so that the access through an empty handle
// never goes ahead.
struct EmptyHandleAccess {
};

void throwOnAssertion(const char* text, const char* file, int line)
{
    hvtest::recordAssertion(text, file, line);
    throw EmptyHandleAccess();
}

} // namespace

TEST(HvHandle, HandleIsOnePointerWide)
{
    EXPECT_EQ(sizeof(HvHandleBase), sizeof(void*));
    EXPECT_EQ(sizeof(HvHandle<HvObject>), sizeof(void*));
    EXPECT_EQ(sizeof(HvString), sizeof(void*));
}

TEST(HvHandle, DefaultHandleIsEmpty)
{
    HvHandle<HvObject> handle;
    EXPECT_TRUE(handle.isNull());
    EXPECT_EQ(handle.get(), nullptr);
    EXPECT_TRUE(handle == nullptr);
    EXPECT_FALSE(handle != nullptr);
}

TEST(HvHandle, HandleFromPointerTakesOneReference)
{
    std::atomic<int> destroyed{0};
    Counted* object = new Counted(&destroyed);
    {
        HvHandle<Counted> handle(object);
        EXPECT_FALSE(handle.isNull());
        EXPECT_EQ(handle.get(), object);
        EXPECT_EQ(object->getRefCount(), 1);
        EXPECT_EQ(handle->value, 7);
        EXPECT_EQ((*handle).value, 7);
        EXPECT_EQ(&*handle, object);
    }
    EXPECT_EQ(destroyed, 1);
}

TEST(HvHandle, NullPointerGivesEmptyHandle)
{
    Counted* nothing = nullptr;
    HvHandle<Counted> handle(nothing);
    EXPECT_TRUE(handle.isNull());
}

TEST(HvHandle, CopyAddsReferenceAndLastHandleDestroys)
{
    std::atomic<int> destroyed{0};
    HvHandle<Counted> first(new Counted(&destroyed));
    {
        HvHandle<Counted> second(first);
        EXPECT_EQ(first->getRefCount(), 2);
        EXPECT_TRUE(first == second);
        EXPECT_FALSE(first != second);
    }
    EXPECT_EQ(first->getRefCount(), 1);
    EXPECT_EQ(destroyed, 0);
    first = HvHandle<Counted>();
    EXPECT_TRUE(first.isNull());
    EXPECT_EQ(destroyed, 1);
}

TEST(HvHandle, MoveTakesTheReferenceAndEmptiesTheSource)
{
    std::atomic<int> destroyed{0};
    HvHandle<Counted> first(new Counted(&destroyed));
    Counted* object = first.get();
    HvHandle<Counted> second(std::move(first));
    EXPECT_TRUE(first.isNull());
    EXPECT_EQ(object, second.get());
    EXPECT_EQ(1, object->getRefCount());
    second = HvHandle<Counted>();
    EXPECT_EQ(1, destroyed);
}

TEST(HvHandle, MoveAssignmentReleasesTheOldObjectAndKeepsTheCount)
{
    std::atomic<int> destroyedOld{0};
    std::atomic<int> destroyedNew{0};
    HvHandle<Counted> target(new Counted(&destroyedOld));
    HvHandle<Counted> source(new Counted(&destroyedNew));
    Counted* moved = source.get();
    target = std::move(source);
    EXPECT_EQ(1, destroyedOld);
    EXPECT_TRUE(source.isNull());
    EXPECT_EQ(moved, target.get());
    EXPECT_EQ(1, moved->getRefCount());
    EXPECT_EQ(0, destroyedNew);

    HvHandle<Counted>& alias = target;
    target = std::move(alias);
    EXPECT_EQ(moved, target.get());
    EXPECT_EQ(1, moved->getRefCount());
    EXPECT_EQ(0, destroyedNew);
}

TEST(HvHandle, VectorGrowthMovesHandlesWithoutTouchingCounts)
{
    std::atomic<int> destroyed{0};
    std::vector<HvHandle<Counted>> handles;
    for (int i = 0; i < 100; ++i)
        handles.push_back(HvHandle<Counted>(new Counted(&destroyed)));
    for (const HvHandle<Counted>& handle : handles)
        EXPECT_EQ(1, handle->getRefCount());
    handles.clear();
    EXPECT_EQ(100, destroyed);
}

TEST(HvHandle, ExtraAddRefKeepsObjectBeyondItsHandles)
{
    std::atomic<int> destroyed{0};
    Counted* object = new Counted(&destroyed);
    {
        HvHandle<Counted> handle(object);
        object->AddRef();
        EXPECT_EQ(object->getRefCount(), 2);
    }
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(object->getRefCount(), 1);
    EXPECT_EQ(object->Release(true), 0);
    EXPECT_EQ(destroyed, 1);
}

TEST(HvHandle, SelfAssignmentLeavesCountUnchanged)
{
    std::atomic<int> destroyed{0};
    HvHandle<Counted> handle(new Counted(&destroyed));
    HvHandle<Counted>& alias = handle;
    handle = alias;
    EXPECT_EQ(handle->getRefCount(), 1);
    EXPECT_EQ(destroyed, 0);

    handle = handle.get();
    EXPECT_EQ(handle->getRefCount(), 1);
    EXPECT_EQ(destroyed, 0);

    HvHandle<HvObject> root(handle);
    root = handle; // conversion assignment of the object already held
    EXPECT_EQ(handle->getRefCount(), 2);
    root = handle.get();
    EXPECT_EQ(handle->getRefCount(), 2);
    EXPECT_EQ(destroyed, 0);
}

TEST(HvHandle, AssignmentReleasesOldAndReferencesNew)
{
    std::atomic<int> destroyed{0};
    Counted* first = new Counted(&destroyed);
    Counted* second = new Counted(&destroyed);
    HvHandle<Counted> keepSecond(second);
    HvHandle<Counted> handle(first);
    handle = second;
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(second->getRefCount(), 2);
    handle = HvHandle<Counted>();
    EXPECT_TRUE(handle.isNull());
    EXPECT_EQ(second->getRefCount(), 1);
    Counted* nothing = nullptr;
    keepSecond = nothing;
    EXPECT_EQ(destroyed, 2);
}

TEST(HvHandle, AssigningObjectOwnedOnlyByTheOldOneKeepsItAlive)
{
    std::atomic<int> destroyed{0};
    Counted* child = new Counted(&destroyed);
    Owner* owner = new Owner;
    owner->child = child;
    HvHandle<HvObject> handle(owner);
    ASSERT_EQ(child->getRefCount(), 1);

    // The source handle lives inside the object that is released.
    handle = owner->child;
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(handle.get(), child);
    EXPECT_EQ(child->getRefCount(), 1);
    handle = HvHandle<HvObject>();
    EXPECT_EQ(destroyed, 1);
}

TEST(HvHandle, AssigningRawPointerOwnedOnlyByTheOldOneKeepsItAlive)
{
    std::atomic<int> destroyed{0};
    Counted* child = new Counted(&destroyed);
    Owner* owner = new Owner;
    owner->child = child;
    HvHandle<HvObject> handle(owner);
    handle = owner->child.get();
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(child->getRefCount(), 1);
    handle = HvHandle<HvObject>();
    EXPECT_EQ(destroyed, 1);
}

TEST(HvHandle, UpcastConstructionAndAssignmentTakeTheObject)
{
    long before = hvtest::liveStringBuffers();
    {
        HvString text("abc");
        HvHandle<HvObject> root(text);
        EXPECT_EQ(root.get(), text.get());
        EXPECT_EQ(text->getRefCount(), 2);
        HvHandle<HvObject> fromPointer(text.get());
        EXPECT_EQ(text->getRefCount(), 3);
        HvHandle<HvObject> assigned;
        assigned = text;
        EXPECT_EQ(text->getRefCount(), 4);
    }
    EXPECT_EQ(hvtest::liveStringBuffers(), before);
}

TEST(HvHandle, DowncastConstructionAndAssignmentSucceedForTheRightType)
{
    std::atomic<int> destroyed{0};
    HvHandle<HvObject> root(new Counted(&destroyed));
    HvHandle<Counted> typed(root);
    EXPECT_EQ(typed.get(), root.get());
    EXPECT_EQ(typed->value, 7);
    EXPECT_EQ(root->getRefCount(), 2);

    HvHandle<Counted> assigned;
    assigned = root;
    EXPECT_EQ(root->getRefCount(), 3);
    HvHandle<Counted> fromPointer(root.get());
    EXPECT_EQ(root->getRefCount(), 4);
    HvHandle<Counted> assignedPointer;
    assignedPointer = root.get();
    EXPECT_EQ(root->getRefCount(), 5);
}

TEST(HvHandle, ConversionFromEmptyHandleGivesEmptyHandle)
{
    hvtest::AssertionScope handler;
    HvHandle<HvByteArray> empty;
    HvHandle<HvStringBuffer> fromHandle(empty);
    EXPECT_TRUE(fromHandle.isNull());

    HvObject* nothing = nullptr;
    HvHandle<HvStringBuffer> fromPointer(nothing);
    EXPECT_TRUE(fromPointer.isNull());
    EXPECT_EQ(hvtest::assertionCount(), 0u);
}

TEST(HvHandle, ConversionConstructionFromWrongTypeThrowsAssertionFailure)
{
    hvtest::AssertionScope handler;
    long before = hvtest::liveStringBuffers();
    {
        HvHandle<HvByteArray> bytes = HvByteArray::sCreate("abc");
        ASSERT_FALSE(bytes.isNull());
        HvHandle<HvException> caught;
        try {
            HvHandle<HvStringBuffer> text(bytes);
            ADD_FAILURE() << "conversion succeeded, holding " << text.get();
        } catch (HvHandle<HvException>& e) {
            caught = e;
        }
        ASSERT_FALSE(caught.isNull());
        HvAssertionFailure* failure = dynamic_cast<HvAssertionFailure*>(caught.get());
        ASSERT_NE(failure, nullptr);
        EXPECT_STREQ(failure->getMessage().c_str(), "dynamic_cast failed on HvHandle construction");
        EXPECT_STREQ(failure->getFile(), "HvHandle.cpp");
        EXPECT_EQ(failure->getLine(), 46u);
        EXPECT_TRUE(hvtest::looksLikeCompileTimestamp(failure->getTimestamp())) << failure->getTimestamp();
        EXPECT_EQ(hvtest::assertionCount(), 1u);
        hvtest::expectAssertion(hvtest::lastAssertion(), "dynamic_cast failed on HvHandle construction",
                                "HvHandle.cpp", 46);
        // The failed handle took no reference on the source.
        EXPECT_EQ(bytes->getRefCount(), 1);
    }
    EXPECT_EQ(hvtest::liveStringBuffers(), before);
}

TEST(HvHandle, FailedConversionConstructionLeavesSourceCountAndLeaksNothing)
{
    std::atomic<int> destroyed{0};
    {
        HvHandle<Counted> source(new Counted(&destroyed));
        Counted* raw = source.get();
        EXPECT_THROW(HvHandle<Unrelated> target(source), HvHandle<HvException>);
        EXPECT_THROW(HvHandle<Unrelated> target(raw), HvHandle<HvException>);
        EXPECT_EQ(source->getRefCount(), 1);
        EXPECT_EQ(destroyed, 0);
    }
    EXPECT_EQ(destroyed, 1);
}

TEST(HvHandle, ConversionAssignmentFromWrongTypeThrowsAndReleasesTheOldObject)
{
    hvtest::AssertionScope handler;
    std::atomic<int> destroyed{0};
    std::atomic<int> sourceDestroyed{0};
    {
        HvHandle<HvObject> source(new Counted(&sourceDestroyed));
        HvHandle<Unrelated> target(new Unrelated);
        HvHandle<Counted> typedTarget(new Counted(&destroyed));
        Unrelated* oldTarget = target.get();
        (void)oldTarget;

        HvHandle<HvException> caught;
        try {
            HvHandle<Counted> typedSource(source);
            target = typedSource;
            ADD_FAILURE() << "conversion assignment succeeded";
        } catch (HvHandle<HvException>& e) {
            caught = e;
        }
        ASSERT_FALSE(caught.isNull());
        HvAssertionFailure* failure = dynamic_cast<HvAssertionFailure*>(caught.get());
        ASSERT_NE(failure, nullptr);
        EXPECT_STREQ(failure->getMessage().c_str(), "dynamic_cast failed on HvHandle assignment");
        EXPECT_STREQ(failure->getFile(), "HvHandle.cpp");
        EXPECT_EQ(failure->getLine(), 81u);
        EXPECT_TRUE(hvtest::looksLikeCompileTimestamp(failure->getTimestamp())) << failure->getTimestamp();
        EXPECT_EQ(hvtest::assertionCount(), 1u);
        hvtest::expectAssertion(hvtest::lastAssertion(), "dynamic_cast failed on HvHandle assignment",
                                "HvHandle.cpp", 81);

        // The cast result (null) was stored; the source gained nothing.
        EXPECT_TRUE(target.isNull());
        EXPECT_EQ(source->getRefCount(), 1);

        // Same through a raw pointer, on a handle whose old object counts
        // its destruction: the old reference is given back, not leaked.
        Unrelated* wrong = new Unrelated;
        HvHandle<Unrelated> keepWrong(wrong);
        EXPECT_THROW(typedTarget = wrong, HvHandle<HvException>);
        EXPECT_TRUE(typedTarget.isNull());
        EXPECT_EQ(destroyed, 1);
        EXPECT_EQ(wrong->getRefCount(), 1);
    }
    EXPECT_EQ(sourceDestroyed, 1);
}

TEST(HvHandle, ConversionAssignmentOfWrongTypeToAnEmptyHandleIsReported)
{
    hvtest::AssertionScope handler;
    std::atomic<int> destroyed{0};
    HvHandle<HvObject> source(new Counted(&destroyed));
    HvHandle<Unrelated> target;
    HvHandle<HvException> caught;
    try {
        target = source;
        ADD_FAILURE() << "conversion assignment succeeded";
    } catch (HvHandle<HvException>& e) {
        caught = e;
    }
    ASSERT_FALSE(caught.isNull());
    EXPECT_STREQ(caught->getMessage().c_str(), "dynamic_cast failed on HvHandle assignment");
    EXPECT_EQ(hvtest::lastAssertion().line, 81);
    EXPECT_TRUE(target.isNull());
    EXPECT_EQ(source->getRefCount(), 1);

    // Through a raw pointer as well.
    EXPECT_THROW(target = source.get(), HvHandle<HvException>);
    EXPECT_TRUE(target.isNull());
    EXPECT_EQ(source->getRefCount(), 1);
}

TEST(HvHandle, ConversionAssignmentFromEmptyOtherTypeEmptiesTheHandle)
{
    std::atomic<int> destroyed{0};
    HvHandle<Counted> target(new Counted(&destroyed));
    HvHandle<Unrelated> empty;
    target = empty;
    EXPECT_TRUE(target.isNull());
    EXPECT_EQ(destroyed, 1);
}

TEST(HvHandle, ConversionAssignmentReleasesOldAndReferencesNew)
{
    std::atomic<int> destroyed{0};
    HvHandle<HvObject> first(new Counted(&destroyed));
    HvHandle<HvObject> second(new Counted(&destroyed));
    HvHandle<Counted> target(first);
    first = HvHandle<HvObject>();
    target = second;
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(second->getRefCount(), 2);
}

TEST(HvHandle, MemberAccessThroughEmptyHandleAssertsThisNotNull)
{
    hvtest::AssertionScope handler(&throwOnAssertion);
    HvHandle<HvObject> empty;
    EXPECT_THROW(empty->getRefCount(), EmptyHandleAccess);
    EXPECT_EQ(hvtest::assertionCount(), 1u);
    hvtest::expectAssertion(hvtest::lastAssertion(), "this != 0", "HvUtil/HvObject.h", 87);

    hvtest::clearAssertions();
    EXPECT_THROW((*empty).getRefCount(), EmptyHandleAccess);
    EXPECT_EQ(hvtest::assertionCount(), 1u);
    hvtest::expectAssertion(hvtest::lastAssertion(), "this != 0", "HvUtil/HvObject.h", 87);
}

TEST(HvHandle, GetAndIsNullOnEmptyHandleDoNotAssert)
{
    hvtest::AssertionScope handler(&throwOnAssertion);
    unsigned long failuresBefore = Velmora::Assertion::sGetFailureCount();
    HvHandle<HvObject> empty;
    EXPECT_NO_THROW(EXPECT_EQ(empty.get(), nullptr));
    EXPECT_TRUE(empty.isNull());
    std::atomic<int> destroyed{0};
    HvHandle<Counted> full(new Counted(&destroyed));
    EXPECT_NO_THROW(EXPECT_EQ(full->value, 7));
    EXPECT_EQ(hvtest::assertionCount(), 0u);
    EXPECT_EQ(Velmora::Assertion::sGetFailureCount(), failuresBefore);
}

TEST(HvHandle, EqualityIsIdentityAcrossTypesAndRawPointers)
{
    std::atomic<int> destroyed{0};
    Counted* object = new Counted(&destroyed);
    HvHandle<Counted> typed(object);
    HvHandle<HvObject> root(object);
    HvHandle<Counted> other(new Counted(&destroyed));

    EXPECT_TRUE(typed == root);
    EXPECT_TRUE(root == typed);
    EXPECT_FALSE(typed != root);
    EXPECT_TRUE(typed != other);
    EXPECT_TRUE(typed == object);
    EXPECT_TRUE(object == typed);
    EXPECT_FALSE(typed != object);
    EXPECT_TRUE(other != object);
    EXPECT_TRUE(static_cast<const HvObject*>(object) != other);
}

TEST(HvHandle, ConcurrentCopiesKeepTheCountAndDestroyOnce)
{
    const int kThreads = 4;
    const int kIterations = 20000;
    std::atomic<int> destroyed{0};
    std::atomic<bool> go{false};
    std::atomic<int> looped{0};
    std::atomic<bool> finish{false};

    HvHandle<Counted> shared(new Counted(&destroyed));
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        HvHandle<Counted> own(shared);
        threads.emplace_back([own, &go, &looped, &finish] {
            while (!go.load())
                std::this_thread::yield();
            HvHandle<Counted> spare;
            for (int i = 0; i < kIterations; ++i) {
                HvHandle<Counted> copy(own);
                HvHandle<HvObject> root(copy);
                spare = copy;
                if (i % 3 == 0)
                    spare = HvHandle<Counted>();
            }
            spare = HvHandle<Counted>();
            ++looped;
            // Keep the captured handle until told to go, so the last
            // reference may be dropped by one of these threads.
            while (!finish.load())
                std::this_thread::yield();
        });
    }
    EXPECT_EQ(shared->getRefCount(), 1 + kThreads);
    go = true;

    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (looped.load() < kThreads && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(looped.load(), kThreads);
    if (looped.load() == kThreads) {
        EXPECT_EQ(shared->getRefCount(), 1 + kThreads);
    }
    EXPECT_EQ(destroyed, 0);

    shared = HvHandle<Counted>();
    EXPECT_EQ(destroyed, 0);
    finish = true;
    for (std::thread& thread : threads)
        thread.join();
    threads.clear();
    EXPECT_EQ(destroyed, 1);
}
