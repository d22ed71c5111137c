// How long the library's orderly shutdown takes in a busy process: a hundred
// connections with half a message buffered, a thousand pending timers and
// the four network dispatchers at work (tests/support/HvBusyProcess.h).
// A shutdown cannot be undone, so every measured iteration is a child
// process that builds the busy state, times its own HvThread::sShutdown()
// on the steady clock and sends the figure back through a pipe; the
// benchmark takes it as the iteration's manual time. Building the state and
// starting the child are not measured.
#include <tests/support/HvBusyProcess.h>

#include <HvUtil/HvThread.h>

#include <benchmark/benchmark.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

// What a child sends back: the time, whether the shutdown completed, and
// the set-up failure, if any.
struct ChildReport {
    double seconds;
    int completed;
    char failure[200];
};

// Runs in the child: never returns. _exit, not exit: the child has no
// business running the parent's at-exit work (and the benchmark's).
[[noreturn]] void runChild(int reportTo)
{
    ChildReport report{};
    HvThread::sm_bRealTimeScheduling = false;
    hvbusy::makeProcessWideObjects();
    hvbusy::BusyProcess* busy = new hvbusy::BusyProcess;
    std::string failure;
    if (busy->setUp(failure)) {
        report.seconds = busy->shutdown();
        report.completed = HvThread::sIsShutdownCompleted() && HvThread::sGetThreadCount() == 0 ? 1 : 0;
    } else {
        std::snprintf(report.failure, sizeof report.failure, "%s", failure.c_str());
        HvThread::sShutdown();
    }
    const bool sent = hvtest::writeAll(reportTo, &report, sizeof report);
    ::_exit(sent ? 0 : 1);
}

void BM_ShutdownWhileBusy(benchmark::State& state)
{
    for (auto _ : state) {
        int channel[2];
        if (::pipe(channel) != 0) {
            state.SkipWithError("pipe failed");
            return;
        }
        std::fflush(nullptr);
        const pid_t child = ::fork();
        if (child == 0) {
            ::close(channel[0]);
            runChild(channel[1]);
        }
        ::close(channel[1]);
        ChildReport report{};
        const bool received = child > 0 && hvtest::readAll(channel[0], &report, sizeof report);
        ::close(channel[0]);
        int status = 0;
        if (child > 0)
            ::waitpid(child, &status, 0);
        if (!received || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            state.SkipWithError("the child process failed");
            return;
        }
        if (report.failure[0] != '\0') {
            state.SkipWithError(report.failure);
            return;
        }
        if (!report.completed) {
            state.SkipWithError("the shutdown did not complete");
            return;
        }
        state.SetIterationTime(report.seconds);
    }
    state.counters["connections"] = hvbusy::BusyProcess::kConnections;
    state.counters["timers"] = hvbusy::BusyProcess::kTimers;
}

// One shutdown per child; the repetitions give the median.
BENCHMARK(BM_ShutdownWhileBusy)
    ->Iterations(1)
    ->Repetitions(9)
    ->ReportAggregatesOnly(true)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

} // namespace
