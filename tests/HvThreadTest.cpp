#include <HvUtil/HvThread.h>

#include <HvUtil/HvAssertionFailure.h>
#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvByteArrayOutputStream.h>
#include <HvUtil/HvErrorStream.h>
#include <HvUtil/HvProcess.h>
#include <HvUtil/HvSystemError.h>
#include <HvUtil/HvTokenTable.h>

#include <Velmora/Assertion.h>
#include <Velmora/LogCapture.h>
#include <Velmora/Logger.h>

#include <gtest/gtest.h>

#include <errno.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

// Tests run without privilege in CI: threads inherit the default scheduling,
// except in the one test that asks for SCHED_RR on purpose.
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

std::string text(HvByteArrayOutputStream& out)
{
    HvHandle<HvByteArray> bytes = out.toByteArray();
    if (bytes.isNull())
        return std::string();
    return std::string(reinterpret_cast<const char*>(bytes->getData()), bytes->getSize());
}

// A thread whose body is given by the test.
class LambdaThread : public HvThread {
public:
    explicit LambdaThread(std::function<void(LambdaThread&)> body = nullptr) : m_body(std::move(body)) {}
    void run() override
    {
        runCount.fetch_add(1);
        if (m_body)
            m_body(*this);
    }
    std::atomic<int> runCount{0};

private:
    std::function<void(LambdaThread&)> m_body;
};

// A thread built with the process object's constructor.
class ProcessStyleThread : public HvThread {
public:
    ProcessStyleThread() : HvThread(nullptr) {}
    void run() override {}
};

// Counts destructions, to prove who deletes a thread object and when.
std::atomic<int> fs_destroyed{0};
class CountedThread : public LambdaThread {
public:
    using LambdaThread::LambdaThread;
    ~CountedThread() override { fs_destroyed.fetch_add(1); }
};

// Sleeps in wait() until terminated.
void waitUntilTerminated(LambdaThread& self)
{
    while (self.getState() != HvThread::EXITING)
        self.wait(HvThread::kNoTimeout);
}

// True once the thread's main() has ended and it has left the table.
bool ended(HvThread* thread)
{
    return thread->getState() == HvThread::DETACHED && thread->getToken() != 0 &&
           HvThread::sGetByToken(thread->getToken()) != thread;
}

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

class AssertionRecorder {
public:
    AssertionRecorder()
    {
        std::lock_guard<std::mutex> lock(fs_assertionMutex);
        fs_assertions.clear();
        m_previous = Velmora::Assertion::sSetHandler(&recordAssertion);
    }
    ~AssertionRecorder() { Velmora::Assertion::sSetHandler(m_previous); }
    std::vector<AssertionRecord> records() const
    {
        std::lock_guard<std::mutex> lock(fs_assertionMutex);
        return fs_assertions;
    }

private:
    Velmora::Assertion::Handler m_previous;
};

double elapsedMs(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

} // namespace

TEST(HvThread, FirstThreadObjectCreatesTheProcessObject)
{
    // The first test of this program: nothing has made the process yet.
    ASSERT_EQ(nullptr, HvProcess::sm_pTheOneAndOnly.load());
    int before = HvThread::sGetThreadNum();
    HvHandle<LambdaThread> thread(new LambdaThread);
    EXPECT_NE(nullptr, HvProcess::sm_pTheOneAndOnly.load());
    // The process object and the thread both count.
    EXPECT_EQ(before + 2, HvThread::sGetThreadNum());
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
    HvHandle<LambdaThread> thread(new LambdaThread);
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
    HvHandle<LambdaThread> thread(new LambdaThread);
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
    HvHandle<LambdaThread> thread(new LambdaThread);
    thread->signal();
    auto start = std::chrono::steady_clock::now();
    thread->wait(HvThread::kNoTimeout);
    EXPECT_LT(elapsedMs(start), 5000.0);
    EXPECT_EQ(0u, thread->getSignalCount());
}

TEST(HvThread, WaitOnExitingThreadReturnsAtOnceWithoutTouchingTheCounter)
{
    HvHandle<LambdaThread> thread(new LambdaThread);
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
    HvHandle<LambdaThread> detached(new LambdaThread);
    detached->terminate();
    EXPECT_EQ(0u, detached->getSignalCount());

    HvHandle<LambdaThread> running(new LambdaThread);
    running->setState(HvThread::RUNNING);
    running->terminate();
    EXPECT_EQ(HvThread::EXITING, running->getState());
    EXPECT_EQ(1u, running->getSignalCount());

    HvHandle<LambdaThread> blocked(new LambdaThread);
    blocked->setState(HvThread::BLOCKED);
    blocked->terminate();
    EXPECT_EQ(1u, blocked->getSignalCount());

    HvHandle<LambdaThread> initializing(new LambdaThread);
    initializing->setState(HvThread::INITIALIZING);
    initializing->terminate();
    EXPECT_EQ(0u, initializing->getSignalCount());
}

TEST(HvThread, DeadlineCarriesNanosecondsIntoTheNextSecond)
{
    struct timeval now = {100, 500000};
    struct timespec deadline = HvThread::sComputeDeadline(now, 999);
    EXPECT_EQ(101, deadline.tv_sec);
    EXPECT_EQ(499000000, deadline.tv_nsec);

    now = {100, 0};
    deadline = HvThread::sComputeDeadline(now, 1500);
    EXPECT_EQ(101, deadline.tv_sec);
    EXPECT_EQ(500000000, deadline.tv_nsec);

    now = {100, 999999};
    deadline = HvThread::sComputeDeadline(now, 0);
    EXPECT_EQ(100, deadline.tv_sec);
    EXPECT_EQ(999999000, deadline.tv_nsec);

    now = {100, 1};
    deadline = HvThread::sComputeDeadline(now, 999);
    EXPECT_EQ(100, deadline.tv_sec);
    EXPECT_EQ(999001000, deadline.tv_nsec);

    now = {7, 999999};
    deadline = HvThread::sComputeDeadline(now, 4294967294u);
    EXPECT_EQ(7 + 4294967 + 1, deadline.tv_sec);
    EXPECT_EQ(293999000, deadline.tv_nsec);
}

TEST(HvThread, ForkedThreadRunsRegisteredAndLeavesTheTable)
{
    std::atomic<bool> sawItself{false};
    std::atomic<bool> sawRegistered{false};
    std::atomic<int> stateInRun{-1};
    std::atomic<bool> tokenIsSelf{false};
    ASSERT_TRUE(waitUntil([] { return HvThread::sGetThreadCount() == 0; }));
    HvHandle<LambdaThread> thread(new LambdaThread([&](LambdaThread& self) {
        sawItself = HvThread::sGetByToken(HvThread::sGetCurrentThreadToken()) == &self;
        sawRegistered = HvThread::sGetCurrentRegistered() == &self;
        stateInRun = self.getState();
        tokenIsSelf = pthread_equal(self.getToken(), pthread_self()) != 0;
    }));
    thread->fork();
    ASSERT_TRUE(waitUntil([&] { return ended(thread.get()); }));
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
    HvHandle<LambdaThread> thread(new LambdaThread(&waitUntilTerminated));
    thread->fork();
    ASSERT_TRUE(waitUntil([&] { return thread->getState() == HvThread::BLOCKED; }));
    EXPECT_EQ(thread.get(), HvThread::sGetByToken(thread->getToken()));
    thread->terminate();
    ASSERT_TRUE(waitUntil([&] { return ended(thread.get()); }));
}

TEST(HvThread, SignalWakesAThreadWaitingWithoutTimeOut)
{
    std::atomic<int> wakeUps{0};
    HvHandle<LambdaThread> thread(new LambdaThread([&](LambdaThread& self) {
        while (self.getState() != HvThread::EXITING) {
            self.wait(HvThread::kNoTimeout);
            wakeUps.fetch_add(1);
        }
    }));
    thread->fork();
    ASSERT_TRUE(waitUntil([&] { return thread->getState() == HvThread::BLOCKED; }));
    thread->signal();
    ASSERT_TRUE(waitUntil([&] { return wakeUps.load() == 1; }));
    thread->terminate();
    ASSERT_TRUE(waitUntil([&] { return ended(thread.get()); }));
    EXPECT_EQ(2, wakeUps.load());
}

TEST(HvThread, TerminateOnADetachedThreadMakesForkFail)
{
    HvHandle<LambdaThread> thread(new LambdaThread);
    thread->terminate();
    AssertionRecorder recorder;
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
    std::vector<AssertionRecord> records = recorder.records();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ("HvThread::fork() on already running thread", records[0].text);
    EXPECT_EQ("HvThread", records[0].file);
    EXPECT_EQ(644, records[0].line);
    EXPECT_EQ(0, thread->runCount.load());
    EXPECT_EQ(HvThread::EXITING, thread->getState());
}

TEST(HvThread, SecondForkOfARunningThreadFails)
{
    HvHandle<LambdaThread> thread(new LambdaThread(&waitUntilTerminated));
    thread->fork();
    ASSERT_TRUE(waitUntil([&] { return thread->getState() == HvThread::BLOCKED; }));
    AssertionRecorder recorder;
    try {
        thread->fork();
        FAIL() << "second fork() must fail";
    } catch (HvHandle<HvException>& e) {
        EXPECT_STREQ("HvThread::fork() on already running thread", e->getMessage().c_str());
        EXPECT_NE(nullptr, dynamic_cast<HvAssertionFailure*>(e.get()));
    }
    thread->terminate();
    ASSERT_TRUE(waitUntil([&] { return ended(thread.get()); }));
    EXPECT_EQ(1, thread->runCount.load());
}

TEST(HvThread, ThreadWhoseRunReturnedCanBeForkedAgain)
{
    HvHandle<LambdaThread> thread(new LambdaThread);
    thread->fork();
    ASSERT_TRUE(waitUntil([&] { return ended(thread.get()); }));
    thread->fork();
    ASSERT_TRUE(waitUntil([&] { return thread->runCount.load() == 2 && ended(thread.get()); }));
}

TEST(HvThread, ThreadTerminatedBeforeMainReachesRunNeverRuns)
{
    // main() run directly on this thread stands for a thread whose start was
    // overtaken by its termination.
    HvHandle<LambdaThread> thread(new LambdaThread);
    thread->terminate();
    ASSERT_TRUE(waitUntil([] { return HvThread::sGetThreadCount() == 0; }));
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
    CountedThread* thread = new CountedThread([&](LambdaThread&) {
        while (!release.load())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    });
    thread->fork();
    EXPECT_EQ(before, fs_destroyed.load());
    release = true;
    ASSERT_TRUE(waitUntil([&] { return fs_destroyed.load() == before + 1; }));
}

TEST(HvThread, ObjectOutlivesItsThreadWhileAHandleHoldsIt)
{
    int before = fs_destroyed.load();
    {
        HvHandle<CountedThread> thread(new CountedThread);
        thread->fork();
        ASSERT_TRUE(waitUntil([&] { return ended(thread.get()); }));
        // The thread's own reference goes at the very end of main().
        ASSERT_TRUE(waitUntil([&] { return thread->getRefCount() == 1; }));
        EXPECT_EQ(before, fs_destroyed.load());
    }
    EXPECT_EQ(before + 1, fs_destroyed.load());
}

TEST(HvThread, HvExceptionEscapingRunIsWrittenToTheDebugStream)
{
    HvByteArrayOutputStream sink(0);
    HvErrorStream* stream = new HvErrorStream(&sink);
    stream->AddRef();
    stream->setDebugMode(HvString(HvException::sDebugToken));
    HvErrorStream* previous = HvErrorStream::sSetDefault(stream);

    HvHandle<LambdaThread> thread(new LambdaThread([](LambdaThread&) { HvException::sThrow("boom"); }));
    thread->fork();
    ASSERT_TRUE(waitUntil([&] { return ended(thread.get()); }));
    EXPECT_EQ("catch exception in HvThread::block(): boom\n", text(sink));

    HvErrorStream::sSetDefault(previous);
    stream->Release(true);
}

TEST(HvThread, StdExceptionEscapingRunDoesNotEndTheProcess)
{
    HvByteArrayOutputStream sink(0);
    HvErrorStream* stream = new HvErrorStream(&sink);
    stream->AddRef();
    stream->setDebugMode(HvString(HvException::sDebugToken));
    HvErrorStream* previous = HvErrorStream::sSetDefault(stream);

    HvHandle<LambdaThread> thread(new LambdaThread([](LambdaThread&) { throw std::runtime_error("plain"); }));
    thread->fork();
    ASSERT_TRUE(waitUntil([&] { return ended(thread.get()); }));
    EXPECT_EQ("catch exception in HvThread::block(): plain\n", text(sink));

    HvErrorStream::sSetDefault(previous);
    stream->Release(true);
}

TEST(HvThread, BlockIsNotImplemented)
{
    HvHandle<LambdaThread> thread(new LambdaThread);
    try {
        thread->block();
        FAIL() << "block() must throw";
    } catch (HvHandle<HvException>& e) {
        EXPECT_STREQ("Not yet implemented", e->getMessage().c_str());
    }
}

TEST(HvThread, DisplayWritesObjectTokenAndStateName)
{
    HvHandle<LambdaThread> thread(new LambdaThread);
    HvByteArrayOutputStream object(0);
    thread->HvObject::display(object, true);
    HvByteArrayOutputStream out(0);
    thread->display(out);
    EXPECT_EQ(text(object) + "\t0\tDETACHED\n", text(out));

    thread->terminate();
    HvByteArrayOutputStream exiting(0);
    thread->display(exiting);
    EXPECT_EQ(text(object) + "\t0\tEXITING\n", text(exiting));
}

TEST(HvThread, DisplayThreadsListsEveryRegisteredThread)
{
    HvHandle<LambdaThread> thread(new LambdaThread(&waitUntilTerminated));
    thread->fork();
    ASSERT_TRUE(waitUntil([&] { return thread->getState() == HvThread::BLOCKED; }));
    HvByteArrayOutputStream out(0);
    HvThread::sDisplayThreads(out);
    std::string line = "\t" + std::to_string(static_cast<unsigned long>(thread->getToken())) + "\tBLOCKED\n";
    EXPECT_NE(std::string::npos, text(out).find(line)) << text(out);
    thread->terminate();
    ASSERT_TRUE(waitUntil([&] { return ended(thread.get()); }));
}

TEST(HvThread, TraceScopesAndDebugLinesOfALifecycle)
{
    Velmora::LogCapture capture("ferrowind.hv.HvThread");
    HvHandle<LambdaThread> thread(new LambdaThread(&waitUntilTerminated));
    thread->fork();
    ASSERT_TRUE(waitUntil([&] { return thread->getState() == HvThread::BLOCKED; }));
    thread->signal();
    ASSERT_TRUE(waitUntil([&] { return thread->getState() == HvThread::BLOCKED && thread->getSignalCount() == 0; }));
    thread->terminate();
    ASSERT_TRUE(waitUntil([&] { return ended(thread.get()); }));
    ASSERT_TRUE(waitUntil([&] { return capture.contains("HvThread Exiting main"); }));

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
    ASSERT_TRUE(waitUntil([] { return HvThread::sGetThreadCount() == 0; }));
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
    HvHandle<LambdaThread> thread(new LambdaThread(&waitUntilTerminated));
    thread->fork();
    EXPECT_FALSE(HvThread::sIsShutdownCompleted());
    ASSERT_TRUE(waitUntil([&] { return thread->getState() == HvThread::BLOCKED; }));
    EXPECT_FALSE(HvThread::sIsShutdownCompleted());
    thread->terminate();
    ASSERT_TRUE(waitUntil([&] { return ended(thread.get()); }));
    ASSERT_TRUE(waitUntil([] { return HvThread::sIsShutdownCompleted(); }));
}

TEST(HvThread, ProcessStyleConstructorTracesItsOwnName)
{
    Velmora::LogCapture capture("ferrowind.hv.HvThread");
    HvHandle<ProcessStyleThread> thread(new ProcessStyleThread);
    EXPECT_TRUE(capture.contains("ENTER: HvThread::HvThread(HvThread *)"));
    EXPECT_TRUE(capture.contains("ENTER: HvThread::initialize"));
    EXPECT_EQ(HvThread::DETACHED, thread->getState());
}

TEST(HvThread, TerminateRacingWaitNeverLosesTheStopRequest)
{
    // terminate() arriving at any point of wait() must still end the loop.
    for (int round = 0; round < 200; ++round) {
        HvHandle<LambdaThread> thread(new LambdaThread([round](LambdaThread& self) {
            while (self.getState() != HvThread::EXITING)
                self.wait(round % 2 ? HvThread::kNoTimeout : 1);
        }));
        thread->fork();
        if (round % 3 == 0)
            std::this_thread::yield();
        thread->terminate();
        ASSERT_TRUE(waitUntil([&] { return ended(thread.get()); })) << "round " << round;
    }
}

TEST(HvThread, ManyThreadsStartAndStopConcurrently)
{
    std::vector<HvHandle<LambdaThread>> threads;
    for (int i = 0; i < 16; ++i) {
        threads.push_back(HvHandle<LambdaThread>(new LambdaThread(&waitUntilTerminated)));
        threads.back()->fork();
    }
    ASSERT_TRUE(waitUntil([] { return HvThread::sGetThreadCount() == 16; }));
    for (auto& thread : threads)
        thread->terminate();
    for (auto& thread : threads)
        ASSERT_TRUE(waitUntil([&] { return ended(thread.get()); }));
    EXPECT_EQ(0u, HvThread::sGetThreadCount());
}

TEST(HvThread, RealTimeSchedulingRunsRoundRobinOrReportsTheRefusal)
{
    std::atomic<int> policy{-1};
    std::atomic<int> priority{-1};
    HvHandle<LambdaThread> thread(new LambdaThread([&](LambdaThread&) {
        int p = 0;
        struct sched_param param;
        pthread_getschedparam(pthread_self(), &p, &param);
        priority = param.sched_priority;
        policy = p;
    }));
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
        ASSERT_TRUE(waitUntil([&] { return ended(thread.get()); }));
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
    HvHandle<LambdaThread> thread(new LambdaThread([&](LambdaThread&) {
        int p = 0;
        struct sched_param param;
        pthread_getschedparam(pthread_self(), &p, &param);
        priority = param.sched_priority;
        policy = p;
    }));
    thread->fork();
    ASSERT_TRUE(waitUntil([&] { return ended(thread.get()); }));
    EXPECT_EQ(callerPolicy, policy.load());
    EXPECT_EQ(callerParam.sched_priority, priority.load());
}
