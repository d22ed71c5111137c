// Shutdown with a thread pool that has idle and busy workers: every worker
// stops, the pool stops growing and pooling, and failures of notification
// work are no longer programming errors.
#include <HvUtil/HvThreadPool.h>

#include <HvUtil/HvException.h>
#include <HvUtil/HvObservable.h>
#include <HvUtil/HvThread.h>
#include <HvUtil/HvWorkerThread.h>

#include <Velmora/LogCapture.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

// Holds its worker until released, then throws; or throws at once.
class ThrowingObserver : public HvObserver {
public:
    void onNotification(HvHandle<HvObservable>, HvHandle<HvObject>) override
    {
        m_calls.fetch_add(1);
        m_thread = std::this_thread::get_id();
        if (m_hold.load()) {
            m_held = true;
            while (!m_release.load())
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        HvException::sThrow("closed under me");
    }
    std::atomic<int> m_calls{0};
    std::atomic<bool> m_hold{false};
    std::atomic<bool> m_held{false};
    std::atomic<bool> m_release{false};
    std::atomic<std::thread::id> m_thread;
};

// Everything a failure of caller-side work could be reported on: the
// default error stream in exception debug mode and the pool's and the
// workers' loggers.
class FailureReports {
public:
    FailureReports() : m_pool("ferrowind.hv.HvThreadPool"), m_worker("ferrowind.hv.HvWorkerThread") {}
    std::string written() const { return m_debug.text(); }
    std::size_t logged() const { return m_pool.records().size() + m_worker.records().size(); }

private:
    hvtest::DebugOutputCapture m_debug;
    Velmora::LogCapture m_pool;
    Velmora::LogCapture m_worker;
};

} // namespace

// Must run before the shutdown: the same failure is reported outside it.
TEST(HvShutdownPool, FailureOfWorkDoneByTheCallerIsReportedBeforeShutdown)
{
    ASSERT_FALSE(HvThread::sShuttingDown());
    hvtest::AssertionScope recorder;
    FailureReports reports;
    HvHandle<ThrowingObserver> observer(new ThrowingObserver);
    HvThreadPool pool(nullptr, 0);
    EXPECT_NO_THROW(pool.doObserverNotifications(observer.get(), nullptr));
    EXPECT_EQ(1, observer->m_calls.load());
    EXPECT_EQ("catch exception in HvThreadPool::mDoItYourSelf(): closed under me\n", reports.written());
    EXPECT_EQ(0u, hvtest::assertionCount());
}

TEST(HvShutdownPool, ShutdownStopsIdleAndBusyWorkersAndThePoolStopsGrowing)
{
    hvtest::AssertionScope recorder;
    HvHandle<ThrowingObserver> busy(new ThrowingObserver);
    busy->m_hold = true;
    HvThreadPool pool(nullptr, 3);

    // One idle worker and one busy in a notification.
    HvWorkerThread* first = pool.getAvailable();
    HvWorkerThread* second = pool.getAvailable();
    pool.makeAvailable(first);
    pool.makeAvailable(second);
    pool.doObserverNotifications(busy.get(), nullptr);
    ASSERT_TRUE(hvtest::waitUntil([&] { return busy->m_held.load(); }));
    EXPECT_EQ(2, pool.getThreadCount());
    EXPECT_EQ(1, pool.getBusyCount());
    EXPECT_EQ(1, pool.getAvailableCount());
    ASSERT_TRUE(hvtest::waitUntil([&] { return HvThread::sGetThreadCount() == 2; }));

    Velmora::LogCapture capture("ferrowind.hv.HvWorkerThread");
    HvThread::sAsyncShutdown();
    // The busy worker's job fails because the shutdown closed what it used.
    busy->m_release = true;
    auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(HvThread::sWaitUntilDone());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_EQ(0u, HvThread::sGetThreadCount());
    EXPECT_TRUE(HvThread::sIsShutdownCompleted());

    // During shutdown such a failure is expected: debug line, no assertion.
    std::vector<Velmora::LogRecord> records = capture.records();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ("Catched a HvException in HvWorkerThread::run(): closed under me", records[0].message);
    EXPECT_EQ(10000, records[0].level);
    EXPECT_EQ(0u, hvtest::assertionCount());

    // Workers that ended are neither counted out nor handed out again, and
    // no new one is made: the caller does the work.
    EXPECT_EQ(2, pool.getThreadCount());
    EXPECT_EQ(0, pool.getAvailableCount());
    EXPECT_EQ(nullptr, pool.getAvailable());
    HvHandle<ThrowingObserver> late(new ThrowingObserver);
    pool.doObserverNotifications(late.get(), nullptr);
    EXPECT_EQ(1, late->m_calls.load());
    EXPECT_EQ(std::this_thread::get_id(), late->m_thread.load());
    pool.makeAvailable(first);
    EXPECT_EQ(0, pool.getAvailableCount());
}

TEST(HvShutdownPool, FailureOfWorkDoneByTheCallerDuringShutdownWritesNothing)
{
    ASSERT_TRUE(HvThread::sShuttingDown());
    hvtest::AssertionScope recorder;
    FailureReports reports;
    HvHandle<ThrowingObserver> observer(new ThrowingObserver);
    HvHandle<HvObservable> source(new HvObservable);
    source->attachObserver(observer);
    HvThreadPool pool(nullptr, 1);
    testing::internal::CaptureStderr();
    EXPECT_NO_THROW(pool.mDoItYourSelf(2, nullptr, observer.get(), nullptr));
    EXPECT_NO_THROW(pool.mDoItYourSelf(1, source.get(), nullptr, nullptr));
    // No worker is made during shutdown: the caller does it.
    EXPECT_NO_THROW(pool.doObserverNotifications(observer.get(), nullptr));
    EXPECT_NO_THROW(pool.doSourceNotifications(source.get(), nullptr));
    std::string stderrText = testing::internal::GetCapturedStderr();
    EXPECT_EQ(4, observer->m_calls.load());
    EXPECT_EQ(std::this_thread::get_id(), observer->m_thread.load());
    EXPECT_EQ("", reports.written());
    EXPECT_EQ(0u, reports.logged());
    EXPECT_EQ("", stderrText);
    EXPECT_EQ(0u, hvtest::assertionCount());
    source->detachObserver(observer);
}
