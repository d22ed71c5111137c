#include <HvUtil/HvWorkerThread.h>

#include <HvUtil/HvException.h>
#include <HvUtil/HvObservable.h>
#include <HvUtil/HvStringBuffer.h>
#include <HvUtil/HvThreadPool.h>

#include <Velmora/Assertion.h>
#include <Velmora/LogCapture.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

class DefaultScheduling : public ::testing::Environment {
public:
    void SetUp() override { HvThread::sm_bRealTimeScheduling = false; }
};
::testing::Environment* const fs_environment = ::testing::AddGlobalTestEnvironment(new DefaultScheduling);

template <class Predicate>
bool waitUntil(Predicate predicate, int timeoutMs = 10000)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!predicate()) {
        if (std::chrono::steady_clock::now() > deadline)
            return predicate();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

bool ended(HvThread* thread)
{
    return thread->getState() == HvThread::DETACHED && thread->getToken() != 0 &&
           HvThread::sGetByToken(thread->getToken()) != thread;
}

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

struct AssertionRecord {
    std::string text;
    std::string file;
    int line;
};
std::mutex fs_assertionMutex;
std::vector<AssertionRecord> fs_assertions;
void recordAssertion(const char* text, const char* file, int line)
{
    std::lock_guard<std::mutex> lock(fs_assertionMutex);
    fs_assertions.push_back(AssertionRecord{text ? text : "", file ? file : "", line});
}
size_t assertionCount()
{
    std::lock_guard<std::mutex> lock(fs_assertionMutex);
    return fs_assertions.size();
}

class AssertionRecorder {
public:
    AssertionRecorder()
    {
        std::lock_guard<std::mutex> lock(fs_assertionMutex);
        fs_assertions.clear();
        m_previous = Velmora::Assertion::sSetHandler(&recordAssertion);
    }
    ~AssertionRecorder() { Velmora::Assertion::sSetHandler(m_previous); }

private:
    Velmora::Assertion::Handler m_previous;
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
    ASSERT_TRUE(waitUntil([&] { return worker->getState() == HvThread::BLOCKED; }));

    worker->doObserverNotifications(observer.get(), object.get());
    EXPECT_EQ(HvWorkerThread::kObserverNotification, worker->getKind());
    ASSERT_TRUE(waitUntil([&] { return observer->m_calls.load() == 1; }));
    {
        std::lock_guard<std::mutex> lock(observer->m_mutex);
        EXPECT_EQ(nullptr, observer->m_source);
        EXPECT_EQ(object.get(), observer->m_object);
        EXPECT_NE(std::this_thread::get_id(), observer->m_thread);
    }
    // The worker lets go of what it delivered.
    ASSERT_TRUE(waitUntil([&] { return object->getRefCount() == 1 && observer->getRefCount() == 1; }));

    worker->terminate();
    ASSERT_TRUE(waitUntil([&] { return ended(worker.get()); }));
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
    ASSERT_TRUE(waitUntil([&] { return observer->m_calls.load() == 1; }));
    {
        std::lock_guard<std::mutex> lock(observer->m_mutex);
        EXPECT_EQ(source.get(), observer->m_source);
        EXPECT_EQ(object.get(), observer->m_object);
        EXPECT_NE(std::this_thread::get_id(), observer->m_thread);
    }
    ASSERT_TRUE(waitUntil([&] { return object->getRefCount() == 1; }));
    worker->terminate();
    ASSERT_TRUE(waitUntil([&] { return ended(worker.get()); }));
    source->detachObserver(observer);
}

TEST(HvWorkerThread, HvExceptionOutsideShutdownIsLoggedAsErrorAssertedAndSurvived)
{
    AssertionRecorder recorder;
    Velmora::LogCapture capture("ferrowind.hv.HvWorkerThread");
    HvHandle<RecordingObserver> observer(new RecordingObserver);
    observer->m_behaviour = RecordingObserver::THROW_HV;
    HvHandle<HvWorkerThread> worker(new HvWorkerThread(nullptr));
    worker->fork();

    worker->doObserverNotifications(observer.get(), nullptr);
    ASSERT_TRUE(waitUntil([&] { return assertionCount() == 1; }));
    {
        std::lock_guard<std::mutex> lock(fs_assertionMutex);
        EXPECT_EQ("false", fs_assertions[0].text);
        EXPECT_EQ("HvWorkerThread", fs_assertions[0].file);
        EXPECT_EQ(91, fs_assertions[0].line);
    }
    std::vector<Velmora::LogRecord> records = capture.records();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ("Catched a HvException in HvWorkerThread::run(): observer failed", records[0].message);
    EXPECT_EQ(40000, records[0].level);

    // The worker is still there and takes the next job.
    ASSERT_TRUE(waitUntil([&] { return worker->getState() == HvThread::BLOCKED; }));
    observer->m_behaviour = RecordingObserver::RECORD;
    worker->doObserverNotifications(observer.get(), nullptr);
    ASSERT_TRUE(waitUntil([&] { return observer->m_calls.load() == 2; }));
    worker->terminate();
    ASSERT_TRUE(waitUntil([&] { return ended(worker.get()); }));
}

TEST(HvWorkerThread, OtherExceptionsDoNotEndTheWorkerEither)
{
    AssertionRecorder recorder;
    Velmora::LogCapture capture("ferrowind.hv.HvWorkerThread");
    HvHandle<RecordingObserver> observer(new RecordingObserver);
    observer->m_behaviour = RecordingObserver::THROW_STD;
    HvHandle<HvWorkerThread> worker(new HvWorkerThread(nullptr));
    worker->fork();
    worker->doObserverNotifications(observer.get(), nullptr);
    ASSERT_TRUE(waitUntil([&] { return assertionCount() == 1; }));
    EXPECT_TRUE(capture.contains("Catched a HvException in HvWorkerThread::run(): plain failure"));
    observer->m_behaviour = RecordingObserver::RECORD;
    ASSERT_TRUE(waitUntil([&] { return worker->getState() == HvThread::BLOCKED; }));
    worker->doObserverNotifications(observer.get(), nullptr);
    ASSERT_TRUE(waitUntil([&] { return observer->m_calls.load() == 2; }));
    worker->terminate();
    ASSERT_TRUE(waitUntil([&] { return ended(worker.get()); }));
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
    ASSERT_TRUE(waitUntil([&] { return pool.getAvailableCount() == 1; }));
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
    ASSERT_TRUE(waitUntil([&] { return worker->getState() == HvThread::BLOCKED; }));
    worker->terminate();
    ASSERT_TRUE(waitUntil([&] { return pool.getThreadCount() == 0; }));
    EXPECT_EQ(0, pool.getAvailableCount());
    ASSERT_TRUE(waitUntil([&] { return ended(worker); }));
}
