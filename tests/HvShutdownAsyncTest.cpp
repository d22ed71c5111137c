// sAsyncShutdown() starts the protocol and returns without waiting; the
// waiting is sWaitUntilDone()'s, in rounds of at most 100 ms.
#include <HvUtil/HvThread.h>

#include <HvUtil/HvProcess.h>

#include <Velmora/LogCapture.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

} // namespace

TEST(HvShutdownAsync, AsyncShutdownReturnsWhileThreadsStillRun)
{
    std::atomic<bool> release{false};
    HvHandle<hvtest::LambdaThread> stubborn(new hvtest::LambdaThread([&](hvtest::LambdaThread&) {
        while (!release.load())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }));
    HvHandle<hvtest::LambdaThread> obedient(new hvtest::LambdaThread([](hvtest::LambdaThread& self) {
        while (self.getState() != HvThread::EXITING)
            self.wait(HvThread::kNoTimeout);
    }));
    stubborn->fork();
    obedient->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return HvThread::sGetThreadCount() == 2; }));

    Velmora::LogCapture capture("ferrowind.hv.HvThread");
    HvThread::sAsyncShutdown();
    EXPECT_TRUE(capture.contains("ENTER: HvThread::sAsyncShutdown"));
    EXPECT_TRUE(capture.contains("ENTER: HvThread::sInitiateShutdown"));
    EXPECT_FALSE(capture.contains("ENTER: HvThread::sWaitUntilDone"));
    EXPECT_TRUE(HvThread::sShuttingDown());
    EXPECT_EQ(HvThread::EXITING, stubborn->getState());
    // The stubborn thread cannot have left: the shutdown is not complete.
    EXPECT_FALSE(HvThread::sIsShutdownCompleted());
    ASSERT_TRUE(hvtest::waitUntil([&] { return HvThread::sGetThreadCount() == 1; }));
    EXPECT_EQ(HvThread::DETACHED, obedient->getState());

    // Rounds of 100 ms while the stubborn thread keeps going.
    std::thread releaser([&] {
        hvtest::waitUntil([&] { return capture.contains("Waiting 100ms for HvProcess. Thread table size = 1"); });
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
        release = true;
    });
    auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(HvThread::sWaitUntilDone());
    auto took = std::chrono::steady_clock::now() - start;
    releaser.join();
    EXPECT_GE(took, std::chrono::milliseconds(200));
    EXPECT_LT(took, std::chrono::seconds(10));
    EXPECT_TRUE(HvThread::sIsShutdownCompleted());
    EXPECT_EQ(0u, HvThread::sGetThreadCount());

    int rounds = 0;
    for (const Velmora::LogRecord& record : capture.records()) {
        if (record.message == "Waiting 100ms for HvProcess. Thread table size = 1") {
            ++rounds;
            EXPECT_EQ(10000, record.level);
            EXPECT_EQ("HvThread", record.file);
            EXPECT_EQ(268, record.line);
        }
    }
    // At most 100 ms a round: the 250 ms wait takes several.
    EXPECT_GE(rounds, 2);
}
