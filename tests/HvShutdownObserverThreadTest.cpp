// An observer thread whose source keeps failing while the process shuts
// down: the thread does not report the failures, signals itself out of its
// wait and ends, so the shutdown completes.
#include <HvUtil/HvObserverThread.h>

#include <HvUtil/HvMonitorThread.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

// Blocks until the shutdown has begun, then fails; fails on every later call.
class FailingAtShutdownObservable : public HvObservable {
public:
    bool block() override
    {
        calls.fetch_add(1);
        while (!HvThread::sShuttingDown())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        HvException::sThrow("source closed");
    }
    std::atomic<int> calls{0};
};

} // namespace

TEST(HvShutdownObserverThread, SourceFailingDuringShutdownEndsTheThreadSilently)
{
    hvtest::DebugOutputCapture debug;
    HvHandle<FailingAtShutdownObservable> source(new FailingAtShutdownObservable);
    HvHandle<HvObserverThread> thread = HvMonitorThread::monitorObservable(source.get());
    ASSERT_TRUE(hvtest::waitUntil([&] { return source->calls.load() == 1; }));

    auto start = std::chrono::steady_clock::now();
    HvThread::sShutdown();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GT(10.0, seconds);
    EXPECT_TRUE(HvThread::sIsShutdownCompleted());
    EXPECT_TRUE(hvtest::hasEnded(thread.get()));
    EXPECT_EQ(1, source->calls.load());
    EXPECT_EQ("", debug.text());
}
