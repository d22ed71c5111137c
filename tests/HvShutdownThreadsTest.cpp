// Process-wide shutdown with several kinds of threads running: the protocol
// stops them all and returns in bounded time with an empty table; afterwards
// no thread may be constructed.
#include <HvUtil/HvThread.h>

#include <HvUtil/HvProcess.h>

#include <Velmora/Assertion.h>
#include <Velmora/LogCapture.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

} // namespace

TEST(HvShutdownThreads, ShutdownStopsEveryKindOfThreadAndEmptiesTheTable)
{
    std::vector<HvHandle<hvtest::LambdaThread>> threads;
    // Sleeping without time-out until terminated.
    for (int i = 0; i < 3; ++i) {
        threads.push_back(HvHandle<hvtest::LambdaThread>(new hvtest::LambdaThread([](hvtest::LambdaThread& self) {
            while (self.getState() != HvThread::EXITING)
                self.wait(HvThread::kNoTimeout);
        })));
    }
    // Polling the shutdown flag between short waits.
    for (int i = 0; i < 2; ++i) {
        threads.push_back(HvHandle<hvtest::LambdaThread>(new hvtest::LambdaThread([](hvtest::LambdaThread& self) {
            while (!HvThread::sShuttingDown())
                self.wait(20);
        })));
    }
    // Busy, checking its own state.
    threads.push_back(HvHandle<hvtest::LambdaThread>(new hvtest::LambdaThread([](hvtest::LambdaThread& self) {
        while (self.getState() != HvThread::EXITING)
            std::this_thread::yield();
    })));
    for (auto& thread : threads)
        thread->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return HvThread::sGetThreadCount() == threads.size(); }));
    EXPECT_FALSE(HvThread::sIsShutdownCompleted());

    Velmora::LogCapture capture("ferrowind.hv.HvThread");
    auto start = std::chrono::steady_clock::now();
    HvThread::sShutdown();
    auto took = std::chrono::steady_clock::now() - start;
    EXPECT_LT(took, std::chrono::seconds(10));

    EXPECT_TRUE(HvThread::sShuttingDown());
    EXPECT_EQ(0u, HvThread::sGetThreadCount());
    EXPECT_TRUE(HvThread::sIsShutdownCompleted());
    for (auto& thread : threads) {
        EXPECT_EQ(HvThread::DETACHED, thread->getState());
        EXPECT_EQ(nullptr, HvThread::sGetByToken(thread->getToken()));
    }

    std::vector<Velmora::LogRecord> records = capture.records();
    auto find = [&](const std::string& message) {
        return std::find_if(records.begin(), records.end(),
                            [&](const Velmora::LogRecord& r) { return r.message == message; });
    };
    EXPECT_NE(records.end(), find("ENTER: HvThread::sShutdown"));
    EXPECT_NE(records.end(), find("ENTER: HvThread::sInitiateShutdown"));
    EXPECT_NE(records.end(), find("ENTER: HvThread::sWaitUntilDone"));
    EXPECT_NE(records.end(), find("EXIT:  HvThread::sShutdown"));
    // Every constructed HvThread counts: six threads and the process object.
    auto threadNum = find("threadNum=7");
    ASSERT_NE(records.end(), threadNum);
    EXPECT_EQ(10000, threadNum->level);
    EXPECT_EQ("HvThread", threadNum->file);
    EXPECT_EQ(253, threadNum->line);
    EXPECT_NE(records.end(), find("fs_bShutDown && this != HvProcess::sm_pTheOneAndOnly"));
    for (const Velmora::LogRecord& record : records) {
        if (record.message.rfind("Waiting 100ms for HvProcess. Thread table size = ", 0) == 0) {
            EXPECT_EQ(10000, record.level);
            EXPECT_EQ(268, record.line);
        }
    }
}

TEST(HvShutdownThreads, ConstructionAfterShutdownBeganIsReported)
{
    ASSERT_TRUE(HvThread::sShuttingDown());
    {
        hvtest::AssertionScope recorder;
        HvHandle<hvtest::LambdaThread> late(new hvtest::LambdaThread([](hvtest::LambdaThread&) {}));
        HvHandle<hvtest::ProcessStyleThread> processStyle(new hvtest::ProcessStyleThread);
    }
    std::vector<hvtest::AssertionRecord> assertions = hvtest::recordedAssertions();
    ASSERT_EQ(2u, assertions.size());
    hvtest::expectAssertion(assertions[0], "!fs_bShutDown", "HvThread", 105);
    hvtest::expectAssertion(assertions[1], "!fs_bShutDown", "HvThread", 124);
}

TEST(HvShutdownThreads, ThreadForkedAfterShutdownStopsItselfBeforeRun)
{
    Velmora::Assertion::Handler previous = Velmora::Assertion::sSetHandler(&hvtest::recordAssertion);
    std::atomic<int> runs{0};
    HvHandle<hvtest::LambdaThread> late(new hvtest::LambdaThread([&](hvtest::LambdaThread& self) {
        runs.fetch_add(1);
        while (self.getState() != HvThread::EXITING)
            self.wait(HvThread::kNoTimeout);
    }));
    Velmora::Assertion::sSetHandler(previous);
    late->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return late->getState() == HvThread::DETACHED && late->getToken() != 0; }));
    EXPECT_TRUE(HvThread::sWaitUntilDone());
    EXPECT_EQ(0, runs.load());
    EXPECT_EQ(0u, HvThread::sGetThreadCount());
}
