#include <HvUtil/HvTimerDispatcher.h>

#include <HvUtil/HvTimer.h>
#include <HvUtil/HvTimerEvent.h>
#include <HvUtil/HvUDPEvent.h>

#include <tests/support/HvTestObservers.h>
#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

// Ends the current instance's thread the way the shutdown does, through the
// installed hook, and waits until its thread is gone.
void endInstance()
{
    HvTimerDispatcher* instance = HvTimerDispatcher::getInstance();
    instance->terminate();
    hvtest::installedHook(HvThread::WAKE_TIMER_DISPATCHER_QUEUE)();
    ASSERT_TRUE(hvtest::waitUntil([] { return HvTimerDispatcher::getTimerEventQueue() == nullptr; }));
}

} // namespace

// Must stay the first test: no instance exists yet.
TEST(HvTimerDispatcherTest, NoQueueBeforeTheFirstGetInstanceAndTheHookThenDoesNothing)
{
    EXPECT_EQ(nullptr, HvTimerDispatcher::getTimerEventQueue());
    HvThread::ShutdownHookFunction hook = hvtest::installedHook(HvThread::WAKE_TIMER_DISPATCHER_QUEUE);
    ASSERT_NE(nullptr, hook);
    hook();
    EXPECT_EQ(nullptr, HvTimerDispatcher::getTimerEventQueue());
    EXPECT_EQ(0, hvtest::liveCount("HvDispatcherThread"));
}

// Must stay the second test: the first callers race to make the instance.
TEST(HvTimerDispatcherTest, FirstCallersAtOnceGetOneInstance)
{
    const int callers = 4;
    std::vector<HvTimerDispatcher*> seen(callers, nullptr);
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int caller = 0; caller < callers; ++caller) {
        threads.emplace_back([&, caller] {
            while (!go.load()) {
            }
            seen[caller] = HvTimerDispatcher::getInstance();
        });
    }
    go.store(true);
    for (std::thread& thread : threads)
        thread.join();
    for (HvTimerDispatcher* instance : seen)
        EXPECT_EQ(seen[0], instance);
    EXPECT_EQ(1, hvtest::liveCount("HvDispatcherThread"));
}

TEST(HvTimerDispatcherTest, GetInstanceMakesAndStartsOneDefaultDispatcher)
{
    HvTimerDispatcher* instance = HvTimerDispatcher::getInstance();
    ASSERT_NE(nullptr, instance);
    EXPECT_EQ(instance, HvTimerDispatcher::getInstance());
    EXPECT_EQ(instance->getEventQueue(), HvTimerDispatcher::getTimerEventQueue());
    ASSERT_TRUE(hvtest::waitUntil([&] { return instance->getState() == HvThread::RUNNING; }));
    EXPECT_EQ(static_cast<int>(HvDispatcherThread::kDefaultPoolThreads), instance->getThreadPool().getMaxThreads());
    EXPECT_EQ(instance, instance->getThreadPool().getThread());
    EXPECT_EQ(HvEventQueue::LOCKED, instance->getEventQueue()->getPolicy());
    // Allocated under the tag of the class it is built as.
    EXPECT_EQ(1, hvtest::liveCount("HvDispatcherThread"));
    EXPECT_EQ(0, hvtest::liveCount("HvTimerDispatcher"));
    // Held by its thread and the thread table only.
    EXPECT_EQ(2, instance->getRefCount());
}

TEST(HvTimerDispatcherTest, TimerEventNotifiesItsObserverWithItsArgumentOnAPoolWorker)
{
    HvHandle<hvtest::RecordingObserver> observer(new hvtest::RecordingObserver);
    HvHandle<HvObject> argument(new HvTimer(HvTime(42.0)));
    HvTimerDispatcher::sAddEvent(new HvTimerEvent(observer.get(), argument.get()));
    ASSERT_TRUE(hvtest::waitUntil([&] { return observer->count() == 1; }));
    std::lock_guard<std::mutex> lock(observer->m_mutex);
    EXPECT_EQ(nullptr, observer->m_sources[0]);
    EXPECT_EQ(argument.get(), observer->m_objects[0]);
    EXPECT_FALSE(pthread_equal(pthread_self(), observer->m_threads[0]));
    EXPECT_FALSE(pthread_equal(HvTimerDispatcher::getInstance()->getToken(), observer->m_threads[0]));
}

TEST(HvTimerDispatcherTest, EventsAddedToTheQueueDirectlyAreProcessedToo)
{
    HvHandle<hvtest::RecordingObserver> observer(new hvtest::RecordingObserver);
    HvTimerDispatcher::getInstance()->getEventQueue()->addItem(new HvTimerEvent(observer.get(), nullptr));
    ASSERT_TRUE(hvtest::waitUntil([&] { return observer->count() == 1; }));
    std::lock_guard<std::mutex> lock(observer->m_mutex);
    EXPECT_EQ(nullptr, observer->m_objects[0]);
}

TEST(HvTimerDispatcherTest, EventsOfAnotherKindAndNilObserversGiveNoWork)
{
    HvHandle<hvtest::RecordingObserver> observer(new hvtest::RecordingObserver);
    HvHandle<HvObject> marker(new HvObject);
    HvTimerDispatcher::sAddEvent(new HvUDPEvent(observer.get(), marker.get()));
    HvTimerDispatcher::sAddEvent(new HvTimerEvent(nullptr, marker.get()));
    HvTimerDispatcher::getInstance()->process(nullptr);
    HvTimerDispatcher::sAddEvent(new HvTimerEvent(observer.get(), marker.get()));
    ASSERT_TRUE(hvtest::waitUntil([&] {
        return observer->count() == 1 && HvTimerDispatcher::getTimerEventQueue()->getSize() == 0 &&
               HvTimerDispatcher::getInstance()->getThreadPool().getBusyCount() == 0;
    }));
    EXPECT_EQ(1u, observer->count());
    // Every event was deleted, so only the test holds the marker.
    EXPECT_TRUE(hvtest::waitUntil([&] { return marker->getRefCount() == 1; }));
}

TEST(HvTimerDispatcherTest, ProducersAddingAtOnceLoseNothing)
{
    HvHandle<hvtest::RecordingObserver> observer(new hvtest::RecordingObserver);
    const int producers = 4;
    const int perProducer = 300;
    hvtest::postConcurrently(producers, perProducer,
                             [&] { HvTimerDispatcher::sAddEvent(new HvTimerEvent(observer.get(), nullptr)); });
    EXPECT_TRUE(hvtest::waitUntil([&] { return observer->count() == static_cast<std::size_t>(producers * perProducer); }));
    EXPECT_EQ(HvThread::RUNNING, HvTimerDispatcher::getInstance()->getState());
}

TEST(HvTimerDispatcherTest, EndedInstanceForgetsItselfAndANewOneIsMadeOnDemand)
{
    HvTimerDispatcher* first = HvTimerDispatcher::getInstance();
    ASSERT_TRUE(hvtest::waitUntil([&] { return first->getState() == HvThread::RUNNING; }));
    endInstance();
    EXPECT_EQ(nullptr, HvTimerDispatcher::getTimerEventQueue());
    EXPECT_TRUE(hvtest::waitUntil([] { return hvtest::liveCount("HvDispatcherThread") == 0; }));

    HvHandle<hvtest::RecordingObserver> observer(new hvtest::RecordingObserver);
    HvTimerDispatcher::sAddEvent(new HvTimerEvent(observer.get(), nullptr));
    ASSERT_TRUE(hvtest::waitUntil([&] { return observer->count() == 1; }));
    ASSERT_NE(nullptr, HvTimerDispatcher::getTimerEventQueue());
    EXPECT_EQ(1, hvtest::liveCount("HvDispatcherThread"));
    EXPECT_EQ(HvThread::RUNNING, HvTimerDispatcher::getInstance()->getState());
}

TEST(HvTimerDispatcherTest, AtExitOfAnObjectThatIsNotTheInstanceLeavesTheInstanceAlone)
{
    // Kept alive past the end of its thread by this handle.
    HvHandle<HvTimerDispatcher> old(HvTimerDispatcher::getInstance());
    endInstance();
    HvTimerDispatcher* current = HvTimerDispatcher::getInstance();
    ASSERT_NE(old.get(), current);
    old->atExit();
    EXPECT_EQ(current, HvTimerDispatcher::getInstance());
    EXPECT_EQ(current->getEventQueue(), HvTimerDispatcher::getTimerEventQueue());
}
