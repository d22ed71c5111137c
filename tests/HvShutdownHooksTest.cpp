// The shutdown steps of the classes built on threads run through the hook
// slots: after every thread was terminated, in slot order, each once.
#include <HvUtil/HvThread.h>

#include <HvUtil/HvProcess.h>
#include <HvUtil/HvSocketFactory.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

std::mutex fs_callsMutex;
std::vector<int> fs_calls;
// States of the watched thread as each hook saw it.
std::vector<int> fs_statesSeen;
HvThread* fs_pWatched = nullptr;

template <int Slot>
void hook()
{
    std::lock_guard<std::mutex> lock(fs_callsMutex);
    fs_calls.push_back(Slot);
    fs_statesSeen.push_back(fs_pWatched ? fs_pWatched->getState() : -1);
}

void replacedHook()
{
    std::lock_guard<std::mutex> lock(fs_callsMutex);
    fs_calls.push_back(100);
}

} // namespace

TEST(HvShutdownHooks, SlotsAreFixedAndInstallingReturnsThePreviousHook)
{
    EXPECT_EQ(0, HvThread::WAKE_TIMER_DISPATCHER_QUEUE);
    EXPECT_EQ(1, HvThread::WAKE_UDP_INPUT_DISPATCHER_QUEUE);
    EXPECT_EQ(2, HvThread::WAKE_TCP_INPUT_DISPATCHER_QUEUE);
    EXPECT_EQ(3, HvThread::WAKE_UDP_OUTPUT_DISPATCHER_QUEUE);
    EXPECT_EQ(4, HvThread::WAKE_TCP_OUTPUT_DISPATCHER_QUEUE);
    EXPECT_EQ(5, HvThread::CLOSE_FILE_INPUT_STREAMS);
    EXPECT_EQ(6, HvThread::CLOSE_SOCKETS);
    EXPECT_EQ(7, HvThread::SHUTDOWN_HOOK_COUNT);

    // The socket registry fills its slot as soon as the library is loaded.
    HvThread::ShutdownHookFunction closeAll = HvThread::sSetShutdownHook(HvThread::CLOSE_SOCKETS, &replacedHook);
    EXPECT_EQ(&HvSocketFactory::sCloseAll, closeAll);
    EXPECT_EQ(&replacedHook, HvThread::sSetShutdownHook(HvThread::CLOSE_SOCKETS, nullptr));
    EXPECT_EQ(nullptr, HvThread::sSetShutdownHook(HvThread::CLOSE_SOCKETS, closeAll));
    EXPECT_EQ(nullptr, HvThread::sSetShutdownHook(HvThread::SHUTDOWN_HOOK_COUNT, &replacedHook));
}

TEST(HvShutdownHooks, HooksRunInSlotOrderAfterTheThreadsWereTerminated)
{
    // Installed out of order, one slot left empty, one replaced.
    HvThread::sSetShutdownHook(HvThread::CLOSE_SOCKETS, &hook<6>);
    HvThread::sSetShutdownHook(HvThread::WAKE_TCP_OUTPUT_DISPATCHER_QUEUE, &hook<4>);
    HvThread::sSetShutdownHook(HvThread::WAKE_TIMER_DISPATCHER_QUEUE, &replacedHook);
    HvThread::sSetShutdownHook(HvThread::WAKE_TIMER_DISPATCHER_QUEUE, &hook<0>);
    HvThread::sSetShutdownHook(HvThread::WAKE_TCP_INPUT_DISPATCHER_QUEUE, &hook<2>);
    HvThread::sSetShutdownHook(HvThread::WAKE_UDP_INPUT_DISPATCHER_QUEUE, &hook<1>);
    HvThread::sSetShutdownHook(HvThread::CLOSE_FILE_INPUT_STREAMS, &hook<5>);

    // Ignores the stop request until the hooks have run, so that they see it
    // still registered and terminated.
    std::atomic<bool> release{false};
    HvHandle<hvtest::LambdaThread> thread(new hvtest::LambdaThread([&](hvtest::LambdaThread&) {
        while (!release.load())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }));
    fs_pWatched = thread.get();
    thread->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return thread->getState() == HvThread::RUNNING; }));

    HvThread::sAsyncShutdown();
    {
        std::lock_guard<std::mutex> lock(fs_callsMutex);
        EXPECT_EQ((std::vector<int>{0, 1, 2, 4, 5, 6}), fs_calls);
        EXPECT_EQ(std::vector<int>(6, HvThread::EXITING), fs_statesSeen);
        fs_pWatched = nullptr;
    }
    release = true;
    auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(HvThread::sWaitUntilDone());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_TRUE(HvThread::sIsShutdownCompleted());
}
