#include <HvUtil/HvObservable.h>

#include <HvUtil/HvAggregatedObserver.h>
#include <HvUtil/HvByteArrayOutputStream.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvMutex.h>
#include <HvUtil/HvMultiSourceObserver.h>

#include <Velmora/LogCapture.h>
#include <Velmora/MemAllocator.h>

#include <gtest/gtest.h>

#include <string>
#include <typeinfo>
#include <vector>

namespace {

const char kSingleObserverText[] =
    "HvObservable::attachObserver() ... The current implementation only allows a single observer";

// One notification as an observer saw it. Only addresses are kept: keeping a
// handle to the sender would hold a count on it.
struct Note {
    const HvObservable* sender;
    const HvObject* object;
    bool isException;
    std::string message;
    // The observer's own source at the time it was told.
    const HvObservable* sourceWhenTold;
};

Note makeNote(const HvObserver& receiver, const HvHandle<HvObservable>& source, const HvHandle<HvObject>& object)
{
    Note note{source.get(), object.get(), false, std::string(), receiver.getSource().get()};
    if (const HvException* e = dynamic_cast<const HvException*>(object.get())) {
        note.isException = true;
        note.message = e->getMessage().c_str();
    }
    return note;
}

// Records what it is told and counts its own destruction.
class CountingObserver : public HvObserver {
public:
    explicit CountingObserver(int& destroyed) : m_destroyed(destroyed) {}
    ~CountingObserver() override { ++m_destroyed; }

    void onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object) override
    {
        notes.push_back(makeNote(*this, source, object));
        if (throwText)
            HvException::sThrow(throwText);
        if (detachWhenTold)
            detach();
    }

    std::vector<Note> notes;
    const char* throwText = nullptr;
    bool detachWhenTold = false;

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

// A bottom source whose block() stands for the real wait: it records the
// call and reports the result it was given, without notifying.
class BottomSource : public CountingObservable {
public:
    BottomSource(int& destroyed, bool result) : CountingObservable(destroyed), m_result(result) {}
    bool block() override
    {
        ++blockCalls;
        return m_result;
    }
    int blockCalls = 0;

private:
    bool m_result;
};

// A relay that records what reaches it from below before relaying it.
class RecordingRelay : public CountingObservable {
public:
    explicit RecordingRelay(int& destroyed) : CountingObservable(destroyed) {}
    void onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object) override
    {
        notes.push_back(makeNote(*this, source, object));
        HvObservable::onNotification(source, object);
    }
    std::vector<Note> notes;
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

// The object mutex pool is built by the first object; build it first so that
// only the mutexes of groups are counted.
long liveMutexes()
{
    HvMutex::sInitialize();
    return Velmora::allocationStats("HvMutex").liveCount;
}

} // namespace

TEST(HvObservable, CountObserversIsZeroThenOneThenZero)
{
    int observables = 0, observers = 0;
    {
        HvHandle<CountingObservable> source(new CountingObservable(observables));
        HvHandle<CountingObserver> observer(new CountingObserver(observers));
        EXPECT_EQ(0, source->countObservers());
        source->attachObserver(observer);
        EXPECT_EQ(1, source->countObservers());
        source->detachObserver(observer);
        EXPECT_EQ(0, source->countObservers());
    }
    EXPECT_EQ(1, observables);
    EXPECT_EQ(1, observers);
}

TEST(HvObservable, AttachLinksBothEndsAndDetachClearsBoth)
{
    HvHandle<HvObservable> source(new HvObservable);
    HvHandle<HvObserver> observer(new HvObserver);
    source->attachObserver(observer);
    EXPECT_TRUE(source->getObserver() == observer);
    EXPECT_TRUE(observer->getSource() == source);
    // The link holds one reference in each direction.
    EXPECT_EQ(2, source->getRefCount());
    EXPECT_EQ(2, observer->getRefCount());

    source->detachObserver(observer);
    EXPECT_TRUE(source->getObserver().isNull());
    EXPECT_TRUE(observer->getSource().isNull());
    EXPECT_EQ(1, source->getRefCount());
    EXPECT_EQ(1, observer->getRefCount());
}

TEST(HvObservable, SecondFreshObserverIsRefusedAndExistingLinkIsUnchanged)
{
    int observables = 0, observers = 0;
    {
        HvHandle<CountingObservable> source(new CountingObservable(observables));
        HvHandle<CountingObserver> first(new CountingObserver(observers));
        HvHandle<CountingObserver> second(new CountingObserver(observers));
        source->attachObserver(first);
        bool thrown = false;
        try {
            source->attachObserver(second);
        } catch (HvHandle<HvException>& e) {
            thrown = true;
            EXPECT_STREQ(kSingleObserverText, e->getMessage().c_str());
        }
        EXPECT_TRUE(thrown);
        EXPECT_EQ(1, source->countObservers());
        EXPECT_TRUE(source->getObserver() == first);
        EXPECT_TRUE(first->getSource() == source);
        EXPECT_TRUE(second->getSource().isNull());
        EXPECT_EQ(1, second->getRefCount());

        source->detachObserver(first);
    }
    EXPECT_EQ(1, observables);
    EXPECT_EQ(2, observers);
}

TEST(HvObservable, ObserverAttachedElsewhereIsFedThroughMultiSourceObserver)
{
    int observables = 0, observers = 0;
    const long mutexesBefore = liveMutexes();
    {
        HvHandle<CountingObservable> first(new CountingObservable(observables));
        HvHandle<CountingObservable> second(new CountingObservable(observables));
        HvHandle<CountingObserver> client(new CountingObserver(observers));
        first->attachObserver(client);
        ASSERT_NO_THROW(second->attachObserver(client));

        HvMultiSourceObserver* group = dynamic_cast<HvMultiSourceObserver*>(client->getSource().get());
        ASSERT_NE(nullptr, group);
        EXPECT_EQ(2u, group->countSources());
        EXPECT_TRUE(group->getSourceAt(0) == first);
        EXPECT_TRUE(group->getSourceAt(1) == second);
        EXPECT_TRUE(group->getObserver() == client);
        EXPECT_EQ(mutexesBefore + 1, liveMutexes());

        // Each source now has one observer of its own: a stand-in of the group.
        for (HvObservable* source : {static_cast<HvObservable*>(first.get()), static_cast<HvObservable*>(second.get())}) {
            EXPECT_EQ(1, source->countObservers());
            HvAggregatedObserver* standIn = dynamic_cast<HvAggregatedObserver*>(source->getObserver().get());
            ASSERT_NE(nullptr, standIn);
            EXPECT_EQ(static_cast<HvObserver*>(group), standIn->getOwner());
            EXPECT_TRUE(standIn->getSource() == source);
        }
        EXPECT_FALSE(first->getObserver() == second->getObserver());

        client->detach();
        EXPECT_EQ(0, first->countObservers());
        EXPECT_EQ(0, second->countObservers());
        EXPECT_TRUE(client->getSource().isNull());
        EXPECT_EQ(mutexesBefore, liveMutexes());
    }
    EXPECT_EQ(2, observables);
    EXPECT_EQ(1, observers);
}

TEST(HvObservable, ThirdSourceJoinsTheExistingGroup)
{
    int observables = 0, observers = 0;
    const long mutexesBefore = liveMutexes();
    {
        HvHandle<CountingObservable> first(new CountingObservable(observables));
        HvHandle<CountingObservable> second(new CountingObservable(observables));
        HvHandle<CountingObservable> third(new CountingObservable(observables));
        HvHandle<CountingObserver> client(new CountingObserver(observers));
        first->attachObserver(client);
        second->attachObserver(client);
        HvObservable* group = client->getSource().get();

        third->attachObserver(client);
        EXPECT_EQ(group, client->getSource().get());
        HvMultiSourceObserver* multi = dynamic_cast<HvMultiSourceObserver*>(group);
        ASSERT_NE(nullptr, multi);
        EXPECT_EQ(3u, multi->countSources());
        EXPECT_TRUE(multi->getSourceAt(2) == third);
        EXPECT_EQ(1, third->countObservers());
        HvAggregatedObserver* standIn = dynamic_cast<HvAggregatedObserver*>(third->getObserver().get());
        ASSERT_NE(nullptr, standIn);
        EXPECT_EQ(static_cast<HvObserver*>(multi), standIn->getOwner());
        // One group, one mutex.
        EXPECT_EQ(mutexesBefore + 1, liveMutexes());

        client->detach();
        EXPECT_EQ(0, first->countObservers());
        EXPECT_EQ(0, second->countObservers());
        EXPECT_EQ(0, third->countObservers());
    }
    EXPECT_EQ(mutexesBefore, liveMutexes());
    EXPECT_EQ(3, observables);
    EXPECT_EQ(1, observers);
}

TEST(HvObservable, FannedInNotificationsCarryTheRealSender)
{
    int observables = 0, observers = 0, objects = 0;
    {
        HvHandle<CountingObservable> first(new CountingObservable(observables));
        HvHandle<CountingObservable> second(new CountingObservable(observables));
        HvHandle<CountingObservable> third(new CountingObservable(observables));
        HvHandle<CountingObserver> client(new CountingObserver(observers));
        first->attachObserver(client);
        second->attachObserver(client);
        third->attachObserver(client);

        HvHandle<HvObject> a(new CountingObject(objects));
        HvHandle<HvObject> b(new CountingObject(objects));
        HvHandle<HvObject> c(new CountingObject(objects));
        second->notifyObservers(b);
        first->notifyObservers(a);
        third->notifyObservers(c);
        first->notifyObservers(HvHandle<HvObject>());

        ASSERT_EQ(4u, client->notes.size());
        EXPECT_EQ(second.get(), client->notes[0].sender);
        EXPECT_EQ(b.get(), client->notes[0].object);
        EXPECT_EQ(first.get(), client->notes[1].sender);
        EXPECT_EQ(a.get(), client->notes[1].object);
        EXPECT_EQ(third.get(), client->notes[2].sender);
        EXPECT_EQ(c.get(), client->notes[2].object);
        EXPECT_EQ(first.get(), client->notes[3].sender);
        EXPECT_EQ(nullptr, client->notes[3].object);
        // Nothing kept a reference to the payload.
        EXPECT_EQ(1, a->getRefCount());

        client->detach();
    }
    EXPECT_EQ(3, observables);
    EXPECT_EQ(1, observers);
    EXPECT_EQ(3, objects);
}

TEST(HvObservable, FanInToAnObservableThatHasAnObserverIsRefusedWithoutMakingAGroup)
{
    int observables = 0, observers = 0;
    const long mutexesBefore = liveMutexes();
    {
        HvHandle<CountingObservable> first(new CountingObservable(observables));
        HvHandle<CountingObservable> busy(new CountingObservable(observables));
        HvHandle<CountingObserver> client(new CountingObserver(observers));
        HvHandle<CountingObserver> other(new CountingObserver(observers));
        first->attachObserver(client);
        busy->attachObserver(other);
        bool thrown = false;
        try {
            busy->attachObserver(client);
        } catch (HvHandle<HvException>& e) {
            thrown = true;
            EXPECT_STREQ(kSingleObserverText, e->getMessage().c_str());
        }
        EXPECT_TRUE(thrown);
        EXPECT_TRUE(client->getSource() == first);
        EXPECT_TRUE(first->getObserver() == client);
        EXPECT_TRUE(busy->getObserver() == other);
        EXPECT_TRUE(other->getSource() == busy);
        EXPECT_EQ(mutexesBefore, liveMutexes());

        first->detachObserver(client);
        busy->detachObserver(other);
    }
    EXPECT_EQ(2, observables);
    EXPECT_EQ(2, observers);
}

TEST(HvObservable, AttachingNilObserverIsIgnored)
{
    HvHandle<HvObservable> source(new HvObservable);
    EXPECT_NO_THROW(source->attachObserver(HvHandle<HvObserver>()));
    EXPECT_EQ(0, source->countObservers());
    EXPECT_EQ(1, source->getRefCount());
}

TEST(HvObservable, DestroyingAttachedObservableSendsExactlyOneDisconnecting)
{
    int observables = 0, observers = 0;
    HvHandle<CountingObserver> observer(new CountingObserver(observers));
    const HvObservable* address = nullptr;
    {
        // A member or stack observable is destroyed by its owner, not by a
        // handle: its only reference is the observer's link back to it.
        CountingObservable source(observables);
        address = &source;
        source.attachObserver(observer);
        EXPECT_EQ(1, source.getRefCount());
    }
    EXPECT_EQ(1, observables);
    ASSERT_EQ(1u, observer->notes.size());
    const Note& note = observer->notes[0];
    EXPECT_EQ(address, note.sender);
    EXPECT_TRUE(note.isException);
    EXPECT_EQ("Disconnecting", note.message);
    // While being told, the observer still names the observable as its source.
    EXPECT_EQ(address, note.sourceWhenTold);
    // Afterwards nothing points at the destroyed object.
    EXPECT_TRUE(observer->getSource().isNull());
    EXPECT_EQ(1, observer->getRefCount());

    observer = HvHandle<CountingObserver>();
    EXPECT_EQ(1, observers);
}

TEST(HvObservable, DisconnectingCarriesAPlainHvException)
{
    // Keep the exception itself alive past the observable to look at its type.
    class KeepingObserver : public HvObserver {
    public:
        void onNotification(HvHandle<HvObservable>, HvHandle<HvObject> object) override { kept = object; }
        HvHandle<HvObject> kept;
    };
    HvHandle<KeepingObserver> keeper(new KeepingObserver);
    {
        HvObservable source;
        source.attachObserver(keeper);
    }
    ASSERT_FALSE(keeper->kept.isNull());
    HvException* e = dynamic_cast<HvException*>(keeper->kept.get());
    ASSERT_NE(nullptr, e);
    EXPECT_TRUE(typeid(*e) == typeid(HvException));
    EXPECT_STREQ("Disconnecting", e->getMessage().c_str());
    HvByteArrayOutputStream out(0);
    e->display(out);
    HvHandle<HvByteArray> bytes = out.toByteArray();
    EXPECT_EQ("Disconnecting", std::string(reinterpret_cast<const char*>(bytes->getData()), bytes->getSize()));
    EXPECT_EQ(1, keeper->kept->getRefCount());
}

TEST(HvObservable, ObserverHeldOnlyByDestroyedObservableIsDestroyedOnce)
{
    int observables = 0, observers = 0;
    {
        CountingObservable source(observables);
        source.attachObserver(HvHandle<HvObserver>(new CountingObserver(observers)));
        const HvObserver* observer = source.getObserver().get();
        EXPECT_EQ(1, observer->getRefCount());
    }
    // The observer was told, then its last handle went with the observable.
    EXPECT_EQ(1, observables);
    EXPECT_EQ(1, observers);
}

TEST(HvObservable, DestroyingObservableWithoutObserverSendsNothing)
{
    int observables = 0, observers = 0;
    HvHandle<CountingObserver> observer(new CountingObserver(observers));
    {
        HvHandle<CountingObservable> source(new CountingObservable(observables));
        source->attachObserver(observer);
        source->detachObserver(observer);
    }
    EXPECT_EQ(1, observables);
    EXPECT_TRUE(observer->notes.empty());
}

TEST(HvObservable, DestroyedRelayTellsItsObserverAndLeavesItsOwnSource)
{
    int observables = 0, observers = 0;
    HvHandle<CountingObservable> bottom(new CountingObservable(observables));
    HvHandle<CountingObserver> top(new CountingObserver(observers));
    const HvObservable* relayAddress = nullptr;
    {
        CountingObservable relay(observables);
        relayAddress = &relay;
        bottom->attachObserver(HvHandle<HvObserver>(&relay));
        relay.attachObserver(top);
        EXPECT_EQ(1, bottom->countObservers());
    }
    EXPECT_EQ(1, observables);
    ASSERT_EQ(1u, top->notes.size());
    EXPECT_EQ(relayAddress, top->notes[0].sender);
    EXPECT_EQ("Disconnecting", top->notes[0].message);
    EXPECT_TRUE(top->getSource().isNull());
    // The relay detached from the observable below it.
    EXPECT_EQ(0, bottom->countObservers());
    EXPECT_EQ(1, bottom->getRefCount());
    // The bottom source was not told anything (it has no observer).
    bottom = HvHandle<CountingObservable>();
    EXPECT_EQ(2, observables);
}

TEST(HvObservable, ExceptionFromDisconnectingIsLoggedNotThrownFromDestructor)
{
    int observables = 0, observers = 0;
    Velmora::LogCapture capture("ferrowind.hv.HvObservable");
    HvHandle<CountingObserver> observer(new CountingObserver(observers));
    observer->throwText = "refused";
    EXPECT_NO_THROW({
        CountingObservable source(observables);
        source.attachObserver(observer);
    });
    EXPECT_EQ(1, observables);
    EXPECT_EQ(1u, observer->notes.size());
    EXPECT_TRUE(observer->getSource().isNull());
    EXPECT_TRUE(capture.contains("HvObservable::~HvObservable(): observer failed on Disconnecting: refused"));
}

TEST(HvObservable, LinkedPairKeepsEachOtherAliveUntilDetached)
{
    int observables = 0, observers = 0;
    HvHandle<CountingObserver> observer(new CountingObserver(observers));
    {
        HvHandle<CountingObservable> source(new CountingObservable(observables));
        source->attachObserver(observer);
    }
    // The observer's link is a counted handle: the source lives on.
    EXPECT_EQ(0, observables);
    const HvObservable* source = observer->getSource().get();
    ASSERT_NE(nullptr, source);
    EXPECT_EQ(1, source->getRefCount());

    // Detaching drops the source's last reference inside its own detachObserver.
    observer->detach();
    EXPECT_EQ(1, observables);
    EXPECT_TRUE(observer->getSource().isNull());
    EXPECT_TRUE(observer->notes.empty());
    EXPECT_EQ(1, observer->getRefCount());

    observer = HvHandle<CountingObserver>();
    EXPECT_EQ(1, observers);
}

TEST(HvObservable, BlockWithoutSourceReturnsTrueAndSendsOneNilTick)
{
    int observables = 0, observers = 0;
    {
        HvHandle<CountingObservable> source(new CountingObservable(observables));
        HvHandle<CountingObserver> observer(new CountingObserver(observers));
        source->attachObserver(observer);
        EXPECT_TRUE(source->block());
        ASSERT_EQ(1u, observer->notes.size());
        EXPECT_EQ(source.get(), observer->notes[0].sender);
        EXPECT_EQ(nullptr, observer->notes[0].object);
        source->detachObserver(observer);
    }
    EXPECT_EQ(1, observables);
    EXPECT_EQ(1, observers);
}

TEST(HvObservable, BlockWithoutObserverOrSourceReturnsTrue)
{
    HvHandle<HvObservable> source(new HvObservable);
    EXPECT_TRUE(source->block());
    EXPECT_EQ(1, source->getRefCount());
}

TEST(HvObservable, BlockWalksDownToBottomSourceAndEveryLevelTicksOnTheWayBack)
{
    for (bool bottomResult : {false, true}) {
        int observables = 0, observers = 0;
        {
            HvHandle<BottomSource> bottom(new BottomSource(observables, bottomResult));
            HvHandle<CountingObservable> middle(new CountingObservable(observables));
            HvHandle<RecordingRelay> upper(new RecordingRelay(observables));
            HvHandle<CountingObserver> top(new CountingObserver(observers));
            bottom->attachObserver(middle);
            middle->attachObserver(upper);
            upper->attachObserver(top);

            EXPECT_EQ(bottomResult, upper->block());
            EXPECT_EQ(1, bottom->blockCalls);
            // The middle level ticked the upper one...
            ASSERT_EQ(1u, upper->notes.size());
            EXPECT_EQ(middle.get(), upper->notes[0].sender);
            EXPECT_EQ(nullptr, upper->notes[0].object);
            // ...which relayed that tick and then sent its own.
            ASSERT_EQ(2u, top->notes.size());
            for (const Note& note : top->notes) {
                EXPECT_EQ(upper.get(), note.sender);
                EXPECT_EQ(nullptr, note.object);
            }

            upper->detachObserver(top);
            middle->detachObserver(upper);
            bottom->detachObserver(middle);
        }
        EXPECT_EQ(3, observables);
        EXPECT_EQ(1, observers);
    }
}

TEST(HvObservable, RelayNotifiesItsObserverWithItselfAsSenderAndSameObject)
{
    int observables = 0, observers = 0, objects = 0;
    {
        HvHandle<CountingObservable> relay(new CountingObservable(observables));
        HvHandle<CountingObservable> elsewhere(new CountingObservable(observables));
        HvHandle<CountingObserver> observer(new CountingObserver(observers));
        relay->attachObserver(observer);
        HvHandle<HvObject> payload(new CountingObject(objects));

        relay->onNotification(elsewhere, payload);
        ASSERT_EQ(1u, observer->notes.size());
        EXPECT_EQ(relay.get(), observer->notes[0].sender);
        EXPECT_EQ(payload.get(), observer->notes[0].object);

        // A nil sender is passed over in the same way.
        relay->onNotification(HvHandle<HvObservable>(), payload);
        ASSERT_EQ(2u, observer->notes.size());
        EXPECT_EQ(relay.get(), observer->notes[1].sender);
        EXPECT_EQ(payload.get(), observer->notes[1].object);
        EXPECT_EQ(1, payload->getRefCount());
        EXPECT_EQ(1, elsewhere->getRefCount());

        relay->detachObserver(observer);
    }
    EXPECT_EQ(2, observables);
    EXPECT_EQ(1, observers);
    EXPECT_EQ(1, objects);
}

TEST(HvObservable, NotificationFromBelowReachesTopWithTheRelayAsSender)
{
    int observables = 0, observers = 0, objects = 0;
    {
        HvHandle<CountingObservable> bottom(new CountingObservable(observables));
        HvHandle<CountingObservable> relay(new CountingObservable(observables));
        HvHandle<CountingObserver> top(new CountingObserver(observers));
        bottom->attachObserver(relay);
        relay->attachObserver(top);
        HvHandle<HvObject> payload(new CountingObject(objects));

        bottom->notifyObservers(payload);
        ASSERT_EQ(1u, top->notes.size());
        EXPECT_EQ(relay.get(), top->notes[0].sender);
        EXPECT_EQ(payload.get(), top->notes[0].object);

        relay->detachObserver(top);
        bottom->detachObserver(relay);
    }
    EXPECT_EQ(2, observables);
    EXPECT_EQ(1, observers);
    EXPECT_EQ(1, objects);
}

TEST(HvObservable, DetachObserverWithStrangerIsIgnored)
{
    int observables = 0, observers = 0;
    {
        HvHandle<CountingObservable> source(new CountingObservable(observables));
        HvHandle<CountingObservable> otherSource(new CountingObservable(observables));
        HvHandle<CountingObserver> attached(new CountingObserver(observers));
        HvHandle<CountingObserver> stranger(new CountingObserver(observers));
        source->attachObserver(attached);
        otherSource->attachObserver(stranger);

        EXPECT_NO_THROW(source->detachObserver(stranger));
        EXPECT_NO_THROW(source->detachObserver(HvHandle<HvObserver>()));
        EXPECT_TRUE(source->getObserver() == attached);
        EXPECT_TRUE(attached->getSource() == source);
        // The stranger's own link is untouched as well.
        EXPECT_TRUE(stranger->getSource() == otherSource);
        EXPECT_TRUE(otherSource->getObserver() == stranger);

        source->detachObserver(attached);
        otherSource->detachObserver(stranger);
    }
    EXPECT_EQ(2, observables);
    EXPECT_EQ(2, observers);
}

TEST(HvObservable, DetachObserverWithoutObserverIsIgnored)
{
    HvHandle<HvObservable> source(new HvObservable);
    HvHandle<HvObserver> observer(new HvObserver);
    EXPECT_NO_THROW(source->detachObserver(observer));
    EXPECT_EQ(0, source->countObservers());
    EXPECT_EQ(1, observer->getRefCount());
}

TEST(HvObservable, NotifyObserversWithoutObserverIsANoOp)
{
    int objects = 0;
    HvHandle<HvObservable> source(new HvObservable);
    HvHandle<HvObject> payload(new CountingObject(objects));
    EXPECT_NO_THROW(source->notifyObservers(payload));
    EXPECT_NO_THROW(source->notifyObservers(HvHandle<HvObject>()));
    EXPECT_EQ(1, payload->getRefCount());
    EXPECT_EQ(1, source->getRefCount());
    EXPECT_EQ(0, objects);
}

TEST(HvObservable, ExceptionFromObserverPropagatesToNotifier)
{
    int observables = 0, observers = 0;
    {
        HvHandle<CountingObservable> source(new CountingObservable(observables));
        HvHandle<CountingObserver> observer(new CountingObserver(observers));
        source->attachObserver(observer);
        observer->throwText = "observer failed";

        bool thrown = false;
        try {
            source->notifyObservers(HvHandle<HvObject>());
        } catch (HvHandle<HvException>& e) {
            thrown = true;
            EXPECT_STREQ("observer failed", e->getMessage().c_str());
        }
        EXPECT_TRUE(thrown);
        // The link survives and no reference leaked on either end.
        EXPECT_TRUE(source->getObserver() == observer);
        EXPECT_EQ(2, source->getRefCount());
        EXPECT_EQ(2, observer->getRefCount());

        source->detachObserver(observer);
    }
    EXPECT_EQ(1, observables);
    EXPECT_EQ(1, observers);
}

TEST(HvObservable, ExceptionFromObserverPropagatesThroughBlockAndRelay)
{
    int observables = 0, observers = 0;
    {
        HvHandle<BottomSource> bottom(new BottomSource(observables, true));
        HvHandle<CountingObservable> relay(new CountingObservable(observables));
        HvHandle<CountingObserver> top(new CountingObserver(observers));
        bottom->attachObserver(relay);
        relay->attachObserver(top);
        top->throwText = "top failed";

        bool fromBlock = false;
        try {
            relay->block();
        } catch (HvHandle<HvException>& e) {
            fromBlock = true;
            EXPECT_STREQ("top failed", e->getMessage().c_str());
        }
        EXPECT_TRUE(fromBlock);
        EXPECT_EQ(1, bottom->blockCalls);

        bool fromRelay = false;
        try {
            bottom->notifyObservers(HvHandle<HvObject>());
        } catch (HvHandle<HvException>& e) {
            fromRelay = true;
            EXPECT_STREQ("top failed", e->getMessage().c_str());
        }
        EXPECT_TRUE(fromRelay);
        EXPECT_EQ(2u, top->notes.size());
        EXPECT_EQ(3, relay->getRefCount());

        relay->detachObserver(top);
        bottom->detachObserver(relay);
    }
    EXPECT_EQ(2, observables);
    EXPECT_EQ(1, observers);
}

TEST(HvObservable, ObserverThatDetachesWhileNotifiedOutlivesTheCall)
{
    int observables = 0, observers = 0;
    HvHandle<CountingObservable> source(new CountingObservable(observables));
    {
        HvHandle<CountingObserver> observer(new CountingObserver(observers));
        observer->detachWhenTold = true;
        source->attachObserver(observer);
    }
    // The observable's link is now the observer's last handle; the observer
    // drops it from inside its own onNotification.
    source->notifyObservers(HvHandle<HvObject>());
    EXPECT_EQ(0, source->countObservers());
    EXPECT_EQ(1, observers);
    EXPECT_EQ(1, source->getRefCount());
    source = HvHandle<CountingObservable>();
    EXPECT_EQ(1, observables);
}

TEST(HvObservable, DisplayShowsCountAndClassName)
{
    HvHandle<HvObservable> source(new HvObservable);
    EXPECT_EQ("1\tHvObservable", displayed(*source));
    HvHandle<HvObserver> observer(new HvObserver);
    source->attachObserver(observer);
    EXPECT_EQ("2\tHvObservable", displayed(*source));
    source->detachObserver(observer);
}
