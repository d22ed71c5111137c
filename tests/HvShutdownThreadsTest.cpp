// Process-wide shutdown with several kinds of threads running: the protocol
// stops them all and returns in bounded time with an empty table; afterwards
// no thread may be constructed.
#include <HvUtil/HvThread.h>

#include <HvUtil/HvProcess.h>

#include <Velmora/Assertion.h>
#include <Velmora/LogCapture.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
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

class LambdaThread : public HvThread {
public:
    explicit LambdaThread(std::function<void(LambdaThread&)> body) : m_body(std::move(body)) {}
    void run() override { m_body(*this); }

private:
    std::function<void(LambdaThread&)> m_body;
};

class ProcessStyleThread : public HvThread {
public:
    ProcessStyleThread() : HvThread(nullptr) {}
    void run() override {}
};

struct AssertionRecord {
    std::string text;
    std::string file;
    int line;
};
std::vector<AssertionRecord> fs_assertions;
void recordAssertion(const char* text, const char* file, int line)
{
    fs_assertions.push_back(AssertionRecord{text ? text : "", file ? file : "", line});
}

} // namespace

TEST(HvShutdownThreads, ShutdownStopsEveryKindOfThreadAndEmptiesTheTable)
{
    std::vector<HvHandle<LambdaThread>> threads;
    // Sleeping without time-out until terminated.
    for (int i = 0; i < 3; ++i) {
        threads.push_back(HvHandle<LambdaThread>(new LambdaThread([](LambdaThread& self) {
            while (self.getState() != HvThread::EXITING)
                self.wait(HvThread::kNoTimeout);
        })));
    }
    // Polling the shutdown flag between short waits.
    for (int i = 0; i < 2; ++i) {
        threads.push_back(HvHandle<LambdaThread>(new LambdaThread([](LambdaThread& self) {
            while (!HvThread::sShuttingDown())
                self.wait(20);
        })));
    }
    // Busy, checking its own state.
    threads.push_back(HvHandle<LambdaThread>(new LambdaThread([](LambdaThread& self) {
        while (self.getState() != HvThread::EXITING)
            std::this_thread::yield();
    })));
    for (auto& thread : threads)
        thread->fork();
    ASSERT_TRUE(waitUntil([&] { return HvThread::sGetThreadCount() == threads.size(); }));
    EXPECT_FALSE(HvThread::sIsShutdownCompleted());

    Velmora::LogCapture capture("ferrowind.hv.HvThread");
    auto start = std::chrono::steady_clock::now();
    HvThread::sShutdown();
    auto took = std::chrono::steady_clock::now() - start;
    EXPECT_LT(took, std::chrono::seconds(10));

    EXPECT_TRUE(HvThread::sShuttingDown());
    EXPECT_EQ(0u, HvThread::sGetThreadCount());
    EXPECT_TRUE(HvThread::sIsShutdownCompleted());
    for (auto& thread : threads) {
        EXPECT_EQ(HvThread::DETACHED, thread->getState());
        EXPECT_EQ(nullptr, HvThread::sGetByToken(thread->getToken()));
    }

    std::vector<Velmora::LogRecord> records = capture.records();
    auto find = [&](const std::string& message) {
        return std::find_if(records.begin(), records.end(),
                            [&](const Velmora::LogRecord& r) { return r.message == message; });
    };
    EXPECT_NE(records.end(), find("ENTER: HvThread::sShutdown"));
    EXPECT_NE(records.end(), find("ENTER: HvThread::sInitiateShutdown"));
    EXPECT_NE(records.end(), find("ENTER: HvThread::sWaitUntilDone"));
    EXPECT_NE(records.end(), find("EXIT:  HvThread::sShutdown"));
    // Every constructed HvThread counts: six threads and the process object.
    auto threadNum = find("threadNum=7");
    ASSERT_NE(records.end(), threadNum);
    EXPECT_EQ(10000, threadNum->level);
    EXPECT_EQ("HvThread", threadNum->file);
    EXPECT_EQ(253, threadNum->line);
    EXPECT_NE(records.end(), find("fs_bShutDown && this != HvProcess::sm_pTheOneAndOnly"));
    for (const Velmora::LogRecord& record : records) {
        if (record.message.rfind("Waiting 100ms for HvProcess. Thread table size = ", 0) == 0) {
            EXPECT_EQ(10000, record.level);
            EXPECT_EQ(268, record.line);
        }
    }
}

TEST(HvShutdownThreads, ConstructionAfterShutdownBeganIsReported)
{
    ASSERT_TRUE(HvThread::sShuttingDown());
    fs_assertions.clear();
    Velmora::Assertion::Handler previous = Velmora::Assertion::sSetHandler(&recordAssertion);
    {
        HvHandle<LambdaThread> late(new LambdaThread([](LambdaThread&) {}));
        HvHandle<ProcessStyleThread> processStyle(new ProcessStyleThread);
    }
    Velmora::Assertion::sSetHandler(previous);
    ASSERT_EQ(2u, fs_assertions.size());
    EXPECT_EQ("!fs_bShutDown", fs_assertions[0].text);
    EXPECT_EQ("HvThread", fs_assertions[0].file);
    EXPECT_EQ(105, fs_assertions[0].line);
    EXPECT_EQ("!fs_bShutDown", fs_assertions[1].text);
    EXPECT_EQ("HvThread", fs_assertions[1].file);
    EXPECT_EQ(124, fs_assertions[1].line);
}

TEST(HvShutdownThreads, ThreadForkedAfterShutdownStopsItselfBeforeRun)
{
    Velmora::Assertion::Handler previous = Velmora::Assertion::sSetHandler(&recordAssertion);
    std::atomic<int> runs{0};
    HvHandle<LambdaThread> late(new LambdaThread([&](LambdaThread& self) {
        runs.fetch_add(1);
        while (self.getState() != HvThread::EXITING)
            self.wait(HvThread::kNoTimeout);
    }));
    Velmora::Assertion::sSetHandler(previous);
    late->fork();
    ASSERT_TRUE(waitUntil([&] { return late->getState() == HvThread::DETACHED && late->getToken() != 0; }));
    EXPECT_TRUE(HvThread::sWaitUntilDone());
    EXPECT_EQ(0, runs.load());
    EXPECT_EQ(0u, HvThread::sGetThreadCount());
}
