// Timers, measured next to Boost.Asio's timer queue in the same program:
//   - schedule + cancel pairs per second while 10^2, 10^4 or 10^5 far-future
//     timers are pending, against a steady_timer armed with expires_after()
//     + async_wait() and cancelled, on an io_context holding as many waits;
//   - firing lateness of 10,000 timers 1 ms apart, from the due time to the
//     moment the observer runs, through the monitor thread, the timer
//     dispatcher and its pool (p50, p99 and max as counters, in µs); Asio's
//     lateness for the same series, its handlers run on one io_context
//     thread, is shown beside it for scale.
//
// Threads of the library use real-time scheduling only when this process may
// use SCHED_RR; main() finds out and records the answer in the context
// ("realtime_scheduling") and on stderr.
//
// Naming: BM_<Case>_Hv... measures this library, BM_<Case>_Std... the anchor.
#include <HvUtil/HvMonitorThread.h>
#include <HvUtil/HvMutex.h>
#include <HvUtil/HvObserver.h>
#include <HvUtil/HvScheduler.h>
#include <HvUtil/HvThread.h>
#include <HvUtil/HvTimer.h>
#include <HvUtil/HvTime.h>

#include <benchmark/benchmark.h>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

// Far-future timers lie between one and two hours ahead, so none fires
// during a run; the measured timer goes into the middle of them (1.5 h), where
// neither queue gets the cheap case of a new first or last entry, and where
// the library's scheduler never has to wake its monitor thread.
const unsigned int kFarMs = 3600u * 1000u;
const unsigned int kMeasuredDelayMs = kFarMs + kFarMs / 2;

// Counts what it is told; the pending timers never fire while it watches.
class CountingObserver : public HvObserver {
public:
    void onNotification(HvHandle<HvObservable>, HvHandle<HvObject>) override
    {
        m_notifications.fetch_add(1, std::memory_order_relaxed);
    }
    std::atomic<unsigned int> m_notifications{0};
};

double percentile(std::vector<double> samples, double fraction)
{
    if (samples.empty())
        return 0;
    std::size_t index = static_cast<std::size_t>(fraction * static_cast<double>(samples.size() - 1) + 0.5);
    std::nth_element(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(index), samples.end());
    return samples[index];
}

void reportLateness(benchmark::State& state, const std::vector<double>& lateness)
{
    state.counters["p50_us"] = percentile(lateness, 0.50);
    state.counters["p99_us"] = percentile(lateness, 0.99);
    state.counters["max_us"] = *std::max_element(lateness.begin(), lateness.end());
    state.counters["min_us"] = *std::min_element(lateness.begin(), lateness.end());
    // How many were later than a millisecond: p99 hides up to 1% of them.
    state.counters["over_1ms"] = static_cast<double>(
        std::count_if(lateness.begin(), lateness.end(), [](double microseconds) { return microseconds > 1000.0; }));
    state.counters["timers"] = static_cast<double>(lateness.size());
    state.counters["realtime"] = HvThread::sm_bRealTimeScheduling ? 1 : 0;
}

// ---------------------------------------------------------------------------
// Schedule + cancel with timers pending

void BM_TimerScheduleCancel_HvScheduler(benchmark::State& state)
{
    const unsigned int pending = static_cast<unsigned int>(state.range(0));
    HvScheduler& scheduler = HvMonitorThread::sGetCurrent()->getScheduler();
    const unsigned int before = scheduler.getSize();
    HvHandle<CountingObserver> filler(new CountingObserver);
    HvHandle<CountingObserver> measured(new CountingObserver);
    std::mt19937 random(12345);
    std::vector<double> filled;
    filled.reserve(pending);
    for (unsigned int i = 0; i < pending; ++i)
        filled.push_back(scheduler.schedule(kFarMs + static_cast<unsigned int>(random() % kFarMs), filler.get(), nullptr));
    if (scheduler.getSize() != before + pending) {
        state.SkipWithError("the scheduler does not hold the timers just scheduled");
        return;
    }

    std::uint64_t missed = 0;
    for (auto _ : state) {
        double time = scheduler.schedule(kMeasuredDelayMs, measured.get(), nullptr);
        // The observer-qualified cancel, as a client cancels its own timer: a
        // pending timer that happens to share the microsecond stays.
        if (!scheduler.cancel(measured.get(), time))
            ++missed;
    }
    const unsigned int after = scheduler.getSize();

    unsigned int notRemoved = 0;
    for (double time : filled) {
        if (!scheduler.cancel(filler.get(), time))
            ++notRemoved;
    }
    if (missed != 0)
        state.SkipWithError("cancel() did not find a timer that schedule() had just returned");
    else if (after != before + pending)
        state.SkipWithError("the pending timers changed in number while measuring");
    else if (notRemoved != 0 || scheduler.getSize() != before)
        state.SkipWithError("the far-future timers could not all be cancelled");
    else if (filler->m_notifications.load() != 0 || measured->m_notifications.load() != 0)
        state.SkipWithError("a timer fired that should not have");
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TimerScheduleCancel_HvScheduler)->Arg(100)->Arg(10000)->Arg(100000);

// Asio's cancel does not free a wait: it moves the operation to the
// io_context's ready queue, and the operation's memory comes back only when
// its handler has run with operation_aborted. The library's cancel frees its
// entry on the spot. Running those handlers is therefore part of what one
// pair costs in Asio, and it is timed. It is done with poll() once every
// kDrainBatch pairs, as a busy io_context runs many ready handlers per pass,
// so that the fixed cost of a poll() (its lock and one non-blocking
// epoll_wait) is spread instead of being charged to every pair; the handler
// run and the release of each operation are still counted in full. The
// io_context is the default, thread-safe one, as the library's scheduler is.
const std::uint64_t kDrainBatch = 256;

void BM_TimerScheduleCancel_StdAsio(benchmark::State& state)
{
    const unsigned int pending = static_cast<unsigned int>(state.range(0));
    boost::asio::io_context context;
    std::uint64_t aborted = 0;
    std::uint64_t fired = 0;
    auto handler = [&](const boost::system::error_code& error) {
        if (error == boost::asio::error::operation_aborted)
            ++aborted;
        else
            ++fired;
    };
    // Declared after the io_context, so destroyed before it.
    std::vector<std::unique_ptr<boost::asio::steady_timer>> filled;
    filled.reserve(pending);
    std::mt19937 random(12345);
    for (unsigned int i = 0; i < pending; ++i) {
        filled.push_back(std::make_unique<boost::asio::steady_timer>(context));
        filled.back()->expires_after(std::chrono::milliseconds(kFarMs + random() % kFarMs));
        filled.back()->async_wait(handler);
    }
    boost::asio::steady_timer timer(context);

    std::uint64_t pairs = 0;
    std::uint64_t missed = 0;
    for (auto _ : state) {
        timer.expires_after(std::chrono::milliseconds(kMeasuredDelayMs));
        timer.async_wait(handler);
        if (timer.cancel() != 1)
            ++missed;
        if (++pairs % kDrainBatch == 0)
            context.poll();
    }
    context.poll();
    if (missed != 0)
        state.SkipWithError("cancel() did not find the wait just started");
    else if (aborted != pairs || fired != 0)
        state.SkipWithError("the cancelled waits did not all end with operation_aborted");
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TimerScheduleCancel_StdAsio)->Arg(100)->Arg(10000)->Arg(100000);

// ---------------------------------------------------------------------------
// Firing lateness

const unsigned int kLatenessTimers = 10000;
// The first timer is due this far ahead, so that all of them are scheduled
// before the series starts firing on an idle machine.
const unsigned int kLeadMs = 50;
// How long the series may take beyond its own length before the run is
// reported as failed.
const std::chrono::seconds kGrace(30);

// Records, for each HvTimer it is given, the arrival time on the clock of
// HvTime::sGetCurrentTime() minus the timer's due time. Notifications come
// from several pool threads at once.
class LatenessRecorder : public HvObserver {
public:
    explicit LatenessRecorder(unsigned int timers) : m_lateness(timers) {}

    void onNotification(HvHandle<HvObservable>, HvHandle<HvObject> object) override
    {
        const double now = HvTime::sGetCurrentTime();
        const HvTimer* timer = dynamic_cast<const HvTimer*>(object.get());
        if (timer == nullptr) {
            m_foreign.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        const std::size_t slot = m_claimed.fetch_add(1, std::memory_order_relaxed);
        if (slot < m_lateness.size())
            m_lateness[slot] = now - timer->getTime();
        m_done.fetch_add(1, std::memory_order_release);
    }

    std::vector<double> m_lateness;
    std::atomic<std::size_t> m_claimed{0};
    std::atomic<std::size_t> m_done{0};
    std::atomic<unsigned int> m_foreign{0};
};

void BM_TimerLateness_HvScheduler(benchmark::State& state)
{
    HvScheduler& scheduler = HvMonitorThread::sGetCurrent()->getScheduler();
    std::vector<double> all;
    for (auto _ : state) {
        HvHandle<LatenessRecorder> recorder(new LatenessRecorder(kLatenessTimers));
        const auto start = std::chrono::steady_clock::now();
        for (unsigned int i = 0; i < kLatenessTimers; ++i)
            scheduler.schedule(kLeadMs + i, recorder.get(), nullptr);
        const auto deadline = start + std::chrono::milliseconds(kLeadMs + kLatenessTimers) + kGrace;
        while (recorder->m_done.load(std::memory_order_acquire) < kLatenessTimers &&
               std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        const auto end = std::chrono::steady_clock::now();
        if (recorder->m_done.load(std::memory_order_acquire) != kLatenessTimers || recorder->m_foreign.load() != 0) {
            state.SkipWithError("not every timer reached its observer with an HvTimer in time");
            return;
        }
        state.SetIterationTime(std::chrono::duration<double>(end - start).count());
        all.insert(all.end(), recorder->m_lateness.begin(), recorder->m_lateness.end());
    }
    reportLateness(state, all);
}
BENCHMARK(BM_TimerLateness_HvScheduler)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// The same series on an io_context run by one thread with inherited
// scheduling: the handler runs on that thread, with no hand-off to a pool.
// Lateness is measured on the steady clock Asio's timers use.
void BM_AsioTimerLateness_StdAsio(benchmark::State& state)
{
    std::vector<double> all;
    for (auto _ : state) {
        boost::asio::io_context context;
        std::vector<std::unique_ptr<boost::asio::steady_timer>> timers;
        std::vector<double> lateness;
        lateness.reserve(kLatenessTimers);
        const auto start = std::chrono::steady_clock::now();
        for (unsigned int i = 0; i < kLatenessTimers; ++i) {
            timers.push_back(std::make_unique<boost::asio::steady_timer>(context));
            const auto due = std::chrono::steady_clock::now() + std::chrono::milliseconds(kLeadMs + i);
            timers.back()->expires_at(due);
            timers.back()->async_wait([&lateness, due](const boost::system::error_code& error) {
                if (!error)
                    lateness.push_back(
                        std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - due).count());
            });
        }
        // run() returns once every wait has completed.
        std::thread runner([&context] { context.run(); });
        runner.join();
        const auto end = std::chrono::steady_clock::now();
        if (lateness.size() != kLatenessTimers) {
            state.SkipWithError("not every Asio timer completed");
            return;
        }
        state.SetIterationTime(std::chrono::duration<double>(end - start).count());
        all.insert(all.end(), lateness.begin(), lateness.end());
    }
    reportLateness(state, all);
    state.counters["realtime"] = 0;
}
BENCHMARK(BM_AsioTimerLateness_StdAsio)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// True when a thread of this process may switch itself to SCHED_RR at the
// midpoint of that policy's range, which is what the library's threads ask for.
bool realTimeAllowed()
{
    bool allowed = false;
    std::thread probe([&allowed] {
        sched_param parameter{};
        parameter.sched_priority = (sched_get_priority_min(SCHED_RR) + sched_get_priority_max(SCHED_RR)) / 2;
        allowed = pthread_setschedparam(pthread_self(), SCHED_RR, &parameter) == 0;
    });
    probe.join();
    return allowed;
}

} // namespace

int main(int argc, char** argv)
{
    // The object-mutex pool must exist before the probe starts a second thread.
    HvMutex::sInitialize();
    const bool realTime = realTimeAllowed();
    HvThread::sm_bRealTimeScheduling = realTime;
    std::fprintf(stderr, "library threads use %s\n",
                 realTime ? "SCHED_RR (real-time scheduling permitted)"
                          : "inherited scheduling (SCHED_RR not permitted to this process)");
    benchmark::AddCustomContext("realtime_scheduling", realTime ? "on" : "off");

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    // The monitor thread, the timer dispatcher and its pool are stopped in
    // order rather than left running into the process exit.
    HvThread::sShutdown();
    return 0;
}
