#include <HvUtil/HvThread.h>

#include <HvUtil/HvAssertionFailure.h>
#include <HvUtil/HvByteArrayOutputStream.h>
#include <HvUtil/HvErrorStream.h>
#include <HvUtil/HvProcess.h>
#include <HvUtil/HvSystemError.h>
#include <HvUtil/HvTokenTable.h>

#include <Velmora/LogCapture.h>
#include <Velmora/Logger.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <errno.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace {

// Threads inherit the default scheduling, except in the one test that asks
// for SCHED_RR on purpose.
::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

// Counts destructions, to prove who deletes a thread object and when.
std::atomic<int> fs_destroyed{0};
class CountedThread : public hvtest::LambdaThread {
public:
    using hvtest::LambdaThread::LambdaThread;
    ~CountedThread() override { fs_destroyed.fetch_add(1); }
};

// Sleeps in wait() until terminated.
void waitUntilTerminated(hvtest::LambdaThread& self)
{
    while (self.getState() != HvThread::EXITING)
        self.wait(HvThread::kNoTimeout);
}

// A thread that records the scheduling policy and priority it runs with.
HvHandle<hvtest::LambdaThread> schedulingProbe(std::atomic<int>& policy, std::atomic<int>& priority)
{
    return HvHandle<hvtest::LambdaThread>(new hvtest::LambdaThread([&policy, &priority](hvtest::LambdaThread&) {
        int p = 0;
        struct sched_param param;
        pthread_getschedparam(pthread_self(), &p, &param);
        priority = param.sched_priority;
        policy = p;
    }));
}

double elapsedMs(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

} // namespace

TEST(HvThread, FirstThreadObjectCreatesTheProcessObject)
{
    // The first test of this program: nothing has made the process yet.
    ASSERT_EQ(nullptr, HvProcess::sm_pTheOneAndOnly.load());
    // Nor the default error stream: installing none gives back none.
    ASSERT_EQ(nullptr, HvErrorStream::sSetDefault(nullptr));
    int before = HvThread::sGetThreadNum();
    HvHandle<hvtest::LambdaThread> thread(new hvtest::LambdaThread);
    EXPECT_NE(nullptr, HvProcess::sm_pTheOneAndOnly.load());
    // The process object and the thread both count.
    EXPECT_EQ(before + 2, HvThread::sGetThreadNum());
    // The default error stream, which thread bodies write to from any
    // thread, was made here, before any thread could be forked.
    HvErrorStream* made = HvErrorStream::sSetDefault(nullptr);
    EXPECT_NE(nullptr, made);
    HvErrorStream::sSetDefault(made);
}

TEST(HvThread, StateValuesAndDisplayNames)
{
    EXPECT_EQ(0, HvThread::DETACHED);
    EXPECT_EQ(1, HvThread::INITIALIZING);
    EXPECT_EQ(2, HvThread::RUNNING);
    EXPECT_EQ(3, HvThread::BLOCKED);
    EXPECT_EQ(4, HvThread::EXITING);
    EXPECT_STREQ("DETACHED", HvThread::sGetStateName(0));
    EXPECT_STREQ("INITIALIZING", HvThread::sGetStateName(1));
    EXPECT_STREQ("RUNNING", HvThread::sGetStateName(2));
    EXPECT_STREQ("BLOCKED", HvThread::sGetStateName(3));
    EXPECT_STREQ("EXITING", HvThread::sGetStateName(4));
    EXPECT_STREQ("UNKNOWN STATE", HvThread::sGetStateName(5));
    EXPECT_STREQ("UNKNOWN STATE", HvThread::sGetStateName(-1));
}

TEST(HvThread, NewThreadIsDetachedWithoutTokenAndTheProcessExists)
{
    HvProcess::sGetCurrent();
    int before = HvThread::sGetThreadNum();
    HvHandle<hvtest::LambdaThread> thread(new hvtest::LambdaThread);
    EXPECT_EQ(HvThread::DETACHED, thread->getState());
    EXPECT_EQ(pthread_t(0), thread->getToken());
    EXPECT_EQ(0u, thread->getSignalCount());
    EXPECT_NE(nullptr, HvProcess::sm_pTheOneAndOnly.load());
    EXPECT_NE(nullptr, HvThread::sm_pThreadTable);
    EXPECT_EQ(before + 1, HvThread::sGetThreadNum());
    EXPECT_FALSE(HvThread::sShuttingDown());
}

TEST(HvThread, SignalTwiceThenWaitReturnsAtOnceAndConsumesBoth)
{
    HvHandle<hvtest::LambdaThread> thread(new hvtest::LambdaThread);
    thread->signal();
    thread->signal();
    EXPECT_EQ(2u, thread->getSignalCount());

    auto start = std::chrono::steady_clock::now();
    thread->wait(1000);
    EXPECT_LT(elapsedMs(start), 500.0);
    EXPECT_EQ(0u, thread->getSignalCount());
    EXPECT_EQ(HvThread::RUNNING, thread->getState());

    // Both signals went into the one wait: the next one times out.
    start = std::chrono::steady_clock::now();
    thread->wait(50);
    double waited = elapsedMs(start);
    EXPECT_GE(waited, 49.0);
    EXPECT_LT(waited, 5000.0);
    EXPECT_EQ(0u, thread->getSignalCount());
}

TEST(HvThread, SignalBeforeWaitIsNotLost)
{
    HvHandle<hvtest::LambdaThread> thread(new hvtest::LambdaThread);
    thread->signal();
    auto start = std::chrono::steady_clock::now();
    thread->wait(HvThread::kNoTimeout);
    EXPECT_LT(elapsedMs(start), 5000.0);
    EXPECT_EQ(0u, thread->getSignalCount());
}

TEST(HvThread, WaitOnExitingThreadReturnsAtOnceWithoutTouchingTheCounter)
{
    HvHandle<hvtest::LambdaThread> thread(new hvtest::LambdaThread);
    thread->terminate();
    ASSERT_EQ(HvThread::EXITING, thread->getState());
    thread->signal();
    auto start = std::chrono::steady_clock::now();
    thread->wait(HvThread::kNoTimeout);
    thread->wait(10000);
    EXPECT_LT(elapsedMs(start), 5000.0);
    EXPECT_EQ(1u, thread->getSignalCount());
    EXPECT_EQ(HvThread::EXITING, thread->getState());
}

TEST(HvThread, TerminateSignalsOnlyAStartedThread)
{
    HvHandle<hvtest::LambdaThread> detached(new hvtest::LambdaThread);
    detached->terminate();
    EXPECT_EQ(0u, detached->getSignalCount());

    HvHandle<hvtest::LambdaThread> running(new hvtest::LambdaThread);
    running->setState(HvThread::RUNNING);
    running->terminate();
    EXPECT_EQ(HvThread::EXITING, running->getState());
    EXPECT_EQ(1u, running->getSignalCount());

    HvHandle<hvtest::LambdaThread> blocked(new hvtest::LambdaThread);
    blocked->setState(HvThread::BLOCKED);
    blocked->terminate();
    EXPECT_EQ(1u, blocked->getSignalCount());

    HvHandle<hvtest::LambdaThread> initializing(new hvtest::LambdaThread);
    initializing->setState(HvThread::INITIALIZING);
    initializing->terminate();
    EXPECT_EQ(0u, initializing->getSignalCount());
}

TEST(HvThread, DeadlineCarriesNanosecondsIntoTheNextSecond)
{
    struct Case {
        struct timeval now;
        unsigned int milliseconds;
        long seconds;
        long nanoseconds;
    };
    const Case cases[] = {
        {{100, 500000}, 999, 101, 499000000},
        {{100, 0}, 1500, 101, 500000000},
        {{100, 999999}, 0, 100, 999999000},
        {{100, 1}, 999, 100, 999001000},
        {{7, 999999}, 4294967294u, 7 + 4294967 + 1, 293999000},
    };
    for (const Case& c : cases) {
        struct timespec deadline = HvThread::sComputeDeadline(c.now, c.milliseconds);
        EXPECT_EQ(c.seconds, deadline.tv_sec) << c.now.tv_sec << "." << c.now.tv_usec << " + " << c.milliseconds;
        EXPECT_EQ(c.nanoseconds, deadline.tv_nsec) << c.now.tv_sec << "." << c.now.tv_usec << " + " << c.milliseconds;
    }
}

TEST(HvThread, ForkedThreadRunsRegisteredAndLeavesTheTable)
{
    std::atomic<bool> sawItself{false};
    std::atomic<bool> sawRegistered{false};
    std::atomic<int> stateInRun{-1};
    std::atomic<bool> tokenIsSelf{false};
    ASSERT_TRUE(hvtest::waitUntil([] { return HvThread::sGetThreadCount() == 0; }));
    HvHandle<hvtest::LambdaThread> thread(new hvtest::LambdaThread([&](hvtest::LambdaThread& self) {
        sawItself = HvThread::sGetByToken(HvThread::sGetCurrentThreadToken()) == &self;
        sawRegistered = HvThread::sGetCurrentRegistered() == &self;
        stateInRun = self.getState();
        tokenIsSelf = pthread_equal(self.getToken(), pthread_self()) != 0;
    }));
    thread->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(thread.get()); }));
    EXPECT_EQ(1, thread->runCount.load());
    EXPECT_TRUE(sawItself);
    EXPECT_TRUE(sawRegistered);
    EXPECT_EQ(HvThread::RUNNING, stateInRun.load());
    EXPECT_TRUE(tokenIsSelf);
    EXPECT_EQ(0u, HvThread::sGetThreadCount());
    EXPECT_EQ(nullptr, HvThread::sGetCurrentRegistered());
    // The main thread is not a registered thread once the table exists.
    EXPECT_EQ(nullptr, HvThread::sGetByToken(HvThread::sGetCurrentThreadToken()));
}

TEST(HvThread, TerminateWakesABlockedThreadWhoseRunThenEnds)
{
    HvHandle<hvtest::LambdaThread> thread(new hvtest::LambdaThread(&waitUntilTerminated));
    thread->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return thread->getState() == HvThread::BLOCKED; }));
    EXPECT_EQ(thread.get(), HvThread::sGetByToken(thread->getToken()));
    thread->terminate();
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(thread.get()); }));
}

TEST(HvThread, SignalWakesAThreadWaitingWithoutTimeOut)
{
    std::atomic<int> wakeUps{0};
    HvHandle<hvtest::LambdaThread> thread(new hvtest::LambdaThread([&](hvtest::LambdaThread& self) {
        while (self.getState() != HvThread::EXITING) {
            self.wait(HvThread::kNoTimeout);
            wakeUps.fetch_add(1);
        }
    }));
    thread->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return thread->getState() == HvThread::BLOCKED; }));
    thread->signal();
    ASSERT_TRUE(hvtest::waitUntil([&] { return wakeUps.load() == 1; }));
    thread->terminate();
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(thread.get()); }));
    EXPECT_EQ(2, wakeUps.load());
}

TEST(HvThread, TerminateOnADetachedThreadMakesForkFail)
{
    HvHandle<hvtest::LambdaThread> thread(new hvtest::LambdaThread);
    thread->terminate();
    hvtest::AssertionScope recorder;
    try {
        thread->fork();
        FAIL() << "fork() of a terminated thread must fail";
    } catch (HvHandle<HvException>& e) {
        EXPECT_STREQ("HvThread::fork() on already running thread", e->getMessage().c_str());
        HvAssertionFailure* failure = dynamic_cast<HvAssertionFailure*>(e.get());
        ASSERT_NE(nullptr, failure);
        EXPECT_STREQ("HvThread", failure->getFile());
        EXPECT_EQ(644u, failure->getLine());
    }
    std::vector<hvtest::AssertionRecord> records = hvtest::recordedAssertions();
    ASSERT_EQ(1u, records.size());
    hvtest::expectAssertion(records[0], "HvThread::fork() on already running thread", "HvThread", 644);
    EXPECT_EQ(0, thread->runCount.load());
    EXPECT_EQ(HvThread::EXITING, thread->getState());
}

TEST(HvThread, SecondForkOfARunningThreadFails)
{
    HvHandle<hvtest::LambdaThread> thread(new hvtest::LambdaThread(&waitUntilTerminated));
    thread->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return thread->getState() == HvThread::BLOCKED; }));
    hvtest::AssertionScope recorder;
    try {
        thread->fork();
        FAIL() << "second fork() must fail";
    } catch (HvHandle<HvException>& e) {
        EXPECT_STREQ("HvThread::fork() on already running thread", e->getMessage().c_str());
        EXPECT_NE(nullptr, dynamic_cast<HvAssertionFailure*>(e.get()));
    }
    thread->terminate();
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(thread.get()); }));
    EXPECT_EQ(1, thread->runCount.load());
}

TEST(HvThread, ThreadWhoseRunReturnedCanBeForkedAgain)
{
    HvHandle<hvtest::LambdaThread> thread(new hvtest::LambdaThread);
    thread->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(thread.get()); }));
    thread->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return thread->runCount.load() == 2 && hvtest::hasEnded(thread.get()); }));
}

TEST(HvThread, ThreadTerminatedBeforeMainReachesRunNeverRuns)
{
    // main() run directly on this thread stands for a thread whose start was
    // overtaken by its termination.
    HvHandle<hvtest::LambdaThread> thread(new hvtest::LambdaThread);
    thread->terminate();
    ASSERT_TRUE(hvtest::waitUntil([] { return HvThread::sGetThreadCount() == 0; }));
    thread->main();
    EXPECT_EQ(0, thread->runCount.load());
    EXPECT_EQ(HvThread::DETACHED, thread->getState());
    EXPECT_EQ(0u, HvThread::sGetThreadCount());
    EXPECT_EQ(nullptr, HvThread::sGetCurrentRegistered());
}

TEST(HvThread, UnownedThreadIsDeletedWhenItsThreadEnds)
{
    int before = fs_destroyed.load();
    std::atomic<bool> release{false};
    CountedThread* thread = new CountedThread([&](hvtest::LambdaThread&) {
        while (!release.load())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    });
    thread->fork();
    EXPECT_EQ(before, fs_destroyed.load());
    release = true;
    ASSERT_TRUE(hvtest::waitUntil([&] { return fs_destroyed.load() == before + 1; }));
}

TEST(HvThread, ObjectOutlivesItsThreadWhileAHandleHoldsIt)
{
    int before = fs_destroyed.load();
    {
        HvHandle<CountedThread> thread(new CountedThread);
        thread->fork();
        ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(thread.get()); }));
        // The thread's own reference goes at the very end of main().
        ASSERT_TRUE(hvtest::waitUntil([&] { return thread->getRefCount() == 1; }));
        EXPECT_EQ(before, fs_destroyed.load());
    }
    EXPECT_EQ(before + 1, fs_destroyed.load());
}

TEST(HvThread, HvExceptionEscapingRunIsWrittenToTheDebugStream)
{
    hvtest::DebugOutputCapture debug;
    HvHandle<hvtest::LambdaThread> thread(
        new hvtest::LambdaThread([](hvtest::LambdaThread&) { HvException::sThrow("boom"); }));
    thread->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(thread.get()); }));
    EXPECT_EQ("catch exception in HvThread::block(): boom\n", debug.text());
}

TEST(HvThread, StdExceptionEscapingRunDoesNotEndTheProcess)
{
    hvtest::DebugOutputCapture debug;
    HvHandle<hvtest::LambdaThread> thread(
        new hvtest::LambdaThread([](hvtest::LambdaThread&) { throw std::runtime_error("plain"); }));
    thread->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(thread.get()); }));
    EXPECT_EQ("catch exception in HvThread::block(): plain\n", debug.text());
}

TEST(HvThread, BlockIsNotImplemented)
{
    HvHandle<hvtest::LambdaThread> thread(new hvtest::LambdaThread);
    try {
        thread->block();
        FAIL() << "block() must throw";
    } catch (HvHandle<HvException>& e) {
        EXPECT_STREQ("Not yet implemented", e->getMessage().c_str());
    }
}

TEST(HvThread, DisplayWritesObjectTokenAndStateName)
{
    HvHandle<hvtest::LambdaThread> thread(new hvtest::LambdaThread);
    HvByteArrayOutputStream object(0);
    thread->HvObject::display(object, true);
    HvByteArrayOutputStream out(0);
    thread->display(out);
    EXPECT_EQ(hvtest::textOf(object) + "\t0\tDETACHED\n", hvtest::textOf(out));

    thread->terminate();
    HvByteArrayOutputStream exiting(0);
    thread->display(exiting);
    EXPECT_EQ(hvtest::textOf(object) + "\t0\tEXITING\n", hvtest::textOf(exiting));
}

TEST(HvThread, DisplayThreadsListsEveryRegisteredThread)
{
    HvHandle<hvtest::LambdaThread> thread(new hvtest::LambdaThread(&waitUntilTerminated));
    thread->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return thread->getState() == HvThread::BLOCKED; }));
    HvByteArrayOutputStream out(0);
    HvThread::sDisplayThreads(out);
    std::string line = "\t" + std::to_string(static_cast<unsigned long>(thread->getToken())) + "\tBLOCKED\n";
    EXPECT_NE(std::string::npos, hvtest::textOf(out).find(line)) << hvtest::textOf(out);
    thread->terminate();
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(thread.get()); }));
}

TEST(HvThread, TraceScopesAndDebugLinesOfALifecycle)
{
    Velmora::LogCapture capture("ferrowind.hv.HvThread");
    HvHandle<hvtest::LambdaThread> thread(new hvtest::LambdaThread(&waitUntilTerminated));
    thread->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return thread->getState() == HvThread::BLOCKED; }));
    thread->signal();
    ASSERT_TRUE(
        hvtest::waitUntil([&] { return thread->getState() == HvThread::BLOCKED && thread->getSignalCount() == 0; }));
    thread->terminate();
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(thread.get()); }));
    ASSERT_TRUE(hvtest::waitUntil([&] { return capture.contains("HvThread Exiting main"); }));

    std::vector<Velmora::LogRecord> records = capture.records();
    auto find = [&](const std::string& message) {
        return std::find_if(records.begin(), records.end(),
                            [&](const Velmora::LogRecord& r) { return r.message == message; });
    };
    std::vector<std::string> expectedInOrder = {
        "ENTER: HvThread::HvThread()", "EXIT:  HvThread::HvThread()", "ENTER: HvThread::main",
        "ENTER: HvThread::initialize", "Invoking run", "ENTER: HvThread::signal", "ENTER: HvThread::terminate",
        "m_State=3", "1", "this != HvProcess::sm_pTheOneAndOnly", "3", "HvThread Exiting main",
        "EXIT:  HvThread::main"};
    auto previous = records.begin();
    for (const std::string& message : expectedInOrder) {
        auto found = std::find_if(previous, records.end(),
                                  [&](const Velmora::LogRecord& r) { return r.message == message; });
        ASSERT_NE(records.end(), found) << "missing or out of order: " << message;
        previous = found;
    }
    auto state = find("m_State=3");
    EXPECT_EQ(10000, state->level);
    EXPECT_EQ("HvThread", state->file);
    EXPECT_EQ(219, state->line);
    auto exiting = find("HvThread Exiting main");
    EXPECT_EQ(10000, exiting->level);
    EXPECT_EQ("HvThread", exiting->file);
    EXPECT_EQ(0, find("Invoking run")->level);
    EXPECT_EQ(0, find("1")->level);
    EXPECT_EQ(0, find("3")->level);
    // Not shutting down: the process is not signalled by leaving threads.
    EXPECT_EQ(records.end(), find("fs_bShutDown && this != HvProcess::sm_pTheOneAndOnly"));
}

TEST(HvThread, WaitUntilDoneWithAnEmptyTableReturnsTrueAtOnce)
{
    ASSERT_TRUE(hvtest::waitUntil([] { return HvThread::sGetThreadCount() == 0; }));
    Velmora::LogCapture capture("ferrowind.hv.HvThread");
    auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(HvThread::sWaitUntilDone());
    EXPECT_LT(elapsedMs(start), 90.0);
    EXPECT_TRUE(capture.contains("ENTER: HvThread::sWaitUntilDone"));
    EXPECT_FALSE(capture.contains("Waiting 100ms for HvProcess. Thread table size = 0"));
    EXPECT_TRUE(HvThread::sIsShutdownCompleted());
    EXPECT_TRUE(capture.contains("ENTER: HvThread::sIsShutdownCompleted"));
    EXPECT_FALSE(HvThread::sShuttingDown());
}

TEST(HvThread, ShutdownIsNotCompletedWhileAThreadRuns)
{
    HvHandle<hvtest::LambdaThread> thread(new hvtest::LambdaThread(&waitUntilTerminated));
    thread->fork();
    EXPECT_FALSE(HvThread::sIsShutdownCompleted());
    ASSERT_TRUE(hvtest::waitUntil([&] { return thread->getState() == HvThread::BLOCKED; }));
    EXPECT_FALSE(HvThread::sIsShutdownCompleted());
    thread->terminate();
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(thread.get()); }));
    ASSERT_TRUE(hvtest::waitUntil([] { return HvThread::sIsShutdownCompleted(); }));
}

TEST(HvThread, ProcessStyleConstructorTracesItsOwnName)
{
    Velmora::LogCapture capture("ferrowind.hv.HvThread");
    HvHandle<hvtest::ProcessStyleThread> thread(new hvtest::ProcessStyleThread);
    EXPECT_TRUE(capture.contains("ENTER: HvThread::HvThread(HvThread *)"));
    EXPECT_TRUE(capture.contains("ENTER: HvThread::initialize"));
    EXPECT_EQ(HvThread::DETACHED, thread->getState());
}

TEST(HvThread, TerminateRacingWaitNeverLosesTheStopRequest)
{
    // terminate() arriving at any point of wait() must still end the loop.
    for (int round = 0; round < 200; ++round) {
        HvHandle<hvtest::LambdaThread> thread(new hvtest::LambdaThread([round](hvtest::LambdaThread& self) {
            while (self.getState() != HvThread::EXITING)
                self.wait(round % 2 ? HvThread::kNoTimeout : 1);
        }));
        thread->fork();
        if (round % 3 == 0)
            std::this_thread::yield();
        thread->terminate();
        ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(thread.get()); })) << "round " << round;
    }
}

TEST(HvThread, ManyThreadsStartAndStopConcurrently)
{
    std::vector<HvHandle<hvtest::LambdaThread>> threads;
    for (int i = 0; i < 16; ++i) {
        threads.push_back(HvHandle<hvtest::LambdaThread>(new hvtest::LambdaThread(&waitUntilTerminated)));
        threads.back()->fork();
    }
    ASSERT_TRUE(hvtest::waitUntil([] { return HvThread::sGetThreadCount() == 16; }));
    for (auto& thread : threads)
        thread->terminate();
    for (auto& thread : threads)
        ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(thread.get()); }));
    EXPECT_EQ(0u, HvThread::sGetThreadCount());
}

TEST(HvThread, RealTimeSchedulingRunsRoundRobinOrReportsTheRefusal)
{
    std::atomic<int> policy{-1};
    std::atomic<int> priority{-1};
    HvHandle<hvtest::LambdaThread> thread = schedulingProbe(policy, priority);
    HvThread::sm_bRealTimeScheduling = true;
    bool forked = false;
    try {
        thread->fork();
        forked = true;
    } catch (HvHandle<HvException>& e) {
        HvThread::sm_bRealTimeScheduling = false;
        // Without the privilege the creation itself is refused.
        EXPECT_STREQ("pthread_create", e->getMessage().c_str());
        HvSystemError* error = dynamic_cast<HvSystemError*>(e.get());
        ASSERT_NE(nullptr, error);
        EXPECT_EQ(EPERM, error->getErrorNumber());
        EXPECT_EQ(HvThread::INITIALIZING, thread->getState());
        EXPECT_EQ(1, thread->getRefCount());
    }
    HvThread::sm_bRealTimeScheduling = false;
    if (forked) {
        ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(thread.get()); }));
        EXPECT_EQ(SCHED_RR, policy.load());
        EXPECT_EQ((sched_get_priority_max(SCHED_RR) + sched_get_priority_min(SCHED_RR)) / 2, priority.load());
    }
}

TEST(HvThread, DefaultSchedulingIsInherited)
{
    int callerPolicy = 0;
    struct sched_param callerParam;
    pthread_getschedparam(pthread_self(), &callerPolicy, &callerParam);
    std::atomic<int> policy{-1};
    std::atomic<int> priority{-1};
    HvHandle<hvtest::LambdaThread> thread = schedulingProbe(policy, priority);
    thread->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(thread.get()); }));
    EXPECT_EQ(callerPolicy, policy.load());
    EXPECT_EQ(callerParam.sched_priority, priority.load());
}

TEST(HvThread, ForkingAgainAsSoonAsTheRunEndedKeepsTheNewRunRegistered)
{
    // The old run leaves the table after it has set DETACHED; a fork that
    // comes in between must not lose the new run's entry to it.
    ASSERT_TRUE(hvtest::waitUntil([] { return HvThread::sIsShutdownCompleted(); }));
    HvHandle<hvtest::LambdaThread> thread(new hvtest::LambdaThread(&waitUntilTerminated));
    int lost = 0;
    for (int round = 0; round < 300 && lost == 0; ++round) {
        thread->fork();
        ASSERT_TRUE(hvtest::waitUntil([&] { return thread->getState() == HvThread::BLOCKED; })) << "round " << round;
        if (HvThread::sGetByToken(thread->getToken()) != thread.get())
            ++lost;
        thread->terminate();
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (thread->getState() != HvThread::DETACHED)
            ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "round " << round;
    }
    EXPECT_EQ(0, lost);
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(thread.get()); }));
    EXPECT_TRUE(hvtest::waitUntil([] { return HvThread::sGetThreadCount() == 0; }));
    EXPECT_TRUE(hvtest::waitUntil([] { return HvThread::sIsShutdownCompleted(); }));
}

TEST(HvThread, MainCalledDirectlyAfterAForkGivesBackNoReference)
{
    int before = fs_destroyed.load();
    HvHandle<CountedThread> thread(new CountedThread);
    thread->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(thread.get()); }));
    ASSERT_TRUE(hvtest::waitUntil([&] { return thread->getRefCount() == 1; }));
    // A second reference, so that a wrong give-back shows as a count
    // instead of a deletion under the handle.
    thread->AddRef();
    thread->main();
    EXPECT_EQ(2, thread->getRefCount());
    EXPECT_EQ(before, fs_destroyed.load());
    EXPECT_EQ(2, thread->runCount.load());
    if (thread->getRefCount() == 2)
        thread->Release(true);
}

TEST(HvThread, ProgressLineOneIsLoggedOnlyWhenRunReturnedNormally)
{
    ASSERT_TRUE(hvtest::waitUntil([] { return HvThread::sIsShutdownCompleted(); }));
    hvtest::DebugOutputCapture debug;
    {
        Velmora::LogCapture capture("ferrowind.hv.HvThread");
        HvHandle<hvtest::LambdaThread> thread(
            new hvtest::LambdaThread([](hvtest::LambdaThread&) { HvException::sThrow("boom"); }));
        thread->fork();
        ASSERT_TRUE(hvtest::waitUntil([&] { return capture.contains("EXIT:  HvThread::main"); }));
        EXPECT_TRUE(capture.contains("Invoking run"));
        EXPECT_TRUE(capture.contains("3"));
        EXPECT_FALSE(capture.contains("1"));
    }
    EXPECT_EQ("catch exception in HvThread::block(): boom\n", debug.text());
    {
        Velmora::LogCapture capture("ferrowind.hv.HvThread");
        HvHandle<hvtest::LambdaThread> thread(new hvtest::LambdaThread);
        thread->fork();
        ASSERT_TRUE(hvtest::waitUntil([&] { return capture.contains("EXIT:  HvThread::main"); }));
        EXPECT_TRUE(capture.contains("1"));
    }
}

namespace {

// A thread whose token the test chooses, to register it by hand.
class TokenThread : public hvtest::LambdaThread {
public:
    explicit TokenThread(pthread_t token) { setToken(token); }
};

} // namespace

TEST(HvThread, ThreadsWhoseIdsFoldToTheSameKeyAreBothRegistered)
{
    ASSERT_TRUE(hvtest::waitUntil([] { return HvThread::sIsShutdownCompleted(); }));
    // Both halves of each id are equal, so both fold to the same 32 bits.
    const pthread_t first = static_cast<pthread_t>(0x0000000100000001ull);
    const pthread_t second = static_cast<pthread_t>(0x0000000200000002ull);
    HvHandle<TokenThread> a(new TokenThread(first));
    HvHandle<TokenThread> b(new TokenThread(second));
    HvThread::sAddThread(a.get());
    HvThread::sAddThread(b.get());
    EXPECT_EQ(2u, HvThread::sGetThreadCount());
    EXPECT_EQ(a.get(), HvThread::sGetByToken(first));
    EXPECT_EQ(b.get(), HvThread::sGetByToken(second));
    // A third id with that key, not registered, is not found.
    EXPECT_EQ(nullptr, HvThread::sGetByToken(static_cast<pthread_t>(0x0000000300000003ull)));

    HvThread::sRemoveThread(a.get());
    EXPECT_EQ(nullptr, HvThread::sGetByToken(first));
    EXPECT_EQ(b.get(), HvThread::sGetByToken(second));
    EXPECT_EQ(1u, HvThread::sGetThreadCount());
    // Registered again after the other left its key: both found again.
    HvThread::sAddThread(a.get());
    EXPECT_EQ(a.get(), HvThread::sGetByToken(first));
    EXPECT_EQ(b.get(), HvThread::sGetByToken(second));
    HvThread::sRemoveThread(b.get());
    HvThread::sRemoveThread(a.get());
    EXPECT_EQ(0u, HvThread::sGetThreadCount());
    EXPECT_EQ(1, a->getRefCount());
    EXPECT_EQ(1, b->getRefCount());
}

namespace {

// Holds the end of one run in the moment between DETACHED and leaving the
// table, until the test has forked the object again.
std::atomic<HvThread*> fs_pHeldThread{nullptr};
std::atomic<bool> fs_bHeldInWindow{false};
std::atomic<bool> fs_bReforked{false};

void holdInDetachedWindow(HvThread* thread)
{
    HvThread* expected = thread;
    if (!fs_pHeldThread.compare_exchange_strong(expected, nullptr))
        return;
    fs_bHeldInWindow = true;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!fs_bReforked.load() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

} // namespace

TEST(HvThread, OldRunLeavingTheTableAfterARefork)
{
    ASSERT_TRUE(hvtest::waitUntil([] { return HvThread::sIsShutdownCompleted(); }));
    HvHandle<hvtest::LambdaThread> thread(new hvtest::LambdaThread(&waitUntilTerminated));
    thread->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return thread->getState() == HvThread::BLOCKED; }));
    const pthread_t firstToken = thread->getToken();

    fs_bHeldInWindow = false;
    fs_bReforked = false;
    fs_pHeldThread = thread.get();
    HvThread::sm_pDetachedHook = &holdInDetachedWindow;
    thread->terminate();
    ASSERT_TRUE(hvtest::waitUntil([] { return fs_bHeldInWindow.load(); }));
    ASSERT_EQ(HvThread::DETACHED, thread->getState());
    thread->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return thread->getState() == HvThread::BLOCKED; }));
    fs_bReforked = true;
    // The first run has left the table by its own id, not by the new one.
    ASSERT_TRUE(hvtest::waitUntil([&] { return HvThread::sGetByToken(firstToken) == nullptr; }));
    HvThread::sm_pDetachedHook = nullptr;
    EXPECT_FALSE(pthread_equal(firstToken, thread->getToken()));
    EXPECT_EQ(thread.get(), HvThread::sGetByToken(thread->getToken()));
    EXPECT_EQ(1u, HvThread::sGetThreadCount());

    thread->terminate();
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(thread.get()); }));
    EXPECT_TRUE(hvtest::waitUntil([] { return HvThread::sGetThreadCount() == 0; }, std::chrono::milliseconds(2000)));
    EXPECT_TRUE(hvtest::waitUntil([] { return HvThread::sIsShutdownCompleted(); }, std::chrono::milliseconds(2000)));
}
