// The main thread's life as the process object: main() runs run(), which
// sleeps until signalled, and then the whole shutdown protocol.
#include <HvUtil/HvProcess.h>

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

TEST(HvShutdownProcessMain, ProcessMainSleepsUntilSignalledThenShutsEverythingDown)
{
    HvProcess* process = HvProcess::sGetCurrent();
    std::vector<HvHandle<hvtest::LambdaThread>> workers;
    for (int i = 0; i < 4; ++i) {
        workers.push_back(HvHandle<hvtest::LambdaThread>(new hvtest::LambdaThread([](hvtest::LambdaThread& self) {
            while (self.getState() != HvThread::EXITING)
                self.wait(HvThread::kNoTimeout);
        })));
        workers.back()->fork();
    }
    ASSERT_TRUE(hvtest::waitUntil([] { return HvThread::sGetThreadCount() == 4; }));

    // One of the program's threads asks the main thread to end.
    HvHandle<hvtest::LambdaThread> stopper(new hvtest::LambdaThread([process](hvtest::LambdaThread&) {
        while (process->getState() != HvThread::BLOCKED)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        process->signal();
    }));
    stopper->fork();

    Velmora::LogCapture capture("ferrowind.hv.HvThread");
    auto start = std::chrono::steady_clock::now();
    process->main();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));

    EXPECT_TRUE(HvThread::sShuttingDown());
    EXPECT_EQ(0u, HvThread::sGetThreadCount());
    EXPECT_TRUE(HvThread::sIsShutdownCompleted());
    EXPECT_EQ(HvThread::DETACHED, process->getState());
    for (auto& worker : workers)
        EXPECT_EQ(HvThread::DETACHED, worker->getState());
    // The process never was in the table and is not removed from it.
    std::vector<Velmora::LogRecord> records = capture.records();
    auto position = [&](const std::string& message) {
        return std::find_if(records.begin(), records.end(),
                            [&](const Velmora::LogRecord& r) { return r.message == message; });
    };
    auto processBranch = position("this == HvProcess::sm_pTheOneAndOnly");
    ASSERT_NE(records.end(), processBranch);
    EXPECT_EQ(0, processBranch->level);
    auto shutdown = position("ENTER: HvThread::sShutdown");
    ASSERT_NE(records.end(), shutdown);
    EXPECT_LT(processBranch - records.begin(), shutdown - records.begin());
    EXPECT_NE(records.end(), position("Invoking run"));
}
