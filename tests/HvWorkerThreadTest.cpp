#include <HvUtil/HvWorkerThread.h>

#include <HvUtil/HvException.h>
#include <HvUtil/HvObservable.h>
#include <HvUtil/HvStringBuffer.h>
#include <HvUtil/HvThreadPool.h>

#include <Velmora/LogCapture.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

// Records what it was notified with, and on which thread.
class RecordingObserver : public HvObserver {
public:
    enum Behaviour { RECORD, THROW_HV, THROW_STD };

    void onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object) override
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_source = source.get();
            m_object = object.get();
            m_thread = std::this_thread::get_id();
        }
        m_calls.fetch_add(1);
        if (m_behaviour == THROW_HV)
            HvException::sThrow("observer failed");
        if (m_behaviour == THROW_STD)
            throw std::runtime_error("plain failure");
    }

    std::atomic<int> m_calls{0};
    std::atomic<Behaviour> m_behaviour{RECORD};
    std::mutex m_mutex;
    HvObservable* m_source = nullptr;
    HvObject* m_object = nullptr;
    std::thread::id m_thread;
};

} // namespace

TEST(HvWorkerThread, NewWorkerHasNoWorkAndKeepsItsPool)
{
    HvThreadPool pool(nullptr, 1);
    HvHandle<HvWorkerThread> worker(new HvWorkerThread(&pool));
    EXPECT_EQ(&pool, worker->getPool());
    EXPECT_EQ(HvWorkerThread::kNone, worker->getKind());
    EXPECT_EQ(HvThread::DETACHED, worker->getState());
    EXPECT_EQ(1u, HvWorkerThread::kSourceNotification);
    EXPECT_EQ(2u, HvWorkerThread::kObserverNotification);
}

TEST(HvWorkerThread, DeliversAnObserverNotificationOnItsOwnThread)
{
    HvHandle<RecordingObserver> observer(new RecordingObserver);
    HvHandle<HvObject> object(new HvObject);
    HvHandle<HvWorkerThread> worker(new HvWorkerThread(nullptr));
    worker->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return worker->getState() == HvThread::BLOCKED; }));

    worker->doObserverNotifications(observer.get(), object.get());
    EXPECT_EQ(HvWorkerThread::kObserverNotification, worker->getKind());
    ASSERT_TRUE(hvtest::waitUntil([&] { return observer->m_calls.load() == 1; }));
    {
        std::lock_guard<std::mutex> lock(observer->m_mutex);
        EXPECT_EQ(nullptr, observer->m_source);
        EXPECT_EQ(object.get(), observer->m_object);
        EXPECT_NE(std::this_thread::get_id(), observer->m_thread);
    }
    // The worker lets go of what it delivered.
    ASSERT_TRUE(hvtest::waitUntil([&] { return object->getRefCount() == 1 && observer->getRefCount() == 1; }));

    worker->terminate();
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(worker.get()); }));
}

TEST(HvWorkerThread, DeliversASourceNotificationThroughTheSource)
{
    HvHandle<RecordingObserver> observer(new RecordingObserver);
    HvHandle<HvObservable> source(new HvObservable);
    source->attachObserver(observer);
    HvHandle<HvObject> object(new HvObject);
    HvHandle<HvWorkerThread> worker(new HvWorkerThread(nullptr));
    worker->fork();

    worker->doSourceNotifications(source.get(), object.get());
    EXPECT_EQ(HvWorkerThread::kSourceNotification, worker->getKind());
    ASSERT_TRUE(hvtest::waitUntil([&] { return observer->m_calls.load() == 1; }));
    {
        std::lock_guard<std::mutex> lock(observer->m_mutex);
        EXPECT_EQ(source.get(), observer->m_source);
        EXPECT_EQ(object.get(), observer->m_object);
        EXPECT_NE(std::this_thread::get_id(), observer->m_thread);
    }
    ASSERT_TRUE(hvtest::waitUntil([&] { return object->getRefCount() == 1; }));
    worker->terminate();
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(worker.get()); }));
    source->detachObserver(observer);
}

TEST(HvWorkerThread, HvExceptionOutsideShutdownIsLoggedAsErrorAssertedAndSurvived)
{
    hvtest::AssertionScope recorder;
    Velmora::LogCapture capture("ferrowind.hv.HvWorkerThread");
    HvHandle<RecordingObserver> observer(new RecordingObserver);
    observer->m_behaviour = RecordingObserver::THROW_HV;
    HvHandle<HvWorkerThread> worker(new HvWorkerThread(nullptr));
    worker->fork();

    worker->doObserverNotifications(observer.get(), nullptr);
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::assertionCount() == 1; }));
    std::vector<hvtest::AssertionRecord> assertions = hvtest::recordedAssertions();
    hvtest::expectAssertion(assertions[0], "false", "HvWorkerThread", 91);
    std::vector<Velmora::LogRecord> records = capture.records();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ("Catched a HvException in HvWorkerThread::run(): observer failed", records[0].message);
    EXPECT_EQ(40000, records[0].level);

    // The worker is still there and takes the next job.
    ASSERT_TRUE(hvtest::waitUntil([&] { return worker->getState() == HvThread::BLOCKED; }));
    observer->m_behaviour = RecordingObserver::RECORD;
    worker->doObserverNotifications(observer.get(), nullptr);
    ASSERT_TRUE(hvtest::waitUntil([&] { return observer->m_calls.load() == 2; }));
    worker->terminate();
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(worker.get()); }));
}

TEST(HvWorkerThread, OtherExceptionsDoNotEndTheWorkerEither)
{
    hvtest::AssertionScope recorder;
    Velmora::LogCapture capture("ferrowind.hv.HvWorkerThread");
    HvHandle<RecordingObserver> observer(new RecordingObserver);
    observer->m_behaviour = RecordingObserver::THROW_STD;
    HvHandle<HvWorkerThread> worker(new HvWorkerThread(nullptr));
    worker->fork();
    worker->doObserverNotifications(observer.get(), nullptr);
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::assertionCount() == 1; }));
    EXPECT_TRUE(capture.contains("Catched a HvException in HvWorkerThread::run(): plain failure"));
    observer->m_behaviour = RecordingObserver::RECORD;
    ASSERT_TRUE(hvtest::waitUntil([&] { return worker->getState() == HvThread::BLOCKED; }));
    worker->doObserverNotifications(observer.get(), nullptr);
    ASSERT_TRUE(hvtest::waitUntil([&] { return observer->m_calls.load() == 2; }));
    worker->terminate();
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(worker.get()); }));
}

TEST(HvWorkerThread, WorkerOfAPoolGoesBackToItAfterTheJob)
{
    HvHandle<RecordingObserver> observer(new RecordingObserver);
    HvThreadPool pool(nullptr, 2);
    HvWorkerThread* worker = pool.getAvailable();
    ASSERT_NE(nullptr, worker);
    EXPECT_EQ(&pool, worker->getPool());
    EXPECT_EQ(0, pool.getAvailableCount());
    worker->doObserverNotifications(observer.get(), nullptr);
    ASSERT_TRUE(hvtest::waitUntil([&] { return pool.getAvailableCount() == 1; }));
    EXPECT_EQ(1, observer->m_calls.load());
    EXPECT_EQ(1, pool.getThreadCount());
    EXPECT_EQ(0, pool.getBusyCount());
}

TEST(HvWorkerThread, TerminatedIdleWorkerRemovesItselfFromItsPool)
{
    HvThreadPool pool(nullptr, 2);
    HvWorkerThread* worker = pool.getAvailable();
    ASSERT_NE(nullptr, worker);
    pool.makeAvailable(worker);
    ASSERT_EQ(1, pool.getThreadCount());
    ASSERT_TRUE(hvtest::waitUntil([&] { return worker->getState() == HvThread::BLOCKED; }));
    worker->terminate();
    ASSERT_TRUE(hvtest::waitUntil([&] { return pool.getThreadCount() == 0; }));
    EXPECT_EQ(0, pool.getAvailableCount());
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(worker); }));
}
