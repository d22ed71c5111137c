#include <HvUtil/HvByteArrayOutputStream.h>

#include <HvUtil/HvByteArray.h>

#include <Velmora/LogCapture.h>
#include <Velmora/Logger.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

const char kLoggerName[] = "ferrowind.hv.HvByteArrayOutputStream";

std::string pattern(unsigned int length, unsigned int seed)
{
    std::string text;
    for (unsigned int i = 0; i < length; ++i)
        text += static_cast<char>('a' + (i + seed) % 26);
    return text;
}

std::vector<std::string> debugMessages(const Velmora::LogCapture& capture)
{
    std::vector<std::string> messages;
    for (const Velmora::LogRecord& record : capture.records())
        if (record.level == Velmora::Logger::DEBUG)
            messages.push_back(record.message);
    return messages;
}

// Records each block write and each byte it is given.
class RecordingOutputStream : public HvOutputStream {
public:
    void write(int byte) override { values.push_back(byte); }
    void write(const void* buffer, unsigned int length, unsigned int offset) override
    {
        blocks.push_back(std::string(static_cast<const char*>(buffer) + offset, length));
        HvOutputStream::write(buffer, length, offset);
    }
    using HvOutputStream::write;

    std::vector<int> values;
    std::vector<std::string> blocks;
};

} // namespace

// ---- construction ----

TEST(HvByteArrayOutputStream, ZeroCapacityHasNoBufferUntilTheFirstWrite)
{
    HvByteArrayOutputStream out(0);
    EXPECT_TRUE(out.getBuffer().isNull());
    EXPECT_EQ(0u, out.getCount());
    out.write('x');
    ASSERT_FALSE(out.getBuffer().isNull());
    EXPECT_EQ(1u, out.getCount());
}

TEST(HvByteArrayOutputStream, InitialCapacityMakesTheBufferAtOnce)
{
    HvByteArrayOutputStream out(16);
    ASSERT_FALSE(out.getBuffer().isNull());
    EXPECT_EQ(16u, out.getBuffer()->getSize());
    EXPECT_EQ(0u, out.getCount());
}

TEST(HvByteArrayOutputStream, NothingWrittenGivesAnEmptyArray)
{
    HvByteArrayOutputStream none(0);
    HvHandle<HvByteArray> array = none.toByteArray();
    ASSERT_FALSE(array.isNull());
    EXPECT_EQ(0u, array->getSize());

    HvByteArrayOutputStream withRoom(16);
    HvHandle<HvByteArray> empty = withRoom.toByteArray();
    ASSERT_FALSE(empty.isNull());
    EXPECT_EQ(0u, empty->getSize());
}

// ---- writing ----

TEST(HvByteArrayOutputStream, WriteIntStoresTheLowByte)
{
    HvByteArrayOutputStream out(0);
    out.write(0x141);
    out.write(-1);
    out.write(0);
    out.write(-128);
    EXPECT_EQ(std::string("A\xff\0\x80", 4), hvtest::textOf(out));
}

TEST(HvByteArrayOutputStream, BlockWriteAppendsFromTheOffset)
{
    HvByteArrayOutputStream out(0);
    out.write("hello", 5, 0);
    out.write("--world--", 5, 2);
    EXPECT_EQ("helloworld", hvtest::textOf(out));
    EXPECT_EQ(10u, out.getCount());
}

TEST(HvByteArrayOutputStream, BlockWriteOfLengthZeroDoesNothing)
{
    HvByteArrayOutputStream out(0);
    out.write("abc", 0, 0);
    EXPECT_TRUE(out.getBuffer().isNull());
    EXPECT_EQ(0u, out.getCount());
}

TEST(HvByteArrayOutputStream, BlockWriteOfNullBufferDoesNothing)
{
    HvByteArrayOutputStream out(0);
    out.write(static_cast<const void*>(nullptr), 5, 0);
    EXPECT_TRUE(out.getBuffer().isNull());
    EXPECT_EQ(0u, out.getCount());
    out.write("ab", 2, 0);
    out.write(static_cast<const void*>(nullptr), 5, 1);
    EXPECT_EQ("ab", hvtest::textOf(out));
}

TEST(HvByteArrayOutputStream, FormattedOutputLandsInTheBuffer)
{
    HvByteArrayOutputStream out(0);
    out << "n=" << 42 << " x=" << 1.5 << endl;
    EXPECT_EQ("n=42 x=1.500000\n", hvtest::textOf(out));
}

TEST(HvByteArrayOutputStream, WriteByteArrayAppendsItsWindow)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate("0123456789");
    HvByteArrayOutputStream out(0);
    out.write(array.get(), 7, 0);
    out.write(array.get(), 2, 3);
    EXPECT_EQ("789234", hvtest::textOf(out));
}

// ---- growth ----

TEST(HvByteArrayOutputStream, TenBytesIntoZeroCapacityGiveA266ByteBuffer)
{
    HvByteArrayOutputStream out(0);
    std::string first = pattern(10, 0);
    out.write(first.data(), 10, 0);
    EXPECT_EQ(266u, out.getBuffer()->getSize());
    EXPECT_EQ(10u, out.getCount());

    std::string second = pattern(300, 3);
    out.write(second.data(), 300, 0);
    EXPECT_EQ(266u + 300u + 256u, out.getBuffer()->getSize());
    EXPECT_EQ(822u, out.getBuffer()->getSize());
    EXPECT_EQ(310u, out.getCount());
    EXPECT_EQ(first + second, hvtest::textOf(out));
}

TEST(HvByteArrayOutputStream, WritesThatFitStayInTheSameBuffer)
{
    HvByteArrayOutputStream out(0);
    out.write("abc", 3, 0);
    const HvByteArray* buffer = out.getBuffer().get();
    std::string rest = pattern(256, 1);
    out.write(rest.data(), 256, 0);
    EXPECT_EQ(buffer, out.getBuffer().get());
    EXPECT_EQ(259u, out.getBuffer()->getSize());
    EXPECT_EQ(259u, out.getCount());

    // Full: the next byte needs a new buffer.
    out.write('!');
    EXPECT_NE(buffer, out.getBuffer().get());
    EXPECT_EQ(259u + 1u + 256u, out.getBuffer()->getSize());
    EXPECT_EQ("abc" + rest + "!", hvtest::textOf(out));
}

TEST(HvByteArrayOutputStream, InitialCapacityIsUsedBeforeGrowing)
{
    HvByteArrayOutputStream out(16);
    const HvByteArray* buffer = out.getBuffer().get();
    std::string text = pattern(16, 0);
    out.write(text.data(), 16, 0);
    EXPECT_EQ(buffer, out.getBuffer().get());
    EXPECT_EQ(16u, out.getBuffer()->getSize());

    out.write('z');
    EXPECT_EQ(16u + 1u + 256u, out.getBuffer()->getSize());
    EXPECT_EQ(text + "z", hvtest::textOf(out));
}

TEST(HvByteArrayOutputStream, SharedBufferIsNotWrittenInPlace)
{
    HvByteArrayOutputStream out(0);
    out.write("abc", 3, 0);
    HvHandle<HvByteArray> held = out.getBuffer();
    ASSERT_EQ(259u, held->getSize());
    held->getData()[3] = '#';

    out.write("X", 1, 0);
    EXPECT_NE(held.get(), out.getBuffer().get());
    // Shared counts as full: the new buffer is the old size plus the write plus the reserve.
    EXPECT_EQ(259u + 1u + 256u, out.getBuffer()->getSize());
    EXPECT_EQ('#', held->getData()[3]);
    EXPECT_EQ("abc", std::string(reinterpret_cast<char*>(held->getData()), 3));
    EXPECT_EQ("abcX", hvtest::textOf(out));
    EXPECT_EQ(1, held->getRefCount());

    // Once the stream is the only holder it writes in place again.
    const HvByteArray* current = out.getBuffer().get();
    out.write("Y", 1, 0);
    EXPECT_EQ(current, out.getBuffer().get());
    EXPECT_EQ("abcXY", hvtest::textOf(out));
}

// ---- debug log ----

TEST(HvByteArrayOutputStream, GrowthIsLoggedWithTheIncrement)
{
    Velmora::LogCapture capture(kLoggerName);
    HvByteArrayOutputStream out(0);
    std::string ten = pattern(10, 0);
    out.write(ten.data(), 10, 0);
    EXPECT_EQ((std::vector<std::string>{
                  "HvByteArrayOutputStream::write : : Capacity left in buffer = 0",
                  "HvByteArrayOutputStream::write : : length to write (10) more than remaining capacity of current "
                  "buffer. New capacity for buffer = 266",
                  "HvByteArrayOutputStream::write : : length of current buffer = 0",
              }),
              debugMessages(capture));
    for (const Velmora::LogRecord& record : capture.records())
        if (record.level == Velmora::Logger::DEBUG) {
            EXPECT_EQ("HvByteArrayOutputStream", record.file);
            EXPECT_GT(record.line, 0);
        }
}

TEST(HvByteArrayOutputStream, WriteThatFitsLogsOnlyTheCapacityLeft)
{
    HvByteArrayOutputStream out(0);
    out.write("0123456789", 10, 0);
    Velmora::LogCapture capture(kLoggerName);
    out.write("abc", 3, 0);
    EXPECT_EQ((std::vector<std::string>{"HvByteArrayOutputStream::write : : Capacity left in buffer = 256"}),
              debugMessages(capture));
}

TEST(HvByteArrayOutputStream, SecondGrowthReportsIncrementAndCurrentSize)
{
    HvByteArrayOutputStream out(0);
    out.write("0123456789", 10, 0);
    Velmora::LogCapture capture(kLoggerName);
    std::string big = pattern(300, 0);
    out.write(big.data(), 300, 0);
    // The second line reports the increment (300 + 256), not the new size 822.
    EXPECT_EQ((std::vector<std::string>{
                  "HvByteArrayOutputStream::write : : Capacity left in buffer = 256",
                  "HvByteArrayOutputStream::write : : length to write (300) more than remaining capacity of current "
                  "buffer. New capacity for buffer = 556",
                  "HvByteArrayOutputStream::write : : length of current buffer = 266",
              }),
              debugMessages(capture));
}

TEST(HvByteArrayOutputStream, SharedBufferLogsNoCapacityLeft)
{
    HvByteArrayOutputStream out(0);
    out.write("abc", 3, 0);
    HvHandle<HvByteArray> held = out.getBuffer();
    Velmora::LogCapture capture(kLoggerName);
    out.write("d", 1, 0);
    EXPECT_EQ((std::vector<std::string>{
                  "HvByteArrayOutputStream::write : : Capacity left in buffer = 0",
                  "HvByteArrayOutputStream::write : : length to write (1) more than remaining capacity of current "
                  "buffer. New capacity for buffer = 257",
                  "HvByteArrayOutputStream::write : : length of current buffer = 259",
              }),
              debugMessages(capture));
}

TEST(HvByteArrayOutputStream, WriteOpensATraceScope)
{
    HvByteArrayOutputStream out(0);
    Velmora::LogCapture capture(kLoggerName);
    out.write("a", 1, 0);
    int traced = 0;
    for (const Velmora::LogRecord& record : capture.records())
        if (record.level == Velmora::Logger::TRACE &&
            record.message.find("HvByteArrayOutputStream::write") != std::string::npos &&
            record.message.find(" : : ") == std::string::npos)
            ++traced;
    EXPECT_EQ(2, traced);
}

// ---- writeTo ----

TEST(HvByteArrayOutputStream, WriteToCopiesTheCollectedBytesOnly)
{
    HvByteArrayOutputStream out(0);
    out.write("hello", 5, 0);
    RecordingOutputStream target;
    out.writeTo(&target);
    ASSERT_EQ(1u, target.blocks.size());
    EXPECT_EQ("hello", target.blocks[0]);
    EXPECT_EQ((std::vector<int>{'h', 'e', 'l', 'l', 'o'}), target.values);

    HvByteArrayOutputStream copy(0);
    out.writeTo(&copy);
    out.writeTo(&copy);
    EXPECT_EQ("hellohello", hvtest::textOf(copy));
    EXPECT_EQ("hello", hvtest::textOf(out));
}

TEST(HvByteArrayOutputStream, WriteToWithNothingCollectedWritesNothing)
{
    RecordingOutputStream target;
    HvByteArrayOutputStream none(0);
    none.writeTo(&target);
    HvByteArrayOutputStream withRoom(16);
    withRoom.writeTo(&target);
    EXPECT_TRUE(target.blocks.empty());
    EXPECT_TRUE(target.values.empty());
}

TEST(HvByteArrayOutputStream, WriteToNullStreamDoesNothing)
{
    HvByteArrayOutputStream out(0);
    out.write("abc", 3, 0);
    out.writeTo(nullptr);
    EXPECT_EQ("abc", hvtest::textOf(out));
}

TEST(HvByteArrayOutputStream, WriteToItselfDoublesTheContents)
{
    HvByteArrayOutputStream small(0);
    small.write("abc", 3, 0);
    small.writeTo(&small);
    EXPECT_EQ("abcabc", hvtest::textOf(small));

    // A full buffer is replaced while its own bytes are being appended.
    HvByteArrayOutputStream full(0);
    std::string text = pattern(266, 5);
    full.write(text.data(), 10, 0);
    full.write(text.data(), 256, 10);
    ASSERT_EQ(266u, full.getBuffer()->getSize());
    ASSERT_EQ(266u, full.getCount());
    full.writeTo(&full);
    EXPECT_EQ(532u, full.getCount());
    EXPECT_EQ(text + text, hvtest::textOf(full));
}

// ---- toByteArray ----

TEST(HvByteArrayOutputStream, ToByteArrayReturnsAFreshCopy)
{
    HvByteArrayOutputStream out(0);
    out.write("abc", 3, 0);
    HvHandle<HvByteArray> copy = out.toByteArray();
    ASSERT_EQ(3u, copy->getSize());
    EXPECT_NE(copy.get(), out.getBuffer().get());
    EXPECT_EQ(1, copy->getRefCount());
    const HvByteArray* buffer = out.getBuffer().get();
    EXPECT_EQ(1, buffer->getRefCount());

    copy->getData()[0] = 'z';
    EXPECT_EQ("abc", hvtest::textOf(out));

    out.write("d", 1, 0);
    EXPECT_EQ("zbc", std::string(reinterpret_cast<char*>(copy->getData()), copy->getSize()));
    EXPECT_EQ("abcd", hvtest::textOf(out));
}

TEST(HvByteArrayOutputStream, ToByteArrayDoesNotShareTheBuffer)
{
    HvByteArrayOutputStream out(0);
    out.write("abc", 3, 0);
    const HvByteArray* buffer = out.getBuffer().get();
    HvHandle<HvByteArray> copy = out.toByteArray();
    // Taking a copy leaves the buffer private, so the next write stays in place.
    out.write("d", 1, 0);
    EXPECT_EQ(buffer, out.getBuffer().get());
}

// ---- lifetime ----

TEST(HvByteArrayOutputStream, BufferHandedOutOutlivesTheStream)
{
    HvHandle<HvByteArray> buffer;
    {
        HvHandle<HvByteArrayOutputStream> out(new HvByteArrayOutputStream(0));
        out->write("kept", 4, 0);
        buffer = out->getBuffer();
        EXPECT_EQ(2, buffer->getRefCount());
    }
    EXPECT_EQ(1, buffer->getRefCount());
    EXPECT_EQ("kept", std::string(reinterpret_cast<char*>(buffer->getData()), 4));
}
