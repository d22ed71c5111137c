#include <HvUtil/HvDispatcherThread.h>

#include <HvUtil/HvBaseEvent.h>
#include <HvUtil/HvException.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <mutex>
#include <thread>
#include <vector>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

std::atomic<int> fs_eventsDestroyed{0};

// An event with a number; every destruction is counted.
class NumberedEvent : public HvBaseEvent {
public:
    explicit NumberedEvent(int number) : m_number(number) {}
    ~NumberedEvent() override { fs_eventsDestroyed.fetch_add(1); }
    int number() const { return m_number; }

private:
    int m_number;
};

// Records what it processes, on which thread, and whether each event was
// still alive then; can hold its thread inside process() or throw.
class RecordingDispatcher : public HvDispatcherThread {
public:
    RecordingDispatcher() {}
    RecordingDispatcher(HvThread* thread, unsigned int count, HvEventQueue::Policy policy)
        : HvDispatcherThread(thread, count, policy)
    {
    }

    void process(HvBaseEvent* event) override
    {
        NumberedEvent* numbered = dynamic_cast<NumberedEvent*>(event);
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_numbers.push_back(numbered ? numbered->number() : -1);
            m_destroyedWhenProcessed.push_back(fs_eventsDestroyed.load());
            m_threads.push_back(pthread_self());
        }
        m_processed.fetch_add(1);
        if (m_hold.load()) {
            m_holding.store(true);
            while (m_hold.load())
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        if (m_throw.load())
            HvException::sThrow("process failed");
    }

    void atExit() override
    {
        m_atExitThread.store(pthread_self());
        m_atExitCalls.fetch_add(1);
    }

    std::vector<int> numbers()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_numbers;
    }
    std::vector<pthread_t> threads()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_threads;
    }

    std::mutex m_mutex;
    std::vector<int> m_numbers;
    std::vector<int> m_destroyedWhenProcessed;
    std::vector<pthread_t> m_threads;
    std::atomic<int> m_processed{0};
    std::atomic<bool> m_hold{false};
    std::atomic<bool> m_holding{false};
    std::atomic<bool> m_throw{false};
    std::atomic<int> m_atExitCalls{0};
    std::atomic<pthread_t> m_atExitThread{0};
};

// True when the kernel reports the thread as sleeping (state S): for a
// consumer that has entered run() on an empty queue, that is the wait for
// the next event.
bool isSleeping(pid_t thread)
{
    std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    std::string::size_type end = text.rfind(')');
    return end != std::string::npos && end + 2 < text.size() && text[end + 2] == 'S';
}

// Stops a forked dispatcher the way the shutdown does: terminate, then wake
// its queue; waits until its thread has ended.
void stop(RecordingDispatcher* dispatcher)
{
    dispatcher->terminate();
    dispatcher->getEventQueue()->WakeUpAll();
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(dispatcher); }));
}

TEST(HvDispatcherThreadTest, DefaultConstructionHasAPoolOfTenBoundToItselfAndALockedQueue)
{
    HvHandle<RecordingDispatcher> dispatcher(new RecordingDispatcher);
    EXPECT_EQ(10, dispatcher->getThreadPool().getMaxThreads());
    EXPECT_EQ(10u, HvDispatcherThread::kDefaultPoolThreads);
    EXPECT_EQ(dispatcher.get(), dispatcher->getThreadPool().getThread());
    EXPECT_EQ(0, dispatcher->getThreadPool().getThreadCount());
    ASSERT_NE(nullptr, dispatcher->getEventQueue());
    EXPECT_EQ(HvEventQueue::LOCKED, dispatcher->getEventQueue()->getPolicy());
    EXPECT_EQ(0u, dispatcher->getEventQueue()->getSize());
    // Constructing does not start the thread.
    EXPECT_EQ(HvThread::DETACHED, dispatcher->getState());
    EXPECT_EQ(0u, static_cast<unsigned long>(dispatcher->getToken()));
}

TEST(HvDispatcherThreadTest, ConstructorGivesThePoolItsThreadAndCountAndTheQueueItsPolicy)
{
    HvHandle<hvtest::LambdaThread> owner(new hvtest::LambdaThread);
    HvHandle<RecordingDispatcher> dispatcher(new RecordingDispatcher(owner.get(), 3, HvEventQueue::UNLOCKED));
    EXPECT_EQ(3, dispatcher->getThreadPool().getMaxThreads());
    EXPECT_EQ(owner.get(), dispatcher->getThreadPool().getThread());
    EXPECT_EQ(HvEventQueue::UNLOCKED, dispatcher->getEventQueue()->getPolicy());

    HvHandle<RecordingDispatcher> itself(new RecordingDispatcher(nullptr, 0, HvEventQueue::LOCKED));
    EXPECT_EQ(0, itself->getThreadPool().getMaxThreads());
    EXPECT_EQ(itself.get(), itself->getThreadPool().getThread());
    EXPECT_EQ(HvEventQueue::LOCKED, itself->getEventQueue()->getPolicy());
}

TEST(HvDispatcherThreadTest, AllocatedUnderTheDispatcherTagWithTheQueuesAlignment)
{
    const long before = hvtest::liveCount("HvDispatcherThread");
    {
        HvHandle<RecordingDispatcher> dispatcher(new RecordingDispatcher);
        EXPECT_EQ(before + 1, hvtest::liveCount("HvDispatcherThread"));
        EXPECT_LE(64u, alignof(RecordingDispatcher));
        EXPECT_EQ(0u, reinterpret_cast<std::uintptr_t>(dispatcher.get()) % alignof(RecordingDispatcher));
        EXPECT_EQ(0u, reinterpret_cast<std::uintptr_t>(dispatcher->getEventQueue()) % alignof(HvEventQueue));
    }
    EXPECT_EQ(before, hvtest::liveCount("HvDispatcherThread"));
}

TEST(HvDispatcherThreadTest, ProcessesEventsInQueueOrderOnItsOwnThreadAndDeletesEach)
{
    HvHandle<RecordingDispatcher> dispatcher(new RecordingDispatcher);
    const int destroyedBefore = fs_eventsDestroyed.load();
    dispatcher->fork();
    for (int number = 1; number <= 50; ++number)
        dispatcher->getEventQueue()->addItem(new NumberedEvent(number));
    ASSERT_TRUE(hvtest::waitUntil([&] { return fs_eventsDestroyed.load() == destroyedBefore + 50; }));

    std::vector<int> numbers = dispatcher->numbers();
    ASSERT_EQ(50u, numbers.size());
    for (int index = 0; index < 50; ++index)
        EXPECT_EQ(index + 1, numbers[static_cast<std::size_t>(index)]);
    {
        std::lock_guard<std::mutex> lock(dispatcher->m_mutex);
        for (std::size_t index = 0; index < dispatcher->m_threads.size(); ++index) {
            EXPECT_TRUE(pthread_equal(dispatcher->getToken(), dispatcher->m_threads[index]));
            // Each event is deleted after its own processing, before the next.
            EXPECT_EQ(destroyedBefore + static_cast<int>(index), dispatcher->m_destroyedWhenProcessed[index]);
        }
    }
    EXPECT_EQ(HvThread::RUNNING, dispatcher->getState());
    stop(dispatcher.get());
}

TEST(HvDispatcherThreadTest, EventTakenAfterTerminateIsDeletedUnprocessed)
{
    // run() on a thread of its own that is not a registered HvThread: the
    // queue then hands over the event, and only the dispatcher's own check
    // can keep it from being processed.
    HvHandle<RecordingDispatcher> dispatcher(new RecordingDispatcher);
    std::atomic<bool> returned{false};
    std::atomic<pid_t> consumerId{0};
    std::thread consumer([&] {
        consumerId.store(static_cast<pid_t>(syscall(SYS_gettid)));
        dispatcher->run();
        returned.store(true);
    });
    // Terminated only once the consumer sleeps in the queue: before that
    // run() would see the termination and never take the event.
    ASSERT_TRUE(hvtest::waitUntil([&] { return consumerId.load() != 0 && isSleeping(consumerId.load()); }));
    dispatcher->terminate();
    const int destroyedBefore = fs_eventsDestroyed.load();
    dispatcher->getEventQueue()->addItem(new NumberedEvent(7));
    ASSERT_TRUE(hvtest::waitUntil([&] { return returned.load(); }));
    consumer.join();
    EXPECT_EQ(0, dispatcher->m_processed.load());
    EXPECT_EQ(destroyedBefore + 1, fs_eventsDestroyed.load());
    EXPECT_EQ(0u, dispatcher->getEventQueue()->getSize());
}

TEST(HvDispatcherThreadTest, TerminatedWhileProcessingStopsWithoutTakingTheNextEvent)
{
    HvHandle<RecordingDispatcher> dispatcher(new RecordingDispatcher);
    dispatcher->m_hold = true;
    dispatcher->fork();
    dispatcher->getEventQueue()->addItem(new NumberedEvent(1));
    ASSERT_TRUE(hvtest::waitUntil([&] { return dispatcher->m_holding.load(); }));
    const int destroyedBefore = fs_eventsDestroyed.load();
    dispatcher->getEventQueue()->addItem(new NumberedEvent(2));
    dispatcher->terminate();
    dispatcher->m_hold = false;
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(dispatcher.get()); }));
    EXPECT_EQ((std::vector<int>{1}), dispatcher->numbers());
    // The first event went after its processing; the second waits in the
    // queue, which deletes it when the dispatcher goes.
    EXPECT_EQ(destroyedBefore + 1, fs_eventsDestroyed.load());
    EXPECT_EQ(1u, dispatcher->getEventQueue()->getSize());
    ASSERT_TRUE(hvtest::waitUntil([&] { return dispatcher->getRefCount() == 1; }));
    dispatcher = HvHandle<RecordingDispatcher>();
    EXPECT_EQ(destroyedBefore + 2, fs_eventsDestroyed.load());
}

TEST(HvDispatcherThreadTest, TerminateAndWakeUpEndTheThreadWhichThenCallsAtExitOnItself)
{
    HvHandle<RecordingDispatcher> dispatcher(new RecordingDispatcher);
    dispatcher->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return dispatcher->getState() == HvThread::RUNNING; }));
    const pthread_t token = dispatcher->getToken();
    stop(dispatcher.get());
    EXPECT_EQ(1, dispatcher->m_atExitCalls.load());
    EXPECT_TRUE(pthread_equal(token, dispatcher->m_atExitThread.load()));
    EXPECT_EQ(0, dispatcher->m_processed.load());
}

TEST(HvDispatcherThreadTest, NullEventFromTheQueueEndsTheLoop)
{
    // Woken without an event and without being terminated: getItem() gives
    // null, which ends the dispatcher.
    HvHandle<RecordingDispatcher> dispatcher(new RecordingDispatcher);
    dispatcher->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return dispatcher->getState() == HvThread::RUNNING; }));
    dispatcher->getEventQueue()->WakeUpAll();
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(dispatcher.get()); }));
    EXPECT_EQ(1, dispatcher->m_atExitCalls.load());
    EXPECT_EQ(0, dispatcher->m_processed.load());
}

TEST(HvDispatcherThreadTest, TerminatedBeforeItStartsNeverRunsButStillCallsAtExit)
{
    HvHandle<RecordingDispatcher> dispatcher(new RecordingDispatcher);
    const int destroyedBefore = fs_eventsDestroyed.load();
    dispatcher->getEventQueue()->addItem(new NumberedEvent(1));
    dispatcher->terminate();
    dispatcher->main();
    EXPECT_EQ(0, dispatcher->m_processed.load());
    EXPECT_EQ(1, dispatcher->m_atExitCalls.load());
    EXPECT_EQ(destroyedBefore, fs_eventsDestroyed.load());
    dispatcher = HvHandle<RecordingDispatcher>();
    EXPECT_EQ(destroyedBefore + 1, fs_eventsDestroyed.load());
}

TEST(HvDispatcherThreadTest, HvExceptionFromProcessEndsTheThreadAndTheEventIsStillDeleted)
{
    hvtest::DebugOutputCapture debug;
    HvHandle<RecordingDispatcher> dispatcher(new RecordingDispatcher);
    dispatcher->m_throw = true;
    const int destroyedBefore = fs_eventsDestroyed.load();
    dispatcher->fork();
    dispatcher->getEventQueue()->addItem(new NumberedEvent(1));
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(dispatcher.get()); }));
    EXPECT_EQ(1, dispatcher->m_processed.load());
    EXPECT_EQ(destroyedBefore + 1, fs_eventsDestroyed.load());
    EXPECT_EQ(1, dispatcher->m_atExitCalls.load());
    EXPECT_EQ("catch exception in HvThread::block(): process failed\n", debug.text());
}

TEST(HvDispatcherThreadTest, UnownedDispatcherIsDeletedWhenItsThreadEnds)
{
    const long before = hvtest::liveCount("HvDispatcherThread");
    RecordingDispatcher* dispatcher = new RecordingDispatcher;
    dispatcher->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return dispatcher->getState() == HvThread::RUNNING; }));
    EXPECT_EQ(before + 1, hvtest::liveCount("HvDispatcherThread"));
    dispatcher->terminate();
    dispatcher->getEventQueue()->WakeUpAll();
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::liveCount("HvDispatcherThread") == before; }));
}

TEST(HvDispatcherThreadTest, PoolWorkersCarryOutWorkHandedToThePool)
{
    HvHandle<RecordingDispatcher> dispatcher(new RecordingDispatcher(nullptr, 2, HvEventQueue::UNLOCKED));
    HvHandle<hvtest::NoteTakingObserver> observer(new hvtest::NoteTakingObserver);
    HvHandle<HvObject> object(new HvObject);
    dispatcher->getThreadPool().doObserverNotifications(observer.get(), object.get());
    ASSERT_TRUE(hvtest::waitUntil([&] { return dispatcher->getThreadPool().getAvailableCount() == 1; }));
    ASSERT_EQ(1u, observer->notes.size());
    EXPECT_EQ(object.get(), observer->notes[0].object);
    // Destroying the dispatcher stops its pool's workers.
    dispatcher = HvHandle<RecordingDispatcher>();
    EXPECT_TRUE(hvtest::waitUntil([] { return HvThread::sGetThreadCount() == 0; }));
}

} // namespace
