#include <HvUtil/HvObservable.h>

#include <HvUtil/HvAggregatedObserver.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvMultiSourceObserver.h>

#include <Velmora/LogCapture.h>

#include <tests/support/HvTestSupport.h>

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
class CountingObserver : public hvtest::Counted<HvObserver> {
public:
    explicit CountingObserver(int& destroyed) : Counted(destroyed) {}

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
};

// A bottom source whose block() stands for the real wait: it records the
// call and reports the result it was given, without notifying.
class BottomSource : public hvtest::CountingObservable {
public:
    BottomSource(int& destroyed, bool result) : hvtest::CountingObservable(destroyed), m_result(result) {}
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
class RecordingRelay : public hvtest::CountingObservable {
public:
    explicit RecordingRelay(int& destroyed) : hvtest::CountingObservable(destroyed) {}
    void onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object) override
    {
        notes.push_back(makeNote(*this, source, object));
        HvObservable::onNotification(source, object);
    }
    std::vector<Note> notes;
};

} // namespace

TEST(HvObservable, CountObserversIsZeroThenOneThenZero)
{
    int observables = 0, observers = 0;
    {
        HvHandle<hvtest::CountingObservable> source(new hvtest::CountingObservable(observables));
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
        HvHandle<hvtest::CountingObservable> source(new hvtest::CountingObservable(observables));
        HvHandle<CountingObserver> first(new CountingObserver(observers));
        HvHandle<CountingObserver> second(new CountingObserver(observers));
        source->attachObserver(first);
        EXPECT_EQ(kSingleObserverText, hvtest::messageOf([&] { source->attachObserver(second); }));
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
    const long mutexesBefore = hvtest::liveMutexesBeyondPool();
    {
        HvHandle<hvtest::CountingObservable> first(new hvtest::CountingObservable(observables));
        HvHandle<hvtest::CountingObservable> second(new hvtest::CountingObservable(observables));
        HvHandle<CountingObserver> client(new CountingObserver(observers));
        first->attachObserver(client);
        ASSERT_NO_THROW(second->attachObserver(client));

        HvMultiSourceObserver* group = dynamic_cast<HvMultiSourceObserver*>(client->getSource().get());
        ASSERT_NE(nullptr, group);
        EXPECT_EQ(2u, group->countSources());
        EXPECT_TRUE(group->getSourceAt(0) == first);
        EXPECT_TRUE(group->getSourceAt(1) == second);
        EXPECT_TRUE(group->getObserver() == client);
        EXPECT_EQ(mutexesBefore + 1, hvtest::liveMutexesBeyondPool());

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
        EXPECT_EQ(mutexesBefore, hvtest::liveMutexesBeyondPool());
    }
    EXPECT_EQ(2, observables);
    EXPECT_EQ(1, observers);
}

TEST(HvObservable, ThirdSourceJoinsTheExistingGroup)
{
    int observables = 0, observers = 0;
    const long mutexesBefore = hvtest::liveMutexesBeyondPool();
    {
        HvHandle<hvtest::CountingObservable> first(new hvtest::CountingObservable(observables));
        HvHandle<hvtest::CountingObservable> second(new hvtest::CountingObservable(observables));
        HvHandle<hvtest::CountingObservable> third(new hvtest::CountingObservable(observables));
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
        EXPECT_EQ(mutexesBefore + 1, hvtest::liveMutexesBeyondPool());

        client->detach();
        EXPECT_EQ(0, first->countObservers());
        EXPECT_EQ(0, second->countObservers());
        EXPECT_EQ(0, third->countObservers());
    }
    EXPECT_EQ(mutexesBefore, hvtest::liveMutexesBeyondPool());
    EXPECT_EQ(3, observables);
    EXPECT_EQ(1, observers);
}

TEST(HvObservable, FannedInNotificationsCarryTheRealSender)
{
    int observables = 0, observers = 0, objects = 0;
    {
        HvHandle<hvtest::CountingObservable> first(new hvtest::CountingObservable(observables));
        HvHandle<hvtest::CountingObservable> second(new hvtest::CountingObservable(observables));
        HvHandle<hvtest::CountingObservable> third(new hvtest::CountingObservable(observables));
        HvHandle<CountingObserver> client(new CountingObserver(observers));
        first->attachObserver(client);
        second->attachObserver(client);
        third->attachObserver(client);

        HvHandle<HvObject> a(new hvtest::CountingObject(objects));
        HvHandle<HvObject> b(new hvtest::CountingObject(objects));
        HvHandle<HvObject> c(new hvtest::CountingObject(objects));
        second->notifyObservers(b);
        first->notifyObservers(a);
        third->notifyObservers(c);
        first->notifyObservers(HvHandle<HvObject>());

        ASSERT_EQ(4u, client->notes.size());
        hvtest::expectNote(client->notes, 0, second.get(), b.get());
        hvtest::expectNote(client->notes, 1, first.get(), a.get());
        hvtest::expectNote(client->notes, 2, third.get(), c.get());
        hvtest::expectNote(client->notes, 3, first.get(), nullptr);
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
    const long mutexesBefore = hvtest::liveMutexesBeyondPool();
    {
        HvHandle<hvtest::CountingObservable> first(new hvtest::CountingObservable(observables));
        HvHandle<hvtest::CountingObservable> busy(new hvtest::CountingObservable(observables));
        HvHandle<CountingObserver> client(new CountingObserver(observers));
        HvHandle<CountingObserver> other(new CountingObserver(observers));
        first->attachObserver(client);
        busy->attachObserver(other);
        EXPECT_EQ(kSingleObserverText, hvtest::messageOf([&] { busy->attachObserver(client); }));
        EXPECT_TRUE(client->getSource() == first);
        EXPECT_TRUE(first->getObserver() == client);
        EXPECT_TRUE(busy->getObserver() == other);
        EXPECT_TRUE(other->getSource() == busy);
        EXPECT_EQ(mutexesBefore, hvtest::liveMutexesBeyondPool());

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
        hvtest::CountingObservable source(observables);
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
    EXPECT_EQ("Disconnecting", hvtest::displayOf(*e));
    EXPECT_EQ(1, keeper->kept->getRefCount());
}

TEST(HvObservable, ObserverHeldOnlyByDestroyedObservableIsDestroyedOnce)
{
    int observables = 0, observers = 0;
    {
        hvtest::CountingObservable source(observables);
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
        HvHandle<hvtest::CountingObservable> source(new hvtest::CountingObservable(observables));
        source->attachObserver(observer);
        source->detachObserver(observer);
    }
    EXPECT_EQ(1, observables);
    EXPECT_TRUE(observer->notes.empty());
}

TEST(HvObservable, DestroyedRelayTellsItsObserverAndLeavesItsOwnSource)
{
    int observables = 0, observers = 0;
    HvHandle<hvtest::CountingObservable> bottom(new hvtest::CountingObservable(observables));
    HvHandle<CountingObserver> top(new CountingObserver(observers));
    const HvObservable* relayAddress = nullptr;
    {
        hvtest::CountingObservable relay(observables);
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
    bottom = HvHandle<hvtest::CountingObservable>();
    EXPECT_EQ(2, observables);
}

TEST(HvObservable, ExceptionFromDisconnectingIsLoggedNotThrownFromDestructor)
{
    int observables = 0, observers = 0;
    Velmora::LogCapture capture("ferrowind.hv.HvObservable");
    HvHandle<CountingObserver> observer(new CountingObserver(observers));
    observer->throwText = "refused";
    EXPECT_NO_THROW({
        hvtest::CountingObservable source(observables);
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
        HvHandle<hvtest::CountingObservable> source(new hvtest::CountingObservable(observables));
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
        HvHandle<hvtest::CountingObservable> source(new hvtest::CountingObservable(observables));
        HvHandle<CountingObserver> observer(new CountingObserver(observers));
        source->attachObserver(observer);
        EXPECT_TRUE(source->block());
        ASSERT_EQ(1u, observer->notes.size());
        hvtest::expectNote(observer->notes, 0, source.get(), nullptr);
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
            HvHandle<hvtest::CountingObservable> middle(new hvtest::CountingObservable(observables));
            HvHandle<RecordingRelay> upper(new RecordingRelay(observables));
            HvHandle<CountingObserver> top(new CountingObserver(observers));
            bottom->attachObserver(middle);
            middle->attachObserver(upper);
            upper->attachObserver(top);

            EXPECT_EQ(bottomResult, upper->block());
            EXPECT_EQ(1, bottom->blockCalls);
            // The middle level ticked the upper one...
            ASSERT_EQ(1u, upper->notes.size());
            hvtest::expectNote(upper->notes, 0, middle.get(), nullptr);
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
        HvHandle<hvtest::CountingObservable> relay(new hvtest::CountingObservable(observables));
        HvHandle<hvtest::CountingObservable> elsewhere(new hvtest::CountingObservable(observables));
        HvHandle<CountingObserver> observer(new CountingObserver(observers));
        relay->attachObserver(observer);
        HvHandle<HvObject> payload(new hvtest::CountingObject(objects));

        relay->onNotification(elsewhere, payload);
        ASSERT_EQ(1u, observer->notes.size());
        hvtest::expectNote(observer->notes, 0, relay.get(), payload.get());

        // A nil sender is passed over in the same way.
        relay->onNotification(HvHandle<HvObservable>(), payload);
        ASSERT_EQ(2u, observer->notes.size());
        hvtest::expectNote(observer->notes, 1, relay.get(), payload.get());
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
        HvHandle<hvtest::CountingObservable> bottom(new hvtest::CountingObservable(observables));
        HvHandle<hvtest::CountingObservable> relay(new hvtest::CountingObservable(observables));
        HvHandle<CountingObserver> top(new CountingObserver(observers));
        bottom->attachObserver(relay);
        relay->attachObserver(top);
        HvHandle<HvObject> payload(new hvtest::CountingObject(objects));

        bottom->notifyObservers(payload);
        ASSERT_EQ(1u, top->notes.size());
        hvtest::expectNote(top->notes, 0, relay.get(), payload.get());

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
        HvHandle<hvtest::CountingObservable> source(new hvtest::CountingObservable(observables));
        HvHandle<hvtest::CountingObservable> otherSource(new hvtest::CountingObservable(observables));
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
    HvHandle<HvObject> payload(new hvtest::CountingObject(objects));
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
        HvHandle<hvtest::CountingObservable> source(new hvtest::CountingObservable(observables));
        HvHandle<CountingObserver> observer(new CountingObserver(observers));
        source->attachObserver(observer);
        observer->throwText = "observer failed";

        EXPECT_EQ("observer failed", hvtest::messageOf([&] { source->notifyObservers(HvHandle<HvObject>()); }));
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
        HvHandle<hvtest::CountingObservable> relay(new hvtest::CountingObservable(observables));
        HvHandle<CountingObserver> top(new CountingObserver(observers));
        bottom->attachObserver(relay);
        relay->attachObserver(top);
        top->throwText = "top failed";

        EXPECT_EQ("top failed", hvtest::messageOf([&] { relay->block(); }));
        EXPECT_EQ(1, bottom->blockCalls);

        EXPECT_EQ("top failed", hvtest::messageOf([&] { bottom->notifyObservers(HvHandle<HvObject>()); }));
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
    HvHandle<hvtest::CountingObservable> source(new hvtest::CountingObservable(observables));
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
    source = HvHandle<hvtest::CountingObservable>();
    EXPECT_EQ(1, observables);
}

TEST(HvObservable, DisplayShowsCountAndClassName)
{
    HvHandle<HvObservable> source(new HvObservable);
    EXPECT_EQ("1\tHvObservable", hvtest::displayOf(*source, false));
    HvHandle<HvObserver> observer(new HvObserver);
    source->attachObserver(observer);
    EXPECT_EQ("2\tHvObservable", hvtest::displayOf(*source, false));
    source->detachObserver(observer);
}
