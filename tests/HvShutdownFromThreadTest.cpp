// Shutdown run by one of the program's forked threads rather than by the
// main thread: it waits for every other thread, not for itself, and its own
// thread leaves the table once it returns.
#include <HvUtil/HvThread.h>

#include <HvUtil/HvProcess.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <vector>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

} // namespace

TEST(HvShutdownFromThread, ShutdownCalledByARegisteredThreadReturns)
{
    HvProcess::sGetCurrent();
    std::vector<HvHandle<hvtest::LambdaThread>> others;
    for (int i = 0; i < 2; ++i) {
        others.push_back(HvHandle<hvtest::LambdaThread>(new hvtest::LambdaThread([](hvtest::LambdaThread& self) {
            while (self.getState() != HvThread::EXITING)
                self.wait(HvThread::kNoTimeout);
        })));
        others.back()->fork();
    }
    ASSERT_TRUE(hvtest::waitUntil([] { return HvThread::sGetThreadCount() == 2; }));

    std::atomic<bool> returned{false};
    std::atomic<int> othersLeftWhenReturned{-1};
    HvHandle<hvtest::LambdaThread> stopper(new hvtest::LambdaThread([&](hvtest::LambdaThread&) {
        HvThread::sShutdown();
        // Only the stopper itself is still registered.
        othersLeftWhenReturned = static_cast<int>(HvThread::sGetThreadCount());
        returned = true;
    }));
    stopper->fork();

    ASSERT_TRUE(hvtest::waitUntil([&] { return returned.load(); }, std::chrono::milliseconds(10000)));
    EXPECT_EQ(1, othersLeftWhenReturned.load());
    for (auto& other : others)
        EXPECT_EQ(HvThread::DETACHED, other->getState());
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(stopper.get()); }));
    EXPECT_TRUE(hvtest::waitUntil([] { return HvThread::sIsShutdownCompleted(); }));
    EXPECT_EQ(0u, HvThread::sGetThreadCount());
    EXPECT_TRUE(HvThread::sShuttingDown());
}
