#include <HvUtil/HvMultiSourceObserver.h>

#include <HvUtil/HvAggregatedObserver.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

const char kSingleObserverText[] =
    "HvObservable::attachObserver() ... The current implementation only allows a single observer";

class CountingMultiSourceObserver : public hvtest::Counted<HvMultiSourceObserver> {
public:
    CountingMultiSourceObserver(HvObserver* observer, HvObservable* source, int& destroyed)
        : Counted(destroyed, observer, source)
    {
    }
};

HvAggregatedObserver* standInOf(const HvHandle<hvtest::CountingObservable>& source)
{
    return dynamic_cast<HvAggregatedObserver*>(source->getObserver().get());
}

// Three sources and a client, every one counted. When the fixture goes it
// drops its handles and checks that each object it made was destroyed once.
struct Fixture {
    ~Fixture()
    {
        client = HvHandle<hvtest::CountingObserver>();
        first = HvHandle<hvtest::CountingObservable>();
        second = HvHandle<hvtest::CountingObservable>();
        third = HvHandle<hvtest::CountingObservable>();
        EXPECT_EQ(3 + extraObservables, observables);
        EXPECT_EQ(1, observers);
        EXPECT_EQ(countedGroups, groups);
    }

    int observables = 0;
    int observers = 0;
    int groups = 0;
    // Set by tests that make more counted objects than the fixture's own.
    int extraObservables = 0;
    int countedGroups = 0;
    HvHandle<hvtest::CountingObservable> first{new hvtest::CountingObservable(observables)};
    HvHandle<hvtest::CountingObservable> second{new hvtest::CountingObservable(observables)};
    HvHandle<hvtest::CountingObservable> third{new hvtest::CountingObservable(observables)};
    HvHandle<hvtest::CountingObserver> client{new hvtest::CountingObserver(observers)};

    // Groups the client with `source` through a counted group, the one this
    // fixture then expects to see destroyed.
    CountingMultiSourceObserver* makeGroup(HvObservable* source)
    {
        countedGroups = 1;
        return new CountingMultiSourceObserver(client.get(), source, groups);
    }
};

} // namespace

TEST(HvMultiSourceObserver, TakesTheObserversPlaceInFrontOfItsOldAndNewSource)
{
    const long mutexesBefore = hvtest::liveMutexesBeyondPool();
    Fixture f;
    f.first->attachObserver(f.client);
    CountingMultiSourceObserver* group = f.makeGroup(f.second.get());

    EXPECT_EQ(group, f.client->getSource().get());
    EXPECT_TRUE(group->getObserver() == f.client);
    EXPECT_EQ(2u, group->countSources());
    EXPECT_TRUE(group->getSourceAt(0) == f.first);
    EXPECT_TRUE(group->getSourceAt(1) == f.second);
    EXPECT_TRUE(group->getSourceAt(2).isNull());
    for (const HvHandle<hvtest::CountingObservable>* source : {&f.first, &f.second}) {
        HvAggregatedObserver* standIn = standInOf(*source);
        ASSERT_NE(nullptr, standIn);
        EXPECT_EQ(static_cast<HvObserver*>(group), standIn->getOwner());
        EXPECT_TRUE(standIn->getSource() == *source);
    }
    // The client's link and each stand-in's place at its source count on the group.
    EXPECT_EQ(3, group->getRefCount());
    EXPECT_EQ(mutexesBefore + 1, hvtest::liveMutexesBeyondPool());

    f.client->detach();
    EXPECT_EQ(1, f.groups);
    EXPECT_EQ(mutexesBefore, hvtest::liveMutexesBeyondPool());
    EXPECT_EQ(0, f.first->countObservers());
    EXPECT_EQ(0, f.second->countObservers());
}

TEST(HvMultiSourceObserver, ObserverWithoutSourceGetsAGroupOfOne)
{
    Fixture f;
    CountingMultiSourceObserver* group = f.makeGroup(f.first.get());
    EXPECT_EQ(group, f.client->getSource().get());
    EXPECT_EQ(1u, group->countSources());
    EXPECT_TRUE(group->getSourceAt(0) == f.first);
    EXPECT_EQ(2, group->getRefCount());

    f.first->notifyObservers(HvHandle<HvObject>());
    ASSERT_EQ(1u, f.client->notes.size());
    EXPECT_EQ(f.first.get(), f.client->notes[0].sender);

    f.client->detach();
    EXPECT_EQ(1, f.groups);
    EXPECT_EQ(0, f.first->countObservers());
}

TEST(HvMultiSourceObserver, FailedConstructionGivesTheObserverBackToItsOldSource)
{
    const long mutexesBefore = hvtest::liveMutexesBeyondPool();
    Fixture f;
    int others = 0;
    HvHandle<hvtest::CountingObserver> other(new hvtest::CountingObserver(others));
    f.first->attachObserver(f.client);
    f.second->attachObserver(other);

    EXPECT_EQ(kSingleObserverText,
              hvtest::messageOf([&] { new HvMultiSourceObserver(f.client.get(), f.second.get()); }));
    EXPECT_TRUE(f.client->getSource() == f.first);
    EXPECT_TRUE(f.first->getObserver() == f.client);
    EXPECT_TRUE(f.second->getObserver() == other);
    EXPECT_EQ(mutexesBefore, hvtest::liveMutexesBeyondPool());
    EXPECT_EQ(2, f.first->getRefCount());
    EXPECT_EQ(2, f.client->getRefCount());

    f.first->detachObserver(f.client);
    f.second->detachObserver(other);
}

TEST(HvMultiSourceObserver, AddSourceAppendsAStandInThatForwards)
{
    Fixture f;
    f.first->attachObserver(f.client);
    CountingMultiSourceObserver* group = f.makeGroup(f.second.get());

    group->addSource(f.third.get());
    EXPECT_EQ(3u, group->countSources());
    EXPECT_TRUE(group->getSourceAt(2) == f.third);
    ASSERT_NE(nullptr, standInOf(f.third));
    EXPECT_EQ(static_cast<HvObserver*>(group), standInOf(f.third)->getOwner());
    EXPECT_EQ(4, group->getRefCount());

    f.third->notifyObservers(HvHandle<HvObject>());
    ASSERT_EQ(1u, f.client->notes.size());
    EXPECT_EQ(f.third.get(), f.client->notes[0].sender);

    f.client->detach();
    EXPECT_EQ(1, f.groups);
}

TEST(HvMultiSourceObserver, AddSourceThatHasAnObserverThrowsAndLeavesTheGroupAsItWas)
{
    Fixture f;
    int others = 0;
    HvHandle<hvtest::CountingObserver> other(new hvtest::CountingObserver(others));
    f.third->attachObserver(other);
    f.first->attachObserver(f.client);
    f.second->attachObserver(f.client);
    HvMultiSourceObserver* group = dynamic_cast<HvMultiSourceObserver*>(f.client->getSource().get());
    ASSERT_NE(nullptr, group);
    const int countBefore = group->getRefCount();

    EXPECT_EQ(kSingleObserverText, hvtest::messageOf([&] { group->addSource(f.third.get()); }));
    EXPECT_EQ(2u, group->countSources());
    EXPECT_EQ(countBefore, group->getRefCount());
    EXPECT_TRUE(f.third->getObserver() == other);

    f.client->detach();
    f.third->detachObserver(other);
    EXPECT_EQ(0, f.first->countObservers());
    EXPECT_EQ(0, f.second->countObservers());
}

TEST(HvMultiSourceObserver, RemoveSourceOfAnUnknownSourceDoesNothing)
{
    Fixture f;
    f.first->attachObserver(f.client);
    f.second->attachObserver(f.client);
    HvMultiSourceObserver* group = dynamic_cast<HvMultiSourceObserver*>(f.client->getSource().get());
    ASSERT_NE(nullptr, group);
    const int countBefore = group->getRefCount();

    EXPECT_NO_THROW(group->removeSource(f.third.get()));
    EXPECT_NO_THROW(group->removeSource(nullptr));
    EXPECT_EQ(2u, group->countSources());
    EXPECT_TRUE(group->getSourceAt(0) == f.first);
    EXPECT_TRUE(group->getSourceAt(1) == f.second);
    EXPECT_EQ(countBefore, group->getRefCount());
    EXPECT_EQ(1, f.first->countObservers());
    EXPECT_EQ(1, f.second->countObservers());
    EXPECT_EQ(0, f.third->countObservers());

    f.client->detach();
}

TEST(HvMultiSourceObserver, RemoveSourceDetachesItAndKeepsTheOrderOfTheRest)
{
    Fixture f;
    f.first->attachObserver(f.client);
    f.second->attachObserver(f.client);
    f.third->attachObserver(f.client);
    HvMultiSourceObserver* group = dynamic_cast<HvMultiSourceObserver*>(f.client->getSource().get());
    ASSERT_NE(nullptr, group);
    EXPECT_EQ(4, group->getRefCount());

    group->removeSource(f.first.get());
    EXPECT_EQ(2u, group->countSources());
    EXPECT_TRUE(group->getSourceAt(0) == f.second);
    EXPECT_TRUE(group->getSourceAt(1) == f.third);
    EXPECT_EQ(0, f.first->countObservers());
    EXPECT_EQ(1, f.first->getRefCount());
    EXPECT_EQ(3, group->getRefCount());
    // The client still watches the group.
    EXPECT_EQ(static_cast<HvObservable*>(group), f.client->getSource().get());

    group->removeSource(f.second.get());
    EXPECT_EQ(1u, group->countSources());
    EXPECT_TRUE(group->getSourceAt(0) == f.third);

    f.client->detach();
    EXPECT_EQ(0, f.third->countObservers());
}

TEST(HvMultiSourceObserver, AfterRemoveSourceTheOtherSourceKeepsFlowingInOrder)
{
    Fixture f;
    int objects = 0;
    f.first->attachObserver(f.client);
    f.second->attachObserver(f.client);
    HvMultiSourceObserver* group = dynamic_cast<HvMultiSourceObserver*>(f.client->getSource().get());
    ASSERT_NE(nullptr, group);

    group->removeSource(f.first.get());
    std::vector<HvHandle<HvObject>> payloads;
    for (int i = 0; i < 3; ++i)
        payloads.push_back(HvHandle<HvObject>(new hvtest::CountingObject(objects)));
    f.second->notifyObservers(payloads[0]);
    f.first->notifyObservers(payloads[1]);
    f.second->notifyObservers(payloads[1]);
    f.second->notifyObservers(payloads[2]);

    ASSERT_EQ(3u, f.client->notes.size());
    for (unsigned int i = 0; i < 3; ++i) {
        hvtest::expectNote(f.client->notes, i, f.second.get(), payloads[i].get());
    }

    f.client->detach();
    payloads.clear();
    EXPECT_EQ(3, objects);
}

TEST(HvMultiSourceObserver, RemovingTheLastSourceLeavesTheClientOnTheGroup)
{
    Fixture f;
    f.first->attachObserver(f.client);
    f.second->attachObserver(f.client);
    HvMultiSourceObserver* group = dynamic_cast<HvMultiSourceObserver*>(f.client->getSource().get());
    ASSERT_NE(nullptr, group);
    group->removeSource(f.first.get());
    group->removeSource(f.second.get());
    EXPECT_EQ(0u, group->countSources());
    EXPECT_EQ(1, group->getRefCount());
    EXPECT_EQ(static_cast<HvObservable*>(group), f.client->getSource().get());
    f.client->detach();
    EXPECT_TRUE(f.client->getSource().isNull());
}

TEST(HvMultiSourceObserver, DetachAllDetachesEverySourceButKeepsTheClient)
{
    Fixture f;
    f.first->attachObserver(f.client);
    f.second->attachObserver(f.client);
    HvMultiSourceObserver* group = dynamic_cast<HvMultiSourceObserver*>(f.client->getSource().get());
    ASSERT_NE(nullptr, group);

    group->detachAll();
    EXPECT_EQ(0u, group->countSources());
    EXPECT_EQ(0, f.first->countObservers());
    EXPECT_EQ(0, f.second->countObservers());
    EXPECT_TRUE(group->getObserver() == f.client);
    EXPECT_EQ(static_cast<HvObservable*>(group), f.client->getSource().get());
    EXPECT_EQ(1, group->getRefCount());

    f.client->detach();
}

TEST(HvMultiSourceObserver, DetachingTheClientDetachesAllSourcesAndFreesTheGroup)
{
    const long mutexesBefore = hvtest::liveMutexesBeyondPool();
    Fixture f;
    f.first->attachObserver(f.client);
    f.second->attachObserver(f.client);
    f.third->attachObserver(f.client);
    EXPECT_EQ(mutexesBefore + 1, hvtest::liveMutexesBeyondPool());

    f.client->detach();
    EXPECT_EQ(0, f.first->countObservers());
    EXPECT_EQ(0, f.second->countObservers());
    EXPECT_EQ(0, f.third->countObservers());
    EXPECT_TRUE(f.client->getSource().isNull());
    // Only the test's handles are left.
    EXPECT_EQ(1, f.first->getRefCount());
    EXPECT_EQ(1, f.client->getRefCount());
    EXPECT_EQ(mutexesBefore, hvtest::liveMutexesBeyondPool());
    EXPECT_EQ(0, f.observables);
}

TEST(HvMultiSourceObserver, DetachObserverOfTheClientFreesACountedGroupOnce)
{
    Fixture f;
    f.first->attachObserver(f.client);
    CountingMultiSourceObserver* group = f.makeGroup(f.second.get());
    group->addSource(f.third.get());

    group->detachObserver(f.client);
    EXPECT_EQ(1, f.groups);
    EXPECT_TRUE(f.client->getSource().isNull());
    EXPECT_EQ(0, f.first->countObservers());
    EXPECT_EQ(0, f.second->countObservers());
    EXPECT_EQ(0, f.third->countObservers());
}

TEST(HvMultiSourceObserver, SourcesHeldOnlyByTheGroupGoWhenTheClientDetaches)
{
    int observables = 0, observers = 0, groups = 0;
    const long mutexesBefore = hvtest::liveMutexesBeyondPool();
    {
        HvHandle<hvtest::CountingObserver> client(new hvtest::CountingObserver(observers));
        {
            HvHandle<hvtest::CountingObservable> first(new hvtest::CountingObservable(observables));
            HvHandle<hvtest::CountingObservable> second(new hvtest::CountingObservable(observables));
            first->attachObserver(client);
            new CountingMultiSourceObserver(client.get(), second.get(), groups);
        }
        EXPECT_EQ(0, observables);
        EXPECT_EQ(0, groups);

        client->detach();
        EXPECT_EQ(2, observables);
        EXPECT_EQ(1, groups);
        EXPECT_TRUE(client->notes.empty());
        EXPECT_EQ(1, client->getRefCount());
    }
    EXPECT_EQ(1, observers);
    EXPECT_EQ(mutexesBefore, hvtest::liveMutexesBeyondPool());
}

TEST(HvMultiSourceObserver, DetachObserverWithAStrangerLeavesTheGroupIntact)
{
    Fixture f;
    int others = 0;
    HvHandle<hvtest::CountingObserver> stranger(new hvtest::CountingObserver(others));
    f.first->attachObserver(f.client);
    f.second->attachObserver(f.client);
    HvMultiSourceObserver* group = dynamic_cast<HvMultiSourceObserver*>(f.client->getSource().get());
    ASSERT_NE(nullptr, group);

    EXPECT_NO_THROW(group->detachObserver(stranger));
    EXPECT_NO_THROW(group->detachObserver(HvHandle<HvObserver>()));
    EXPECT_EQ(2u, group->countSources());
    EXPECT_TRUE(group->getObserver() == f.client);
    EXPECT_EQ(1, f.first->countObservers());
    EXPECT_EQ(1, f.second->countObservers());

    f.client->detach();
}

TEST(HvMultiSourceObserver, OnNotificationForwardsTheSenderToTheClient)
{
    Fixture f;
    int objects = 0;
    f.first->attachObserver(f.client);
    f.second->attachObserver(f.client);
    HvMultiSourceObserver* group = dynamic_cast<HvMultiSourceObserver*>(f.client->getSource().get());
    ASSERT_NE(nullptr, group);
    HvHandle<HvObject> payload(new hvtest::CountingObject(objects));

    group->onNotification(f.third, payload);
    ASSERT_EQ(1u, f.client->notes.size());
    hvtest::expectNote(f.client->notes, 0, f.third.get(), payload.get());
    EXPECT_EQ(1, payload->getRefCount());

    f.client->detach();
}

TEST(HvMultiSourceObserver, OnNotificationWithoutClientIsIgnored)
{
    Fixture f;
    f.first->attachObserver(f.client);
    f.second->attachObserver(f.client);
    HvHandle<HvMultiSourceObserver> group(dynamic_cast<HvMultiSourceObserver*>(f.client->getSource().get()));
    ASSERT_FALSE(group.isNull());
    f.client->detach();
    EXPECT_TRUE(group->getObserver().isNull());
    EXPECT_EQ(1, group->getRefCount());

    EXPECT_NO_THROW(group->onNotification(f.first, HvHandle<HvObject>()));
    EXPECT_TRUE(f.client->notes.empty());
}

TEST(HvMultiSourceObserver, ClientsExceptionReachesTheNotifyingSource)
{
    Fixture f;
    f.first->attachObserver(f.client);
    f.second->attachObserver(f.client);
    f.client->throwText = "client failed";
    EXPECT_EQ("client failed", hvtest::messageOf([&] { f.second->notifyObservers(HvHandle<HvObject>()); }));
    HvMultiSourceObserver* group = dynamic_cast<HvMultiSourceObserver*>(f.client->getSource().get());
    ASSERT_NE(nullptr, group);
    EXPECT_EQ(3, group->getRefCount());
    f.client->throwText = nullptr;
    f.client->detach();
}

TEST(HvMultiSourceObserver, DestroyedSourceTellsTheClientDisconnectingWithItselfAsSender)
{
    const long mutexesBefore = hvtest::liveMutexesBeyondPool();
    Fixture f;
    f.first->attachObserver(f.client);
    const HvObservable* address = nullptr;
    f.extraObservables = 1;
    {
        hvtest::CountingObservable member(f.observables);
        address = &member;
        member.attachObserver(f.client);
        HvMultiSourceObserver* group = dynamic_cast<HvMultiSourceObserver*>(f.client->getSource().get());
        ASSERT_NE(nullptr, group);
        EXPECT_EQ(3, group->getRefCount());
    }
    EXPECT_EQ(1, f.observables);
    ASSERT_EQ(1u, f.client->notes.size());
    EXPECT_EQ(address, f.client->notes[0].sender);
    EXPECT_EQ("Disconnecting", f.client->notes[0].message);

    // The other source still flows, and the group no longer counts the gone one.
    HvMultiSourceObserver* group = dynamic_cast<HvMultiSourceObserver*>(f.client->getSource().get());
    ASSERT_NE(nullptr, group);
    EXPECT_EQ(2, group->getRefCount());
    f.first->notifyObservers(HvHandle<HvObject>());
    ASSERT_EQ(2u, f.client->notes.size());
    EXPECT_EQ(f.first.get(), f.client->notes[1].sender);

    f.client->detach();
    EXPECT_EQ(0, f.first->countObservers());
    EXPECT_EQ(mutexesBefore, hvtest::liveMutexesBeyondPool());
}

TEST(HvMultiSourceObserver, FanInFromTwoThreadsDeliversEveryNotification)
{
    const int kPerThread = 5000;
    int observables = 0, objects = 0;

    class ThreadCountingObserver : public HvObserver {
    public:
        void onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object) override
        {
            std::lock_guard<std::mutex> guard(mutex);
            ++perSender[source.get()];
            if (!object.isNull())
                ++withPayload;
        }
        std::mutex mutex;
        std::map<const HvObservable*, int> perSender;
        int withPayload = 0;
    };

    const long mutexesBefore = hvtest::liveMutexesBeyondPool();
    {
        HvHandle<hvtest::CountingObservable> first(new hvtest::CountingObservable(observables));
        HvHandle<hvtest::CountingObservable> second(new hvtest::CountingObservable(observables));
        HvHandle<ThreadCountingObserver> client(new ThreadCountingObserver);
        first->attachObserver(client);
        second->attachObserver(client);
        HvHandle<HvObject> firstPayload(new hvtest::CountingObject(objects));
        HvHandle<HvObject> secondPayload(new hvtest::CountingObject(objects));

        std::atomic<bool> go(false);
        std::atomic<int> finished(0);
        auto notifier = [&](HvObservable* source, HvHandle<HvObject> payload) {
            while (!go.load())
                std::this_thread::yield();
            for (int i = 0; i < kPerThread; ++i)
                source->notifyObservers(payload);
            ++finished;
        };
        std::thread one(notifier, first.get(), firstPayload);
        std::thread two(notifier, second.get(), secondPayload);
        go = true;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (finished.load() < 2 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        EXPECT_EQ(2, finished.load());
        one.join();
        two.join();

        {
            std::lock_guard<std::mutex> guard(client->mutex);
            EXPECT_EQ(2u, client->perSender.size());
            EXPECT_EQ(kPerThread, client->perSender[first.get()]);
            EXPECT_EQ(kPerThread, client->perSender[second.get()]);
            EXPECT_EQ(2 * kPerThread, client->withPayload);
        }
        // No reference was gained or lost on the way.
        EXPECT_EQ(1, firstPayload->getRefCount());
        EXPECT_EQ(2, first->getRefCount());
        EXPECT_EQ(2, client->getRefCount());
        HvMultiSourceObserver* group = dynamic_cast<HvMultiSourceObserver*>(client->getSource().get());
        ASSERT_NE(nullptr, group);
        EXPECT_EQ(3, group->getRefCount());

        client->detach();
        EXPECT_EQ(0, first->countObservers());
        EXPECT_EQ(0, second->countObservers());
    }
    EXPECT_EQ(2, observables);
    EXPECT_EQ(2, objects);
    EXPECT_EQ(mutexesBefore, hvtest::liveMutexesBeyondPool());
}

TEST(HvMultiSourceObserver, DisplayShowsCountAndClassName)
{
    Fixture f;
    f.first->attachObserver(f.client);
    f.second->attachObserver(f.client);
    HvObservable* group = f.client->getSource().get();
    EXPECT_EQ("3\tHvMultiSourceObserver", hvtest::displayOf(*group, false));
    f.client->detach();
}

namespace {

// A client that changes its group's sources from inside a notification.
class ReactingObserver : public HvObserver {
public:
    enum Reaction { RemoveSender, DetachSelf };
    ReactingObserver(Reaction reaction, int& destroyed) : m_reaction(reaction), m_destroyed(destroyed) {}
    ~ReactingObserver() override { ++m_destroyed; }

    void onNotification(HvHandle<HvObservable> source, HvHandle<HvObject>) override
    {
        ++notifications;
        HvMultiSourceObserver* group = dynamic_cast<HvMultiSourceObserver*>(getSource().get());
        if (!group)
            return;
        if (m_reaction == RemoveSender)
            group->removeSource(source.get());
        else
            detach();
    }

    int notifications = 0;

private:
    Reaction m_reaction;
    int& m_destroyed;
};

} // namespace

TEST(HvMultiSourceObserver, ClientMayRemoveTheSendingSourceFromInsideItsNotification)
{
    int observables = 0, observers = 0, groups = 0;
    {
        HvHandle<hvtest::CountingObservable> first(new hvtest::CountingObservable(observables));
        HvHandle<hvtest::CountingObservable> second(new hvtest::CountingObservable(observables));
        HvHandle<ReactingObserver> client(new ReactingObserver(ReactingObserver::RemoveSender, observers));
        first->attachObserver(client);
        CountingMultiSourceObserver* group = new CountingMultiSourceObserver(client.get(), second.get(), groups);

        first->notifyObservers(HvHandle<HvObject>());
        EXPECT_EQ(1, client->notifications);
        EXPECT_EQ(0, first->countObservers());
        EXPECT_EQ(1u, group->countSources());
        EXPECT_TRUE(group->getSourceAt(0) == second);

        // The group keeps working for the other source.
        second->notifyObservers(HvHandle<HvObject>());
        EXPECT_EQ(2, client->notifications);
        EXPECT_EQ(0, second->countObservers());
        client->detach();
        EXPECT_EQ(1, groups);
    }
    EXPECT_EQ(2, observables);
    EXPECT_EQ(1, observers);
}

TEST(HvMultiSourceObserver, ClientMayDetachFromInsideANotification)
{
    int observables = 0, observers = 0, groups = 0;
    const long mutexesBefore = hvtest::liveMutexesBeyondPool();
    {
        HvHandle<hvtest::CountingObservable> first(new hvtest::CountingObservable(observables));
        HvHandle<hvtest::CountingObservable> second(new hvtest::CountingObservable(observables));
        HvHandle<ReactingObserver> client(new ReactingObserver(ReactingObserver::DetachSelf, observers));
        first->attachObserver(client);
        new CountingMultiSourceObserver(client.get(), second.get(), groups);

        // The group stays alive until the notification that detached it returns.
        second->notifyObservers(HvHandle<HvObject>());
        EXPECT_EQ(1, client->notifications);
        EXPECT_EQ(1, groups);
        EXPECT_TRUE(client->getSource().isNull());
        EXPECT_EQ(0, first->countObservers());
        EXPECT_EQ(0, second->countObservers());
    }
    EXPECT_EQ(2, observables);
    EXPECT_EQ(1, observers);
    EXPECT_EQ(mutexesBefore, hvtest::liveMutexesBeyondPool());
}
