// Shutdown in a program that never made the process object: the threads are
// all built with the process object's constructor. The protocol must neither
// make a process object (no thread may be constructed during shutdown) nor
// wait on one; it pauses between rounds instead.
#include <HvUtil/HvThread.h>

#include <HvUtil/HvProcess.h>

#include <Velmora/MemAllocator.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <chrono>
#include <vector>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

// A forked thread that does not ask for the process object: sleeps until
// terminated.
class ProcessLessThread : public HvThread {
public:
    ProcessLessThread() : HvThread(nullptr) {}
    void run() override
    {
        while (getState() != EXITING)
            wait(kNoTimeout);
    }
};

} // namespace

TEST(HvShutdownWithoutProcess, ShutdownEndsWithoutMakingAProcessObject)
{
    hvtest::AssertionScope recorder;
    std::vector<HvHandle<ProcessLessThread>> threads;
    for (int i = 0; i < 3; ++i) {
        threads.push_back(HvHandle<ProcessLessThread>(new ProcessLessThread));
        threads.back()->fork();
    }
    ASSERT_TRUE(hvtest::waitUntil([] { return HvThread::sGetThreadCount() == 3; }));
    for (auto& thread : threads)
        ASSERT_TRUE(hvtest::waitUntil([&] { return thread->getState() == HvThread::BLOCKED; }));
    ASSERT_EQ(nullptr, HvProcess::sm_pTheOneAndOnly.load());
    ASSERT_EQ(0, Velmora::allocationStats("HvProcess").liveCount);

    auto start = std::chrono::steady_clock::now();
    HvThread::sShutdown();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));

    EXPECT_EQ(0u, HvThread::sGetThreadCount());
    EXPECT_TRUE(HvThread::sIsShutdownCompleted());
    for (auto& thread : threads)
        EXPECT_EQ(HvThread::DETACHED, thread->getState());
    EXPECT_EQ(nullptr, HvProcess::sm_pTheOneAndOnly.load());
    EXPECT_EQ(0, Velmora::allocationStats("HvProcess").liveCount);
    EXPECT_EQ(0u, hvtest::assertionCount());
    // Waiting again finds nothing to wait for and still makes nothing.
    EXPECT_TRUE(HvThread::sWaitUntilDone());
    EXPECT_EQ(nullptr, HvProcess::sm_pTheOneAndOnly.load());
    EXPECT_EQ(0u, hvtest::assertionCount());
}
