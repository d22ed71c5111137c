// Shutdown with threads blocked on event queues: a consumer waiting for an
// event and a producer waiting for a free place. The queue wake-up steps of
// the protocol release both.
#include <HvUtil/HvEventQueue.h>

#include <HvUtil/HvBaseEvent.h>
#include <HvUtil/HvThread.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

std::atomic<int> fs_eventsDeleted{0};
class CountedEvent : public HvBaseEvent {
public:
    ~CountedEvent() override { fs_eventsDeleted.fetch_add(1); }
};

// Stand for two dispatchers' queues, woken by their shutdown hooks.
HvEventQueue* fs_pInputQueue = nullptr;
HvEventQueue* fs_pOutputQueue = nullptr;
void wakeInput()
{
    if (fs_pInputQueue)
        fs_pInputQueue->WakeUpAll();
}
void wakeOutput()
{
    if (fs_pOutputQueue)
        fs_pOutputQueue->WakeUpAll();
}

} // namespace

TEST(HvShutdownQueue, BlockedConsumerAndProducerAreReleasedByTheShutdown)
{
    HvEventQueue input(HvEventQueue::UNLOCKED);
    HvEventQueue output(HvEventQueue::LOCKED);
    fs_pInputQueue = &input;
    fs_pOutputQueue = &output;
    HvThread::sSetShutdownHook(HvThread::WAKE_UDP_INPUT_DISPATCHER_QUEUE, &wakeInput);
    HvThread::sSetShutdownHook(HvThread::WAKE_TCP_OUTPUT_DISPATCHER_QUEUE, &wakeOutput);

    for (int i = 0; i < 4096; ++i)
        output.addItem(new CountedEvent);

    std::atomic<int> consumed{0};
    std::atomic<bool> consumerGotNull{false};
    HvHandle<hvtest::LambdaThread> consumer(new hvtest::LambdaThread([&](hvtest::LambdaThread& self) {
        while (self.getState() != HvThread::EXITING) {
            HvBaseEvent* event = input.getItem();
            if (!event) {
                consumerGotNull = true;
                break;
            }
            consumed.fetch_add(1);
            delete event;
        }
    }));
    std::atomic<bool> producerReturned{false};
    HvHandle<hvtest::LambdaThread> producer(new hvtest::LambdaThread([&](hvtest::LambdaThread& self) {
        while (self.getState() != HvThread::EXITING)
            output.addItem(new CountedEvent);
        producerReturned = true;
    }));
    consumer->fork();
    producer->fork();
    input.addItem(new CountedEvent);
    ASSERT_TRUE(hvtest::waitUntil([&] { return consumed.load() == 1; }));
    ASSERT_TRUE(hvtest::waitUntil([&] { return HvThread::sGetThreadCount() == 2; }));
    // Both are now blocked on a semaphore.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(consumerGotNull.load());
    EXPECT_FALSE(producerReturned.load());
    int deletedBefore = fs_eventsDeleted.load();

    auto start = std::chrono::steady_clock::now();
    HvThread::sShutdown();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_TRUE(consumerGotNull.load());
    EXPECT_TRUE(producerReturned.load());
    // The producer dropped the event it was blocked with; the ring is as full as before.
    EXPECT_EQ(deletedBefore + 1, fs_eventsDeleted.load());
    EXPECT_EQ(4096u, output.getSize());
    EXPECT_EQ(0u, input.getSize());
    EXPECT_EQ(0u, HvThread::sGetThreadCount());
    EXPECT_TRUE(HvThread::sIsShutdownCompleted());

    HvThread::sSetShutdownHook(HvThread::WAKE_UDP_INPUT_DISPATCHER_QUEUE, nullptr);
    HvThread::sSetShutdownHook(HvThread::WAKE_TCP_OUTPUT_DISPATCHER_QUEUE, nullptr);
    fs_pInputQueue = nullptr;
    fs_pOutputQueue = nullptr;
}
