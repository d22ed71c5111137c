#include <HvUtil/HvFileInputStream.h>

#include <HvUtil/HvAssertionFailure.h>
#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvSystemError.h>

#include <tests/support/HvTestFiles.h>
#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

namespace {

class HvFileInputStreamTest : public hvtest::ScratchDirectoryTest {
protected:
    // Creates the file `name` holding `content`; returns its path.
    std::string makeFile(const std::string& name, const std::string& content)
    {
        std::string path = pathOf(name);
        writeFile(path, content);
        return path;
    }
};

using hvtest::expectSystemError;
using hvtest::isOpen;

// Both ends of a pipe, closed at the end of the scope unless handed out.
struct Pipe {
    Pipe() { EXPECT_EQ(0, ::pipe(ends)); }
    ~Pipe()
    {
        for (int end : ends)
            if (end != -1)
                ::close(end);
    }
    void put(const std::string& bytes) { ASSERT_EQ(static_cast<ssize_t>(bytes.size()), ::write(ends[1], bytes.data(), bytes.size())); }
    int ends[2] = {-1, -1};
};

} // namespace

TEST_F(HvFileInputStreamTest, ReadsEveryByteOfAFileAsZeroTo255ThenMinusOne)
{
    std::string path = makeFile("bytes", std::string("A\x80\xff", 3));
    HvHandle<HvFileInputStream> in(new HvFileInputStream(path.c_str()));
    EXPECT_EQ('A', in->read());
    EXPECT_EQ(128, in->read());
    EXPECT_EQ(255, in->read());
    EXPECT_EQ(-1, in->read());
    EXPECT_EQ(-1, in->read());
}

TEST_F(HvFileInputStreamTest, OpenedFileIsOwnedSeekableAndRegistered)
{
    std::string path = makeFile("f", "data");
    HvHandle<HvFileInputStream> in(new HvFileInputStream(path.c_str()));
    EXPECT_TRUE(in->isOwner());
    EXPECT_TRUE(in->isSeekable());
    EXPECT_TRUE(in->markSupported());
    EXPECT_TRUE(isOpen(in->getDescriptor()));
    EXPECT_TRUE(HvFileInputStream::sIsRegistered(in->getDescriptor()));
    EXPECT_EQ(O_RDONLY, ::fcntl(in->getDescriptor(), F_GETFL) & O_ACCMODE);
}

TEST_F(HvFileInputStreamTest, DestroyingAnOwningStreamUnregistersAndClosesItsDescriptor)
{
    std::string path = makeFile("f", "data");
    int fd = -1;
    {
        HvHandle<HvFileInputStream> in(new HvFileInputStream(path.c_str()));
        fd = in->getDescriptor();
    }
    EXPECT_FALSE(isOpen(fd));
    EXPECT_EQ(EBADF, errno);
    EXPECT_FALSE(HvFileInputStream::sIsRegistered(fd));
}

TEST_F(HvFileInputStreamTest, NilPathThrowsFilenameExpectedAtLine88)
{
    hvtest::AssertionScope assertions;
    HvHandle<HvException> e = hvtest::thrownBy([] { HvFileInputStream in(static_cast<const char*>(nullptr)); });
    ASSERT_FALSE(e.isNull());
    HvAssertionFailure* failure = dynamic_cast<HvAssertionFailure*>(e.get());
    ASSERT_NE(nullptr, failure);
    EXPECT_STREQ("filename expected", failure->getMessage().c_str());
    EXPECT_STREQ("HvFileInputStream", failure->getFile());
    EXPECT_EQ(88u, failure->getLine());
    EXPECT_TRUE(hvtest::looksLikeCompileTimestamp(failure->getTimestamp()));
    ASSERT_EQ(1u, hvtest::assertionCount());
    hvtest::expectAssertion(hvtest::lastAssertion(), "filename expected", "HvFileInputStream", 88);
}

TEST_F(HvFileInputStreamTest, FailedOpenThrowsSystemErrorNamedAfterThePath)
{
    std::string path = m_dir + "/missing";
    expectSystemError([&] { HvFileInputStream in(path.c_str()); }, path, ENOENT);
}

TEST_F(HvFileInputStreamTest, WrappedDescriptorIsNeitherOwnedNorClosedAndStaysRegistered)
{
    Pipe pipe;
    {
        HvHandle<HvFileInputStream> in(new HvFileInputStream(pipe.ends[0]));
        EXPECT_FALSE(in->isOwner());
        EXPECT_FALSE(in->isSeekable());
        EXPECT_FALSE(in->markSupported());
        EXPECT_EQ(pipe.ends[0], in->getDescriptor());
        EXPECT_TRUE(HvFileInputStream::sIsRegistered(pipe.ends[0]));
    }
    EXPECT_TRUE(isOpen(pipe.ends[0]));
    EXPECT_TRUE(HvFileInputStream::sIsRegistered(pipe.ends[0]));
}

TEST_F(HvFileInputStreamTest, WrappedRegularFileIsSeekable)
{
    std::string path = makeFile("f", "0123456789");
    int fd = ::open(path.c_str(), O_RDONLY);
    ASSERT_NE(-1, fd);
    {
        HvHandle<HvFileInputStream> in(new HvFileInputStream(fd));
        EXPECT_TRUE(in->isSeekable());
        EXPECT_EQ(3u, in->skip(3));
        EXPECT_EQ('3', in->read());
    }
    EXPECT_TRUE(isOpen(fd));
    ::close(fd);
}

TEST_F(HvFileInputStreamTest, BlockReadStoresAtOffsetAndReturnsTheCount)
{
    std::string path = makeFile("f", "0123456789");
    HvHandle<HvFileInputStream> in(new HvFileInputStream(path.c_str()));
    char buffer[16] = "..............";
    EXPECT_EQ(4, in->read(buffer, 4, 2));
    EXPECT_EQ(std::string("..0123........"), std::string(buffer));
    EXPECT_EQ(6, in->read(buffer, 10, 0));
    EXPECT_EQ(std::string("456789........"), std::string(buffer));
    EXPECT_EQ(-1, in->read(buffer, 10, 0));
}

TEST_F(HvFileInputStreamTest, BlockReadThatYieldsExactlyOneByteThrows)
{
    std::string path = makeFile("f", "0123");
    HvHandle<HvFileInputStream> in(new HvFileInputStream(path.c_str()));
    char buffer[8];
    EXPECT_EQ(2, in->read(buffer, 2, 0));
    // One byte asked for...
    HvHandle<HvException> e = hvtest::thrownBy([&] { in->read(buffer, 1, 0); });
    ASSERT_FALSE(e.isNull());
    EXPECT_STREQ("HvSystemError", e->getClassName());
    EXPECT_STREQ("HvFileInputStream::read", e->getMessage().c_str());
    // ... or one byte left: the byte is consumed either way.
    e = hvtest::thrownBy([&] { in->read(buffer, 8, 0); });
    ASSERT_FALSE(e.isNull());
    EXPECT_STREQ("HvFileInputStream::read", e->getMessage().c_str());
    EXPECT_EQ(-1, in->read(buffer, 8, 0));
}

TEST_F(HvFileInputStreamTest, FailedBlockReadReturnsMinusOne)
{
    // A write-only descriptor: read() fails with EBADF.
    std::string path = makeFile("f", "0123");
    int fd = ::open(path.c_str(), O_WRONLY);
    ASSERT_NE(-1, fd);
    {
        HvHandle<HvFileInputStream> in(new HvFileInputStream(fd));
        char buffer[8];
        EXPECT_EQ(-1, in->read(buffer, 8, 0));
    }
    ::close(fd);
}

TEST_F(HvFileInputStreamTest, FailedByteReadThrowsSystemError)
{
    std::string path = makeFile("f", "0123");
    int fd = ::open(path.c_str(), O_WRONLY);
    ASSERT_NE(-1, fd);
    {
        HvHandle<HvFileInputStream> in(new HvFileInputStream(fd));
        expectSystemError([&] { in->read(); }, "HvFileInputStream::read", EBADF);
    }
    ::close(fd);
}

TEST_F(HvFileInputStreamTest, BlockReadOfLengthZeroReportsTheEnd)
{
    std::string path = makeFile("f", "0123");
    HvHandle<HvFileInputStream> in(new HvFileInputStream(path.c_str()));
    char buffer[1];
    EXPECT_EQ(-1, in->read(buffer, 0, 0));
    EXPECT_EQ('0', in->read());
}

TEST_F(HvFileInputStreamTest, BlockReadIntoNoBufferReadsNothing)
{
    std::string path = makeFile("f", "0123");
    HvHandle<HvFileInputStream> in(new HvFileInputStream(path.c_str()));
    EXPECT_EQ(0, in->read(nullptr, 4, 0));
    EXPECT_EQ('0', in->read());
}

TEST_F(HvFileInputStreamTest, ReadIntoArrayFillsItsWindow)
{
    std::string path = makeFile("f", "abcdefgh");
    HvHandle<HvFileInputStream> in(new HvFileInputStream(path.c_str()));
    HvHandle<HvByteArray> array = HvByteArray::sCreate(6, nullptr);
    EXPECT_EQ(4, in->read(array, 2, 0));
    EXPECT_EQ(std::string("abcd"), std::string(reinterpret_cast<const char*>(array->getData()) + 2, 4));
}

TEST_F(HvFileInputStreamTest, FileRemovedWhileOpenStillReads)
{
    std::string content(10000, 'x');
    content += "end";
    std::string path = makeFile("gone", content);
    HvHandle<HvFileInputStream> in(new HvFileInputStream(path.c_str()));
    ASSERT_EQ(0, ::unlink(path.c_str()));
    ASSERT_FALSE(std::filesystem::exists(path));
    std::string read;
    char buffer[4096];
    for (;;) {
        int n = in->read(buffer, sizeof buffer, 0);
        if (n == -1)
            break;
        ASSERT_GT(n, 1);
        read.append(buffer, static_cast<std::size_t>(n));
    }
    EXPECT_EQ(content, read);
}

TEST_F(HvFileInputStreamTest, SkipSeeksAndReturnsTheDistanceEvenPastTheEnd)
{
    std::string path = makeFile("f", "0123456789");
    HvHandle<HvFileInputStream> in(new HvFileInputStream(path.c_str()));
    EXPECT_EQ(4u, in->skip(4));
    EXPECT_EQ('4', in->read());
    EXPECT_EQ(0u, in->skip(0));
    EXPECT_EQ('5', in->read());
    // A seek may go beyond the end of a file; the read then finds the end.
    EXPECT_EQ(100u, in->skip(100));
    EXPECT_EQ(-1, in->read());
}

TEST_F(HvFileInputStreamTest, SkipOnAPipeReadsAndDiscards)
{
    Pipe pipe;
    std::string data;
    for (int i = 0; i < 100; ++i)
        data += static_cast<char>('!' + i % 90);
    pipe.put(data);
    HvHandle<HvFileInputStream> in(new HvFileInputStream(pipe.ends[0]));
    // 64 bytes, then 6: no block read of a single byte.
    EXPECT_EQ(70u, in->skip(70));
    EXPECT_EQ(static_cast<unsigned char>(data[70]), in->read());
    ::close(pipe.ends[1]);
    pipe.ends[1] = -1;
    EXPECT_EQ(29u, in->skip(200));
    EXPECT_EQ(-1, in->read());
}

TEST_F(HvFileInputStreamTest, FailedSeekInSkipThrowsSystemError)
{
    // Seekable when made; the descriptor is then replaced by a pipe end.
    std::string path = makeFile("f", "0123");
    int fd = ::open(path.c_str(), O_RDONLY);
    ASSERT_NE(-1, fd);
    Pipe pipe;
    {
        HvHandle<HvFileInputStream> in(new HvFileInputStream(fd));
        ASSERT_TRUE(in->isSeekable());
        ASSERT_EQ(fd, ::dup2(pipe.ends[0], fd));
        expectSystemError([&] { in->skip(2); }, "HvFileInputStream::skip", ESPIPE);
        expectSystemError([&] { in->mark(0); }, "HvFileInputStream::mark", ESPIPE);
    }
    ::close(fd);
}

TEST_F(HvFileInputStreamTest, FailedSeekInResetThrowsSystemErrorAndKeepsTheMark)
{
    std::string path = makeFile("f", "0123");
    int fd = ::open(path.c_str(), O_RDONLY);
    ASSERT_NE(-1, fd);
    Pipe pipe;
    {
        HvHandle<HvFileInputStream> in(new HvFileInputStream(fd));
        EXPECT_EQ('0', in->read());
        in->mark(0);
        int saved = ::dup(fd);
        ASSERT_EQ(fd, ::dup2(pipe.ends[0], fd));
        expectSystemError([&] { in->reset(); }, "HvFileInputStream::reset", ESPIPE);
        // The file comes back: the mark was not used up by the failure.
        ASSERT_EQ(fd, ::dup2(saved, fd));
        ::close(saved);
        EXPECT_EQ('1', in->read());
        in->reset();
        EXPECT_EQ('1', in->read());
    }
    ::close(fd);
}

TEST_F(HvFileInputStreamTest, AvailableIsAlwaysZero)
{
    std::string path = makeFile("f", "0123");
    HvHandle<HvFileInputStream> in(new HvFileInputStream(path.c_str()));
    EXPECT_EQ(0u, in->available());
    Pipe pipe;
    pipe.put("abc");
    HvHandle<HvFileInputStream> fromPipe(new HvFileInputStream(pipe.ends[0]));
    EXPECT_EQ(0u, fromPipe->available());
}

TEST_F(HvFileInputStreamTest, ResetGoesBackToTheMarkOnce)
{
    std::string path = makeFile("f", "0123456789");
    HvHandle<HvFileInputStream> in(new HvFileInputStream(path.c_str()));
    EXPECT_EQ('0', in->read());
    in->mark(1);
    EXPECT_EQ('1', in->read());
    EXPECT_EQ('2', in->read());
    EXPECT_EQ(5u, in->skip(5));
    in->reset();
    EXPECT_EQ('1', in->read());
    // The mark is used up: a second reset stays where it is.
    EXPECT_EQ('2', in->read());
    in->reset();
    EXPECT_EQ('3', in->read());
}

TEST_F(HvFileInputStreamTest, ResetWithoutMarkIsSilent)
{
    std::string path = makeFile("f", "0123");
    HvHandle<HvFileInputStream> in(new HvFileInputStream(path.c_str()));
    EXPECT_EQ('0', in->read());
    EXPECT_TRUE(hvtest::thrownBy([&] { in->reset(); }).isNull());
    EXPECT_EQ('1', in->read());
}

TEST_F(HvFileInputStreamTest, MarkAndResetDoNothingOnAPipe)
{
    Pipe pipe;
    pipe.put("abcd");
    HvHandle<HvFileInputStream> in(new HvFileInputStream(pipe.ends[0]));
    EXPECT_EQ('a', in->read());
    in->mark(100);
    EXPECT_EQ('b', in->read());
    EXPECT_TRUE(hvtest::thrownBy([&] { in->reset(); }).isNull());
    EXPECT_EQ('c', in->read());
}

TEST_F(HvFileInputStreamTest, BlockOnAFileNotifiesANilTickAndReturnsTrue)
{
    std::string path = makeFile("f", "0123");
    HvHandle<HvFileInputStream> in(new HvFileInputStream(path.c_str()));
    HvHandle<hvtest::NoteTakingObserver> observer(new hvtest::NoteTakingObserver);
    in->attachObserver(observer);
    EXPECT_TRUE(in->block());
    EXPECT_TRUE(in->block());
    ASSERT_EQ(2u, observer->notes.size());
    hvtest::expectNote(observer->notes, 0, in.get(), nullptr);
    hvtest::expectNote(observer->notes, 1, in.get(), nullptr);
    // Nothing was read.
    EXPECT_EQ('0', in->read());
    in->detachObserver(observer);
}

TEST_F(HvFileInputStreamTest, BlockOnAPipeThrowsImplementationPending)
{
    Pipe pipe;
    HvHandle<HvFileInputStream> in(new HvFileInputStream(pipe.ends[0]));
    hvtest::expectPlainHvException([&] { in->block(); }, "HvFileInputStream::block implementation pending");
}

TEST_F(HvFileInputStreamTest, ReadFromAPipeWaitsForTheWriter)
{
    Pipe pipe;
    HvHandle<HvFileInputStream> in(new HvFileInputStream(pipe.ends[0]));
    std::atomic<int> got{-2};
    std::thread reader([&] { got = in->read(); });
    // Still waiting after a while: nothing was written.
    std::this_thread::sleep_for(hvtest::kHoldWindow);
    EXPECT_EQ(-2, got.load());
    pipe.put("z");
    reader.join();
    EXPECT_EQ('z', got.load());
    // Closing the writer is the end of the stream.
    ::close(pipe.ends[1]);
    pipe.ends[1] = -1;
    char buffer[4];
    EXPECT_EQ(-1, in->read(buffer, 4, 0));
    EXPECT_EQ(-1, in->read());
}

TEST_F(HvFileInputStreamTest, NonBlockingDescriptorIsNotWaitedFor)
{
    Pipe pipe;
    ASSERT_EQ(0, ::fcntl(pipe.ends[0], F_SETFL, O_NONBLOCK));
    HvHandle<HvFileInputStream> in(new HvFileInputStream(pipe.ends[0]));
    expectSystemError([&] { in->read(); }, "HvFileInputStream::read", EAGAIN);
    char buffer[4];
    EXPECT_EQ(-1, in->read(buffer, 4, 0));
}

TEST_F(HvFileInputStreamTest, StreamsOnOneDescriptorShareItsRegistration)
{
    std::string path = makeFile("f", "0123");
    HvHandle<HvFileInputStream> owner(new HvFileInputStream(path.c_str()));
    int fd = owner->getDescriptor();
    {
        HvHandle<HvFileInputStream> wrapper(new HvFileInputStream(fd));
        EXPECT_EQ('0', wrapper->read());
    }
    EXPECT_TRUE(isOpen(fd));
    EXPECT_EQ('1', owner->read());
    owner = HvHandle<HvFileInputStream>();
    EXPECT_FALSE(isOpen(fd));
    EXPECT_FALSE(HvFileInputStream::sIsRegistered(fd));
}
