#include <HvUtil/HvUDPEvent.h>

#include <HvUtil/HvDatagramPacket.h>
#include <HvUtil/HvEventQueue.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

namespace {

TEST(HvUDPEventTest, HoldsTheObserverAndTheObjectUntilDestroyed)
{
    HvHandle<HvObserver> observer(new HvObserver);
    HvHandle<HvObject> object(new HvObject);
    HvUDPEvent* event = new HvUDPEvent(observer.get(), object.get());
    EXPECT_EQ(observer.get(), event->getObserver());
    EXPECT_EQ(object.get(), event->getObject());
    EXPECT_EQ(2, observer->getRefCount());
    EXPECT_EQ(2, object->getRefCount());
    delete event;
    EXPECT_EQ(1, observer->getRefCount());
    EXPECT_EQ(1, object->getRefCount());
}

TEST(HvUDPEventTest, LastReferencesGoWithTheEvent)
{
    int observersDestroyed = 0;
    int objectsDestroyed = 0;
    HvBaseEvent* event = new HvUDPEvent(new hvtest::CountingObserver(observersDestroyed),
                                        new hvtest::CountingObject(objectsDestroyed));
    EXPECT_EQ(0, observersDestroyed);
    delete event;
    EXPECT_EQ(1, observersDestroyed);
    EXPECT_EQ(1, objectsDestroyed);
}

TEST(HvUDPEventTest, NullObserverAndObjectAreAllowed)
{
    HvUDPEvent event(nullptr, nullptr);
    EXPECT_EQ(nullptr, event.getObserver());
    EXPECT_EQ(nullptr, event.getObject());
}

TEST(HvUDPEventTest, AllocatedUnderItsClassTag)
{
    hvtest::LeakCheck leaks("HvUDPEvent");
    const long before = hvtest::liveCount("HvUDPEvent");
    HvUDPEvent* event = new HvUDPEvent(nullptr, nullptr);
    EXPECT_EQ(before + 1, hvtest::liveCount("HvUDPEvent"));
    delete event;
    EXPECT_EQ(before, hvtest::liveCount("HvUDPEvent"));
}

TEST(HvUDPEventTest, QueueThatStillHoldsTheEventReleasesItsObjects)
{
    hvtest::LeakCheck events("HvUDPEvent");
    hvtest::LeakCheck packets("HvDatagramPacket");
    {
        HvEventQueue queue(HvEventQueue::UNLOCKED);
        queue.addItem(new HvUDPEvent(nullptr, new HvDatagramPacket(nullptr, 0, 0)));
        EXPECT_EQ(1u, queue.getSize());
    }
}

} // namespace
