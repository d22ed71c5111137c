#include <HvUtil/HvAggregatedObserver.h>

#include <HvUtil/HvByteArrayOutputStream.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvObservable.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct Note {
    const HvObservable* sender;
    const HvObject* object;
    std::string message;
};

class CountingObserver : public HvObserver {
public:
    explicit CountingObserver(int& destroyed) : m_destroyed(destroyed) {}
    ~CountingObserver() override { ++m_destroyed; }

    void onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object) override
    {
        Note note{source.get(), object.get(), std::string()};
        if (const HvException* e = dynamic_cast<const HvException*>(object.get()))
            note.message = e->getMessage().c_str();
        notes.push_back(note);
    }

    std::vector<Note> notes;

private:
    int& m_destroyed;
};

class CountingAggregatedObserver : public HvAggregatedObserver {
public:
    CountingAggregatedObserver(HvObserver* owner, int& destroyed) : HvAggregatedObserver(owner), m_destroyed(destroyed) {}
    ~CountingAggregatedObserver() override { ++m_destroyed; }

private:
    int& m_destroyed;
};

class CountingObservable : public HvObservable {
public:
    explicit CountingObservable(int& destroyed) : m_destroyed(destroyed) {}
    ~CountingObservable() override { ++m_destroyed; }

private:
    int& m_destroyed;
};

class CountingObject : public HvObject {
public:
    explicit CountingObject(int& destroyed) : m_destroyed(destroyed) {}
    ~CountingObject() override { ++m_destroyed; }

private:
    int& m_destroyed;
};

std::string displayed(const HvObject& object)
{
    HvByteArrayOutputStream out(0);
    object.display(out, false);
    HvHandle<HvByteArray> bytes = out.toByteArray();
    return std::string(reinterpret_cast<const char*>(bytes->getData()), bytes->getSize());
}

} // namespace

TEST(HvAggregatedObserver, StartsDetachedWithItsOwner)
{
    int observers = 0;
    HvHandle<CountingObserver> owner(new CountingObserver(observers));
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
        HvHandle<CountingObserver> owner(new CountingObserver(observers));
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
    CountingObserver* owner = new CountingObserver(observers);
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
    HvHandle<CountingObserver> owner(new CountingObserver(observers));
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
        HvHandle<CountingObserver> owner(new CountingObserver(observers));
        HvHandle<CountingObservable> source(new CountingObservable(observables));
        HvHandle<HvObject> payload(new CountingObject(objects));
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
        EXPECT_EQ(source.get(), owner->notes[0].sender);
        EXPECT_EQ(payload.get(), owner->notes[0].object);
        EXPECT_EQ(source.get(), owner->notes[1].sender);
        EXPECT_EQ(nullptr, owner->notes[1].object);
        EXPECT_EQ(nullptr, owner->notes[2].sender);
        EXPECT_EQ(payload.get(), owner->notes[2].object);
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
        HvHandle<CountingObserver> owner(new CountingObserver(observers));
        HvHandle<CountingObservable> source(new CountingObservable(observables));
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
    HvHandle<CountingObserver> owner(new CountingObserver(observers));
    CountingAggregatedObserver* aggregated = new CountingAggregatedObserver(owner.get(), aggregates);
    {
        HvHandle<CountingObservable> source(new CountingObservable(observables));
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
    HvHandle<CountingObserver> owner(new CountingObserver(observers));
    CountingAggregatedObserver* aggregated = new CountingAggregatedObserver(owner.get(), aggregates);
    const HvObservable* address = nullptr;
    {
        CountingObservable source(observables);
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
        HvHandle<CountingObservable> relay(new CountingObservable(observables));
        HvHandle<CountingObserver> top(new CountingObserver(observers));
        HvHandle<CountingObservable> source(new CountingObservable(observables));
        HvHandle<HvObject> payload(new CountingObject(objects));
        relay->attachObserver(top);
        CountingAggregatedObserver aggregated(relay.get(), aggregates);
        source->attachObserver(HvHandle<HvObserver>(&aggregated));

        source->notifyObservers(payload);
        ASSERT_EQ(1u, top->notes.size());
        EXPECT_EQ(relay.get(), top->notes[0].sender);
        EXPECT_EQ(payload.get(), top->notes[0].object);

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
    EXPECT_EQ("0\tHvAggregatedObserver", displayed(aggregated));
    aggregated.Release(true);
}
