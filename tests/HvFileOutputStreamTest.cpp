#include <HvUtil/HvFileOutputStream.h>

#include <HvUtil/HvAssertionFailure.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvSystemError.h>

#include <tests/support/HvTestFiles.h>
#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace {

class HvFileOutputStreamTest : public hvtest::ScratchDirectoryTest {};

using hvtest::expectSystemError;
using hvtest::isOpen;

template <class F>
void expectFilenameExpected(F f, unsigned int line)
{
    hvtest::AssertionScope assertions;
    HvHandle<HvException> e = hvtest::thrownBy(f);
    ASSERT_FALSE(e.isNull()) << "no exception";
    HvAssertionFailure* failure = dynamic_cast<HvAssertionFailure*>(e.get());
    ASSERT_NE(nullptr, failure);
    EXPECT_STREQ("filename expected", failure->getMessage().c_str());
    EXPECT_STREQ("HvFileOutputStream", failure->getFile());
    EXPECT_EQ(line, failure->getLine());
    ASSERT_EQ(1u, hvtest::assertionCount());
    hvtest::expectAssertion(hvtest::lastAssertion(), "filename expected", "HvFileOutputStream", static_cast<int>(line));
}

// True once the kernel reports the thread asleep (in a blocking call).
bool isSleeping(pid_t tid)
{
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string line;
    std::getline(stat, line);
    std::size_t end = line.rfind(')');
    return end != std::string::npos && end + 2 < line.size() && line[end + 2] == 'S';
}

std::atomic<int> fs_interruptions{0};

void countInterruption(int)
{
    fs_interruptions.fetch_add(1);
}

} // namespace

TEST_F(HvFileOutputStreamTest, CreatesTheFileWithMode0644AndWritesToIt)
{
    std::string path = pathOf("new");
    mode_t previous = ::umask(022);
    {
        HvHandle<HvFileOutputStream> out(new HvFileOutputStream(path.c_str()));
        EXPECT_TRUE(out->isOwner());
        EXPECT_EQ(O_RDWR, ::fcntl(out->getDescriptor(), F_GETFL) & O_ACCMODE);
        *out << "hello " << 42;
        out->write(static_cast<int>('!'));
    }
    ::umask(previous);
    EXPECT_EQ("hello 42!", contentOf(path));
    struct stat info;
    ASSERT_EQ(0, ::stat(path.c_str(), &info));
    EXPECT_EQ(0644u, info.st_mode & 0777u);
}

TEST_F(HvFileOutputStreamTest, WritingAnExistingFileOverwritesFromTheStartAndKeepsTheTail)
{
    std::string path = pathOf("old");
    writeFile(path, "0123456789");
    {
        HvHandle<HvFileOutputStream> out(new HvFileOutputStream(path.c_str()));
        *out << "ab";
    }
    EXPECT_EQ("ab23456789", contentOf(path));
}

TEST_F(HvFileOutputStreamTest, DestroyingAnOwningStreamClosesItsDescriptor)
{
    int fd = -1;
    {
        HvHandle<HvFileOutputStream> out(new HvFileOutputStream(pathOf("f").c_str()));
        fd = out->getDescriptor();
        EXPECT_TRUE(isOpen(fd));
    }
    EXPECT_FALSE(isOpen(fd));
}

TEST_F(HvFileOutputStreamTest, WrappedDescriptorIsWrittenButNotClosed)
{
    std::string path = pathOf("wrapped");
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT, 0600);
    ASSERT_NE(-1, fd);
    {
        HvHandle<HvFileOutputStream> out(new HvFileOutputStream(fd));
        EXPECT_FALSE(out->isOwner());
        EXPECT_EQ(fd, out->getDescriptor());
        *out << "via fd";
        // flush() is inherited and does nothing; the bytes are there already.
        out->flush();
        EXPECT_EQ("via fd", contentOf(path));
    }
    EXPECT_TRUE(isOpen(fd));
    ::close(fd);
}

TEST_F(HvFileOutputStreamTest, WriteIntWritesTheLowByte)
{
    std::string path = pathOf("f");
    {
        HvHandle<HvFileOutputStream> out(new HvFileOutputStream(path.c_str()));
        out->write(0x141);
        out->write(-1);
    }
    EXPECT_EQ(std::string("A\xff", 2), contentOf(path));
}

TEST_F(HvFileOutputStreamTest, BlockWriteStartsAtOffsetAndWritesLengthBytes)
{
    std::string path = pathOf("f");
    {
        HvHandle<HvFileOutputStream> out(new HvFileOutputStream(path.c_str()));
        out->write("xxabcdyy", 4, 2);
        out->write("zz", 0, 0);
        out->write(static_cast<const void*>(nullptr), 5, 0);
    }
    EXPECT_EQ("abcd", contentOf(path));
}

TEST_F(HvFileOutputStreamTest, NilPathThrowsFilenameExpectedAtLine50)
{
    expectFilenameExpected([] { HvFileOutputStream out(static_cast<const char*>(nullptr)); }, 50);
}

TEST_F(HvFileOutputStreamTest, FailedOpenThrowsSystemErrorNamedAfterThePath)
{
    std::string path = pathOf("no/such/dir");
    expectSystemError([&] { HvFileOutputStream out(path.c_str()); }, path, ENOENT);
}

TEST_F(HvFileOutputStreamTest, FailedWriteThrowsSystemError)
{
    std::string path = pathOf("f");
    writeFile(path, "x");
    int fd = ::open(path.c_str(), O_RDONLY);
    ASSERT_NE(-1, fd);
    {
        HvHandle<HvFileOutputStream> out(new HvFileOutputStream(fd));
        expectSystemError([&] { out->write('a'); }, "HvFileOutputStream::write", EBADF);
        expectSystemError([&] { out->write("abc", 3, 0); }, "HvFileOutputStream::write", EBADF);
    }
    ::close(fd);
}

TEST_F(HvFileOutputStreamTest, EmptyTruncatesAndWritesFromTheStartWithoutClosingThePrevious)
{
    std::string path = pathOf("f");
    HvHandle<HvFileOutputStream> out(new HvFileOutputStream(path.c_str()));
    *out << "long old content";
    int previous = out->getDescriptor();
    out->empty(path.c_str());
    EXPECT_EQ("", contentOf(path));
    EXPECT_NE(previous, out->getDescriptor());
    EXPECT_EQ(O_WRONLY, ::fcntl(out->getDescriptor(), F_GETFL) & O_ACCMODE);
    EXPECT_TRUE(isOpen(previous));
    *out << "new";
    EXPECT_EQ("new", contentOf(path));
    int current = out->getDescriptor();
    // Both descriptors the stream opened go with it.
    out = HvHandle<HvFileOutputStream>();
    EXPECT_FALSE(isOpen(previous));
    EXPECT_FALSE(isOpen(current));
}

TEST_F(HvFileOutputStreamTest, EmptyOnAWrappedStreamLeavesTheCallersDescriptorAlone)
{
    std::string path = pathOf("f");
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT, 0600);
    ASSERT_NE(-1, fd);
    {
        HvHandle<HvFileOutputStream> out(new HvFileOutputStream(fd));
        *out << "caller";
        out->empty(path.c_str());
        EXPECT_TRUE(out->isOwner());
        EXPECT_NE(fd, out->getDescriptor());
        *out << "emptied";
    }
    EXPECT_TRUE(isOpen(fd));
    EXPECT_EQ("emptied", contentOf(path));
    ::close(fd);
}

TEST_F(HvFileOutputStreamTest, EmptyWithNilPathThrowsFilenameExpectedAtLine90)
{
    HvHandle<HvFileOutputStream> out(new HvFileOutputStream(pathOf("f").c_str()));
    int fd = out->getDescriptor();
    expectFilenameExpected([&] { out->empty(nullptr); }, 90);
    EXPECT_EQ(fd, out->getDescriptor());
}

TEST_F(HvFileOutputStreamTest, EmptyOfAMissingFileThrowsSystemErrorNamedAfterThePath)
{
    HvHandle<HvFileOutputStream> out(new HvFileOutputStream(pathOf("f").c_str()));
    int fd = out->getDescriptor();
    std::string missing = pathOf("missing");
    // empty() does not create the file.
    expectSystemError([&] { out->empty(missing.c_str()); }, missing, ENOENT);
    EXPECT_EQ(fd, out->getDescriptor());
    EXPECT_FALSE(std::filesystem::exists(missing));
}

TEST_F(HvFileOutputStreamTest, WriteGoesOnAfterAPartialWrite)
{
    // A signal that interrupts a blocked pipe write after some bytes went
    // through makes write() return a short count.
    struct sigaction action = {};
    action.sa_handler = &countInterruption;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    struct sigaction previous;
    ASSERT_EQ(0, ::sigaction(SIGUSR1, &action, &previous));

    int ends[2];
    ASSERT_EQ(0, ::pipe(ends));
    std::string data(256 * 1024, '\0');
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<char>(i * 7 + i / 251);
    HvHandle<HvFileOutputStream> out(new HvFileOutputStream(ends[1]));
    std::atomic<bool> done{false};
    HvHandle<HvException> failure;
    pthread_t writerThread;
    std::atomic<pid_t> writerTid{0};
    std::thread writer([&] {
        writerThread = pthread_self();
        writerTid = static_cast<pid_t>(::syscall(SYS_gettid));
        failure = hvtest::thrownBy([&] { out->write(data.data(), static_cast<unsigned int>(data.size()), 0); });
        done = true;
    });
    // The pipe is full and the writer sleeps inside its first write(),
    // which has moved some bytes already.
    ASSERT_TRUE(hvtest::waitUntil([&] {
        int queued = 0;
        return writerTid.load() != 0 && ::ioctl(ends[0], FIONREAD, &queued) == 0 && queued >= 65536 &&
               isSleeping(writerTid.load());
    }));
    // One signal only: a second one could find the next write() with
    // nothing moved yet, and that write() fails.
    ASSERT_EQ(0, ::pthread_kill(writerThread, SIGUSR1));
    ASSERT_TRUE(hvtest::waitUntil([&] { return fs_interruptions.load() > 0; }));
    std::string received;
    char buffer[8192];
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (received.size() < data.size() && std::chrono::steady_clock::now() < deadline) {
        struct pollfd readable = {ends[0], POLLIN, 0};
        if (::poll(&readable, 1, 100) <= 0)
            continue;
        ssize_t n = ::read(ends[0], buffer, sizeof buffer);
        if (n <= 0)
            break;
        received.append(buffer, static_cast<std::size_t>(n));
    }
    writer.join();
    EXPECT_TRUE(done.load());
    EXPECT_TRUE(failure.isNull());
    EXPECT_EQ(data.size(), received.size());
    EXPECT_TRUE(data == received);
    ::close(ends[0]);
    ::close(ends[1]);
    ::sigaction(SIGUSR1, &previous, nullptr);
}
