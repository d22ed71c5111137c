#include <HvUtil/HvByteArrayInputStream.h>

#include <HvUtil/HvByteArray.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

// Ten bytes, 0 to 9.
HvHandle<HvByteArray> tenBytes()
{
    const unsigned char bytes[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    return HvByteArray::sCreate(10u, bytes);
}

// Every byte read() gives until the end.
std::vector<int> drain(HvInputStream& in)
{
    std::vector<int> bytes;
    for (int i = 0; i < 1000; ++i) {
        int byte = in.read();
        if (byte == -1)
            break;
        bytes.push_back(byte);
    }
    return bytes;
}

} // namespace

// ---- window given at construction ----

TEST(HvByteArrayInputStream, OffsetWithLengthZeroReadsToTheEnd)
{
    HvHandle<HvByteArray> array = tenBytes();
    HvByteArrayInputStream in(array.get(), 5, 0);
    EXPECT_EQ((std::vector<int>{5, 6, 7, 8, 9}), drain(in));
}

TEST(HvByteArrayInputStream, LengthBeyondTheArrayReadsToTheEnd)
{
    HvHandle<HvByteArray> array = tenBytes();
    HvByteArrayInputStream in(array.get(), 5, 20);
    EXPECT_EQ((std::vector<int>{5, 6, 7, 8, 9}), drain(in));

    HvByteArrayInputStream justOver(array.get(), 5, 6);
    EXPECT_EQ((std::vector<int>{5, 6, 7, 8, 9}), drain(justOver));
}

TEST(HvByteArrayInputStream, OffsetAndLengthInsideTheArrayReadThatWindow)
{
    HvHandle<HvByteArray> array = tenBytes();
    HvByteArrayInputStream in(array.get(), 2, 3);
    EXPECT_EQ(3u, in.available());
    EXPECT_EQ((std::vector<int>{2, 3, 4}), drain(in));

    HvByteArrayInputStream exact(array.get(), 5, 5);
    EXPECT_EQ((std::vector<int>{5, 6, 7, 8, 9}), drain(exact));
}

TEST(HvByteArrayInputStream, WholeArrayFromOffsetZero)
{
    HvHandle<HvByteArray> array = tenBytes();
    HvByteArrayInputStream in(array.get(), 0, 0);
    EXPECT_EQ(10u, in.available());
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}), drain(in));
}

TEST(HvByteArrayInputStream, HugeLengthDoesNotWrapAround)
{
    HvHandle<HvByteArray> array = tenBytes();
    HvByteArrayInputStream in(array.get(), 5, 0xFFFFFFFFu);
    EXPECT_EQ(5u, in.available());
    EXPECT_EQ((std::vector<int>{5, 6, 7, 8, 9}), drain(in));
}

TEST(HvByteArrayInputStream, NilArrayIsAnEmptyStream)
{
    HvByteArrayInputStream in(nullptr, 0, 0);
    char buffer[4];
    EXPECT_EQ(-1, in.read());
    EXPECT_EQ(-1, in.read(buffer, 4, 0));
    EXPECT_EQ(0u, in.skip(3));
    EXPECT_EQ(0u, in.available());

    HvByteArrayInputStream withWindow(nullptr, 3, 4);
    EXPECT_EQ(-1, withWindow.read());
    EXPECT_EQ(0u, withWindow.available());
}

TEST(HvByteArrayInputStream, OffsetPastTheArrayReadsNothing)
{
    HvHandle<HvByteArray> array = tenBytes();
    HvByteArrayInputStream in(array.get(), 12, 0);
    char buffer[4];
    EXPECT_EQ(-1, in.read());
    EXPECT_EQ(-1, in.read(buffer, 4, 0));
    EXPECT_EQ(0u, in.skip(1));
    EXPECT_EQ(0u, in.available());

    HvByteArrayInputStream withLength(array.get(), 12, 3);
    EXPECT_EQ(-1, withLength.read());
    EXPECT_EQ(0u, withLength.available());
}

TEST(HvByteArrayInputStream, EmptyArrayIsAnEmptyStream)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate(0u, nullptr);
    HvByteArrayInputStream in(array.get(), 0, 0);
    EXPECT_EQ(-1, in.read());
    EXPECT_EQ(0u, in.available());
}

// ---- read() ----

TEST(HvByteArrayInputStream, ReadReturnsBytesFrom128AsPositiveValues)
{
    const unsigned char bytes[] = {0x80, 0xFF, 0x7F, 0x00};
    HvHandle<HvByteArray> array = HvByteArray::sCreate(4u, bytes);
    HvByteArrayInputStream in(array.get(), 0, 0);
    EXPECT_EQ(128, in.read());
    EXPECT_EQ(255, in.read());
    EXPECT_EQ(127, in.read());
    EXPECT_EQ(0, in.read());
    EXPECT_EQ(-1, in.read());
    EXPECT_EQ(-1, in.read());
}

// ---- read(buffer, length, offset) ----

TEST(HvByteArrayInputStream, BlockReadCopiesToBufferOffset)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate("abcdefgh");
    HvByteArrayInputStream in(array.get(), 0, 0);
    char buffer[8];
    std::memset(buffer, '.', sizeof(buffer));
    EXPECT_EQ(3, in.read(buffer, 3, 2));
    EXPECT_EQ("..abc...", std::string(buffer, 8));
    EXPECT_EQ(5u, in.available());
}

TEST(HvByteArrayInputStream, BlockReadIsClippedToWhatIsLeft)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate("abcdefgh");
    HvByteArrayInputStream in(array.get(), 2, 4);
    char buffer[10];
    std::memset(buffer, '.', sizeof(buffer));
    EXPECT_EQ(4, in.read(buffer, 10, 1));
    EXPECT_EQ(".cdef.....", std::string(buffer, 10));
    EXPECT_EQ(-1, in.read(buffer, 10, 0));
}

TEST(HvByteArrayInputStream, BlockReadOfLengthZeroWithDataLeftReturnsZero)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate("ab");
    HvByteArrayInputStream in(array.get(), 0, 0);
    char buffer[1] = {'.'};
    EXPECT_EQ(0, in.read(buffer, 0, 0));
    EXPECT_EQ('.', buffer[0]);
    EXPECT_EQ(2u, in.available());
    EXPECT_EQ('a', in.read());
}

TEST(HvByteArrayInputStream, BlockReadAtTheEndReturnsMinusOneEvenForLengthZero)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate("ab");
    HvByteArrayInputStream in(array.get(), 0, 0);
    char buffer[4];
    EXPECT_EQ(2, in.read(buffer, 4, 0));
    EXPECT_EQ(-1, in.read(buffer, 4, 0));
    EXPECT_EQ(-1, in.read(buffer, 0, 0));
}

TEST(HvByteArrayInputStream, BlockReadKeepsBytesFrom128)
{
    const unsigned char bytes[] = {0x80, 0xFE};
    HvHandle<HvByteArray> array = HvByteArray::sCreate(2u, bytes);
    HvByteArrayInputStream in(array.get(), 0, 0);
    unsigned char buffer[2];
    EXPECT_EQ(2, in.read(buffer, 2, 0));
    EXPECT_EQ(0x80, buffer[0]);
    EXPECT_EQ(0xFE, buffer[1]);
}

TEST(HvByteArrayInputStream, ReadIntoArrayUsesTheWindowRules)
{
    HvHandle<HvByteArray> source = HvByteArray::sCreate("abcdefgh");
    HvByteArrayInputStream in(source.get(), 0, 0);
    HvHandle<HvByteArray> target = HvByteArray::sCreate("0123456789");
    EXPECT_EQ(4, in.read(target, 6, 0));
    EXPECT_EQ("012345abcd", std::string(reinterpret_cast<char*>(target->getData()), 10));
    EXPECT_EQ(2, in.read(target, 1, 2));
    EXPECT_EQ("0ef345abcd", std::string(reinterpret_cast<char*>(target->getData()), 10));
    EXPECT_EQ(2, in.read(target, 0, 0));
    EXPECT_EQ("ghf345abcd", std::string(reinterpret_cast<char*>(target->getData()), 10));
    EXPECT_EQ(-1, in.read(target, 0, 0));
}

// ---- skip and available ----

TEST(HvByteArrayInputStream, SkipAdvancesByWhatIsLeftAtMost)
{
    HvHandle<HvByteArray> array = tenBytes();
    HvByteArrayInputStream in(array.get(), 0, 0);
    EXPECT_EQ(3u, in.skip(3));
    EXPECT_EQ(3, in.read());
    EXPECT_EQ(6u, in.skip(200));
    EXPECT_EQ(-1, in.read());
    EXPECT_EQ(0u, in.skip(1));
}

TEST(HvByteArrayInputStream, SkipZeroWithDataLeftSkipsNothing)
{
    HvHandle<HvByteArray> array = tenBytes();
    HvByteArrayInputStream in(array.get(), 4, 0);
    EXPECT_EQ(0u, in.skip(0));
    EXPECT_EQ(4, in.read());
}

TEST(HvByteArrayInputStream, SkipStaysInsideTheWindow)
{
    HvHandle<HvByteArray> array = tenBytes();
    HvByteArrayInputStream in(array.get(), 2, 3);
    EXPECT_EQ(3u, in.skip(100));
    EXPECT_EQ(-1, in.read());
}

TEST(HvByteArrayInputStream, AvailableCountsDownToZero)
{
    HvHandle<HvByteArray> array = tenBytes();
    HvByteArrayInputStream in(array.get(), 7, 0);
    EXPECT_EQ(3u, in.available());
    in.read();
    EXPECT_EQ(2u, in.available());
    in.skip(2);
    EXPECT_EQ(0u, in.available());
    EXPECT_EQ(-1, in.read());
    EXPECT_EQ(0u, in.available());
}

// ---- mark and reset ----

TEST(HvByteArrayInputStream, SupportsMark)
{
    HvByteArrayInputStream in(nullptr, 0, 0);
    EXPECT_TRUE(in.markSupported());
}

TEST(HvByteArrayInputStream, ResetReturnsToTheMark)
{
    HvHandle<HvByteArray> array = tenBytes();
    HvByteArrayInputStream in(array.get(), 0, 0);
    in.skip(3);
    in.mark(0);
    EXPECT_EQ(3, in.read());
    EXPECT_EQ(4, in.read());
    in.reset();
    EXPECT_EQ(3, in.read());
    // The read limit is ignored: the mark holds however far the stream goes.
    in.skip(100);
    EXPECT_EQ(-1, in.read());
    in.reset();
    EXPECT_EQ(7u, in.available());
    EXPECT_EQ(3, in.read());
}

TEST(HvByteArrayInputStream, ResetBeforeAnyMarkRewindsToTheStartOfTheArray)
{
    HvHandle<HvByteArray> array = tenBytes();
    HvByteArrayInputStream in(array.get(), 5, 0);
    in.reset();
    EXPECT_EQ(10u, in.available());
    EXPECT_EQ(0, in.read());

    HvByteArrayInputStream windowed(array.get(), 5, 2);
    EXPECT_EQ(5, windowed.read());
    windowed.reset();
    // Back at 0, still ending at 7.
    EXPECT_EQ(7u, windowed.available());
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4, 5, 6}), drain(windowed));
}

TEST(HvByteArrayInputStream, MarkMovesWithEachCall)
{
    HvHandle<HvByteArray> array = tenBytes();
    HvByteArrayInputStream in(array.get(), 0, 0);
    in.mark(100);
    in.skip(2);
    in.mark(100);
    in.skip(5);
    in.reset();
    EXPECT_EQ(2, in.read());
}

// ---- through the interface ----

TEST(HvByteArrayInputStream, WorksThroughTheInputStreamInterface)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate("hello world");
    HvHandle<HvInputStream> in(new HvByteArrayInputStream(array.get(), 0, 0));
    EXPECT_EQ(6u, in->skip(6));
    EXPECT_EQ(5u, in->available());
    in->mark(0);
    char buffer[5];
    EXPECT_EQ(5, in->read(buffer, 5, 0));
    EXPECT_EQ("world", std::string(buffer, 5));
    in->reset();
    EXPECT_EQ('w', in->read());
}

// ---- ownership ----

TEST(HvByteArrayInputStream, HoldsTheArrayWhileItLives)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate("abc");
    HvByteArray* raw = array.get();
    {
        HvByteArrayInputStream in(raw, 0, 0);
        EXPECT_EQ(2, raw->getRefCount());
        array = HvHandle<HvByteArray>();
        EXPECT_EQ(1, raw->getRefCount());
        // The array outlives the caller's handle.
        EXPECT_EQ('a', in.read());
        EXPECT_EQ('b', in.read());
        EXPECT_EQ('c', in.read());
        array = raw;
    }
    EXPECT_EQ(1, array->getRefCount());
}

TEST(HvByteArrayInputStream, BlockReadIntoNoBufferReadsNothing)
{
    HvHandle<HvByteArray> data = HvByteArray::sCreate("abc");
    HvByteArrayInputStream in(data.get(), 0, 0);
    EXPECT_EQ(0, in.read(nullptr, 2, 0));
    EXPECT_EQ('a', in.read());
}
