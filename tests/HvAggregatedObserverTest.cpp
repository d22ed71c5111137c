#include <HvUtil/HvAggregatedObserver.h>

#include <HvUtil/HvObservable.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <string>

namespace {

class CountingAggregatedObserver : public hvtest::Counted<HvAggregatedObserver> {
public:
    CountingAggregatedObserver(HvObserver* owner, int& destroyed) : Counted(destroyed, owner) {}
};

} // namespace

TEST(HvAggregatedObserver, StartsDetachedWithItsOwner)
{
    int observers = 0;
    HvHandle<hvtest::CountingObserver> owner(new hvtest::CountingObserver(observers));
    HvAggregatedObserver aggregated(owner.get());
    EXPECT_EQ(owner.get(), aggregated.getOwner());
    EXPECT_TRUE(aggregated.getSource().isNull());
    EXPECT_EQ(0, aggregated.getRefCount());
    EXPECT_EQ(1, owner->getRefCount());
}

TEST(HvAggregatedObserver, AddRefAndReleaseChangeTheOwnersCountNotItsOwn)
{
    int observers = 0, aggregates = 0;
    {
        HvHandle<hvtest::CountingObserver> owner(new hvtest::CountingObserver(observers));
        CountingAggregatedObserver aggregated(owner.get(), aggregates);

        EXPECT_EQ(2, aggregated.AddRef());
        EXPECT_EQ(2, owner->getRefCount());
        EXPECT_EQ(0, aggregated.getRefCount());

        EXPECT_EQ(3, aggregated.AddRef());
        EXPECT_EQ(2, aggregated.Release(true));
        EXPECT_EQ(1, aggregated.Release(false));
        EXPECT_EQ(1, owner->getRefCount());
        EXPECT_EQ(0, aggregated.getRefCount());
        EXPECT_EQ(0, observers);
    }
    EXPECT_EQ(1, aggregates);
    EXPECT_EQ(1, observers);
}

TEST(HvAggregatedObserver, ReleaseToZeroDestroysTheOwnerOnlyWhenAsked)
{
    int observers = 0, aggregates = 0;
    hvtest::CountingObserver* owner = new hvtest::CountingObserver(observers);
    CountingAggregatedObserver* aggregated = new CountingAggregatedObserver(owner, aggregates);

    aggregated->AddRef();
    EXPECT_EQ(0, aggregated->Release(false));
    EXPECT_EQ(0, observers);
    EXPECT_EQ(0, owner->getRefCount());

    aggregated->AddRef();
    EXPECT_EQ(0, aggregated->Release(true));
    EXPECT_EQ(1, observers);
    // The aggregated observer itself is not destroyed by its owner's count.
    EXPECT_EQ(0, aggregates);
    delete aggregated;
    EXPECT_EQ(1, aggregates);
}

TEST(HvAggregatedObserver, HandlesToItCountOnTheOwner)
{
    int observers = 0, aggregates = 0;
    HvHandle<hvtest::CountingObserver> owner(new hvtest::CountingObserver(observers));
    CountingAggregatedObserver* aggregated = new CountingAggregatedObserver(owner.get(), aggregates);
    {
        HvHandle<HvObserver> first(aggregated);
        HvHandle<HvObserver> second(first);
        EXPECT_EQ(3, owner->getRefCount());
        EXPECT_EQ(0, aggregated->getRefCount());
    }
    EXPECT_EQ(1, owner->getRefCount());
    EXPECT_EQ(0, aggregates);
    delete aggregated;
    EXPECT_EQ(1, aggregates);
    EXPECT_EQ(0, observers);
}

TEST(HvAggregatedObserver, ForwardsNotificationsWithTheSameSourceAndObject)
{
    int observables = 0, observers = 0, aggregates = 0, objects = 0;
    {
        HvHandle<hvtest::CountingObserver> owner(new hvtest::CountingObserver(observers));
        HvHandle<hvtest::CountingObservable> source(new hvtest::CountingObservable(observables));
        HvHandle<HvObject> payload(new hvtest::CountingObject(objects));
        CountingAggregatedObserver aggregated(owner.get(), aggregates);

        source->attachObserver(HvHandle<HvObserver>(&aggregated));
        EXPECT_TRUE(aggregated.getSource() == source);
        EXPECT_TRUE(source->getObserver() == &aggregated);
        // The source's link counts on the owner.
        EXPECT_EQ(2, owner->getRefCount());

        source->notifyObservers(payload);
        source->notifyObservers(HvHandle<HvObject>());
        aggregated.onNotification(HvHandle<HvObservable>(), payload);

        ASSERT_EQ(3u, owner->notes.size());
        hvtest::expectNote(owner->notes, 0, source.get(), payload.get());
        hvtest::expectNote(owner->notes, 1, source.get(), nullptr);
        hvtest::expectNote(owner->notes, 2, nullptr, payload.get());
        EXPECT_EQ(1, payload->getRefCount());

        source->detachObserver(HvHandle<HvObserver>(&aggregated));
        EXPECT_EQ(1, owner->getRefCount());
    }
    EXPECT_EQ(1, observables);
    EXPECT_EQ(1, observers);
    EXPECT_EQ(1, aggregates);
    EXPECT_EQ(1, objects);
}

TEST(HvAggregatedObserver, DestructorDetachesFromTheSource)
{
    int observables = 0, observers = 0, aggregates = 0;
    {
        HvHandle<hvtest::CountingObserver> owner(new hvtest::CountingObserver(observers));
        HvHandle<hvtest::CountingObservable> source(new hvtest::CountingObservable(observables));
        CountingAggregatedObserver* aggregated = new CountingAggregatedObserver(owner.get(), aggregates);
        source->attachObserver(HvHandle<HvObserver>(aggregated));
        EXPECT_EQ(1, source->countObservers());
        EXPECT_EQ(2, owner->getRefCount());
        EXPECT_EQ(2, source->getRefCount());

        delete aggregated;
        EXPECT_EQ(1, aggregates);
        EXPECT_EQ(0, source->countObservers());
        EXPECT_EQ(1, owner->getRefCount());
        EXPECT_EQ(1, source->getRefCount());
        EXPECT_TRUE(owner->notes.empty());
    }
    EXPECT_EQ(1, observables);
    EXPECT_EQ(1, observers);
}

TEST(HvAggregatedObserver, DestructorMayDropTheLastReferenceOfItsSource)
{
    int observables = 0, observers = 0, aggregates = 0;
    HvHandle<hvtest::CountingObserver> owner(new hvtest::CountingObserver(observers));
    CountingAggregatedObserver* aggregated = new CountingAggregatedObserver(owner.get(), aggregates);
    {
        HvHandle<hvtest::CountingObservable> source(new hvtest::CountingObservable(observables));
        source->attachObserver(HvHandle<HvObserver>(aggregated));
    }
    EXPECT_EQ(0, observables);
    delete aggregated;
    EXPECT_EQ(1, aggregates);
    EXPECT_EQ(1, observables);
    EXPECT_EQ(1, owner->getRefCount());
}

TEST(HvAggregatedObserver, OwnerIsToldDisconnectingWithTheSourceAsSender)
{
    int observables = 0, observers = 0, aggregates = 0;
    HvHandle<hvtest::CountingObserver> owner(new hvtest::CountingObserver(observers));
    CountingAggregatedObserver* aggregated = new CountingAggregatedObserver(owner.get(), aggregates);
    const HvObservable* address = nullptr;
    {
        hvtest::CountingObservable source(observables);
        address = &source;
        source.attachObserver(HvHandle<HvObserver>(aggregated));
    }
    EXPECT_EQ(1, observables);
    ASSERT_EQ(1u, owner->notes.size());
    EXPECT_EQ(address, owner->notes[0].sender);
    EXPECT_EQ("Disconnecting", owner->notes[0].message);
    EXPECT_TRUE(aggregated->getSource().isNull());
    EXPECT_EQ(1, owner->getRefCount());
    delete aggregated;
    EXPECT_EQ(1, aggregates);
}

TEST(HvAggregatedObserver, OwnerThatIsARelayPassesItOnAsItself)
{
    int observables = 0, observers = 0, aggregates = 0, objects = 0;
    {
        HvHandle<hvtest::CountingObservable> relay(new hvtest::CountingObservable(observables));
        HvHandle<hvtest::CountingObserver> top(new hvtest::CountingObserver(observers));
        HvHandle<hvtest::CountingObservable> source(new hvtest::CountingObservable(observables));
        HvHandle<HvObject> payload(new hvtest::CountingObject(objects));
        relay->attachObserver(top);
        CountingAggregatedObserver aggregated(relay.get(), aggregates);
        source->attachObserver(HvHandle<HvObserver>(&aggregated));

        source->notifyObservers(payload);
        ASSERT_EQ(1u, top->notes.size());
        hvtest::expectNote(top->notes, 0, relay.get(), payload.get());

        relay->detachObserver(top);
    }
    EXPECT_EQ(2, observables);
    EXPECT_EQ(1, observers);
    EXPECT_EQ(1, aggregates);
    EXPECT_EQ(1, objects);
}

TEST(HvAggregatedObserver, DisplayShowsItsOwnUnusedCount)
{
    HvHandle<HvObserver> owner(new HvObserver);
    HvAggregatedObserver aggregated(owner.get());
    aggregated.AddRef();
    EXPECT_EQ("0\tHvAggregatedObserver", hvtest::displayOf(aggregated, false));
    aggregated.Release(true);
}
