// Threads still being started while the shutdown runs: each one either was
// terminated by the protocol or stops itself when it registers, and the
// protocol waits for those that were starting.
#include <HvUtil/HvThread.h>

#include <HvUtil/HvProcess.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

} // namespace

TEST(HvShutdownRace, ThreadsStartedDuringTheShutdownAllEnd)
{
    // Threads made after the flag is set raise the construction assertion;
    // here that is expected and not the subject.
    hvtest::AssertionScope quiet(&hvtest::ignoreAssertion);
    HvProcess::sGetCurrent();
    std::atomic<bool> stop{false};
    std::atomic<int> forked{0};
    std::vector<std::thread> starters;
    for (int s = 0; s < 2; ++s) {
        starters.emplace_back([&] {
            while (!stop.load()) {
                HvHandle<hvtest::LambdaThread> thread(new hvtest::LambdaThread([](hvtest::LambdaThread& self) {
                    while (self.getState() != HvThread::EXITING)
                        self.wait(HvThread::kNoTimeout);
                }));
                thread->fork();
                forked.fetch_add(1);
            }
        });
    }
    const bool started = hvtest::waitUntil([&] { return forked.load() >= 50; });
    if (!started) {
        stop = true;
        for (std::thread& starter : starters)
            starter.join();
    }
    ASSERT_TRUE(started) << "only " << forked.load() << " threads forked";

    HvThread::sInitiateShutdown();
    // Starting goes on for a while after the protocol walked the table.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    stop = true;
    for (std::thread& starter : starters)
        starter.join();

    auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(HvThread::sWaitUntilDone());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_EQ(0u, HvThread::sGetThreadCount());
    EXPECT_TRUE(HvThread::sIsShutdownCompleted());
}
