// Throughput and latency of the threading hand-offs: the event queue against
// a mutex/condition-variable deque and moodycamel's BlockingConcurrentQueue,
// the thread pool's hand-off to a waiting worker, and signal()/wait()
// round trips between two threads (against a condition-variable ping-pong).
// Threads use the inherited scheduling, so that the figures need no privilege.
#include <HvUtil/HvBaseEvent.h>
#include <HvUtil/HvEventQueue.h>
#include <HvUtil/HvObserver.h>
#include <HvUtil/HvThread.h>
#include <HvUtil/HvThreadPool.h>

#include <benchmark/benchmark.h>
#include <concurrentqueue/blockingconcurrentqueue.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace {

// Events moved per measured iteration, split between the producers.
const int kEventsPerIteration = 200000;

// The events are never owned by a queue at the end of an iteration, so one
// preallocated set serves every iteration and no allocation is measured.
std::vector<HvBaseEvent>& events()
{
    static std::vector<HvBaseEvent> all(kEventsPerIteration);
    return all;
}

// The library's queue.
class HvQueue {
public:
    explicit HvQueue(int producers)
        : m_queue(producers > 1 ? HvEventQueue::LOCKED : HvEventQueue::UNLOCKED)
    {
    }
    void push(HvBaseEvent* event) { m_queue.addItem(event); }
    HvBaseEvent* pop() { return m_queue.getItem(); }

private:
    HvEventQueue m_queue;
};

// Anchor: a deque under a mutex, consumers woken by a condition variable.
class MutexDequeQueue {
public:
    explicit MutexDequeQueue(int) {}
    void push(HvBaseEvent* event)
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_items.push_back(event);
        }
        m_nonEmpty.notify_one();
    }
    HvBaseEvent* pop()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_nonEmpty.wait(lock, [this] { return !m_items.empty(); });
        HvBaseEvent* event = m_items.front();
        m_items.pop_front();
        return event;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_nonEmpty;
    std::deque<HvBaseEvent*> m_items;
};

// Anchor: moodycamel's lock-free queue with its blocking semaphore.
class MoodycamelQueue {
public:
    explicit MoodycamelQueue(int) {}
    void push(HvBaseEvent* event) { m_queue.enqueue(event); }
    HvBaseEvent* pop()
    {
        HvBaseEvent* event = nullptr;
        m_queue.wait_dequeue(event);
        return event;
    }

private:
    moodycamel::BlockingConcurrentQueue<HvBaseEvent*> m_queue;
};

// One consumer thread and `producers` producer threads move
// kEventsPerIteration events per iteration; the time runs from the start
// signal to the consumer's last event.
template <class Queue>
void BM_Queue(benchmark::State& state)
{
    const int producers = static_cast<int>(state.range(0));
    const int perProducer = kEventsPerIteration / producers;
    const int total = perProducer * producers;
    std::vector<HvBaseEvent>& pool = events();
    for (auto _ : state) {
        Queue queue(producers);
        std::atomic<bool> go{false};
        std::vector<std::thread> threads;
        for (int p = 0; p < producers; ++p) {
            threads.emplace_back([&, p] {
                while (!go.load(std::memory_order_acquire))
                    std::this_thread::yield();
                HvBaseEvent* base = &pool[static_cast<size_t>(p) * perProducer];
                for (int i = 0; i < perProducer; ++i)
                    queue.push(base + i);
            });
        }
        std::chrono::steady_clock::time_point end;
        std::thread consumer([&] {
            for (int i = 0; i < total; ++i)
                benchmark::DoNotOptimize(queue.pop());
            end = std::chrono::steady_clock::now();
        });
        auto start = std::chrono::steady_clock::now();
        go.store(true, std::memory_order_release);
        for (std::thread& thread : threads)
            thread.join();
        consumer.join();
        state.SetIterationTime(std::chrono::duration<double>(end - start).count());
    }
    state.SetItemsProcessed(state.iterations() * total);
    state.counters["events_per_second"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * total, benchmark::Counter::kIsRate);
}

BENCHMARK_TEMPLATE(BM_Queue, HvQueue)->Name("EventQueue/HvEventQueue")->Arg(1)->Arg(2)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_Queue, MutexDequeQueue)->Name("EventQueue/MutexDeque")->Arg(1)->Arg(2)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_Queue, MoodycamelQueue)->Name("EventQueue/Moodycamel")->Arg(1)->Arg(2)->UseManualTime()->Unit(benchmark::kMillisecond);

// Stamps the moment a worker delivers the notification.
class StampingObserver : public HvObserver {
public:
    void onNotification(HvHandle<HvObservable>, HvHandle<HvObject>) override
    {
        m_delivered.store(std::chrono::steady_clock::now().time_since_epoch().count(), std::memory_order_release);
    }
    std::atomic<long long> m_delivered{0};
};

double percentile(std::vector<double>& samples, double fraction)
{
    if (samples.empty())
        return 0;
    size_t index = static_cast<size_t>(fraction * (samples.size() - 1));
    std::nth_element(samples.begin(), samples.begin() + index, samples.end());
    return samples[index];
}

// From the caller entering doObserverNotifications() to the observer running
// on the idle worker that the pool handed the job to.
void BM_PoolHandOff(benchmark::State& state)
{
    HvThread::sm_bRealTimeScheduling = false;
    HvHandle<StampingObserver> observer(new StampingObserver);
    HvThreadPool pool(nullptr, 1);
    // Make the worker and let it go idle.
    pool.doObserverNotifications(observer.get(), nullptr);
    std::vector<double> samples;
    samples.reserve(100000);
    for (auto _ : state) {
        while (pool.getAvailableCount() != 1)
            std::this_thread::yield();
        observer->m_delivered.store(0, std::memory_order_relaxed);
        auto start = std::chrono::steady_clock::now();
        pool.doObserverNotifications(observer.get(), nullptr);
        long long delivered;
        while ((delivered = observer->m_delivered.load(std::memory_order_acquire)) == 0) {
        }
        double microseconds =
            std::chrono::duration<double, std::micro>(
                std::chrono::steady_clock::duration(delivered) - start.time_since_epoch())
                .count();
        samples.push_back(microseconds);
        state.SetIterationTime(microseconds / 1e6);
    }
    state.counters["p50_us"] = percentile(samples, 0.50);
    state.counters["p99_us"] = percentile(samples, 0.99);
}
BENCHMARK(BM_PoolHandOff)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(20000);

// Answers every signal by signalling its partner.
class Ponger : public HvThread {
public:
    explicit Ponger(HvThread* partner) : m_pPartner(partner) {}
    void run() override
    {
        for (;;) {
            wait(kNoTimeout);
            if (getState() == EXITING)
                return;
            m_pPartner->signal();
        }
    }

private:
    HvThread* m_pPartner;
};

// The benchmark thread sleeps on this object's wait().
class Pinger : public HvThread {
public:
    void run() override {}
};

void BM_SignalWaitPingPong(benchmark::State& state)
{
    HvThread::sm_bRealTimeScheduling = false;
    HvHandle<Pinger> pinger(new Pinger);
    HvHandle<Ponger> ponger(new Ponger(pinger.get()));
    ponger->fork();
    while (ponger->getState() != HvThread::BLOCKED)
        std::this_thread::yield();
    for (auto _ : state) {
        ponger->signal();
        pinger->wait(HvThread::kNoTimeout);
    }
    state.counters["round_trips_per_second"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    ponger->terminate();
    while (ponger->getState() != HvThread::DETACHED)
        std::this_thread::yield();
}
BENCHMARK(BM_SignalWaitPingPong)->UseRealTime()->Unit(benchmark::kMicrosecond);

// Anchor for the ping-pong: the same round trip with a mutex, a condition
// variable and a turn flag.
void BM_ConditionVariablePingPong(benchmark::State& state)
{
    std::mutex mutex;
    std::condition_variable changed;
    int turn = 0;
    bool stop = false;
    std::thread ponger([&] {
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            changed.wait(lock, [&] { return turn == 1 || stop; });
            if (stop)
                return;
            turn = 0;
            changed.notify_all();
        }
    });
    for (auto _ : state) {
        std::unique_lock<std::mutex> lock(mutex);
        turn = 1;
        changed.notify_all();
        changed.wait(lock, [&] { return turn == 0; });
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        stop = true;
    }
    changed.notify_all();
    ponger.join();
    state.counters["round_trips_per_second"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_ConditionVariablePingPong)->UseRealTime()->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
