#include <HvUtil/HvThreadPool.h>

#include <HvUtil/HvErrorStream.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvMutex.h>
#include <HvUtil/HvObservable.h>
#include <HvUtil/HvWorkerThread.h>

#include <Velmora/LogCapture.h>
#include <Velmora/MemAllocator.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

// Records its calls and their threads; can hold the calling thread until
// released, or throw.
class GateObserver : public HvObserver {
public:
    enum Behaviour { RECORD, HOLD, THROW_HV, THROW_STD, THROW_OTHER };

    void onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object) override
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_threads.push_back(std::this_thread::get_id());
            m_sources.push_back(source.get());
            m_objects.push_back(object.get());
        }
        m_calls.fetch_add(1);
        Behaviour behaviour = m_behaviour.load();
        if (behaviour == HOLD) {
            m_held.fetch_add(1);
            while (!m_release.load())
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            m_held.fetch_sub(1);
        } else if (behaviour == THROW_HV) {
            HvException::sThrow("observer failed");
        } else if (behaviour == THROW_STD) {
            throw std::runtime_error("plain failure");
        } else if (behaviour == THROW_OTHER) {
            throw 7;
        }
    }

    std::thread::id lastThread()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_threads.back();
    }

    std::atomic<int> m_calls{0};
    std::atomic<int> m_held{0};
    std::atomic<bool> m_release{false};
    std::atomic<Behaviour> m_behaviour{RECORD};
    std::mutex m_mutex;
    std::vector<std::thread::id> m_threads;
    std::vector<HvObservable*> m_sources;
    std::vector<HvObject*> m_objects;
};

std::atomic<int> fs_workersDestroyed{0};
std::atomic<int> fs_workersCreated{0};

class CountedWorker : public HvWorkerThread {
public:
    explicit CountedWorker(HvThreadPool* pool) : HvWorkerThread(pool) { fs_workersCreated.fetch_add(1); }
    ~CountedWorker() override { fs_workersDestroyed.fetch_add(1); }
};

// A pool that makes its own kind of worker.
class CountingPool : public HvThreadPool {
public:
    CountingPool(HvThread* thread, unsigned int maxThreads) : HvThreadPool(thread, maxThreads) {}
    HvWorkerThread* newThread() override { return new CountedWorker(this); }
};

} // namespace

TEST(HvThreadPool, NewPoolHasNoWorkersAndItsOwnLock)
{
    // The first pool also makes the default error stream (and the object
    // mutex pool under it), which stays: counted before.
    HvErrorStream::sGetDefault();
    long mutexes = Velmora::allocationStats("HvMutex").liveCount;
    {
        HvThreadPool pool(nullptr, 10);
        EXPECT_EQ(10, pool.getMaxThreads());
        EXPECT_EQ(0, pool.getThreadCount());
        EXPECT_EQ(0, pool.getAvailableCount());
        EXPECT_EQ(0, pool.getBusyCount());
        EXPECT_EQ(nullptr, pool.getThread());
        EXPECT_EQ(mutexes + 1, Velmora::allocationStats("HvMutex").liveCount);
    }
    EXPECT_EQ(mutexes, Velmora::allocationStats("HvMutex").liveCount);
}

TEST(HvThreadPool, GrowsOnDemandUpToItsLimit)
{
    HvThreadPool pool(nullptr, 2);
    HvWorkerThread* first = pool.getAvailable();
    HvWorkerThread* second = pool.getAvailable();
    ASSERT_NE(nullptr, first);
    ASSERT_NE(nullptr, second);
    EXPECT_NE(first, second);
    EXPECT_EQ(2, pool.getThreadCount());
    EXPECT_EQ(2, pool.getBusyCount());
    EXPECT_EQ(0, pool.getAvailableCount());
    // A new worker is handed out directly, running and waiting for its job.
    ASSERT_TRUE(hvtest::waitUntil([&] { return first->getState() == HvThread::BLOCKED; }));
    EXPECT_EQ(nullptr, pool.getAvailable());
    EXPECT_EQ(2, pool.getThreadCount());

    pool.makeAvailable(first);
    pool.makeAvailable(second);
    EXPECT_EQ(2, pool.getAvailableCount());
    EXPECT_EQ(0, pool.getBusyCount());
}

TEST(HvThreadPool, ReusesTheMostRecentlyIdleWorkerFirst)
{
    HvThreadPool pool(nullptr, 3);
    HvWorkerThread* first = pool.getAvailable();
    HvWorkerThread* second = pool.getAvailable();
    HvWorkerThread* third = pool.getAvailable();
    pool.makeAvailable(second);
    pool.makeAvailable(first);
    pool.makeAvailable(third);
    EXPECT_EQ(third, pool.getAvailable());
    EXPECT_EQ(first, pool.getAvailable());
    EXPECT_EQ(second, pool.getAvailable());
    EXPECT_EQ(3, pool.getThreadCount());
    pool.makeAvailable(first);
    EXPECT_EQ(first, pool.getAvailable());
    pool.makeAvailable(first);
    pool.makeAvailable(second);
    pool.makeAvailable(third);
}

TEST(HvThreadPool, RemoveForgetsOnlyAnIdleWorkerAndKeepsTheOrder)
{
    HvThreadPool pool(nullptr, 3);
    HvWorkerThread* first = pool.getAvailable();
    HvWorkerThread* second = pool.getAvailable();
    HvWorkerThread* third = pool.getAvailable();
    pool.makeAvailable(first);
    pool.makeAvailable(second);

    // Busy: not found, nothing changes.
    pool.remove(third);
    EXPECT_EQ(3, pool.getThreadCount());
    EXPECT_EQ(2, pool.getAvailableCount());

    pool.makeAvailable(third);
    pool.remove(second);
    EXPECT_EQ(2, pool.getThreadCount());
    EXPECT_EQ(2, pool.getAvailableCount());
    EXPECT_EQ(third, pool.getAvailable());
    EXPECT_EQ(first, pool.getAvailable());
    pool.makeAvailable(first);
    pool.makeAvailable(third);
    // The removed worker is no longer the pool's to hand out, but it is still
    // the pool's to stop when the pool goes.
}

TEST(HvThreadPool, ObserverNotificationIsDoneByAWorker)
{
    HvHandle<GateObserver> observer(new GateObserver);
    HvHandle<HvObject> object(new HvObject);
    HvThreadPool pool(nullptr, 2);
    pool.doObserverNotifications(observer.get(), object.get());
    ASSERT_TRUE(hvtest::waitUntil([&] { return observer->m_calls.load() == 1; }));
    EXPECT_NE(std::this_thread::get_id(), observer->lastThread());
    {
        std::lock_guard<std::mutex> lock(observer->m_mutex);
        EXPECT_EQ(nullptr, observer->m_sources[0]);
        EXPECT_EQ(object.get(), observer->m_objects[0]);
    }
    ASSERT_TRUE(hvtest::waitUntil([&] { return pool.getAvailableCount() == 1; }));
    // The same worker takes the next job.
    pool.doObserverNotifications(observer.get(), object.get());
    ASSERT_TRUE(hvtest::waitUntil([&] { return observer->m_calls.load() == 2; }));
    {
        std::lock_guard<std::mutex> lock(observer->m_mutex);
        EXPECT_EQ(observer->m_threads[0], observer->m_threads[1]);
    }
    EXPECT_EQ(1, pool.getThreadCount());
}

TEST(HvThreadPool, SourceNotificationIsDoneByAWorker)
{
    HvHandle<GateObserver> observer(new GateObserver);
    HvHandle<HvObservable> source(new HvObservable);
    source->attachObserver(observer);
    HvHandle<HvObject> object(new HvObject);
    HvThreadPool pool(nullptr, 2);
    pool.doSourceNotifications(source.get(), object.get());
    ASSERT_TRUE(hvtest::waitUntil([&] { return observer->m_calls.load() == 1; }));
    EXPECT_NE(std::this_thread::get_id(), observer->lastThread());
    {
        std::lock_guard<std::mutex> lock(observer->m_mutex);
        EXPECT_EQ(source.get(), observer->m_sources[0]);
        EXPECT_EQ(object.get(), observer->m_objects[0]);
    }
    ASSERT_TRUE(hvtest::waitUntil([&] { return pool.getAvailableCount() == 1; }));
    source->detachObserver(observer);
}

TEST(HvThreadPool, CallerDoesTheWorkWhenEveryWorkerIsBusy)
{
    HvHandle<GateObserver> holding(new GateObserver);
    holding->m_behaviour = GateObserver::HOLD;
    HvHandle<GateObserver> observer(new GateObserver);
    HvHandle<HvObservable> source(new HvObservable);
    source->attachObserver(observer);
    HvHandle<HvObject> object(new HvObject);

    HvThreadPool pool(nullptr, 2);
    pool.doObserverNotifications(holding.get(), nullptr);
    pool.doObserverNotifications(holding.get(), nullptr);
    ASSERT_TRUE(hvtest::waitUntil([&] { return holding->m_held.load() == 2; }));
    EXPECT_EQ(2, pool.getBusyCount());

    pool.doSourceNotifications(source.get(), object.get());
    EXPECT_EQ(1, observer->m_calls.load());
    EXPECT_EQ(std::this_thread::get_id(), observer->lastThread());
    pool.doObserverNotifications(observer.get(), object.get());
    EXPECT_EQ(2, observer->m_calls.load());
    EXPECT_EQ(std::this_thread::get_id(), observer->lastThread());
    EXPECT_EQ(2, pool.getThreadCount());

    holding->m_release = true;
    ASSERT_TRUE(hvtest::waitUntil([&] { return pool.getAvailableCount() == 2; }));
    source->detachObserver(observer);
}

TEST(HvThreadPool, DoItYourSelfDeliversEachKindOnTheCaller)
{
    HvHandle<GateObserver> observer(new GateObserver);
    HvHandle<HvObservable> source(new HvObservable);
    source->attachObserver(observer);
    HvHandle<HvObject> object(new HvObject);
    HvThreadPool pool(nullptr, 1);

    pool.mDoItYourSelf(1, source.get(), nullptr, object.get());
    ASSERT_EQ(1, observer->m_calls.load());
    pool.mDoItYourSelf(2, nullptr, observer.get(), object.get());
    ASSERT_EQ(2, observer->m_calls.load());
    pool.mDoItYourSelf(0, source.get(), observer.get(), object.get());
    pool.mDoItYourSelf(3, source.get(), observer.get(), object.get());
    EXPECT_EQ(2, observer->m_calls.load());
    {
        std::lock_guard<std::mutex> lock(observer->m_mutex);
        EXPECT_EQ(source.get(), observer->m_sources[0]);
        EXPECT_EQ(nullptr, observer->m_sources[1]);
        EXPECT_EQ(object.get(), observer->m_objects[1]);
    }
    EXPECT_EQ(0, pool.getThreadCount());
    EXPECT_EQ(1, object->getRefCount());
    source->detachObserver(observer);
}

TEST(HvThreadPool, ExceptionsFromWorkDoneByTheCallerAreNeverRethrown)
{
    // Reported on the default error stream's exception debug stream.
    hvtest::DebugOutputCapture debug;
    HvHandle<GateObserver> observer(new GateObserver);
    HvThreadPool pool(nullptr, 0);
    observer->m_behaviour = GateObserver::THROW_HV;
    EXPECT_NO_THROW(pool.doObserverNotifications(observer.get(), nullptr));
    observer->m_behaviour = GateObserver::THROW_STD;
    EXPECT_NO_THROW(pool.mDoItYourSelf(2, nullptr, observer.get(), nullptr));
    observer->m_behaviour = GateObserver::THROW_OTHER;
    EXPECT_NO_THROW(pool.mDoItYourSelf(2, nullptr, observer.get(), nullptr));
    EXPECT_EQ(3, observer->m_calls.load());
    EXPECT_EQ("catch exception in HvThreadPool::mDoItYourSelf(): observer failed\n"
              "catch exception in HvThreadPool::mDoItYourSelf(): plain failure\n"
              "catch exception in HvThreadPool::mDoItYourSelf(): Unknown Exception\n",
              debug.text());
}

TEST(HvThreadPool, ExceptionsFromWorkDoneByTheCallerStayOffTheDebugStreamWithoutTheMode)
{
    hvtest::DebugOutputCapture debug(false);
    HvHandle<GateObserver> observer(new GateObserver);
    observer->m_behaviour = GateObserver::THROW_HV;
    HvThreadPool pool(nullptr, 0);
    EXPECT_NO_THROW(pool.mDoItYourSelf(2, nullptr, observer.get(), nullptr));
    EXPECT_EQ(1, observer->m_calls.load());
    EXPECT_EQ("", debug.text());
}

TEST(HvThreadPool, NotificationsWithoutSourceOrObserverAreSkippedOnEitherPath)
{
    HvHandle<HvObject> object(new HvObject);
    // On the caller.
    HvThreadPool none(nullptr, 0);
    none.mDoItYourSelf(1, nullptr, nullptr, object.get());
    none.mDoItYourSelf(2, nullptr, nullptr, object.get());
    none.doSourceNotifications(nullptr, object.get());
    none.doObserverNotifications(nullptr, object.get());
    EXPECT_EQ(0, none.getThreadCount());
    EXPECT_EQ(1, object->getRefCount());
    // On a worker, which then takes the next job as usual.
    HvThreadPool pool(nullptr, 1);
    pool.doSourceNotifications(nullptr, object.get());
    ASSERT_TRUE(hvtest::waitUntil([&] { return pool.getAvailableCount() == 1; }));
    pool.doObserverNotifications(nullptr, object.get());
    ASSERT_TRUE(hvtest::waitUntil([&] { return pool.getAvailableCount() == 1; }));
    EXPECT_EQ(1, object->getRefCount());
    HvHandle<GateObserver> observer(new GateObserver);
    pool.doObserverNotifications(observer.get(), object.get());
    ASSERT_TRUE(hvtest::waitUntil([&] { return observer->m_calls.load() == 1; }));
    EXPECT_NE(std::this_thread::get_id(), observer->lastThread());
    EXPECT_EQ(1, pool.getThreadCount());
}

TEST(HvThreadPool, WorkerTerminatedWhileBusyIsNeverHandedOutAgain)
{
    HvHandle<GateObserver> observer(new GateObserver);
    int handedOutExiting = 0;
    for (int round = 0; round < 200; ++round) {
        HvHandle<GateObserver> holding(new GateObserver);
        holding->m_behaviour = GateObserver::HOLD;
        HvThreadPool pool(nullptr, 1);
        HvWorkerThread* busy = pool.getAvailable();
        ASSERT_NE(nullptr, busy);
        busy->doObserverNotifications(holding.get(), nullptr);
        ASSERT_TRUE(hvtest::waitUntil([&] { return holding->m_held.load() == 1; }));
        busy->terminate();
        holding->m_release = true;
        // Take the first worker the pool hands out while the busy one ends.
        HvWorkerThread* next = nullptr;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!next && std::chrono::steady_clock::now() < deadline)
            next = pool.getAvailable();
        ASSERT_NE(nullptr, next) << "round " << round;
        if (next == busy || next->getState() == HvThread::EXITING)
            ++handedOutExiting;
        next->doObserverNotifications(observer.get(), nullptr);
        ASSERT_TRUE(hvtest::waitUntil([&] { return observer->m_calls.load() == round + 1; }))
            << "job dropped in round " << round;
        EXPECT_EQ(1, pool.getThreadCount());
    }
    EXPECT_EQ(0, handedOutExiting);

    // Work submitted while a terminated worker finishes its job is done by
    // another worker or by the caller.
    HvHandle<GateObserver> holding(new GateObserver);
    holding->m_behaviour = GateObserver::HOLD;
    HvThreadPool pool(nullptr, 1);
    HvWorkerThread* busy = pool.getAvailable();
    busy->doObserverNotifications(holding.get(), nullptr);
    ASSERT_TRUE(hvtest::waitUntil([&] { return holding->m_held.load() == 1; }));
    busy->terminate();
    holding->m_release = true;
    const int before = observer->m_calls.load();
    for (int i = 0; i < 50; ++i)
        pool.doObserverNotifications(observer.get(), nullptr);
    ASSERT_TRUE(hvtest::waitUntil([&] { return observer->m_calls.load() == before + 50; }));
}

TEST(HvThreadPool, WorkerExceptionOutsideShutdownIsAssertedAndTheWorkerReturns)
{
    hvtest::AssertionScope recorder;
    Velmora::LogCapture capture("ferrowind.hv.HvWorkerThread");
    HvHandle<GateObserver> observer(new GateObserver);
    observer->m_behaviour = GateObserver::THROW_HV;
    HvThreadPool pool(nullptr, 1);
    pool.doObserverNotifications(observer.get(), nullptr);
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::assertionCount() == 1; }));
    ASSERT_TRUE(hvtest::waitUntil([&] { return pool.getAvailableCount() == 1; }));
    std::vector<hvtest::AssertionRecord> assertions = hvtest::recordedAssertions();
    hvtest::expectAssertion(assertions[0], "false", "HvWorkerThread", 91);
    std::vector<Velmora::LogRecord> records = capture.records();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(40000, records[0].level);
    EXPECT_EQ("Catched a HvException in HvWorkerThread::run(): observer failed", records[0].message);

    observer->m_behaviour = GateObserver::RECORD;
    pool.doObserverNotifications(observer.get(), nullptr);
    ASSERT_TRUE(hvtest::waitUntil([&] { return observer->m_calls.load() == 2; }));
    EXPECT_NE(std::this_thread::get_id(), observer->lastThread());
}

TEST(HvThreadPool, OverriddenFactoryMakesTheWorkersAndThePoolReleasesThem)
{
    int created = fs_workersCreated.load();
    int destroyed = fs_workersDestroyed.load();
    // Threads of earlier tests may still be leaving the table.
    ASSERT_TRUE(hvtest::waitUntil([] { return HvThread::sGetThreadCount() == 0; }));
    HvHandle<GateObserver> observer(new GateObserver);
    {
        CountingPool pool(nullptr, 3);
        for (int i = 0; i < 3; ++i)
            pool.doObserverNotifications(observer.get(), nullptr);
        ASSERT_TRUE(hvtest::waitUntil([&] { return observer->m_calls.load() == 3; }));
        EXPECT_GE(fs_workersCreated.load() - created, 1);
        EXPECT_LE(fs_workersCreated.load() - created, 3);
        EXPECT_EQ(destroyed, fs_workersDestroyed.load());
    }
    // The pool's destructor stopped its workers and let go of them; each is
    // deleted when the last of the pool and its own thread lets go.
    ASSERT_TRUE(hvtest::waitUntil(
        [&] { return fs_workersCreated.load() - created == fs_workersDestroyed.load() - destroyed; }));
    ASSERT_TRUE(hvtest::waitUntil([&] { return HvThread::sGetThreadCount() == 0; }));
}

TEST(HvThreadPool, DestructionWaitsForABusyWorkerToFinishItsJob)
{
    // Threads of earlier tests may still be leaving the table.
    ASSERT_TRUE(hvtest::waitUntil([] { return HvThread::sGetThreadCount() == 0; }));
    HvHandle<GateObserver> holding(new GateObserver);
    holding->m_behaviour = GateObserver::HOLD;
    HvThreadPool* pool = new HvThreadPool(nullptr, 2);
    pool->doObserverNotifications(holding.get(), nullptr);
    ASSERT_TRUE(hvtest::waitUntil([&] { return holding->m_held.load() == 1; }));
    std::atomic<bool> destroyed{false};
    std::thread destroyer([&] {
        delete pool;
        destroyed = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(destroyed.load());
    holding->m_release = true;
    ASSERT_TRUE(hvtest::waitUntil([&] { return destroyed.load(); }));
    destroyer.join();
    ASSERT_TRUE(hvtest::waitUntil([&] { return HvThread::sGetThreadCount() == 0; }));
}

namespace {

// Deletes the pool from inside a notification, on one of its own workers.
class PoolDestroyer : public HvObserver {
public:
    explicit PoolDestroyer(HvThreadPool* pool) : m_pPool(pool) {}
    void onNotification(HvHandle<HvObservable>, HvHandle<HvObject>) override
    {
        delete m_pPool;
        m_done = true;
    }
    HvThreadPool* m_pPool;
    std::atomic<bool> m_done{false};
};

} // namespace

TEST(HvThreadPool, PoolDestroyedByItsOwnWorkerLetsThatWorkerGo)
{
    // Threads of earlier tests may still be leaving the table.
    ASSERT_TRUE(hvtest::waitUntil([] { return HvThread::sGetThreadCount() == 0; }));
    HvHandle<GateObserver> observer(new GateObserver);
    HvThreadPool* pool = new HvThreadPool(nullptr, 2);
    // A second, idle worker, so that the destructor has one to stop.
    pool->doObserverNotifications(observer.get(), nullptr);
    ASSERT_TRUE(hvtest::waitUntil([&] { return pool->getAvailableCount() == 1; }));
    HvWorkerThread* idle = pool->getAvailable();
    HvWorkerThread* other = pool->getAvailable();
    ASSERT_NE(nullptr, other);
    pool->makeAvailable(idle);
    HvHandle<PoolDestroyer> destroyer(new PoolDestroyer(pool));
    other->doObserverNotifications(destroyer.get(), nullptr);
    ASSERT_TRUE(hvtest::waitUntil([&] { return destroyer->m_done.load(); }));
    ASSERT_TRUE(hvtest::waitUntil([&] { return HvThread::sGetThreadCount() == 0; }));
}

TEST(HvThreadPool, ManyCallersShareThePoolWithoutLosingWork)
{
    HvHandle<GateObserver> observer(new GateObserver);
    const int perCaller = 2000;
    {
        HvThreadPool pool(nullptr, 4);
        auto call = [&] {
            for (int i = 0; i < perCaller; ++i)
                pool.doObserverNotifications(observer.get(), nullptr);
        };
        std::thread first(call);
        std::thread second(call);
        first.join();
        second.join();
        ASSERT_TRUE(hvtest::waitUntil([&] { return observer->m_calls.load() == 2 * perCaller; }));
        EXPECT_LE(pool.getThreadCount(), 4 + 2);
    }
    EXPECT_EQ(2 * perCaller, observer->m_calls.load());
    EXPECT_EQ(1, observer->getRefCount());
}

namespace {

std::atomic<int> fs_quickDestroyed{0};

// A worker whose thread ends as soon as it starts.
class QuickWorker : public HvWorkerThread {
public:
    explicit QuickWorker(HvThreadPool* pool) : HvWorkerThread(pool) {}
    ~QuickWorker() override { fs_quickDestroyed.fetch_add(1); }
    void run() override {}
};

// Makes workers whose thread ends at once.
class QuickPool : public HvThreadPool {
public:
    explicit QuickPool(unsigned int maxThreads) : HvThreadPool(nullptr, maxThreads) {}
    HvWorkerThread* newThread() override
    {
        ++made;
        return new QuickWorker(this);
    }
    int made = 0;
};

} // namespace

TEST(HvThreadPool, WorkerMadeByASubclassIsBoundBeforeItStarts)
{
    ASSERT_TRUE(hvtest::waitUntil([] { return HvThread::sIsShutdownCompleted(); }));
    int before = fs_quickDestroyed.load();
    QuickPool* pool = new QuickPool(1);
    HvWorkerThread* worker = pool->getAvailable();
    ASSERT_NE(nullptr, worker);
    EXPECT_EQ(1, pool->made);
    EXPECT_EQ(1, pool->getThreadCount());
    // Its thread has ended; the pool still holds the worker.
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(worker); }));
    ASSERT_TRUE(hvtest::waitUntil([&] { return worker->getRefCount() == 1; }));
    EXPECT_EQ(before, fs_quickDestroyed.load());
    EXPECT_EQ(pool, worker->getPool());
    std::atomic<bool> destroyed{false};
    std::thread destroyer([&] {
        delete pool;
        destroyed = true;
    });
    bool done = hvtest::waitUntil([&] { return destroyed.load(); });
    if (done)
        destroyer.join();
    else
        destroyer.detach();
    ASSERT_TRUE(done) << "the pool's destructor waits for a worker that is gone";
    EXPECT_EQ(before + 1, fs_quickDestroyed.load());
}
