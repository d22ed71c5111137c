#include <HvUtil/HvObserver.h>

#include <HvUtil/HvException.h>
#include <HvUtil/HvObservable.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// Records every detachObserver request before doing the usual work.
class RecordingObservable : public hvtest::CountingObservable {
public:
    explicit RecordingObservable(int& destroyed) : hvtest::CountingObservable(destroyed) {}

    void detachObserver(HvHandle<HvObserver> observer) override
    {
        detachRequests.push_back(observer.get());
        HvObservable::detachObserver(observer);
    }

    std::vector<const HvObserver*> detachRequests;
};

} // namespace

TEST(HvObserver, NewObserverHasNoSource)
{
    HvHandle<HvObserver> observer(new HvObserver);
    EXPECT_TRUE(observer->getSource().isNull());
    EXPECT_EQ(1, observer->getRefCount());
}

TEST(HvObserver, BaseOnNotificationDoesNothing)
{
    int objects = 0;
    HvHandle<HvObservable> source(new HvObservable);
    HvHandle<HvObserver> observer(new HvObserver);
    HvHandle<HvObject> payload(new hvtest::CountingObject(objects));
    source->attachObserver(observer);

    EXPECT_NO_THROW(source->notifyObservers(payload));
    EXPECT_NO_THROW(observer->onNotification(HvHandle<HvObservable>(), HvHandle<HvObject>()));
    // Nothing was kept and nothing changed.
    EXPECT_EQ(1, payload->getRefCount());
    EXPECT_TRUE(observer->getSource() == source);
    EXPECT_EQ(0, objects);
    source->detachObserver(observer);
}

TEST(HvObserver, DetachWithoutSourceDoesNothing)
{
    int observers = 0;
    {
        HvHandle<hvtest::CountingObserver> observer(new hvtest::CountingObserver(observers));
        EXPECT_NO_THROW(observer->detach());
        EXPECT_TRUE(observer->getSource().isNull());
        EXPECT_EQ(1, observer->getRefCount());
    }
    EXPECT_EQ(1, observers);
}

TEST(HvObserver, DetachAsksTheSourceToDetachThisObserver)
{
    int observables = 0, observers = 0;
    {
        HvHandle<RecordingObservable> source(new RecordingObservable(observables));
        HvHandle<hvtest::CountingObserver> observer(new hvtest::CountingObserver(observers));
        source->attachObserver(observer);
        EXPECT_TRUE(observer->getSource() == source);

        observer->detach();
        ASSERT_EQ(1u, source->detachRequests.size());
        EXPECT_EQ(observer.get(), source->detachRequests[0]);
        EXPECT_EQ(0, source->countObservers());
        EXPECT_TRUE(observer->getSource().isNull());
        EXPECT_EQ(1, observer->getRefCount());
        EXPECT_EQ(1, source->getRefCount());

        // A second detach has no source to ask.
        observer->detach();
        EXPECT_EQ(1u, source->detachRequests.size());
    }
    EXPECT_EQ(1, observables);
    EXPECT_EQ(1, observers);
}

TEST(HvObserver, DestroyingAnAttachedObserverDetachesItFromItsSource)
{
    int observables = 0, observers = 0;
    HvHandle<RecordingObservable> source(new RecordingObservable(observables));
    const HvObserver* address = nullptr;
    {
        // Destroyed by its owner at the end of the scope; the source's link is
        // its only reference then.
        hvtest::CountingObserver observer(observers);
        address = &observer;
        source->attachObserver(HvHandle<HvObserver>(&observer));
        EXPECT_EQ(1, source->countObservers());
        EXPECT_EQ(1, observer.getRefCount());
    }
    EXPECT_EQ(1, observers);
    EXPECT_EQ(0, source->countObservers());
    ASSERT_EQ(1u, source->detachRequests.size());
    EXPECT_EQ(address, source->detachRequests[0]);
    EXPECT_EQ(1, source->getRefCount());
    source = HvHandle<RecordingObservable>();
    EXPECT_EQ(1, observables);
}

TEST(HvObserver, DestroyedObserverDropsTheLastReferenceOfItsSource)
{
    int observables = 0, observers = 0;
    {
        hvtest::CountingObserver observer(observers);
        {
            HvHandle<RecordingObservable> source(new RecordingObservable(observables));
            source->attachObserver(HvHandle<HvObserver>(&observer));
        }
        // The observer's link is all that keeps the source.
        EXPECT_EQ(0, observables);
        const HvObservable* source = observer.getSource().get();
        ASSERT_NE(nullptr, source);
        EXPECT_EQ(1, source->getRefCount());
    }
    // The source went exactly once, from inside the observer's destruction.
    EXPECT_EQ(1, observers);
    EXPECT_EQ(1, observables);
}

TEST(HvObserver, SourceIsClearedWhenTheSourceDetachesIt)
{
    int observables = 0, observers = 0;
    {
        HvHandle<RecordingObservable> source(new RecordingObservable(observables));
        HvHandle<hvtest::CountingObserver> observer(new hvtest::CountingObserver(observers));
        source->attachObserver(observer);
        source->detachObserver(observer);
        EXPECT_TRUE(observer->getSource().isNull());
        EXPECT_TRUE(source->detachRequests.size() == 1u);
    }
    EXPECT_EQ(1, observables);
    EXPECT_EQ(1, observers);
}

TEST(HvObserver, ReceivesSenderAndObjectFromItsSource)
{
    int observables = 0, observers = 0, objects = 0;
    {
        HvHandle<RecordingObservable> source(new RecordingObservable(observables));
        HvHandle<hvtest::CountingObserver> observer(new hvtest::CountingObserver(observers));
        HvHandle<HvObject> payload(new hvtest::CountingObject(objects));
        source->attachObserver(observer);
        source->notifyObservers(payload);
        ASSERT_EQ(1u, observer->notes.size());
        hvtest::expectNote(observer->notes, 0, source.get(), payload.get());
        observer->detach();
    }
    EXPECT_EQ(1, observables);
    EXPECT_EQ(1, observers);
    EXPECT_EQ(1, objects);
}

TEST(HvObserver, DisplayShowsCountAndClassName)
{
    HvHandle<HvObserver> observer(new HvObserver);
    EXPECT_EQ("1\tHvObserver", hvtest::displayOf(*observer, false));
}
