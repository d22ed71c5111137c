#include <HvUtil/HvTCPIDispatcher.h>

#include <HvUtil/HvObservable.h>
#include <HvUtil/HvTCPEvent.h>
#include <HvUtil/HvUDPEvent.h>

#include <Velmora/Singleton.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

// One notification as the observer saw it.
struct Seen {
    const HvObservable* source;
    const HvObject* object;
    pthread_t thread;
};

// Shared by the observers of a test: what they saw, and a gate that can hold
// them inside the notification.
struct Record {
    std::mutex mutex;
    std::vector<Seen> seen;
    std::atomic<bool> hold{false};
    std::atomic<int> holding{0};

    std::size_t count()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return seen.size();
    }
};

class GateObserver : public HvObserver {
public:
    explicit GateObserver(Record& record) : m_record(record) {}
    void onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object) override
    {
        if (m_record.hold.load()) {
            m_record.holding.fetch_add(1);
            while (m_record.hold.load())
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            m_record.holding.fetch_sub(1);
        }
        std::lock_guard<std::mutex> lock(m_record.mutex);
        m_record.seen.push_back(Seen{source.get(), object.get(), pthread_self()});
    }

private:
    Record& m_record;
};

// A source with its own observer feeding `record`.
HvHandle<HvObservable> watchedSource(Record& record)
{
    HvHandle<HvObservable> source(new HvObservable);
    source->attachObserver(new GateObserver(record));
    return source;
}

void post(HvObject* object, HvObject* argument)
{
    HvTCPIDispatcher::getInstance()->getEventQueue()->addItem(new HvTCPEvent(object, argument));
}

// Must stay the first test: no instance exists yet.
TEST(HvTCPIDispatcherTest, ShutdownHookIsInstalledAndDoesNothingWithoutAnInstance)
{
    ASSERT_EQ(nullptr, HvTCPIDispatcher::sFind());
    HvThread::ShutdownHookFunction hook =
        HvThread::sSetShutdownHook(HvThread::WAKE_TCP_INPUT_DISPATCHER_QUEUE, nullptr);
    HvThread::sSetShutdownHook(HvThread::WAKE_TCP_INPUT_DISPATCHER_QUEUE, hook);
    ASSERT_NE(nullptr, hook);
    hook();
    EXPECT_EQ(nullptr, HvTCPIDispatcher::sFind());
    EXPECT_EQ(nullptr, Velmora::SingletonRegistry::instance().find("HvTCPIDispatcher"));
}

TEST(HvTCPIDispatcherTest, GetInstanceMakesOneStartedDispatcherForEveryThread)
{
    HvTCPIDispatcher* instance = HvTCPIDispatcher::getInstance();
    ASSERT_NE(nullptr, instance);
    EXPECT_EQ(instance, HvTCPIDispatcher::getInstance());
    EXPECT_EQ(instance, HvTCPIDispatcher::sFind());
    EXPECT_EQ(static_cast<HvDispatcherThread*>(instance),
              Velmora::SingletonRegistry::instance().find("HvTCPIDispatcher"));
    std::vector<HvTCPIDispatcher*> seen(4, nullptr);
    std::vector<std::thread> threads;
    for (std::size_t index = 0; index < seen.size(); ++index)
        threads.emplace_back([&seen, index] { seen[index] = HvTCPIDispatcher::getInstance(); });
    for (std::thread& thread : threads)
        thread.join();
    for (HvTCPIDispatcher* other : seen)
        EXPECT_EQ(instance, other);

    ASSERT_TRUE(hvtest::waitUntil([&] { return instance->getState() == HvThread::RUNNING; }));
    EXPECT_EQ(10, instance->getThreadPool().getMaxThreads());
    EXPECT_EQ(instance, instance->getThreadPool().getThread());
    EXPECT_EQ(HvEventQueue::UNLOCKED, instance->getEventQueue()->getPolicy());
    EXPECT_EQ(1, hvtest::liveCount("HvTCPIDispatcher"));
    // Its own reference, its thread's and the thread table's.
    EXPECT_EQ(3, instance->getRefCount());
}

TEST(HvTCPIDispatcherTest, ThreadThatHasAskedOnceNoLongerTakesTheNamedMutex)
{
    HvTCPIDispatcher* instance = HvTCPIDispatcher::getInstance();
    std::atomic<int> step{0};
    std::atomic<HvTCPIDispatcher*> cached{nullptr};
    std::thread asker([&] {
        HvTCPIDispatcher::getInstance();
        step = 1;
        while (step.load() != 2)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        cached = HvTCPIDispatcher::getInstance();
    });
    ASSERT_TRUE(hvtest::waitUntil([&] { return step.load() == 1; }));
    {
        std::lock_guard<std::recursive_mutex> hold(Velmora::OnDemandSingletonNoT::sGetMutex("HvTCPIDispatcher"));
        step = 2;
        EXPECT_TRUE(hvtest::waitUntil([&] { return cached.load() != nullptr; }));
    }
    asker.join();
    EXPECT_EQ(instance, cached.load());
}

TEST(HvTCPIDispatcherTest, SourceNotificationIsCarriedOutByAPoolWorker)
{
    Record record;
    HvHandle<HvObservable> source = watchedSource(record);
    HvHandle<HvObject> argument(new HvObject);
    post(source.get(), argument.get());
    ASSERT_TRUE(hvtest::waitUntil([&] { return record.count() == 1; }));
    std::lock_guard<std::mutex> lock(record.mutex);
    EXPECT_EQ(source.get(), record.seen[0].source);
    EXPECT_EQ(argument.get(), record.seen[0].object);
    EXPECT_FALSE(pthread_equal(pthread_self(), record.seen[0].thread));
    EXPECT_FALSE(pthread_equal(HvTCPIDispatcher::getInstance()->getToken(), record.seen[0].thread));
    source->getObserver()->detach();
}

TEST(HvTCPIDispatcherTest, WithTenWorkersBusyTheDispatcherNotifiesItself)
{
    HvTCPIDispatcher* instance = HvTCPIDispatcher::getInstance();
    Record record;
    record.hold = true;
    std::vector<HvHandle<HvObservable>> sources;
    for (int index = 0; index < 11; ++index)
        sources.push_back(watchedSource(record));
    for (int index = 0; index < 10; ++index)
        post(sources[static_cast<std::size_t>(index)].get(), nullptr);
    ASSERT_TRUE(hvtest::waitUntil([&] { return record.holding.load() == 10; }));
    EXPECT_EQ(10, instance->getThreadPool().getThreadCount());
    EXPECT_EQ(10, instance->getThreadPool().getBusyCount());

    post(sources[10].get(), nullptr);
    ASSERT_TRUE(hvtest::waitUntil([&] { return record.holding.load() == 11; }));
    record.hold = false;
    ASSERT_TRUE(hvtest::waitUntil([&] { return record.count() == 11; }));
    {
        std::lock_guard<std::mutex> lock(record.mutex);
        int onDispatcher = 0;
        for (const Seen& seen : record.seen) {
            if (pthread_equal(instance->getToken(), seen.thread)) {
                ++onDispatcher;
                EXPECT_EQ(sources[10].get(), seen.source);
            }
        }
        EXPECT_EQ(1, onDispatcher);
    }
    EXPECT_EQ(10, instance->getThreadPool().getThreadCount());
    ASSERT_TRUE(hvtest::waitUntil([&] { return instance->getThreadPool().getBusyCount() == 0; }));
    for (HvHandle<HvObservable>& source : sources)
        source->getObserver()->detach();
}

TEST(HvTCPIDispatcherTest, EventsWithoutAnObservableSourceGiveNoWork)
{
    Record record;
    HvHandle<HvObservable> source = watchedSource(record);
    HvHandle<HvObject> notASource(new HvObject);
    post(notASource.get(), nullptr);
    post(nullptr, nullptr);
    HvTCPIDispatcher::getInstance()->getEventQueue()->addItem(new HvUDPEvent(source->getObserver().get(), nullptr));
    HvTCPIDispatcher::getInstance()->process(nullptr);
    // A source notification queued after them is the only one delivered.
    HvHandle<HvObject> marker(new HvObject);
    post(source.get(), marker.get());
    ASSERT_TRUE(hvtest::waitUntil([&] {
        return record.count() == 1 && HvTCPIDispatcher::getInstance()->getThreadPool().getBusyCount() == 0 &&
               HvTCPIDispatcher::getInstance()->getEventQueue()->getSize() == 0;
    }));
    std::lock_guard<std::mutex> lock(record.mutex);
    ASSERT_EQ(1u, record.seen.size());
    EXPECT_EQ(marker.get(), record.seen[0].object);
    source->getObserver()->detach();
}

} // namespace
