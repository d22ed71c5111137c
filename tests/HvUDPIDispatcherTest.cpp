#include <HvUtil/HvUDPIDispatcher.h>

#include <HvUtil/HvTCPEvent.h>
#include <HvUtil/HvUDPEvent.h>

#include <tests/support/HvTestObservers.h>
#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <vector>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

// Ends the current instance's thread the way the shutdown does, through the
// installed hook, and waits until the instance is gone.
void endInstance()
{
    HvUDPIDispatcher* instance = HvUDPIDispatcher::getInstance();
    instance->terminate();
    hvtest::installedHook(HvThread::WAKE_UDP_INPUT_DISPATCHER_QUEUE)();
    ASSERT_TRUE(hvtest::waitUntil([] { return hvtest::liveCount("HvUDPIDispatcher") == 0; }));
}

// Must stay the first test: no instance exists yet.
TEST(HvUDPIDispatcherTest, NoQueueBeforeTheFirstGetInstanceAndTheHookThenDoesNothing)
{
    EXPECT_EQ(nullptr, HvUDPIDispatcher::getUDPEventQueue());
    HvThread::ShutdownHookFunction hook = hvtest::installedHook(HvThread::WAKE_UDP_INPUT_DISPATCHER_QUEUE);
    ASSERT_NE(nullptr, hook);
    hook();
    EXPECT_EQ(nullptr, HvUDPIDispatcher::getUDPEventQueue());
    EXPECT_EQ(0, hvtest::liveCount("HvUDPIDispatcher"));
}

TEST(HvUDPIDispatcherTest, GetInstanceMakesAndStartsOneDispatcher)
{
    HvUDPIDispatcher* instance = HvUDPIDispatcher::getInstance();
    ASSERT_NE(nullptr, instance);
    EXPECT_EQ(instance, HvUDPIDispatcher::getInstance());
    EXPECT_EQ(instance->getEventQueue(), HvUDPIDispatcher::getUDPEventQueue());
    ASSERT_TRUE(hvtest::waitUntil([&] { return instance->getState() == HvThread::RUNNING; }));
    EXPECT_EQ(10, instance->getThreadPool().getMaxThreads());
    EXPECT_EQ(instance, instance->getThreadPool().getThread());
    EXPECT_EQ(HvEventQueue::UNLOCKED, instance->getEventQueue()->getPolicy());
    EXPECT_EQ(1, hvtest::liveCount("HvUDPIDispatcher"));
    // Held by its thread and the thread table only.
    EXPECT_EQ(2, instance->getRefCount());
}

TEST(HvUDPIDispatcherTest, ObserverIsNotifiedWithTheObjectByAPoolWorker)
{
    HvHandle<hvtest::RecordingObserver> observer(new hvtest::RecordingObserver);
    HvHandle<HvObject> object(new HvObject);
    HvUDPIDispatcher::sAddEvent(new HvUDPEvent(observer.get(), object.get()));
    ASSERT_TRUE(hvtest::waitUntil([&] { return observer->count() == 1; }));
    std::lock_guard<std::mutex> lock(observer->m_mutex);
    EXPECT_EQ(nullptr, observer->m_sources[0]);
    EXPECT_EQ(object.get(), observer->m_objects[0]);
    EXPECT_FALSE(pthread_equal(pthread_self(), observer->m_threads[0]));
    EXPECT_FALSE(pthread_equal(HvUDPIDispatcher::getInstance()->getToken(), observer->m_threads[0]));
}

TEST(HvUDPIDispatcherTest, EventsOfAnotherKindGiveNoWork)
{
    HvHandle<hvtest::RecordingObserver> observer(new hvtest::RecordingObserver);
    HvHandle<HvObject> marker(new HvObject);
    HvUDPIDispatcher::sAddEvent(new HvTCPEvent(observer.get(), marker.get()));
    HvUDPIDispatcher::sAddEvent(new HvUDPEvent(nullptr, marker.get()));
    HvUDPIDispatcher::getInstance()->process(nullptr);
    HvUDPIDispatcher::sAddEvent(new HvUDPEvent(observer.get(), marker.get()));
    ASSERT_TRUE(hvtest::waitUntil([&] {
        return observer->count() == 1 && HvUDPIDispatcher::getUDPEventQueue()->getSize() == 0 &&
               HvUDPIDispatcher::getInstance()->getThreadPool().getBusyCount() == 0;
    }));
    EXPECT_EQ(1u, observer->count());
}

TEST(HvUDPIDispatcherTest, ProducersPostingAtOnceThroughAddEventLoseNothing)
{
    HvHandle<hvtest::RecordingObserver> observer(new hvtest::RecordingObserver);
    const int producers = 4;
    const int perProducer = 300;
    hvtest::postConcurrently(producers, perProducer,
                             [&] { HvUDPIDispatcher::sAddEvent(new HvUDPEvent(observer.get(), nullptr)); });
    EXPECT_TRUE(hvtest::waitUntil([&] { return observer->count() == static_cast<std::size_t>(producers * perProducer); }));
    EXPECT_EQ(HvThread::RUNNING, HvUDPIDispatcher::getInstance()->getState());
}

TEST(HvUDPIDispatcherTest, NoQueueAfterTheInstanceEndedAndAtExitRanAndANewOneIsMadeOnDemand)
{
    HvUDPIDispatcher* first = HvUDPIDispatcher::getInstance();
    ASSERT_TRUE(hvtest::waitUntil([&] { return first->getState() == HvThread::RUNNING; }));
    endInstance();
    EXPECT_EQ(nullptr, HvUDPIDispatcher::getUDPEventQueue());

    HvHandle<hvtest::RecordingObserver> observer(new hvtest::RecordingObserver);
    HvUDPIDispatcher::sAddEvent(new HvUDPEvent(observer.get(), nullptr));
    ASSERT_TRUE(hvtest::waitUntil([&] { return observer->count() == 1; }));
    ASSERT_NE(nullptr, HvUDPIDispatcher::getUDPEventQueue());
    EXPECT_EQ(1, hvtest::liveCount("HvUDPIDispatcher"));
    EXPECT_EQ(HvThread::RUNNING, HvUDPIDispatcher::getInstance()->getState());
}

TEST(HvUDPIDispatcherTest, EndedInstanceTakesItsPoolWorkersAndQueuedEventsWithIt)
{
    HvHandle<hvtest::RecordingObserver> observer(new hvtest::RecordingObserver);
    HvUDPIDispatcher::sAddEvent(new HvUDPEvent(observer.get(), nullptr));
    ASSERT_TRUE(hvtest::waitUntil([&] { return observer->count() == 1; }));
    EXPECT_LE(2u, HvThread::sGetThreadCount());

    // Terminated while it waits for events: the next event wakes it, it
    // leaves without taking the event, and the event goes with the queue.
    int destroyed = 0;
    HvUDPIDispatcher::getInstance()->terminate();
    HvUDPIDispatcher::sAddEvent(new HvUDPEvent(observer.get(), new hvtest::CountingObject(destroyed)));
    ASSERT_TRUE(hvtest::waitUntil([] { return hvtest::liveCount("HvUDPIDispatcher") == 0; }));
    EXPECT_EQ(nullptr, HvUDPIDispatcher::getUDPEventQueue());
    EXPECT_EQ(1, destroyed);
    EXPECT_EQ(1u, observer->count());
    EXPECT_EQ(0, hvtest::liveCount("HvUDPEvent"));
    EXPECT_TRUE(hvtest::waitUntil([] { return HvThread::sGetThreadCount() == 0; }));
}

} // namespace
