#include <HvUtil/HvEventQueue.h>

#include <HvUtil/HvBaseEvent.h>
#include <HvUtil/HvThread.h>

#include <Velmora/MemAllocator.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

// Time given to a thread that must stay blocked, before checking that it did.
void settle()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
}

// Records every destruction by id, so that double deletions show.
std::mutex fs_deletedMutex;
std::multiset<int> fs_deleted;
// The same destructions in the order they happened.
std::vector<int> fs_deletionOrder;

class TestEvent : public HvBaseEvent {
public:
    explicit TestEvent(int id, int producer = 0) : m_id(id), m_producer(producer) {}
    ~TestEvent() override
    {
        std::lock_guard<std::mutex> lock(fs_deletedMutex);
        fs_deleted.insert(m_id);
        fs_deletionOrder.push_back(m_id);
    }
    int m_id;
    int m_producer;
};

void clearDeleted()
{
    std::lock_guard<std::mutex> lock(fs_deletedMutex);
    fs_deleted.clear();
    fs_deletionOrder.clear();
}

std::vector<int> deletionOrder()
{
    std::lock_guard<std::mutex> lock(fs_deletedMutex);
    return fs_deletionOrder;
}

std::multiset<int> deleted()
{
    std::lock_guard<std::mutex> lock(fs_deletedMutex);
    return fs_deleted;
}

int idOf(HvBaseEvent* event)
{
    return event ? static_cast<TestEvent*>(event)->m_id : -1;
}

void ignoreSignal(int)
{
}

} // namespace

TEST(HvEventQueue, NewQueueIsEmptyAndKeepsItsPolicy)
{
    HvEventQueue unlocked(HvEventQueue::UNLOCKED);
    HvEventQueue locked(HvEventQueue::LOCKED);
    EXPECT_EQ(0u, unlocked.getSize());
    EXPECT_EQ(HvEventQueue::UNLOCKED, unlocked.getPolicy());
    EXPECT_EQ(HvEventQueue::LOCKED, locked.getPolicy());
    EXPECT_EQ(0, HvEventQueue::UNLOCKED);
    EXPECT_EQ(1, HvEventQueue::LOCKED);
    EXPECT_EQ(4096u, HvEventQueue::kCapacity);
}

TEST(HvEventQueue, OnlyTheLockedPolicyMakesAWriterLock)
{
    long before = Velmora::allocationStats("HvMutex").liveCount;
    {
        HvEventQueue unlocked(HvEventQueue::UNLOCKED);
        EXPECT_EQ(before, Velmora::allocationStats("HvMutex").liveCount);
    }
    {
        HvEventQueue locked(HvEventQueue::LOCKED);
        EXPECT_EQ(before + 1, Velmora::allocationStats("HvMutex").liveCount);
    }
    EXPECT_EQ(before, Velmora::allocationStats("HvMutex").liveCount);
}

TEST(HvEventQueue, EventsComeOutInTheOrderTheyWentIn)
{
    clearDeleted();
    HvEventQueue queue(HvEventQueue::UNLOCKED);
    for (int id = 0; id < 10; ++id)
        queue.addItem(new TestEvent(id));
    EXPECT_EQ(10u, queue.getSize());
    for (int id = 0; id < 10; ++id) {
        std::unique_ptr<HvBaseEvent> event(queue.getItem());
        EXPECT_EQ(id, idOf(event.get()));
        EXPECT_EQ(static_cast<unsigned int>(9 - id), queue.getSize());
    }
}

TEST(HvEventQueue, RingWrapsAroundManyTimesInOrder)
{
    HvEventQueue queue(HvEventQueue::UNLOCKED);
    int next = 0;
    int expected = 0;
    for (int round = 0; round < 7; ++round) {
        for (int i = 0; i < 3000; ++i)
            queue.addItem(new TestEvent(next++));
        for (int i = 0; i < 3000; ++i) {
            std::unique_ptr<HvBaseEvent> event(queue.getItem());
            ASSERT_EQ(expected++, idOf(event.get()));
        }
    }
    EXPECT_EQ(0u, queue.getSize());
}

TEST(HvEventQueue, AddingNullNeitherBlocksNorChangesTheSize)
{
    HvEventQueue queue(HvEventQueue::UNLOCKED);
    queue.addItem(nullptr);
    EXPECT_EQ(0u, queue.getSize());
    for (int id = 0; id < 4096; ++id)
        queue.addItem(new TestEvent(id));
    // On a full ring too: a null event never waits for a free place.
    queue.addItem(nullptr);
    EXPECT_EQ(4096u, queue.getSize());
}

TEST(HvEventQueue, FullRingBlocksTheNextAddUntilOneGet)
{
    clearDeleted();
    HvEventQueue queue(HvEventQueue::UNLOCKED);
    for (int id = 0; id < 4096; ++id)
        queue.addItem(new TestEvent(id));
    EXPECT_EQ(4096u, queue.getSize());

    std::atomic<bool> added{false};
    std::thread producer([&] {
        queue.addItem(new TestEvent(4096));
        added = true;
    });
    settle();
    EXPECT_FALSE(added.load());
    EXPECT_EQ(4096u, queue.getSize());

    std::unique_ptr<HvBaseEvent> first(queue.getItem());
    EXPECT_EQ(0, idOf(first.get()));
    ASSERT_TRUE(hvtest::waitUntil([&] { return added.load(); }));
    producer.join();
    EXPECT_EQ(4096u, queue.getSize());
    for (int id = 1; id <= 4096; ++id) {
        std::unique_ptr<HvBaseEvent> event(queue.getItem());
        ASSERT_EQ(id, idOf(event.get()));
    }
    EXPECT_EQ(0u, queue.getSize());
}

TEST(HvEventQueue, EmptyRingBlocksTheConsumerUntilAnAdd)
{
    HvEventQueue queue(HvEventQueue::UNLOCKED);
    std::atomic<int> received{-2};
    std::thread consumer([&] {
        std::unique_ptr<HvBaseEvent> event(queue.getItem());
        received = idOf(event.get());
    });
    settle();
    EXPECT_EQ(-2, received.load());
    queue.addItem(new TestEvent(42));
    ASSERT_TRUE(hvtest::waitUntil([&] { return received.load() == 42; }));
    consumer.join();
}

TEST(HvEventQueue, InterruptedWaitIsResumed)
{
    struct sigaction action = {};
    struct sigaction previous = {};
    action.sa_handler = &ignoreSignal;
    sigemptyset(&action.sa_mask);
    // No SA_RESTART: the blocked sem_wait returns EINTR.
    action.sa_flags = 0;
    ASSERT_EQ(0, sigaction(SIGUSR1, &action, &previous));

    HvEventQueue queue(HvEventQueue::UNLOCKED);
    std::atomic<int> received{-2};
    std::atomic<bool> started{false};
    std::thread consumer([&] {
        started = true;
        std::unique_ptr<HvBaseEvent> event(queue.getItem());
        received = idOf(event.get());
    });
    ASSERT_TRUE(hvtest::waitUntil([&] { return started.load(); }));
    settle();
    for (int i = 0; i < 5; ++i) {
        pthread_kill(consumer.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    settle();
    EXPECT_EQ(-2, received.load());
    queue.addItem(new TestEvent(5));
    ASSERT_TRUE(hvtest::waitUntil([&] { return received.load() == 5; }));
    consumer.join();
    sigaction(SIGUSR1, &previous, nullptr);
}

TEST(HvEventQueue, DestroyingAQueueDeletesEachHeldEventOnce)
{
    clearDeleted();
    {
        HvEventQueue queue(HvEventQueue::LOCKED);
        // Move the indexes away from the start so that the held events wrap.
        for (int id = 0; id < 4090; ++id)
            queue.addItem(new TestEvent(-1));
        for (int id = 0; id < 4090; ++id)
            delete queue.getItem();
        clearDeleted();
        for (int id = 0; id < 20; ++id)
            queue.addItem(new TestEvent(id));
        std::unique_ptr<HvBaseEvent> taken(queue.getItem());
        EXPECT_EQ(0, idOf(taken.get()));
        taken.reset();
        EXPECT_EQ(1u, deleted().size());
    }
    std::multiset<int> gone = deleted();
    ASSERT_EQ(20u, gone.size());
    for (int id = 0; id < 20; ++id)
        EXPECT_EQ(1u, gone.count(id)) << id;
}

TEST(HvEventQueue, DestroyingAQueueDeletesTheHeldEventsFromTheLastPlaceToTheFirst)
{
    clearDeleted();
    {
        HvEventQueue queue(HvEventQueue::UNLOCKED);
        // Places 0 to 19 in ring order.
        for (int id = 0; id < 20; ++id)
            queue.addItem(new TestEvent(id));
    }
    std::vector<int> expected;
    for (int id = 19; id >= 0; --id)
        expected.push_back(id);
    EXPECT_EQ(expected, deletionOrder());

    clearDeleted();
    {
        HvEventQueue queue(HvEventQueue::LOCKED);
        // Places 4090 to 4095 hold ids 0 to 5, places 0 to 3 ids 6 to 9:
        // the last place of the ring comes first, whatever went in first.
        for (int id = 0; id < 4090; ++id)
            queue.addItem(new TestEvent(-1));
        for (int id = 0; id < 4090; ++id)
            delete queue.getItem();
        clearDeleted();
        for (int id = 0; id < 10; ++id)
            queue.addItem(new TestEvent(id));
    }
    EXPECT_EQ((std::vector<int>{5, 4, 3, 2, 1, 0, 9, 8, 7, 6}), deletionOrder());
}

TEST(HvEventQueue, LockedQueueTakesTwoProducersWithoutLossAndInProducerOrder)
{
    const int perProducer = 20000;
    HvEventQueue queue(HvEventQueue::LOCKED);
    std::vector<int> nextOf(3, 0);
    std::atomic<int> received{0};
    bool ordered = true;
    std::thread consumer([&] {
        for (int i = 0; i < 2 * perProducer; ++i) {
            std::unique_ptr<HvBaseEvent> event(queue.getItem());
            TestEvent* test = static_cast<TestEvent*>(event.get());
            if (!test || test->m_id != nextOf[test->m_producer]++)
                ordered = false;
            received.fetch_add(1);
        }
    });
    auto produce = [&](int producer) {
        for (int id = 0; id < perProducer; ++id)
            queue.addItem(new TestEvent(id, producer));
    };
    std::thread first(produce, 1);
    std::thread second(produce, 2);
    first.join();
    second.join();
    consumer.join();
    EXPECT_TRUE(ordered);
    EXPECT_EQ(2 * perProducer, received.load());
    EXPECT_EQ(perProducer, nextOf[1]);
    EXPECT_EQ(perProducer, nextOf[2]);
    EXPECT_EQ(0u, queue.getSize());
}

TEST(HvEventQueue, WakeUpAllReleasesATerminatedConsumerWithNull)
{
    HvEventQueue queue(HvEventQueue::UNLOCKED);
    std::atomic<bool> inGetItem{false};
    std::atomic<bool> returned{false};
    std::atomic<int> result{-2};
    HvHandle<hvtest::LambdaThread> consumer(new hvtest::LambdaThread([&](hvtest::LambdaThread&) {
        inGetItem = true;
        HvBaseEvent* event = queue.getItem();
        result = idOf(event);
        delete event;
        returned = true;
    }));
    consumer->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return inGetItem.load(); }));
    settle();
    EXPECT_FALSE(returned.load());
    // The stop request alone does not reach a thread blocked on the semaphore.
    consumer->terminate();
    settle();
    EXPECT_FALSE(returned.load());
    queue.WakeUpAll();
    ASSERT_TRUE(hvtest::waitUntil([&] { return returned.load(); }));
    EXPECT_EQ(-1, result.load());
    EXPECT_EQ(0u, queue.getSize());
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(consumer.get()); }));
}

TEST(HvEventQueue, TerminatedConsumerGetsNullWithoutTouchingTheRing)
{
    HvEventQueue queue(HvEventQueue::UNLOCKED);
    std::atomic<bool> returned{false};
    std::atomic<int> result{-2};
    HvHandle<hvtest::LambdaThread> consumer(new hvtest::LambdaThread([&](hvtest::LambdaThread& self) {
        // Sleeps until terminated, then tries to take an event.
        while (self.getState() != HvThread::EXITING)
            self.wait(HvThread::kNoTimeout);
        HvBaseEvent* event = queue.getItem();
        result = idOf(event);
        delete event;
        returned = true;
    }));
    consumer->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return consumer->getState() == HvThread::BLOCKED; }));
    queue.addItem(new TestEvent(9));
    consumer->terminate();
    ASSERT_TRUE(hvtest::waitUntil([&] { return returned.load(); }));
    EXPECT_EQ(-1, result.load());
    EXPECT_EQ(1u, queue.getSize());
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(consumer.get()); }));
}

TEST(HvEventQueue, WakeUpAllReleasesATerminatedProducerWhichDropsItsEvent)
{
    clearDeleted();
    HvEventQueue queue(HvEventQueue::UNLOCKED);
    for (int id = 0; id < 4096; ++id)
        queue.addItem(new TestEvent(id));
    std::atomic<bool> inAddItem{false};
    std::atomic<bool> returned{false};
    HvHandle<hvtest::LambdaThread> producer(new hvtest::LambdaThread([&](hvtest::LambdaThread&) {
        inAddItem = true;
        queue.addItem(new TestEvent(5000));
        returned = true;
    }));
    producer->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return inAddItem.load(); }));
    settle();
    EXPECT_FALSE(returned.load());
    producer->terminate();
    queue.WakeUpAll();
    ASSERT_TRUE(hvtest::waitUntil([&] { return returned.load(); }));
    EXPECT_EQ(1u, deleted().count(5000));
    EXPECT_EQ(4096u, queue.getSize());
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(producer.get()); }));
    std::unique_ptr<HvBaseEvent> first(queue.getItem());
    EXPECT_EQ(0, idOf(first.get()));
}

TEST(HvEventQueue, WakeUpAllOnAConsumerThatIsNotTerminatedLeavesTheRingIntact)
{
    // Outside shutdown a wake-up finds no event: the consumer gets null and
    // the ring keeps working in order.
    HvEventQueue queue(HvEventQueue::UNLOCKED);
    std::atomic<bool> returned{false};
    std::atomic<int> result{-2};
    std::thread consumer([&] {
        HvBaseEvent* event = queue.getItem();
        result = idOf(event);
        delete event;
        returned = true;
    });
    settle();
    queue.WakeUpAll();
    ASSERT_TRUE(hvtest::waitUntil([&] { return returned.load(); }));
    consumer.join();
    EXPECT_EQ(-1, result.load());
    EXPECT_EQ(0u, queue.getSize());
    for (int id = 0; id < 5000; ++id) {
        queue.addItem(new TestEvent(id));
        std::unique_ptr<HvBaseEvent> event(queue.getItem());
        ASSERT_EQ(id, idOf(event.get()));
    }
    EXPECT_EQ(0u, queue.getSize());
}

TEST(HvEventQueue, UnlockedQueueBetweenOneProducerAndOneConsumerThread)
{
    const int count = 100000;
    HvEventQueue queue(HvEventQueue::UNLOCKED);
    std::atomic<int> mismatches{0};
    std::thread consumer([&] {
        for (int id = 0; id < count; ++id) {
            std::unique_ptr<HvBaseEvent> event(queue.getItem());
            if (idOf(event.get()) != id)
                mismatches.fetch_add(1);
        }
    });
    for (int id = 0; id < count; ++id)
        queue.addItem(new TestEvent(id));
    consumer.join();
    EXPECT_EQ(0, mismatches.load());
    EXPECT_EQ(0u, queue.getSize());
}
