#include <HvUtil/HvTCPEvent.h>

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvEventQueue.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

namespace {

TEST(HvTCPEventTest, HoldsTheObjectAndTheArgumentUntilDestroyed)
{
    HvHandle<HvObservable> source(new HvObservable);
    HvHandle<HvByteArray> argument = HvByteArray::sCreate("reply");
    HvTCPEvent* event = new HvTCPEvent(source.get(), argument.get());
    EXPECT_EQ(source.get(), event->getObject());
    EXPECT_EQ(argument.get(), event->getArgument());
    EXPECT_EQ(2, source->getRefCount());
    EXPECT_EQ(2, argument->getRefCount());
    delete event;
    EXPECT_EQ(1, source->getRefCount());
    EXPECT_EQ(1, argument->getRefCount());
}

TEST(HvTCPEventTest, LastReferencesGoWithTheEvent)
{
    int destroyed = 0;
    HvBaseEvent* event = new HvTCPEvent(new hvtest::CountingObject(destroyed), new hvtest::CountingObject(destroyed));
    EXPECT_EQ(0, destroyed);
    delete event;
    EXPECT_EQ(2, destroyed);
}

TEST(HvTCPEventTest, NullObjectAndArgumentAreAllowed)
{
    HvTCPEvent event(nullptr, nullptr);
    EXPECT_EQ(nullptr, event.getObject());
    EXPECT_EQ(nullptr, event.getArgument());
}

TEST(HvTCPEventTest, QueueThatStillHoldsTheEventReleasesItsObjects)
{
    int destroyed = 0;
    {
        HvEventQueue queue(HvEventQueue::LOCKED);
        queue.addItem(new HvTCPEvent(new hvtest::CountingObject(destroyed), nullptr));
        EXPECT_EQ(0, destroyed);
    }
    EXPECT_EQ(1, destroyed);
}

} // namespace
