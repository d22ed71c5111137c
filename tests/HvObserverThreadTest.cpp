#include <HvUtil/HvObserverThread.h>

#include <HvUtil/HvMonitorThread.h>

#include <tests/support/HvTestSupport.h>

#include <Velmora/LogCapture.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

// A source whose block() ticks its observer and returns true until `limit`
// calls were made, or throws `throwText` when it is set.
class ScriptedObservable : public HvObservable {
public:
    bool block() override
    {
        int call = calls.fetch_add(1) + 1;
        lastThread.store(pthread_self());
        notifyObservers(HvHandle<HvObject>());
        // Keeps a source that never ends from hogging the core.
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (const char* text = throwText.load())
            HvException::sThrow(text);
        return call < limit.load();
    }
    std::atomic<int> calls{0};
    std::atomic<int> limit{0};
    std::atomic<const char*> throwText{nullptr};
    std::atomic<pthread_t> lastThread{0};
};

// Counts the ticks it gets and remembers the thread of the last one.
class TickCounter : public HvObserver {
public:
    void onNotification(HvHandle<HvObservable>, HvHandle<HvObject>) override
    {
        ticks.fetch_add(1);
        thread.store(pthread_self());
    }
    std::atomic<int> ticks{0};
    std::atomic<pthread_t> thread{0};
};

// Started, and back in its wait after `calls` calls of block().
bool waitingAfter(HvObserverThread* thread, ScriptedObservable* source, int calls)
{
    return hvtest::waitUntil([&] { return source->calls.load() == calls && thread->getState() == HvThread::BLOCKED; });
}

void endThread(HvObserverThread* thread)
{
    thread->terminate();
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(thread); }));
}

} // namespace

TEST(HvObserverThreadTest, WaitsIdleUntilItIsGivenAnObservable)
{
    hvtest::LeakCheck leaks("HvObserverThread");
    HvHandle<HvObserverThread> thread(new HvObserverThread);
    EXPECT_EQ(1, hvtest::liveCount("HvObserverThread"));
    EXPECT_TRUE(thread->getObservable().isNull());
    thread->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return thread->getState() == HvThread::BLOCKED; }));
    EXPECT_TRUE(thread->getObservable().isNull());
    endThread(thread.get());
}

TEST(HvObserverThreadTest, BlocksOnTheObservableOnItsOwnThreadAndItsNotificationsRunThere)
{
    hvtest::LeakCheck leaks("HvObserverThread");
    HvHandle<ScriptedObservable> source(new ScriptedObservable);
    HvHandle<TickCounter> counter(new TickCounter);
    source->attachObserver(counter);
    source->limit.store(5);
    HvHandle<HvObserverThread> thread(new HvObserverThread);
    thread->fork();
    thread->monitorObservable(source.get());
    EXPECT_EQ(source.get(), thread->getObservable().get());
    // The fifth call returned false: the source ended and the thread waits.
    ASSERT_TRUE(waitingAfter(thread.get(), source.get(), 5));
    EXPECT_EQ(5, counter->ticks.load());
    EXPECT_TRUE(pthread_equal(thread->getToken(), source->lastThread.load()));
    EXPECT_TRUE(pthread_equal(thread->getToken(), counter->thread.load()));
    endThread(thread.get());
    EXPECT_EQ(5, source->calls.load());
    source->detachObserver(counter);
}

TEST(HvObserverThreadTest, AfterTheSourceEndedTheNextSignalStartsItAgain)
{
    HvHandle<ScriptedObservable> source(new ScriptedObservable);
    source->limit.store(3);
    HvHandle<HvObserverThread> thread(new HvObserverThread);
    thread->fork();
    thread->monitorObservable(source.get());
    ASSERT_TRUE(waitingAfter(thread.get(), source.get(), 3));
    source->limit.store(5);
    thread->signal();
    ASSERT_TRUE(waitingAfter(thread.get(), source.get(), 5));
    thread->monitorObservable(source.get());
    source->limit.store(6);
    ASSERT_TRUE(waitingAfter(thread.get(), source.get(), 6));
    endThread(thread.get());
}

TEST(HvObserverThreadTest, NewObservableReplacesTheOldOneWhichIsReleased)
{
    HvHandle<ScriptedObservable> first(new ScriptedObservable);
    HvHandle<ScriptedObservable> second(new ScriptedObservable);
    first->limit.store(1);
    second->limit.store(2);
    HvHandle<HvObserverThread> thread(new HvObserverThread);
    thread->fork();
    thread->monitorObservable(first.get());
    ASSERT_TRUE(waitingAfter(thread.get(), first.get(), 1));
    EXPECT_EQ(2, first->getRefCount());
    thread->monitorObservable(second.get());
    ASSERT_TRUE(waitingAfter(thread.get(), second.get(), 2));
    EXPECT_EQ(1, first->getRefCount());
    EXPECT_EQ(1, first->calls.load());
    endThread(thread.get());
    EXPECT_EQ(2, second->getRefCount());
    thread = HvHandle<HvObserverThread>();
    EXPECT_EQ(1, second->getRefCount());
}

TEST(HvObserverThreadTest, ExceptionFromBlockIsWrittenToTheDebugStreamAndTheThreadGoesOn)
{
    hvtest::DebugOutputCapture debug;
    HvHandle<ScriptedObservable> source(new ScriptedObservable);
    source->limit.store(100);
    source->throwText.store("boom");
    HvHandle<HvObserverThread> thread(new HvObserverThread);
    thread->fork();
    thread->monitorObservable(source.get());
    ASSERT_TRUE(waitingAfter(thread.get(), source.get(), 1));
    EXPECT_EQ("catch exception in HvObserverThread::block(): boom\n", debug.text());
    EXPECT_NE(HvThread::DETACHED, thread->getState());

    // Served again from the next signal on.
    source->throwText.store(nullptr);
    source->limit.store(3);
    thread->signal();
    ASSERT_TRUE(waitingAfter(thread.get(), source.get(), 3));
    EXPECT_EQ("catch exception in HvObserverThread::block(): boom\n", debug.text());
    endThread(thread.get());
}

TEST(HvObserverThreadTest, ExceptionLineNeedsTheExceptionDebugMode)
{
    hvtest::DebugOutputCapture debug(false);
    HvHandle<ScriptedObservable> source(new ScriptedObservable);
    source->throwText.store("quiet");
    HvHandle<HvObserverThread> thread(new HvObserverThread);
    thread->fork();
    thread->monitorObservable(source.get());
    ASSERT_TRUE(waitingAfter(thread.get(), source.get(), 1));
    EXPECT_EQ("", debug.text());
    endThread(thread.get());
}

TEST(HvObserverThreadTest, SignalWithoutAnObservableIsWaitedOut)
{
    HvHandle<HvObserverThread> thread(new HvObserverThread);
    thread->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return thread->getState() == HvThread::BLOCKED; }));
    thread->signal();
    // Back in its wait, still alive, and served once it has a source.
    ASSERT_TRUE(hvtest::waitUntil([&] {
        return thread->getState() == HvThread::BLOCKED && thread->getSignalCount() == 0;
    }));
    HvHandle<ScriptedObservable> source(new ScriptedObservable);
    source->limit.store(2);
    thread->monitorObservable(source.get());
    ASSERT_TRUE(waitingAfter(thread.get(), source.get(), 2));
    endThread(thread.get());
}

TEST(HvObserverThreadTest, TerminateWhileServingEndsTheThread)
{
    hvtest::LeakCheck leaks("HvObserverThread");
    HvHandle<ScriptedObservable> source(new ScriptedObservable);
    source->limit.store(1000000);
    HvHandle<HvObserverThread> thread(new HvObserverThread);
    thread->fork();
    thread->monitorObservable(source.get());
    ASSERT_TRUE(hvtest::waitUntil([&] { return source->calls.load() >= 3; }));
    endThread(thread.get());
    const int calls = source->calls.load();
    EXPECT_GT(1000000, calls);
    thread = HvHandle<HvObserverThread>();
    EXPECT_EQ(1, source->getRefCount());
}

TEST(HvObserverThreadTest, RunIsTracedOnItsOwnLogger)
{
    Velmora::LogCapture capture("ferrowind.hv.HvObserverThread");
    HvHandle<HvObserverThread> thread(new HvObserverThread);
    thread->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return capture.contains("ENTER: HvObserverThread::run"); }));
    EXPECT_FALSE(capture.contains("EXIT:  HvObserverThread::run"));
    endThread(thread.get());
    EXPECT_TRUE(capture.contains("EXIT:  HvObserverThread::run"));
}

TEST(HvObserverThreadTest, MonitorThreadMakesOneNewServingThreadPerCall)
{
    HvHandle<ScriptedObservable> first(new ScriptedObservable);
    HvHandle<ScriptedObservable> second(new ScriptedObservable);
    first->limit.store(2);
    second->limit.store(2);
    const long before = hvtest::liveCount("HvObserverThread");
    HvHandle<HvObserverThread> one = HvMonitorThread::monitorObservable(first.get());
    HvHandle<HvObserverThread> two = HvMonitorThread::monitorObservable(second.get());
    ASSERT_FALSE(one.isNull());
    ASSERT_NE(one.get(), two.get());
    EXPECT_EQ(before + 2, hvtest::liveCount("HvObserverThread"));
    EXPECT_EQ(first.get(), one->getObservable().get());
    EXPECT_EQ(second.get(), two->getObservable().get());
    ASSERT_TRUE(waitingAfter(one.get(), first.get(), 2));
    ASSERT_TRUE(waitingAfter(two.get(), second.get(), 2));
    EXPECT_TRUE(pthread_equal(one->getToken(), first->lastThread.load()));
    EXPECT_TRUE(pthread_equal(two->getToken(), second->lastThread.load()));
    endThread(one.get());
    endThread(two.get());
    one = HvHandle<HvObserverThread>();
    two = HvHandle<HvObserverThread>();
    EXPECT_EQ(before, hvtest::liveCount("HvObserverThread"));
}

TEST(HvObserverThreadTest, DroppedHandleLeavesTheThreadServingUntilItEnds)
{
    HvHandle<ScriptedObservable> source(new ScriptedObservable);
    source->limit.store(3);
    const long before = hvtest::liveCount("HvObserverThread");
    HvMonitorThread::monitorObservable(source.get());
    ASSERT_TRUE(hvtest::waitUntil([&] { return source->calls.load() == 3; }));
    EXPECT_EQ(before + 1, hvtest::liveCount("HvObserverThread"));
    HvHandle<HvObservable> watched(source.get());
    // The thread holds the source as long as it runs.
    EXPECT_LE(3, source->getRefCount());
}
