#include <HvUtil/HvProcess.h>

#include <HvUtil/HvAssertionFailure.h>
#include <HvUtil/HvTokenTable.h>

#include <Velmora/Net.h>
#include <Velmora/LogCapture.h>
#include <Velmora/MemAllocator.h>
#include <Velmora/Singleton.h>

#include <ace/Object_Manager.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <errno.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

} // namespace

// Must stay the first test of this program: nothing has created the table.
TEST(HvProcess, GetByTokenBeforeAnyTableExistsReturnsTheProcessObject)
{
    ASSERT_EQ(nullptr, HvThread::sm_pThreadTable);
    ASSERT_EQ(nullptr, HvProcess::sm_pTheOneAndOnly.load());
    HvThread* found = HvThread::sGetByToken(HvThread::sGetCurrentThreadToken());
    ASSERT_NE(nullptr, found);
    EXPECT_EQ(HvProcess::sm_pTheOneAndOnly.load(), found);
    EXPECT_NE(nullptr, HvThread::sm_pThreadTable);
    EXPECT_TRUE(pthread_equal(found->getToken(), pthread_self()));
    EXPECT_EQ(HvThread::INITIALIZING, found->getState());
}

TEST(HvProcess, GetCurrentReturnsTheOneInstanceFromTheTaggedAllocator)
{
    HvProcess* process = HvProcess::sGetCurrent();
    EXPECT_EQ(process, HvProcess::sGetCurrent());
    EXPECT_EQ(process, HvProcess::sm_pTheOneAndOnly.load());
    Velmora::AllocationStats stats = Velmora::allocationStats("HvProcess");
    EXPECT_EQ(1, stats.liveCount);
    EXPECT_GE(stats.liveBytes, static_cast<long>(sizeof(HvProcess)));
}

TEST(HvProcess, InstanceIsRegisteredForDeletionAtExit)
{
    HvProcess* process = HvProcess::sGetCurrent();
    // A second registration of the same object is refused as a duplicate.
    errno = 0;
    int result = ACE_Object_Manager::at_exit(process, &Velmora::deleteCleanupFunc<HvProcess>, nullptr, "HvProcess");
    int error = errno;
    if (result == 0)
        ACE_Object_Manager::remove_at_exit(process);
    EXPECT_EQ(-1, result);
    EXPECT_EQ(EEXIST, error);
}

TEST(HvProcess, SecondProcessObjectIsRefused)
{
    HvProcess* process = HvProcess::sGetCurrent();
    long liveBefore = Velmora::allocationStats("HvProcess").liveCount;
    {
        hvtest::AssertionScope recorder;
        try {
            new HvProcess;
            FAIL() << "a second HvProcess must be refused";
        } catch (HvHandle<HvException>& e) {
            EXPECT_STREQ("There can only be one HvProcess object", e->getMessage().c_str());
            HvAssertionFailure* failure = dynamic_cast<HvAssertionFailure*>(e.get());
            ASSERT_NE(nullptr, failure);
            EXPECT_STREQ("HvProcess", failure->getFile());
            EXPECT_EQ(46u, failure->getLine());
        }
    }
    std::vector<hvtest::AssertionRecord> assertions = hvtest::recordedAssertions();
    ASSERT_EQ(1u, assertions.size());
    hvtest::expectAssertion(assertions[0], "There can only be one HvProcess object", "HvProcess", 46);
    // The refused object's storage went back; the instance is unchanged.
    EXPECT_EQ(liveBefore, Velmora::allocationStats("HvProcess").liveCount);
    EXPECT_EQ(process, HvProcess::sm_pTheOneAndOnly.load());
}

TEST(HvProcess, ProcessIsNeverInTheThreadTable)
{
    HvProcess::sGetCurrent();
    EXPECT_EQ(nullptr, HvThread::sGetByToken(HvThread::sGetCurrentThreadToken()));
    EXPECT_EQ(0u, HvThread::sGetThreadCount());
}

TEST(HvProcess, RunSleepsUntilTheFirstSignal)
{
    HvProcess* process = HvProcess::sGetCurrent();
    std::atomic<bool> signalled{false};
    std::atomic<int> netCountWhileBlocked{-1};
    const int netCountBefore = Velmora::Net::getInitializationCount();
    std::thread waker([&] {
        hvtest::waitUntil([&] { return process->getState() == HvThread::BLOCKED; });
        netCountWhileBlocked = Velmora::Net::getInitializationCount();
        signalled = true;
        process->signal();
    });
    auto start = std::chrono::steady_clock::now();
    process->run();
    EXPECT_TRUE(signalled.load());
    // The network library is started around the wait and stopped after it.
    EXPECT_EQ(netCountBefore + 1, netCountWhileBlocked.load());
    EXPECT_EQ(netCountBefore, Velmora::Net::getInitializationCount());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_EQ(HvThread::RUNNING, process->getState());
    waker.join();
}

TEST(HvProcess, HandlesOnTheProcessNeverDeleteIt)
{
    HvProcess* process = HvProcess::sGetCurrent();
    // The instance holds one reference on itself until exit.
    EXPECT_EQ(1, process->getRefCount());
    {
        HvHandle<HvProcess> handle(process);
        EXPECT_EQ(2, process->getRefCount());
    }
    EXPECT_EQ(process, HvProcess::sm_pTheOneAndOnly.load());
    EXPECT_EQ(1, Velmora::allocationStats("HvProcess").liveCount);
    // Notifying makes a handle on the source too.
    HvHandle<hvtest::NoteTakingObserver> observer(new hvtest::NoteTakingObserver);
    process->attachObserver(observer);
    process->notifyObservers(HvHandle<HvObject>());
    process->detachObserver(observer);
    ASSERT_EQ(1u, observer->notes.size());
    EXPECT_EQ(process, observer->notes[0].sender);
    EXPECT_EQ(process, HvProcess::sm_pTheOneAndOnly.load());
    EXPECT_EQ(1, Velmora::allocationStats("HvProcess").liveCount);
    EXPECT_EQ(1, process->getRefCount());
    // The program then ends normally: the at-exit clean-up gives back the
    // instance's own reference, and nothing deletes it twice.
}
