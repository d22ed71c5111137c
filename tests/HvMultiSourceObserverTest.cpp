#include <HvUtil/HvMultiSourceObserver.h>

#include <HvUtil/HvAggregatedObserver.h>
#include <HvUtil/HvByteArrayOutputStream.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvMutex.h>

#include <Velmora/MemAllocator.h>

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
        if (throwText)
            HvException::sThrow(throwText);
    }

    std::vector<Note> notes;
    const char* throwText = nullptr;

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

class CountingMultiSourceObserver : public HvMultiSourceObserver {
public:
    CountingMultiSourceObserver(HvObserver* observer, HvObservable* source, int& destroyed)
        : HvMultiSourceObserver(observer, source), m_destroyed(destroyed)
    {
    }
    ~CountingMultiSourceObserver() override { ++m_destroyed; }

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

// The object mutex pool is built by the first object; build it first so that
// only the mutexes of groups are counted.
long liveMutexes()
{
    HvMutex::sInitialize();
    return Velmora::allocationStats("HvMutex").liveCount;
}

HvAggregatedObserver* standInOf(const HvHandle<CountingObservable>& source)
{
    return dynamic_cast<HvAggregatedObserver*>(source->getObserver().get());
}

std::string displayed(const HvObject& object)
{
    HvByteArrayOutputStream out(0);
    object.display(out, false);
    HvHandle<HvByteArray> bytes = out.toByteArray();
    return std::string(reinterpret_cast<const char*>(bytes->getData()), bytes->getSize());
}

// Three sources and a client, every one counted. When the fixture goes it
// drops its handles and checks that each object it made was destroyed once.
struct Fixture {
    ~Fixture()
    {
        client = HvHandle<CountingObserver>();
        first = HvHandle<CountingObservable>();
        second = HvHandle<CountingObservable>();
        third = HvHandle<CountingObservable>();
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
    HvHandle<CountingObservable> first{new CountingObservable(observables)};
    HvHandle<CountingObservable> second{new CountingObservable(observables)};
    HvHandle<CountingObservable> third{new CountingObservable(observables)};
    HvHandle<CountingObserver> client{new CountingObserver(observers)};
};

} // namespace

TEST(HvMultiSourceObserver, TakesTheObserversPlaceInFrontOfItsOldAndNewSource)
{
    const long mutexesBefore = liveMutexes();
    Fixture f;
    f.first->attachObserver(f.client);
    f.countedGroups = 1;
    CountingMultiSourceObserver* group = new CountingMultiSourceObserver(f.client.get(), f.second.get(), f.groups);

    EXPECT_EQ(group, f.client->getSource().get());
    EXPECT_TRUE(group->getObserver() == f.client);
    EXPECT_EQ(2u, group->countSources());
    EXPECT_TRUE(group->getSourceAt(0) == f.first);
    EXPECT_TRUE(group->getSourceAt(1) == f.second);
    EXPECT_TRUE(group->getSourceAt(2).isNull());
    for (const HvHandle<CountingObservable>* source : {&f.first, &f.second}) {
        HvAggregatedObserver* standIn = standInOf(*source);
        ASSERT_NE(nullptr, standIn);
        EXPECT_EQ(static_cast<HvObserver*>(group), standIn->getOwner());
        EXPECT_TRUE(standIn->getSource() == *source);
    }
    // The client's link and each stand-in's place at its source count on the group.
    EXPECT_EQ(3, group->getRefCount());
    EXPECT_EQ(mutexesBefore + 1, liveMutexes());

    f.client->detach();
    EXPECT_EQ(1, f.groups);
    EXPECT_EQ(mutexesBefore, liveMutexes());
    EXPECT_EQ(0, f.first->countObservers());
    EXPECT_EQ(0, f.second->countObservers());
}

TEST(HvMultiSourceObserver, ObserverWithoutSourceGetsAGroupOfOne)
{
    Fixture f;
    f.countedGroups = 1;
    CountingMultiSourceObserver* group = new CountingMultiSourceObserver(f.client.get(), f.first.get(), f.groups);
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
    const long mutexesBefore = liveMutexes();
    Fixture f;
    int others = 0;
    HvHandle<CountingObserver> other(new CountingObserver(others));
    f.first->attachObserver(f.client);
    f.second->attachObserver(other);

    bool thrown = false;
    try {
        new HvMultiSourceObserver(f.client.get(), f.second.get());
    } catch (HvHandle<HvException>& e) {
        thrown = true;
        EXPECT_STREQ(kSingleObserverText, e->getMessage().c_str());
    }
    EXPECT_TRUE(thrown);
    EXPECT_TRUE(f.client->getSource() == f.first);
    EXPECT_TRUE(f.first->getObserver() == f.client);
    EXPECT_TRUE(f.second->getObserver() == other);
    EXPECT_EQ(mutexesBefore, liveMutexes());
    EXPECT_EQ(2, f.first->getRefCount());
    EXPECT_EQ(2, f.client->getRefCount());

    f.first->detachObserver(f.client);
    f.second->detachObserver(other);
}

TEST(HvMultiSourceObserver, AddSourceAppendsAStandInThatForwards)
{
    Fixture f;
    f.first->attachObserver(f.client);
    f.countedGroups = 1;
    CountingMultiSourceObserver* group = new CountingMultiSourceObserver(f.client.get(), f.second.get(), f.groups);

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
    HvHandle<CountingObserver> other(new CountingObserver(others));
    f.third->attachObserver(other);
    f.first->attachObserver(f.client);
    f.second->attachObserver(f.client);
    HvMultiSourceObserver* group = dynamic_cast<HvMultiSourceObserver*>(f.client->getSource().get());
    ASSERT_NE(nullptr, group);
    const int countBefore = group->getRefCount();

    bool thrown = false;
    try {
        group->addSource(f.third.get());
    } catch (HvHandle<HvException>& e) {
        thrown = true;
        EXPECT_STREQ(kSingleObserverText, e->getMessage().c_str());
    }
    EXPECT_TRUE(thrown);
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
        payloads.push_back(HvHandle<HvObject>(new CountingObject(objects)));
    f.second->notifyObservers(payloads[0]);
    f.first->notifyObservers(payloads[1]);
    f.second->notifyObservers(payloads[1]);
    f.second->notifyObservers(payloads[2]);

    ASSERT_EQ(3u, f.client->notes.size());
    for (unsigned int i = 0; i < 3; ++i) {
        EXPECT_EQ(f.second.get(), f.client->notes[i].sender);
        EXPECT_EQ(payloads[i].get(), f.client->notes[i].object);
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
    const long mutexesBefore = liveMutexes();
    Fixture f;
    f.first->attachObserver(f.client);
    f.second->attachObserver(f.client);
    f.third->attachObserver(f.client);
    EXPECT_EQ(mutexesBefore + 1, liveMutexes());

    f.client->detach();
    EXPECT_EQ(0, f.first->countObservers());
    EXPECT_EQ(0, f.second->countObservers());
    EXPECT_EQ(0, f.third->countObservers());
    EXPECT_TRUE(f.client->getSource().isNull());
    // Only the test's handles are left.
    EXPECT_EQ(1, f.first->getRefCount());
    EXPECT_EQ(1, f.client->getRefCount());
    EXPECT_EQ(mutexesBefore, liveMutexes());
    EXPECT_EQ(0, f.observables);
}

TEST(HvMultiSourceObserver, DetachObserverOfTheClientFreesACountedGroupOnce)
{
    Fixture f;
    f.first->attachObserver(f.client);
    f.countedGroups = 1;
    CountingMultiSourceObserver* group = new CountingMultiSourceObserver(f.client.get(), f.second.get(), f.groups);
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
    const long mutexesBefore = liveMutexes();
    {
        HvHandle<CountingObserver> client(new CountingObserver(observers));
        {
            HvHandle<CountingObservable> first(new CountingObservable(observables));
            HvHandle<CountingObservable> second(new CountingObservable(observables));
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
    EXPECT_EQ(mutexesBefore, liveMutexes());
}

TEST(HvMultiSourceObserver, DetachObserverWithAStrangerLeavesTheGroupIntact)
{
    Fixture f;
    int others = 0;
    HvHandle<CountingObserver> stranger(new CountingObserver(others));
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
    HvHandle<HvObject> payload(new CountingObject(objects));

    group->onNotification(f.third, payload);
    ASSERT_EQ(1u, f.client->notes.size());
    EXPECT_EQ(f.third.get(), f.client->notes[0].sender);
    EXPECT_EQ(payload.get(), f.client->notes[0].object);
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
    bool thrown = false;
    try {
        f.second->notifyObservers(HvHandle<HvObject>());
    } catch (HvHandle<HvException>& e) {
        thrown = true;
        EXPECT_STREQ("client failed", e->getMessage().c_str());
    }
    EXPECT_TRUE(thrown);
    HvMultiSourceObserver* group = dynamic_cast<HvMultiSourceObserver*>(f.client->getSource().get());
    ASSERT_NE(nullptr, group);
    EXPECT_EQ(3, group->getRefCount());
    f.client->throwText = nullptr;
    f.client->detach();
}

TEST(HvMultiSourceObserver, DestroyedSourceTellsTheClientDisconnectingWithItselfAsSender)
{
    const long mutexesBefore = liveMutexes();
    Fixture f;
    f.first->attachObserver(f.client);
    const HvObservable* address = nullptr;
    f.extraObservables = 1;
    {
        CountingObservable member(f.observables);
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
    EXPECT_EQ(mutexesBefore, liveMutexes());
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

    const long mutexesBefore = liveMutexes();
    {
        HvHandle<CountingObservable> first(new CountingObservable(observables));
        HvHandle<CountingObservable> second(new CountingObservable(observables));
        HvHandle<ThreadCountingObserver> client(new ThreadCountingObserver);
        first->attachObserver(client);
        second->attachObserver(client);
        HvHandle<HvObject> firstPayload(new CountingObject(objects));
        HvHandle<HvObject> secondPayload(new CountingObject(objects));

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
    EXPECT_EQ(mutexesBefore, liveMutexes());
}

TEST(HvMultiSourceObserver, DisplayShowsCountAndClassName)
{
    Fixture f;
    f.first->attachObserver(f.client);
    f.second->attachObserver(f.client);
    HvObservable* group = f.client->getSource().get();
    EXPECT_EQ("3\tHvMultiSourceObserver", displayed(*group));
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
        HvHandle<CountingObservable> first(new CountingObservable(observables));
        HvHandle<CountingObservable> second(new CountingObservable(observables));
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
    const long mutexesBefore = liveMutexes();
    {
        HvHandle<CountingObservable> first(new CountingObservable(observables));
        HvHandle<CountingObservable> second(new CountingObservable(observables));
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
    EXPECT_EQ(mutexesBefore, liveMutexes());
}
