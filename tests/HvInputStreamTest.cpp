#include <HvUtil/HvInputStream.h>

#include <HvUtil/HvAssertionFailure.h>
#include <HvUtil/HvBufferedInputStream.h>
#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvByteArrayOutputStream.h>
#include <HvUtil/HvErrorStream.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvFileInputStream.h>

#include <Velmora/MemAllocator.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

// Serves the bytes of a string one read() at a time. Told to fail after k
// bytes, every read() from then on throws HvException "source failed".
// Records each block read asked of it and lets the default do the work.
class StringInputStream : public HvInputStream {
public:
    struct Request {
        unsigned int length;
        unsigned int offset;
    };

    explicit StringInputStream(const std::string& data, int failAfter = -1, int* destroyed = nullptr)
        : m_data(data), m_failAfter(failAfter), m_destroyed(destroyed)
    {
    }
    ~StringInputStream() override
    {
        if (m_destroyed)
            ++*m_destroyed;
    }

    int read() override
    {
        ++readCalls;
        if (m_failAfter >= 0 && m_position >= static_cast<std::size_t>(m_failAfter))
            HvException::sThrow("source failed");
        if (m_position >= m_data.size())
            return -1;
        return static_cast<unsigned char>(m_data[m_position++]);
    }
    int read(void* buffer, unsigned int length, unsigned int offset) override
    {
        requests.push_back({length, offset});
        return HvInputStream::read(buffer, length, offset);
    }
    using HvInputStream::read;

    int readCalls = 0;
    std::vector<Request> requests;

private:
    std::string m_data;
    std::size_t m_position = 0;
    int m_failAfter;
    int* m_destroyed;
};

// A block read that never delivers anything but never reports the end either.
class NothingYetInputStream : public HvInputStream {
public:
    int read() override { return -1; }
    int read(void*, unsigned int, unsigned int) override
    {
        ++blockReads;
        return 0;
    }
    using HvInputStream::read;
    int blockReads = 0;
};

} // namespace

// ---- default block read ----

TEST(HvInputStream, DefaultBlockReadStoresBytesFromOffset)
{
    StringInputStream in("hello");
    char buffer[8];
    std::memset(buffer, '.', sizeof(buffer));
    EXPECT_EQ(3, in.read(buffer, 3, 2));
    EXPECT_EQ("..hel...", std::string(buffer, 8));
    EXPECT_EQ(3, in.readCalls);
}

TEST(HvInputStream, DefaultBlockReadStopsAtTheEnd)
{
    StringInputStream in("abc");
    char buffer[10];
    EXPECT_EQ(3, in.read(buffer, 10, 0));
    EXPECT_EQ("abc", std::string(buffer, 3));
    // The fourth read() gave -1 and ended the block read.
    EXPECT_EQ(4, in.readCalls);
}

TEST(HvInputStream, DefaultBlockReadAtTheEndReturnsMinusOne)
{
    StringInputStream in("ab");
    char buffer[4];
    EXPECT_EQ(2, in.read(buffer, 2, 0));
    EXPECT_EQ(-1, in.read(buffer, 4, 0));
    EXPECT_EQ(-1, in.read(buffer, 1, 0));

    StringInputStream empty("");
    EXPECT_EQ(-1, empty.read(buffer, 4, 0));
}

TEST(HvInputStream, DefaultBlockReadOfLengthZeroReadsNothing)
{
    StringInputStream in("ab");
    char buffer[1] = {'.'};
    EXPECT_EQ(0, in.read(buffer, 0, 0));
    EXPECT_EQ(0, in.readCalls);
    EXPECT_EQ('.', buffer[0]);
    EXPECT_EQ('a', in.read());
}

TEST(HvInputStream, DefaultBlockReadKeepsBytesFrom128)
{
    StringInputStream in(std::string("\x80\xff\x01", 3));
    unsigned char buffer[3];
    EXPECT_EQ(3, in.read(buffer, 3, 0));
    EXPECT_EQ(0x80, buffer[0]);
    EXPECT_EQ(0xFF, buffer[1]);
    EXPECT_EQ(0x01, buffer[2]);
}

TEST(HvInputStream, ExceptionAfterSomeBytesReturnsThePartialCountAndLogsIt)
{
    hvtest::DebugOutputCapture debug;
    StringInputStream in("abcdef", 3);
    char buffer[6];
    std::memset(buffer, '.', sizeof(buffer));
    EXPECT_EQ(3, in.read(buffer, 6, 0));
    EXPECT_EQ("abc...", std::string(buffer, 6));
    EXPECT_EQ("catch exception in HvInputStream::read(): source failed\n", debug.text());
}

TEST(HvInputStream, ExceptionBeforeAnyByteIsThrownOn)
{
    hvtest::DebugOutputCapture debug;
    StringInputStream in("abcdef", 2);
    char buffer[6];
    EXPECT_EQ(2, in.read(buffer, 6, 0));
    std::string afterPartial = debug.text();

    EXPECT_EQ("source failed", hvtest::messageOf([&] { in.read(buffer, 6, 0); }));
    // Both catches are logged; the second one then throws on.
    EXPECT_EQ("catch exception in HvInputStream::read(): source failed\n", afterPartial);
    EXPECT_EQ(afterPartial + afterPartial, debug.text());
}

TEST(HvInputStream, CaughtExceptionIsNotWrittenWithoutTheDebugMode)
{
    hvtest::DebugOutputCapture debug(false);
    StringInputStream in("abcdef", 4);
    char buffer[6];
    EXPECT_EQ(4, in.read(buffer, 6, 0));
    EXPECT_EQ("", debug.text());
}

TEST(HvInputStream, CaughtExceptionIsLoggedAtDebugLevelZero)
{
    // With the threshold at 0 even level 0 is suppressed.
    hvtest::DebugOutputCapture debug;
    debug.stream().setLevel(0);
    StringInputStream in("abcdef", 1);
    char buffer[6];
    EXPECT_EQ(1, in.read(buffer, 6, 0));
    EXPECT_EQ("", debug.text());

    debug.stream().setLevel(1);
    StringInputStream again("abcdef", 1);
    EXPECT_EQ(1, again.read(buffer, 6, 0));
    EXPECT_EQ("catch exception in HvInputStream::read(): source failed\n", debug.text());
}

TEST(HvInputStream, PartialReadLeavesNoStringBehind)
{
    long before = Velmora::allocationStats("HvStringBuffer").liveCount;
    {
        hvtest::DebugOutputCapture debug;
        StringInputStream in("abcdef", 3);
        char buffer[6];
        EXPECT_EQ(3, in.read(buffer, 6, 0));
        try {
            in.read(buffer, 6, 0);
            ADD_FAILURE() << "no exception";
        } catch (HvHandle<HvException>&) {
        }
    }
    EXPECT_EQ(before, Velmora::allocationStats("HvStringBuffer").liveCount);
}

// ---- default skip ----

TEST(HvInputStream, SkipZeroReadsNothing)
{
    StringInputStream in("abc");
    EXPECT_EQ(0u, in.skip(0));
    EXPECT_EQ(0, in.readCalls);
    EXPECT_TRUE(in.requests.empty());
}

TEST(HvInputStream, SkipMoreThanLeftReturnsWhatWasLeft)
{
    StringInputStream in(std::string(100, 'x'));
    EXPECT_EQ(100u, in.skip(200));
    EXPECT_EQ(-1, in.read());
}

TEST(HvInputStream, SkipReadsInChunksOfAtMost64Bytes)
{
    std::string data;
    for (int i = 0; i < 300; ++i)
        data += static_cast<char>(i % 251);
    StringInputStream in(data);
    EXPECT_EQ(200u, in.skip(200));
    ASSERT_EQ(4u, in.requests.size());
    EXPECT_EQ(64u, in.requests[0].length);
    EXPECT_EQ(64u, in.requests[1].length);
    EXPECT_EQ(64u, in.requests[2].length);
    EXPECT_EQ(8u, in.requests[3].length);
    for (const auto& request : in.requests)
        EXPECT_EQ(0u, request.offset);
    EXPECT_EQ(200 % 251, in.read());
}

TEST(HvInputStream, SkipStopsWhenTheStreamEnds)
{
    StringInputStream in(std::string(100, 'x'));
    EXPECT_EQ(100u, in.skip(200));
    // 64, then 36 of 64, then the end.
    ASSERT_EQ(3u, in.requests.size());
    EXPECT_EQ(64u, in.requests[2].length);

    StringInputStream exact(std::string(64, 'x'));
    EXPECT_EQ(64u, exact.skip(64));
    EXPECT_EQ(1u, exact.requests.size());

    StringInputStream empty("");
    EXPECT_EQ(0u, empty.skip(10));
}

TEST(HvInputStream, SkipGivesUpWhenAReadDeliversNothing)
{
    NothingYetInputStream in;
    EXPECT_EQ(0u, in.skip(100));
    EXPECT_EQ(1, in.blockReads);
}

// ---- other defaults ----

TEST(HvInputStream, AvailableIsZeroAndMarkIsNotSupported)
{
    StringInputStream in("abc");
    EXPECT_EQ(0u, in.available());
    EXPECT_FALSE(in.markSupported());
    in.mark(10);
    EXPECT_EQ('a', in.read());
    in.mark(0);
    EXPECT_EQ('b', in.read());
    EXPECT_EQ(0u, in.available());
}

TEST(HvInputStream, ResetThrowsAssertionFailure)
{
    hvtest::AssertionScope recorder;
    StringInputStream in("abc");
    EXPECT_EQ('a', in.read());
    bool thrown = false;
    try {
        in.reset();
    } catch (HvHandle<HvException>& e) {
        thrown = true;
        EXPECT_STREQ("HvInputStream::reset()", e->getMessage().c_str());
        HvAssertionFailure* failure = dynamic_cast<HvAssertionFailure*>(e.get());
        ASSERT_NE(nullptr, failure);
        EXPECT_STREQ("HvInputStream.cpp", failure->getFile());
        EXPECT_EQ(102u, failure->getLine());

        HvByteArrayOutputStream out(0);
        failure->display(out);
        EXPECT_EQ(std::string("HvInputStream::reset()\nHvInputStream.cpp line 102\nCompilation : ") +
                      failure->getTimestamp() + "\n",
                  hvtest::textOf(out));
    }
    EXPECT_TRUE(thrown);

    std::vector<hvtest::AssertionRecord> assertions = hvtest::recordedAssertions();
    ASSERT_EQ(1u, assertions.size());
    hvtest::expectAssertion(assertions[0], "HvInputStream::reset()", "HvInputStream.cpp", 102);

    // The stream goes on where it was.
    EXPECT_EQ('b', in.read());
    char buffer[4];
    EXPECT_EQ(1, in.read(buffer, 4, 0));
    EXPECT_EQ('c', buffer[0]);
}

// ---- read(HvHandle<HvByteArray>, offset, length) ----

TEST(HvInputStream, ReadIntoArrayWithLengthZeroFillsToTheEnd)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate("0123456789");
    StringInputStream in("abcdefghijkl");
    EXPECT_EQ(6, in.read(array, 4, 0));
    EXPECT_EQ("0123abcdef", std::string(reinterpret_cast<char*>(array->getData()), 10));
    ASSERT_EQ(1u, in.requests.size());
    EXPECT_EQ(6u, in.requests[0].length);
    EXPECT_EQ(4u, in.requests[0].offset);
}

TEST(HvInputStream, ReadIntoArrayWithTooLongLengthFillsToTheEnd)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate("0123456789");
    StringInputStream in("abcdefghijkl");
    EXPECT_EQ(6, in.read(array, 4, 7));
    EXPECT_EQ("0123abcdef", std::string(reinterpret_cast<char*>(array->getData()), 10));
    EXPECT_EQ('g', in.read());
}

TEST(HvInputStream, ReadIntoArrayWithFittingLengthReadsThatMany)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate("0123456789");
    StringInputStream in("abcdefghijkl");
    EXPECT_EQ(3, in.read(array, 2, 3));
    EXPECT_EQ("01abc56789", std::string(reinterpret_cast<char*>(array->getData()), 10));
    EXPECT_EQ(6, in.read(array, 0, 6));
    EXPECT_EQ("defghi6789", std::string(reinterpret_cast<char*>(array->getData()), 10));
}

TEST(HvInputStream, ReadIntoArrayAtItsEndReadsNothing)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate("0123456789");
    StringInputStream in("abc");
    EXPECT_EQ(0, in.read(array, 10, 0));
    EXPECT_EQ(0, in.read(array, 25, 3));
    EXPECT_EQ("0123456789", std::string(reinterpret_cast<char*>(array->getData()), 10));
    EXPECT_EQ('a', in.read());
}

TEST(HvInputStream, ReadIntoArrayAtTheEndOfTheStreamReturnsMinusOne)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate("0123456789");
    StringInputStream in("ab");
    EXPECT_EQ(2, in.read(array, 0, 0));
    EXPECT_EQ(-1, in.read(array, 0, 0));
    EXPECT_EQ("ab23456789", std::string(reinterpret_cast<char*>(array->getData()), 10));
}

TEST(HvInputStream, ReadIntoNilArrayReadsNothing)
{
    StringInputStream in("abc");
    EXPECT_EQ(0, in.read(HvHandle<HvByteArray>(), 0, 0));
    EXPECT_EQ(0, in.read(HvHandle<HvByteArray>(), 2, 5));
    EXPECT_EQ(0, in.readCalls);
    EXPECT_EQ('a', in.read());
}

// ---- process default ----

// Ends a death-test child with a reason on stderr.
[[noreturn]] void failChild(const char* reason)
{
    ssize_t written = ::write(2, reason, std::strlen(reason));
    (void)written;
    _exit(1);
}

TEST(HvInputStream, DefaultIsMadeOnFirstUseAsABufferedStreamOverDescriptor0)
{
    // Checked in a fresh process: nothing else may have made or installed a
    // default, and descriptor 0 can be replaced by a pipe.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            int ends[2];
            if (::pipe(ends) != 0 || ::write(ends[1], "hello", 5) != 5 || ::dup2(ends[0], 0) != 0)
                failChild("pipe set-up failed");
            ::close(ends[1]);
            HvHandle<HvInputStream> made = HvInputStream::sGetDefault();
            HvBufferedInputStream* buffered = dynamic_cast<HvBufferedInputStream*>(made.get());
            if (!buffered)
                failChild("not an HvBufferedInputStream");
            if (buffered->getCapacity() != 0)
                failChild("buffer made before the first fill");
            HvFileInputStream* file = dynamic_cast<HvFileInputStream*>(buffered->getSourceStream().get());
            if (!file)
                failChild("source is not an HvFileInputStream");
            if (file->getDescriptor() != 0 || file->isOwner())
                failChild("source is not a wrapped descriptor 0");
            if (!HvFileInputStream::sIsRegistered(0))
                failChild("descriptor 0 not registered");
            if (HvInputStream::sGetDefault() != made)
                failChild("second call made another stream");
            char buffer[8] = {0};
            if (made->read() != 'h' || made->read(buffer, 8, 0) != 4 || std::string(buffer) != "ello" ||
                made->read() != -1)
                failChild("wrong bytes from descriptor 0");
            if (HvInputStream::sSetDefault(*new StringInputStream("x")) != made)
                failChild("installing did not return the made default");
            _exit(0);
        },
        testing::ExitedWithCode(0), "");
}

TEST(HvInputStream, SetDefaultReturnsThePreviousAndHoldsTheNewOne)
{
    int firstDestroyed = 0;
    int secondDestroyed = 0;
    StringInputStream* first = new StringInputStream("first", -1, &firstDestroyed);
    StringInputStream* second = new StringInputStream("second", -1, &secondDestroyed);

    HvInputStream::sSetDefault(*first);
    EXPECT_EQ(first, HvInputStream::sGetDefault().get());
    EXPECT_EQ(1, first->getRefCount());
    {
        HvHandle<HvInputStream> previous = HvInputStream::sSetDefault(*second);
        EXPECT_EQ(first, previous.get());
        EXPECT_EQ(second, HvInputStream::sGetDefault().get());
        EXPECT_EQ(0, firstDestroyed);
    }
    // The default held the only other reference to the first stream.
    EXPECT_EQ(1, firstDestroyed);

    {
        HvHandle<HvInputStream> again = HvInputStream::sSetDefault(*second);
        EXPECT_EQ(second, again.get());
        EXPECT_EQ('s', HvInputStream::sGetDefault()->read());
    }
    EXPECT_EQ(0, secondDestroyed);

    // Leave a default that does not point at this test's counters.
    HvInputStream::sSetDefault(*new StringInputStream("last"));
    EXPECT_EQ(1, secondDestroyed);
}

TEST(HvInputStream, DefaultBlockReadIntoNoBufferReadsNothing)
{
    StringInputStream in("abc");
    EXPECT_EQ(0, in.read(nullptr, 2, 0));
    EXPECT_EQ('a', in.read());
}
