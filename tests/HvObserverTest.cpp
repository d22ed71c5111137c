#include <HvUtil/HvObserver.h>

#include <HvUtil/HvByteArrayOutputStream.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvObservable.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

class CountingObserver : public HvObserver {
public:
    explicit CountingObserver(int& destroyed) : m_destroyed(destroyed) {}
    ~CountingObserver() override { ++m_destroyed; }

    void onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object) override
    {
        senders.push_back(source.get());
        objects.push_back(object.get());
    }

    std::vector<const HvObservable*> senders;
    std::vector<const HvObject*> objects;

private:
    int& m_destroyed;
};

// Records every detachObserver request before doing the usual work.
class RecordingObservable : public HvObservable {
public:
    explicit RecordingObservable(int& destroyed) : m_destroyed(destroyed) {}
    ~RecordingObservable() override { ++m_destroyed; }

    void detachObserver(HvHandle<HvObserver> observer) override
    {
        detachRequests.push_back(observer.get());
        HvObservable::detachObserver(observer);
    }

    std::vector<const HvObserver*> detachRequests;

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
    HvHandle<HvObject> payload(new CountingObject(objects));
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
        HvHandle<CountingObserver> observer(new CountingObserver(observers));
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
        HvHandle<CountingObserver> observer(new CountingObserver(observers));
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
        CountingObserver observer(observers);
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
        CountingObserver observer(observers);
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
        HvHandle<CountingObserver> observer(new CountingObserver(observers));
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
        HvHandle<CountingObserver> observer(new CountingObserver(observers));
        HvHandle<HvObject> payload(new CountingObject(objects));
        source->attachObserver(observer);
        source->notifyObservers(payload);
        ASSERT_EQ(1u, observer->senders.size());
        EXPECT_EQ(source.get(), observer->senders[0]);
        EXPECT_EQ(payload.get(), observer->objects[0]);
        observer->detach();
    }
    EXPECT_EQ(1, observables);
    EXPECT_EQ(1, observers);
    EXPECT_EQ(1, objects);
}

TEST(HvObserver, DisplayShowsCountAndClassName)
{
    HvHandle<HvObserver> observer(new HvObserver);
    EXPECT_EQ("1\tHvObserver", displayed(*observer));
}
