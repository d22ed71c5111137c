// Closing the file input streams' descriptors at shutdown: what is closed,
// what later descriptors are safe from, and threads blocked reading a FIFO
// or a pipe getting out. The last test runs the process-wide shutdown.
#include <HvUtil/HvFileInputStream.h>

#include <HvUtil/HvException.h>
#include <HvUtil/HvSystemError.h>
#include <HvUtil/HvThread.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

class HvShutdownFileStreamsTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        // A write to a pipe whose reader went must fail, not end the program.
        ::signal(SIGPIPE, SIG_IGN);
    }
    void SetUp() override
    {
        char pattern[] = "/tmp/HvShutdownFileStreamsTest.XXXXXX";
        ASSERT_NE(nullptr, ::mkdtemp(pattern));
        m_dir = pattern;
    }
    void TearDown() override { std::filesystem::remove_all(m_dir); }

    std::string makeFile(const std::string& name, const std::string& content)
    {
        std::string path = m_dir + "/" + name;
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out << content;
        return path;
    }

    std::string m_dir;
};

bool isOpen(int fd)
{
    return ::fcntl(fd, F_GETFD) != -1;
}

// The HvSystemError f throws: message and error number, "-" when none.
template <class F>
std::string systemErrorOf(F f)
{
    HvHandle<HvException> e = hvtest::thrownBy(f);
    HvSystemError* error = dynamic_cast<HvSystemError*>(e.get());
    if (!error)
        return "-";
    return std::string(error->getMessage().c_str()) + " " + std::to_string(error->getErrorNumber());
}

const std::string kBadDescriptor = std::to_string(EBADF);

// True once the kernel reports the thread asleep (in a blocking call).
bool isSleeping(pid_t tid)
{
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string line;
    std::getline(stat, line);
    std::size_t end = line.rfind(')');
    return end != std::string::npos && end + 2 < line.size() && line[end + 2] == 'S';
}

pid_t currentTid()
{
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

} // namespace

TEST_F(HvShutdownFileStreamsTest, FileStepIsInstalledInItsShutdownSlot)
{
    HvThread::ShutdownHookFunction installed = HvThread::sSetShutdownHook(HvThread::CLOSE_FILE_INPUT_STREAMS, nullptr);
    EXPECT_EQ(&HvFileInputStream::sShutdown, installed);
    EXPECT_EQ(nullptr, HvThread::sSetShutdownHook(HvThread::CLOSE_FILE_INPUT_STREAMS, installed));
}

TEST_F(HvShutdownFileStreamsTest, ClosesTheDescriptorsThatWrappingStreamsLeftRegistered)
{
    int ends[2];
    ASSERT_EQ(0, ::pipe(ends));
    {
        HvHandle<HvFileInputStream> in(new HvFileInputStream(ends[0]));
    }
    ASSERT_TRUE(isOpen(ends[0]));
    ASSERT_TRUE(HvFileInputStream::sIsRegistered(ends[0]));

    HvFileInputStream::sShutdown();

    EXPECT_FALSE(isOpen(ends[0]));
    EXPECT_FALSE(HvFileInputStream::sIsRegistered(ends[0]));
    // Unregistered descriptors are left alone.
    EXPECT_TRUE(isOpen(ends[1]));
    EXPECT_EQ(-1, ::write(ends[1], "x", 1));
    EXPECT_EQ(EPIPE, errno);
    ::close(ends[1]);
}

TEST_F(HvShutdownFileStreamsTest, LiveStreamsLoseTheirFilesAndFailFromThenOn)
{
    std::string path = makeFile("f", "0123456789");
    HvHandle<HvFileInputStream> file(new HvFileInputStream(path.c_str()));
    EXPECT_EQ('0', file->read());
    int ends[2];
    ASSERT_EQ(0, ::pipe(ends));
    HvHandle<HvFileInputStream> pipe(new HvFileInputStream(ends[0]));

    HvFileInputStream::sShutdown();

    EXPECT_FALSE(HvFileInputStream::sIsRegistered(file->getDescriptor()));
    EXPECT_FALSE(HvFileInputStream::sIsRegistered(ends[0]));
    // The pipe's reading end is gone: nobody reads it any more.
    EXPECT_EQ(-1, ::write(ends[1], "x", 1));
    EXPECT_EQ(EPIPE, errno);

    EXPECT_EQ("HvFileInputStream::read " + kBadDescriptor, systemErrorOf([&] { file->read(); }));
    char buffer[8];
    EXPECT_EQ(-1, file->read(buffer, 8, 0));
    EXPECT_EQ("HvFileInputStream::skip " + kBadDescriptor, systemErrorOf([&] { file->skip(3); }));
    EXPECT_EQ("HvFileInputStream::mark " + kBadDescriptor, systemErrorOf([&] { file->mark(0); }));
    EXPECT_EQ("HvFileInputStream::read " + kBadDescriptor, systemErrorOf([&] { pipe->read(); }));
    EXPECT_EQ(-1, pipe->read(buffer, 8, 0));
    ::close(ends[1]);
}

TEST_F(HvShutdownFileStreamsTest, OwningStreamDestroyedAfterShutdownLeavesLaterDescriptorsAlone)
{
    std::string path = makeFile("f", "data");
    HvHandle<HvFileInputStream> in(new HvFileInputStream(path.c_str()));
    const int number = in->getDescriptor();

    HvFileInputStream::sShutdown();

    // Descriptors opened meanwhile never get the stream's number...
    std::vector<int> later;
    for (int i = 0; i < 8; ++i) {
        int ends[2];
        ASSERT_EQ(0, ::pipe(ends));
        later.push_back(ends[0]);
        later.push_back(ends[1]);
        int fd = ::open(path.c_str(), O_RDONLY);
        ASSERT_NE(-1, fd);
        later.push_back(fd);
    }
    for (int fd : later)
        EXPECT_NE(number, fd);
    // ... and destroying the stream closes none of them.
    in = HvHandle<HvFileInputStream>();
    for (int fd : later) {
        EXPECT_TRUE(isOpen(fd)) << fd;
        ::close(fd);
    }
    // The number is free again.
    EXPECT_FALSE(isOpen(number));
}

TEST_F(HvShutdownFileStreamsTest, StreamsSharingANumberKeepItUntilTheLastIsGone)
{
    std::string path = makeFile("f", "data");
    HvHandle<HvFileInputStream> owner(new HvFileInputStream(path.c_str()));
    const int number = owner->getDescriptor();
    HvHandle<HvFileInputStream> wrapper(new HvFileInputStream(number));

    HvFileInputStream::sShutdown();

    owner = HvHandle<HvFileInputStream>();
    EXPECT_TRUE(isOpen(number));
    EXPECT_EQ("HvFileInputStream::read " + kBadDescriptor, systemErrorOf([&] { wrapper->read(); }));
    wrapper = HvHandle<HvFileInputStream>();
    EXPECT_FALSE(isOpen(number));
}

TEST_F(HvShutdownFileStreamsTest, SecondShutdownLeavesNumbersClosedByTheFirstAlone)
{
    int ends[2];
    ASSERT_EQ(0, ::pipe(ends));
    {
        HvHandle<HvFileInputStream> in(new HvFileInputStream(ends[0]));
    }
    HvFileInputStream::sShutdown();
    ASSERT_FALSE(isOpen(ends[0]));

    // Some other file now has the number.
    std::string path = makeFile("other", "other");
    int other = ::open(path.c_str(), O_RDONLY);
    ASSERT_NE(-1, other);
    if (other != ends[0]) {
        ASSERT_EQ(ends[0], ::dup2(other, ends[0]));
        ::close(other);
    }

    HvFileInputStream::sShutdown();

    EXPECT_TRUE(isOpen(ends[0]));
    char buffer[8];
    EXPECT_EQ(5, ::read(ends[0], buffer, sizeof buffer));
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST_F(HvShutdownFileStreamsTest, StreamMadeAfterAShutdownWaitsForDataAndIsClosedByTheNext)
{
    HvFileInputStream::sShutdown();

    int ends[2];
    ASSERT_EQ(0, ::pipe(ends));
    HvHandle<HvFileInputStream> in(new HvFileInputStream(ends[0]));
    EXPECT_TRUE(HvFileInputStream::sIsRegistered(ends[0]));
    std::atomic<int> got{-2};
    std::atomic<pid_t> tid{0};
    std::thread reader([&] {
        tid = currentTid();
        got = in->read();
    });
    ASSERT_TRUE(hvtest::waitUntil([&] { return tid.load() != 0 && isSleeping(tid.load()); }));
    EXPECT_EQ(-2, got.load());
    ASSERT_EQ(1, ::write(ends[1], "q", 1));
    reader.join();
    EXPECT_EQ('q', got.load());

    // Blocked again, then released by the next shutdown.
    HvHandle<HvException> thrown;
    std::atomic<bool> finished{false};
    tid = 0;
    std::thread blocked([&] {
        tid = currentTid();
        thrown = hvtest::thrownBy([&] { in->read(); });
        finished = true;
    });
    ASSERT_TRUE(hvtest::waitUntil([&] { return tid.load() != 0 && isSleeping(tid.load()); }));
    EXPECT_FALSE(finished.load());
    HvFileInputStream::sShutdown();
    EXPECT_TRUE(hvtest::waitUntil([&] { return finished.load(); }));
    blocked.join();
    ASSERT_FALSE(thrown.isNull());
    EXPECT_STREQ("HvFileInputStream::read", thrown->getMessage().c_str());
    ::close(ends[1]);
}

// Runs the process-wide shutdown: keep it last.
TEST_F(HvShutdownFileStreamsTest, ThreadsBlockedReadingAFifoAndAPipeAreReleasedByTheShutdown)
{
    std::string fifo = m_dir + "/fifo";
    ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
    // A writer that never writes; opened for reading too, so that opening
    // it does not wait for a reader.
    int writer = ::open(fifo.c_str(), O_RDWR);
    ASSERT_NE(-1, writer);
    HvHandle<HvFileInputStream> fromFifo(new HvFileInputStream(fifo.c_str()));
    ASSERT_FALSE(fromFifo->isSeekable());
    int ends[2];
    ASSERT_EQ(0, ::pipe(ends));
    HvHandle<HvFileInputStream> fromPipe(new HvFileInputStream(ends[0]));

    std::atomic<pid_t> fifoTid{0};
    std::atomic<pid_t> pipeTid{0};
    std::string fifoError;
    std::atomic<int> pipeResult{-2};
    HvHandle<hvtest::LambdaThread> fifoReader(new hvtest::LambdaThread([&](hvtest::LambdaThread&) {
        fifoTid = currentTid();
        fifoError = systemErrorOf([&] { fromFifo->read(); });
    }));
    HvHandle<hvtest::LambdaThread> pipeReader(new hvtest::LambdaThread([&](hvtest::LambdaThread&) {
        pipeTid = currentTid();
        char buffer[16];
        pipeResult = fromPipe->read(buffer, sizeof buffer, 0);
    }));
    fifoReader->fork();
    pipeReader->fork();
    ASSERT_TRUE(hvtest::waitUntil([&] { return fifoTid.load() != 0 && isSleeping(fifoTid.load()); }));
    ASSERT_TRUE(hvtest::waitUntil([&] { return pipeTid.load() != 0 && isSleeping(pipeTid.load()); }));

    auto start = std::chrono::steady_clock::now();
    HvThread::sShutdown();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_TRUE(HvThread::sIsShutdownCompleted());

    EXPECT_EQ("HvFileInputStream::read " + kBadDescriptor, fifoError);
    EXPECT_EQ(-1, pipeResult.load());
    EXPECT_FALSE(HvFileInputStream::sIsRegistered(fromFifo->getDescriptor()));
    // The writer is not a stream's and stays.
    EXPECT_TRUE(isOpen(writer));
    ::close(writer);
    ::close(ends[1]);
}
