#include <HvUtil/HvOutputStream.h>

#include <HvUtil/HvBufferedOutputStream.h>
#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvByteArrayOutputStream.h>
#include <HvUtil/HvFileOutputStream.h>
#include <HvUtil/HvString.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cstdint>
#include <cstring>
#include <cstdio>
#include <string>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

namespace {

// Records every value given to write(int); keeps the default block write and flush.
class RecordingOutputStream : public HvOutputStream {
public:
    explicit RecordingOutputStream(int* destroyed = nullptr) : m_destroyed(destroyed) {}
    ~RecordingOutputStream() override
    {
        if (m_destroyed)
            ++*m_destroyed;
    }

    void write(int byte) override
    {
        values.push_back(byte);
        events.push_back("write " + std::to_string(byte));
    }
    using HvOutputStream::write;

    std::vector<int> values;
    std::vector<std::string> events;

private:
    int* m_destroyed;
};

// Also records each flush, in order with the writes.
class FlushRecordingOutputStream : public RecordingOutputStream {
public:
    void flush() override { events.push_back("flush"); }
};

// Also records each block write (its text, length and offset) before
// handing it to the default, which ends in write(int).
class BlockRecordingOutputStream : public RecordingOutputStream {
public:
    struct Block {
        std::string text;
        unsigned int length;
        unsigned int offset;
    };

    void write(const void* buffer, unsigned int length, unsigned int offset) override
    {
        blocks.push_back({std::string(static_cast<const char*>(buffer) + offset, length), length, offset});
        HvOutputStream::write(buffer, length, offset);
    }
    using RecordingOutputStream::write;

    std::vector<Block> blocks;
};

template <class T>
std::string printed(T value)
{
    HvByteArrayOutputStream out(0);
    out << value;
    return hvtest::textOf(out);
}

// What write(array, offset, length) writes for an array holding "hello".
std::string writtenFromHello(unsigned int offset, unsigned int length)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate("hello");
    HvByteArrayOutputStream out(0);
    out.write(array.get(), offset, length);
    return hvtest::textOf(out);
}

std::string printfOf(const char* format, double value)
{
    char text[1024];
    int n = std::snprintf(text, sizeof(text), format, value);
    return std::string(text, static_cast<std::size_t>(n));
}

} // namespace

// ---- default write(buffer, length, offset) ----

TEST(HvOutputStream, DefaultBlockWritePassesEachByteToWriteInt)
{
    RecordingOutputStream out;
    out.write("abc", 3, 0);
    EXPECT_EQ((std::vector<int>{'a', 'b', 'c'}), out.values);
}

TEST(HvOutputStream, DefaultBlockWriteStartsAtOffset)
{
    RecordingOutputStream out;
    out.write("xyzabcd", 2, 3);
    EXPECT_EQ((std::vector<int>{'a', 'b'}), out.values);
}

TEST(HvOutputStream, DefaultBlockWriteSignExtendsBytesFrom128)
{
    RecordingOutputStream out;
    const unsigned char bytes[] = {0x80, 0xFF, 0x7F, 0xC8, 0x00};
    out.write(bytes, 5, 0);
    EXPECT_EQ((std::vector<int>{-128, -1, 127, -56, 0}), out.values);
}

TEST(HvOutputStream, DefaultBlockWriteOfNullBufferWritesNothing)
{
    RecordingOutputStream out;
    out.write(static_cast<const void*>(nullptr), 5, 0);
    out.write(static_cast<const void*>(nullptr), 5, 2);
    EXPECT_TRUE(out.values.empty());
}

TEST(HvOutputStream, DefaultBlockWriteOfLengthZeroWritesNothing)
{
    RecordingOutputStream out;
    out.write("abc", 0, 1);
    EXPECT_TRUE(out.values.empty());
}

TEST(HvOutputStream, DefaultFlushWritesNothing)
{
    RecordingOutputStream out;
    out.write('q');
    out.flush();
    flush(out);
    EXPECT_EQ((std::vector<std::string>{"write 113"}), out.events);
}

// ---- write(HvByteArray*, offset, length) ----

TEST(HvOutputStream, WriteByteArrayWithLengthZeroWritesToTheEnd)
{
    EXPECT_EQ("hello", writtenFromHello(0, 0));
    EXPECT_EQ("llo", writtenFromHello(2, 0));
}

TEST(HvOutputStream, WriteByteArrayWritesTheGivenWindow)
{
    EXPECT_EQ("ell", writtenFromHello(1, 3));
}

TEST(HvOutputStream, WriteByteArrayWithLengthBeyondTheEndWritesToTheEnd)
{
    EXPECT_EQ("llo", writtenFromHello(2, 4));
    EXPECT_EQ("llo", writtenFromHello(2, 100));
}

TEST(HvOutputStream, WriteByteArrayGoesThroughTheBlockWrite)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate("hello");
    BlockRecordingOutputStream out;
    out.write(array.get(), 1, 0);
    ASSERT_EQ(1u, out.blocks.size());
    EXPECT_EQ("ello", out.blocks[0].text);
    EXPECT_EQ(4u, out.blocks[0].length);
    EXPECT_EQ(1u, out.blocks[0].offset);
}

TEST(HvOutputStream, WriteByteArrayAtOrPastItsEndWritesNothing)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate("hello");
    RecordingOutputStream out;
    out.write(array.get(), 5, 0);
    out.write(array.get(), 5, 3);
    out.write(array.get(), 9, 2);
    EXPECT_TRUE(out.values.empty());
}

TEST(HvOutputStream, WriteOfNullByteArrayWritesNothing)
{
    RecordingOutputStream out;
    out.write(static_cast<HvByteArray*>(nullptr), 0, 0);
    out.write(static_cast<HvByteArray*>(nullptr), 1, 4);
    EXPECT_TRUE(out.values.empty());
}

TEST(HvOutputStream, WriteOfEmptyByteArrayWritesNothing)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate(0u, nullptr);
    RecordingOutputStream out;
    out.write(array.get(), 0, 0);
    EXPECT_TRUE(out.values.empty());
}

// ---- operator<< ----

TEST(HvOutputStream, StreamsCharactersOfText)
{
    EXPECT_EQ("hello, world", printed("hello, world"));
    EXPECT_EQ("", printed(""));
}

TEST(HvOutputStream, StreamingNilTextWritesNothing)
{
    RecordingOutputStream out;
    HvOutputStream& result = out << static_cast<const char*>(nullptr);
    EXPECT_EQ(&out, &result);
    EXPECT_TRUE(out.values.empty());
    EXPECT_EQ("", printed(static_cast<const char*>(nullptr)));
}

TEST(HvOutputStream, StreamsUnsignedCharAsOneByteThroughWriteInt)
{
    BlockRecordingOutputStream out;
    out << static_cast<unsigned char>(200) << static_cast<unsigned char>('A');
    EXPECT_EQ((std::vector<int>{200, 'A'}), out.values);
    EXPECT_TRUE(out.blocks.empty());

    EXPECT_EQ(std::string(1, '\xC8'), printed(static_cast<unsigned char>(200)));
    EXPECT_EQ(std::string(1, '\0'), printed(static_cast<unsigned char>(0)));
}

TEST(HvOutputStream, StreamsDoubleWithSixDecimals)
{
    EXPECT_EQ("1.500000", printed(1.5));
    EXPECT_EQ("-0.250000", printed(-0.25));
    EXPECT_EQ("0.000000", printed(0.0));
    EXPECT_EQ("3.141593", printed(3.14159265));
    EXPECT_EQ("0.000000", printed(1e-9));
}

TEST(HvOutputStream, StreamsHugeDoubleWithAllItsDigits)
{
    std::string huge = printed(1e300);
    EXPECT_EQ(308u, huge.size());
    EXPECT_EQ(printfOf("%f", 1e300), huge);
    EXPECT_EQ("1000000000000000", huge.substr(0, 16));
    EXPECT_EQ(".000000", huge.substr(huge.size() - 7));

    std::string largest = printed(-DBL_MAX);
    EXPECT_EQ(317u, largest.size());
    EXPECT_EQ(printfOf("%f", -DBL_MAX), largest);
    EXPECT_EQ(".000000", largest.substr(largest.size() - 7));
}

TEST(HvOutputStream, StreamsShortInDecimal)
{
    EXPECT_EQ("123", printed(static_cast<short>(123)));
    EXPECT_EQ("-32768", printed(static_cast<short>(SHRT_MIN)));
    EXPECT_EQ("32767", printed(static_cast<short>(SHRT_MAX)));
}

TEST(HvOutputStream, StreamsUnsignedShortInDecimal)
{
    EXPECT_EQ("65535", printed(static_cast<unsigned short>(65535)));
    EXPECT_EQ("0", printed(static_cast<unsigned short>(0)));
}

TEST(HvOutputStream, StreamsIntInDecimal)
{
    EXPECT_EQ("0", printed(0));
    EXPECT_EQ("42", printed(42));
    EXPECT_EQ("-2147483648", printed(INT_MIN));
    EXPECT_EQ("2147483647", printed(INT_MAX));
}

TEST(HvOutputStream, StreamsUnsignedIntInDecimal)
{
    EXPECT_EQ("4294967295", printed(4294967295u));
    EXPECT_EQ("7", printed(7u));
}

TEST(HvOutputStream, StreamsLongInDecimal)
{
    EXPECT_EQ("-123456789", printed(-123456789L));
    EXPECT_EQ("2147483647", printed(2147483647L));
    EXPECT_EQ("-2147483648", printed(-2147483648L));
    // long is 64 bits here: every digit is printed.
    EXPECT_EQ("-9223372036854775808", printed(LONG_MIN));
}

TEST(HvOutputStream, StreamsUnsignedLongInDecimal)
{
    EXPECT_EQ("4294967295", printed(4294967295UL));
    EXPECT_EQ("0", printed(0UL));
    EXPECT_EQ("18446744073709551615", printed(ULONG_MAX));
}

TEST(HvOutputStream, StreamsPointerAsEightUpperCaseHexDigits)
{
    EXPECT_EQ("00001234", printed(reinterpret_cast<const void*>(std::uintptr_t{0x1234})));
    EXPECT_EQ("00000000", printed(static_cast<const void*>(nullptr)));
    EXPECT_EQ("ABCDEF12", printed(reinterpret_cast<const void*>(std::uintptr_t{0xabcdef12})));
    // Eight is the minimum width; a wider address keeps all of its digits.
    EXPECT_EQ("123456789A", printed(reinterpret_cast<const void*>(std::uintptr_t{0x123456789a})));
}

TEST(HvOutputStream, NumbersAreWrittenAsOneBlockAtOffsetZero)
{
    BlockRecordingOutputStream out;
    out << 42 << -7L << 3.5 << static_cast<const void*>(nullptr) << "text";
    ASSERT_EQ(5u, out.blocks.size());
    const char* texts[] = {"42", "-7", "3.500000", "00000000", "text"};
    for (std::size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(texts[i], out.blocks[i].text) << i;
        EXPECT_EQ(std::string(texts[i]).size(), out.blocks[i].length) << i;
        EXPECT_EQ(0u, out.blocks[i].offset) << i;
    }
}

TEST(HvOutputStream, EveryOverloadReturnsTheStream)
{
    RecordingOutputStream out;
    EXPECT_EQ(&out, &(out << "x"));
    EXPECT_EQ(&out, &(out << static_cast<unsigned char>(1)));
    EXPECT_EQ(&out, &(out << 1.0));
    EXPECT_EQ(&out, &(out << static_cast<short>(1)));
    EXPECT_EQ(&out, &(out << static_cast<unsigned short>(1)));
    EXPECT_EQ(&out, &(out << 1));
    EXPECT_EQ(&out, &(out << 1u));
    EXPECT_EQ(&out, &(out << 1L));
    EXPECT_EQ(&out, &(out << 1UL));
    EXPECT_EQ(&out, &(out << static_cast<const void*>(&out)));
    EXPECT_EQ(&out, &(out << endl));
    EXPECT_EQ(&out, &(out << flush));
}

TEST(HvOutputStream, ChainedOutputIsWrittenInOrder)
{
    HvByteArrayOutputStream out(0);
    out << "a=" << 1 << ", b=" << 2.5 << ", p=" << reinterpret_cast<const void*>(std::uintptr_t{0xff})
        << static_cast<unsigned char>('!');
    EXPECT_EQ("a=1, b=2.500000, p=000000FF!", hvtest::textOf(out));
}

// ---- manipulators ----

TEST(HvOutputStream, EndlWritesLineFeedThenFlushes)
{
    FlushRecordingOutputStream out;
    HvOutputStream& result = out << "ok" << endl;
    EXPECT_EQ(&out, &result);
    EXPECT_EQ((std::vector<std::string>{"write 111", "write 107", "write 10", "flush"}), out.events);
}

TEST(HvOutputStream, EndlCalledDirectlyWritesLineFeedThenFlushes)
{
    FlushRecordingOutputStream out;
    HvOutputStream& result = endl(out);
    EXPECT_EQ(&out, &result);
    EXPECT_EQ((std::vector<std::string>{"write 10", "flush"}), out.events);

    HvByteArrayOutputStream bytes(0);
    bytes << "line" << endl;
    EXPECT_EQ("line\n", hvtest::textOf(bytes));
}

TEST(HvOutputStream, FlushManipulatorOnlyFlushes)
{
    FlushRecordingOutputStream out;
    out << flush;
    HvOutputStream& result = flush(out);
    EXPECT_EQ(&out, &result);
    EXPECT_EQ((std::vector<std::string>{"flush", "flush"}), out.events);
}

// ---- streaming of objects and strings ----

TEST(HvOutputStream, StreamsNilObjectAsNilHvObject)
{
    HvByteArrayOutputStream out(0);
    out << static_cast<const HvObject*>(nullptr);
    EXPECT_EQ("Nil HvObject", hvtest::textOf(out));
}

TEST(HvOutputStream, StreamsObjectWithCountAddressAndClassName)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate("abc");
    HvByteArrayOutputStream out(0);
    out << static_cast<const HvObject*>(array.get());

    char address[64];
    std::snprintf(address, sizeof(address), "%08lX", reinterpret_cast<unsigned long>(array.get()));
    EXPECT_EQ(std::string("1 \t(") + address + ")\tHvByteArray", hvtest::textOf(out));
}

TEST(HvOutputStream, StreamsStringText)
{
    HvByteArrayOutputStream out(0);
    out << HvString("sip:") << HvString() << HvString("alice");
    EXPECT_EQ("sip:alice", hvtest::textOf(out));
}

// ---- process default ----

// Ends a death-test child with a reason on stderr.
[[noreturn]] void failChild(const char* reason)
{
    ssize_t written = ::write(2, reason, std::strlen(reason));
    (void)written;
    _exit(1);
}

// What the pipe holds now, without waiting.
std::string drain(int fd)
{
    std::string all;
    char buffer[1024];
    ssize_t n;
    while ((n = ::read(fd, buffer, sizeof buffer)) > 0)
        all.append(buffer, static_cast<std::size_t>(n));
    return all;
}

TEST(HvOutputStream, DefaultIsMadeOnFirstUseAsA512ByteBufferOverDescriptor1)
{
    // Checked in a fresh process: nothing else may have made or installed a
    // default, and descriptor 1 can be replaced by a pipe.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            int ends[2];
            if (::pipe(ends) != 0 || ::dup2(ends[1], 1) != 1 || ::fcntl(ends[0], F_SETFL, O_NONBLOCK) != 0)
                failChild("pipe set-up failed");
            ::close(ends[1]);
            HvHandle<HvOutputStream> made = HvOutputStream::sGetDefault();
            HvBufferedOutputStream* buffered = dynamic_cast<HvBufferedOutputStream*>(made.get());
            if (!buffered)
                failChild("not an HvBufferedOutputStream");
            if (buffered->getCapacity() != 512)
                failChild("buffer is not 512 bytes");
            HvFileOutputStream* file = dynamic_cast<HvFileOutputStream*>(buffered->getDestination().get());
            if (!file)
                failChild("destination is not an HvFileOutputStream");
            if (file->getDescriptor() != 1 || file->isOwner())
                failChild("destination is not a wrapped descriptor 1");
            if (HvOutputStream::sGetDefault() != made)
                failChild("second call made another stream");
            *made << "abc";
            if (!drain(ends[0]).empty())
                failChild("written before a flush");
            made->flush();
            if (drain(ends[0]) != "abc")
                failChild("flush did not reach descriptor 1");
            *made << "line" << endl;
            if (drain(ends[0]) != "line\n")
                failChild("endl did not flush");
            if (HvOutputStream::sSetDefault(*new RecordingOutputStream) != made)
                failChild("installing did not return the made default");
            _exit(0);
        },
        testing::ExitedWithCode(0), "");
}

TEST(HvOutputStream, SetDefaultReturnsThePreviousAndHoldsTheNewOne)
{
    int firstDestroyed = 0;
    int secondDestroyed = 0;
    RecordingOutputStream* first = new RecordingOutputStream(&firstDestroyed);
    RecordingOutputStream* second = new RecordingOutputStream(&secondDestroyed);

    HvOutputStream::sSetDefault(*first);
    EXPECT_EQ(first, HvOutputStream::sGetDefault().get());
    EXPECT_EQ(1, first->getRefCount());
    {
        HvHandle<HvOutputStream> previous = HvOutputStream::sSetDefault(*second);
        EXPECT_EQ(first, previous.get());
        EXPECT_EQ(second, HvOutputStream::sGetDefault().get());
        EXPECT_EQ(0, firstDestroyed);
    }
    // The default held the only other reference to the first stream.
    EXPECT_EQ(1, firstDestroyed);

    {
        HvHandle<HvOutputStream> again = HvOutputStream::sSetDefault(*second);
        EXPECT_EQ(second, again.get());
        EXPECT_EQ(second, HvOutputStream::sGetDefault().get());
    }
    EXPECT_EQ(0, secondDestroyed);

    *HvOutputStream::sGetDefault() << "to the default";
    EXPECT_EQ(14u, second->values.size());

    // Leave a default that does not point at this test's counters.
    HvOutputStream::sSetDefault(*new RecordingOutputStream);
    EXPECT_EQ(1, secondDestroyed);
}
