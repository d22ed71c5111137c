#include <HvUtil/HvByteArray.h>

#include <HvUtil/HvByteArrayOutputStream.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvString.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <string>
#include <vector>

// Byte arrays come from the ordinary global allocator, so there is no tagged
// counter for them: a leaked array shows up in the AddressSanitizer build's
// leak report at exit, and the tests below follow reference counts instead.

namespace {

std::string bytesOf(const HvByteArray* array)
{
    return std::string(reinterpret_cast<const char*>(array->getData()), array->getSize());
}

std::string bytesOf(const HvHandle<HvByteArray>& array)
{
    return bytesOf(array.get());
}

// An array holding 0, 1, ..., length - 1.
HvHandle<HvByteArray> counting(unsigned int length)
{
    std::vector<unsigned char> bytes(length);
    for (unsigned int i = 0; i < length; ++i)
        bytes[i] = static_cast<unsigned char>(i);
    return HvByteArray::sCreate(length, bytes.data());
}

// What an array holding `text` holds after copy(at, source, count, from);
// `source` is raw memory or another array, which picks the overload.
template <class Source>
std::string afterCopy(const char* text, unsigned int at, Source source, unsigned int count, unsigned int from)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate(static_cast<unsigned int>(std::strlen(text)), text);
    array->copy(at, source, count, from);
    return bytesOf(array);
}

std::vector<unsigned char> contents(const HvHandle<HvByteArray>& array)
{
    return std::vector<unsigned char>(array->getData(), array->getData() + array->getSize());
}

} // namespace

// ---------------------------------------------------------------- factories

TEST(HvByteArray, CreateFromDataCopiesTheBytes)
{
    const unsigned char data[] = {0x00, 0x7F, 0x80, 0xFF};
    HvHandle<HvByteArray> array = HvByteArray::sCreate(4, data);
    ASSERT_FALSE(array.isNull());
    EXPECT_EQ(4u, array->getSize());
    EXPECT_EQ(0, std::memcmp(array->getData(), data, 4));
    // A copy, not the caller's memory.
    EXPECT_NE(static_cast<const void*>(array->getData()), static_cast<const void*>(data));
}

TEST(HvByteArray, CreateWithoutDataLeavesBytesForTheCaller)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate(5, nullptr);
    ASSERT_FALSE(array.isNull());
    EXPECT_EQ(5u, array->getSize());
    std::memcpy(array->getData(), "hello", 5);
    EXPECT_EQ("hello", bytesOf(array));
}

TEST(HvByteArray, CreateWithZeroLengthGivesAnEmptyArray)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate(0, nullptr);
    ASSERT_FALSE(array.isNull());
    EXPECT_EQ(0u, array->getSize());
    HvHandle<HvByteArray> fromData = HvByteArray::sCreate(0, "ignored");
    ASSERT_FALSE(fromData.isNull());
    EXPECT_EQ(0u, fromData->getSize());
}

TEST(HvByteArray, FactoryHandleHoldsTheOnlyReference)
{
    HvHandle<HvByteArray> a = HvByteArray::sCreate(3, "xyz");
    HvHandle<HvByteArray> b = HvByteArray::sCreate("xyz");
    HvHandle<HvByteArray> c = HvByteArray::sCreate(a.get(), 0, 0);
    EXPECT_EQ(1, a->getRefCount());
    EXPECT_EQ(1, b->getRefCount());
    EXPECT_EQ(1, c->getRefCount());
    {
        HvHandle<HvByteArray> copy = a;
        EXPECT_EQ(2, a->getRefCount());
    }
    EXPECT_EQ(1, a->getRefCount());
}

TEST(HvByteArray, CreateFromTextHoldsTheTextWithoutItsNul)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate("abc");
    ASSERT_FALSE(array.isNull());
    ASSERT_EQ(3u, array->getSize());
    EXPECT_EQ(0x61, array->getData()[0]);
    EXPECT_EQ(0x62, array->getData()[1]);
    EXPECT_EQ(0x63, array->getData()[2]);
}

TEST(HvByteArray, CreateFromNullTextGivesAnEmptyHandle)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate(static_cast<const char*>(nullptr));
    EXPECT_TRUE(array.isNull());
}

TEST(HvByteArray, CreateFromEmptyTextGivesAZeroLengthArray)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate("");
    ASSERT_FALSE(array.isNull());
    EXPECT_EQ(0u, array->getSize());
}

// ---------------------------------------------------------------- slices

TEST(HvByteArray, SliceWithZeroLengthTakesTheRestFromOffset)
{
    HvHandle<HvByteArray> source = counting(10);
    HvHandle<HvByteArray> slice = HvByteArray::sCreate(source.get(), 0, 4);
    ASSERT_FALSE(slice.isNull());
    EXPECT_EQ(6u, slice->getSize());
    EXPECT_EQ((std::vector<unsigned char>{4, 5, 6, 7, 8, 9}), contents(slice));
    // A separate block: the source is untouched and still held once.
    EXPECT_NE(slice.get(), source.get());
    EXPECT_EQ(1, source->getRefCount());
}

TEST(HvByteArray, SliceWithZeroLengthAndOffsetZeroCopiesTheWholeArray)
{
    HvHandle<HvByteArray> source = counting(10);
    HvHandle<HvByteArray> slice = HvByteArray::sCreate(source.get(), 0, 0);
    EXPECT_EQ(contents(source), contents(slice));
    slice->getData()[0] = 99;
    EXPECT_EQ(0, source->getData()[0]);
}

TEST(HvByteArray, SliceWithZeroLengthFromOffsetPastTheEndIsEmpty)
{
    HvHandle<HvByteArray> source = counting(10);
    HvHandle<HvByteArray> beyond = HvByteArray::sCreate(source.get(), 0, 12);
    ASSERT_FALSE(beyond.isNull());
    EXPECT_EQ(0u, beyond->getSize());
    HvHandle<HvByteArray> atEnd = HvByteArray::sCreate(source.get(), 0, 10);
    ASSERT_FALSE(atEnd.isNull());
    EXPECT_EQ(0u, atEnd->getSize());
}

TEST(HvByteArray, SliceWithExplicitLengthInsideTheSource)
{
    HvHandle<HvByteArray> source = counting(10);
    HvHandle<HvByteArray> slice = HvByteArray::sCreate(source.get(), 3, 2);
    EXPECT_EQ((std::vector<unsigned char>{2, 3, 4}), contents(slice));
}

TEST(HvByteArray, SliceLongerThanTheSourceCopiesTheAvailablePart)
{
    HvHandle<HvByteArray> source = counting(10);
    HvHandle<HvByteArray> slice = HvByteArray::sCreate(source.get(), 8, 6);
    ASSERT_FALSE(slice.isNull());
    // The length asked for, with the four bytes the source has from offset 6;
    // the other four are left for the caller.
    ASSERT_EQ(8u, slice->getSize());
    EXPECT_EQ(6, slice->getData()[0]);
    EXPECT_EQ(7, slice->getData()[1]);
    EXPECT_EQ(8, slice->getData()[2]);
    EXPECT_EQ(9, slice->getData()[3]);
    // The unfilled rest is writable memory of the array.
    std::memset(slice->getData() + 4, 0xAB, 4);
    EXPECT_EQ(0xAB, slice->getData()[7]);
}

TEST(HvByteArray, SliceWithLengthFromOffsetPastTheEndCopiesNothing)
{
    HvHandle<HvByteArray> source = counting(10);
    HvHandle<HvByteArray> slice = HvByteArray::sCreate(source.get(), 3, 12);
    ASSERT_FALSE(slice.isNull());
    EXPECT_EQ(3u, slice->getSize());
}

TEST(HvByteArray, SliceOfNullSourceHasTheLengthAskedFor)
{
    HvHandle<HvByteArray> sized = HvByteArray::sCreate(static_cast<const HvByteArray*>(nullptr), 5, 0);
    ASSERT_FALSE(sized.isNull());
    EXPECT_EQ(5u, sized->getSize());
    HvHandle<HvByteArray> empty = HvByteArray::sCreate(static_cast<const HvByteArray*>(nullptr), 0, 3);
    ASSERT_FALSE(empty.isNull());
    EXPECT_EQ(0u, empty->getSize());
}

// ---------------------------------------------------------------- copy

TEST(HvByteArray, CopyAtPositionEightOfFourBytesIntoTenCopiesTwo)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate(10, "0123456789");
    array->copy(8, "abcd", 4, 0);
    EXPECT_EQ("01234567ab", bytesOf(array));
    EXPECT_EQ(10u, array->getSize());
}

TEST(HvByteArray, CopyInsideTheArrayStartsFromTheSourceOffset)
{
    EXPECT_EQ("01cde56789", afterCopy("0123456789", 2, "abcdef", 3, 2));
}

TEST(HvByteArray, CopyAtOrBeyondTheEndCopiesNothing)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate(10, "0123456789");
    array->copy(10, "abcd", 4, 0);
    EXPECT_EQ("0123456789", bytesOf(array));
    array->copy(11, "abcd", 4, 0);
    array->copy(0xFFFFFFFFu, "abcd", 4, 0);
    EXPECT_EQ("0123456789", bytesOf(array));
}

TEST(HvByteArray, CopyOfZeroBytesChangesNothing)
{
    EXPECT_EQ("wxyz", afterCopy("wxyz", 1, "ab", 0, 0));
}

TEST(HvByteArray, CopyFromArrayClipsCountToTheSourceRest)
{
    HvHandle<HvByteArray> target = HvByteArray::sCreate(10, "0123456789");
    HvHandle<HvByteArray> source = HvByteArray::sCreate("abcde");
    // Ten asked for, three left in the source from offset 2.
    target->copy(1, source.get(), 10, 2);
    EXPECT_EQ("0cde456789", bytesOf(target));
    EXPECT_EQ("abcde", bytesOf(source));
}

TEST(HvByteArray, CopyFromArrayClipsToBothEnds)
{
    HvHandle<HvByteArray> source = HvByteArray::sCreate("abcde");
    // Clipped to 4 by the source (from 1) and then to 2 by the target (at 8).
    EXPECT_EQ("01234567bc", afterCopy("0123456789", 8, source.get(), 5, 1));
}

TEST(HvByteArray, CopyFromArrayStartingAtOrPastItsEndDoesNothing)
{
    HvHandle<HvByteArray> target = HvByteArray::sCreate(10, "0123456789");
    HvHandle<HvByteArray> source = HvByteArray::sCreate("abcde");
    target->copy(0, source.get(), 3, 5);
    EXPECT_EQ("0123456789", bytesOf(target));
    target->copy(0, source.get(), 3, 7);
    EXPECT_EQ("0123456789", bytesOf(target));
}

TEST(HvByteArray, CopyFromArrayBeyondTheTargetEndDoesNothing)
{
    HvHandle<HvByteArray> source = HvByteArray::sCreate("abcde");
    EXPECT_EQ("wxyz", afterCopy("wxyz", 4, source.get(), 5, 0));
}

TEST(HvByteArray, CopyFromNullArrayDoesNothing)
{
    EXPECT_EQ("wxyz", afterCopy("wxyz", 0, static_cast<const HvByteArray*>(nullptr), 4, 0));
}

TEST(HvByteArray, CopyWithinTheSameArrayHandlesOverlap)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate(6, "abcdef");
    array->copy(1, array.get(), 5, 0);
    EXPECT_EQ("aabcde", bytesOf(array));
    array = HvByteArray::sCreate(6, "abcdef");
    array->copy(0, array.get(), 5, 1);
    EXPECT_EQ("bcdeff", bytesOf(array));
}

// ---------------------------------------------------------------- indexing

TEST(HvByteArray, IndexReadsAndWritesTheByte)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate("abc");
    HvByteArray& bytes = *array;
    EXPECT_EQ('a', bytes[0]);
    EXPECT_EQ('c', bytes[2]);
    bytes[1] = 0xFE;
    EXPECT_EQ(0xFE, array->getData()[1]);
    // A reference into the array itself.
    EXPECT_EQ(array->getData() + 2, &bytes[2]);
}

TEST(HvByteArray, ConstIndexReadsTheByte)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate("abc");
    const HvByteArray& bytes = *array;
    EXPECT_EQ('b', bytes[1]);
    EXPECT_EQ(array->getData() + 1, &bytes[1]);
}

TEST(HvByteArray, IndexAtTheLengthThrowsIndexOutOfBounds)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate("abc");
    HvByteArray& bytes = *array;
    EXPECT_EQ("index out of bounds", hvtest::messageOf([&] { bytes[3] = 'x'; }));
    EXPECT_EQ("index out of bounds", hvtest::messageOf([&] { bytes[0xFFFFFFFFu] = 'x'; }));
    // The array is intact.
    EXPECT_EQ(3u, array->getSize());
    EXPECT_EQ("abc", bytesOf(array));
    EXPECT_EQ(1, array->getRefCount());
}

TEST(HvByteArray, ConstIndexAtTheLengthThrowsIndexOutOfBounds)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate("abc");
    const HvByteArray& bytes = *array;
    EXPECT_EQ("index out of bounds", hvtest::messageOf([&] { (void)bytes[3]; }));
    EXPECT_EQ("index out of bounds", hvtest::messageOf([&] { (void)bytes[100]; }));
    EXPECT_EQ("abc", bytesOf(array));
}

TEST(HvByteArray, IndexIntoAnEmptyArrayThrows)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate(0, nullptr);
    HvByteArray& bytes = *array;
    const HvByteArray& constBytes = *array;
    EXPECT_EQ("index out of bounds", hvtest::messageOf([&] { (void)bytes[0]; }));
    EXPECT_EQ("index out of bounds", hvtest::messageOf([&] { (void)constBytes[0]; }));
}

TEST(HvByteArray, IndexOutOfBoundsIsAPlainHvException)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate("abc");
    hvtest::expectPlainHvException([&] { (void)(*array)[5]; }, "index out of bounds");
}

// ---------------------------------------------------------------- hashCode

TEST(HvByteArray, HashCodeOfOneTwoIsZero)
{
    const unsigned char data[] = {1, 2};
    EXPECT_EQ(0u, HvByteArray::sCreate(2, data)->hashCode());
}

TEST(HvByteArray, HashCodeOfEmptyArrayIsZero)
{
    EXPECT_EQ(0u, HvByteArray::sCreate(0, nullptr)->hashCode());
}

TEST(HvByteArray, HashCodeTakesBytesAsUnsigned)
{
    // 0x80; (0x80 * 2) ^ 0xFF = 0x1FF; (0x1FF * 2) ^ 0x01 = 0x3FF.
    // Sign-extended bytes would give a value with the high bits set.
    const unsigned char data[] = {0x80, 0xFF, 0x01};
    EXPECT_EQ(0x3FFu, HvByteArray::sCreate(3, data)->hashCode());
}

TEST(HvByteArray, HashCodeWrapsAt32Bits)
{
    // After n bytes of 0xFF, bit j is the parity of how many of the shifted
    // copies 0xFF << k (k < n) cover it. With n = 40, every bit from 7 to 31
    // is covered 8 times (clear) and bit j < 7 j + 1 times: bits 0, 2, 4, 6.
    std::vector<unsigned char> data(40, 0xFF);
    EXPECT_EQ(0x55u, HvByteArray::sCreate(40, data.data())->hashCode());
}

TEST(HvByteArray, HashCodeFollowsChangedBytes)
{
    const unsigned char data[] = {1, 2};
    HvHandle<HvByteArray> array = HvByteArray::sCreate(2, data);
    EXPECT_EQ(0u, array->hashCode());
    (*array)[1] = 3;
    // Not cached: (1 * 2) ^ 3 = 1.
    EXPECT_EQ(1u, array->hashCode());
}

// ---------------------------------------------------------------- compareWith

TEST(HvByteArray, CompareWithItselfIsZero)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate("abc");
    EXPECT_EQ(0, array->compareWith(array.get()));
}

TEST(HvByteArray, CompareWithAnotherArrayThrowsEvenForEqualBytes)
{
    HvHandle<HvByteArray> a = HvByteArray::sCreate("abc");
    HvHandle<HvByteArray> b = HvByteArray::sCreate("abc");
    EXPECT_EQ("HvByteArray::compareWith", hvtest::messageOf([&] { a->compareWith(b.get()); }));
    HvHandle<HvByteArray> c = HvByteArray::sCreate("xyz");
    EXPECT_EQ("HvByteArray::compareWith", hvtest::messageOf([&] { a->compareWith(c.get()); }));
}

TEST(HvByteArray, CompareWithNullThrows)
{
    HvHandle<HvByteArray> a = HvByteArray::sCreate("abc");
    EXPECT_EQ("HvByteArray::compareWith", hvtest::messageOf([&] { a->compareWith(nullptr); }));
}

TEST(HvByteArray, CompareWithAnotherClassThrows)
{
    HvHandle<HvByteArray> a = HvByteArray::sCreate("abc");
    HvString text("abc");
    EXPECT_EQ("HvByteArray::compareWith", hvtest::messageOf([&] { a->compareWith(text.get()); }));
}

// ---------------------------------------------------------------- display

TEST(HvByteArray, DisplayWritesTheBytesToTheStream)
{
    const unsigned char data[] = {'h', 0x00, 0x80, 0xFF, '\n', 'z'};
    HvHandle<HvByteArray> array = HvByteArray::sCreate(6, data);
    HvByteArrayOutputStream out(0);
    array->display(out);
    ASSERT_EQ(6u, out.getCount());
    HvHandle<HvByteArray> written = out.toByteArray();
    ASSERT_FALSE(written.isNull());
    EXPECT_EQ(bytesOf(array), bytesOf(written));
}

TEST(HvByteArray, DisplayOfEmptyArrayWritesNothing)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate(0, nullptr);
    HvByteArrayOutputStream out(0);
    array->display(out);
    EXPECT_EQ(0u, out.getCount());
}

TEST(HvByteArray, DisplayAppendsToWhatTheStreamHolds)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate("body");
    HvByteArrayOutputStream out(0);
    out << "head:";
    array->display(out);
    EXPECT_EQ("head:body", bytesOf(out.toByteArray()));
}

TEST(HvByteArray, StdStreamOperatorWritesEveryByteAsACharacter)
{
    const unsigned char data[] = {'a', 0x00, 0xFF, 'b'};
    HvHandle<HvByteArray> array = HvByteArray::sCreate(4, data);
    std::ostringstream out;
    out << "[" << *array << "]";
    EXPECT_EQ(std::string("[a\0\xFF" "b]", 6), out.str());
}

TEST(HvByteArray, StdStreamOperatorOfEmptyArrayWritesNothing)
{
    std::ostringstream out;
    out << *HvByteArray::sCreate(0, nullptr);
    EXPECT_EQ("", out.str());
}

// ---------------------------------------------------------------- clone

TEST(HvByteArray, CloneReturnsALiveCopyWithCountZero)
{
    const unsigned char data[] = {9, 0x80, 0, 0xFF};
    HvHandle<HvByteArray> array = HvByteArray::sCreate(4, data);
    HvObject* copy = array->clone();
    ASSERT_NE(nullptr, copy);
    EXPECT_NE(static_cast<HvObject*>(array.get()), copy);
    EXPECT_EQ(0, copy->getRefCount());
    HvByteArray* copyArray = dynamic_cast<HvByteArray*>(copy);
    ASSERT_NE(nullptr, copyArray);
    // The caller's first handle owns it; the bytes are readable (a freed copy
    // would be reported by the address sanitizer here).
    HvHandle<HvByteArray> owner(copyArray);
    EXPECT_EQ(1, owner->getRefCount());
    EXPECT_EQ(bytesOf(array), bytesOf(owner));
    // Independent of the original.
    (*owner)[0] = 1;
    EXPECT_EQ(9, array->getData()[0]);
    EXPECT_EQ(1, array->getRefCount());
}

TEST(HvByteArray, CloneOfEmptyArrayIsEmpty)
{
    HvHandle<HvByteArray> array = HvByteArray::sCreate(0, nullptr);
    HvHandle<HvByteArray> copy(dynamic_cast<HvByteArray*>(array->clone()));
    ASSERT_FALSE(copy.isNull());
    EXPECT_EQ(0u, copy->getSize());
    EXPECT_EQ(1, copy->getRefCount());
}

// ---------------------------------------------------------------- lifetime

TEST(HvByteArray, HandlesShareOneArrayAndTheLastOneFreesIt)
{
    HvHandle<HvByteArray> first = HvByteArray::sCreate("shared");
    HvByteArray* raw = first.get();
    HvHandle<HvByteArray> second = first;
    EXPECT_EQ(raw, second.get());
    EXPECT_EQ(2, raw->getRefCount());
    first = HvHandle<HvByteArray>();
    EXPECT_EQ(1, raw->getRefCount());
    EXPECT_EQ("shared", bytesOf(second));
    // Dropping the last handle frees the block; the leak checker of the
    // sanitizer build reports any array left over at exit.
    second = HvHandle<HvByteArray>();
    EXPECT_TRUE(second.isNull());
}

TEST(HvByteArray, ManyArraysOfVariousSizesAreFreed)
{
    // Exercised under the leak checker: every array made here must be gone.
    for (unsigned int length = 0; length < 300; length += 7) {
        HvHandle<HvByteArray> array = counting(length);
        HvHandle<HvByteArray> slice = HvByteArray::sCreate(array.get(), 0, length / 2);
        HvHandle<HvByteArray> copy(dynamic_cast<HvByteArray*>(array->clone()));
        ASSERT_EQ(length - length / 2, slice->getSize());
        ASSERT_EQ(length, copy->getSize());
        EXPECT_EQ(1, array->getRefCount());
        EXPECT_EQ(1, slice->getRefCount());
        EXPECT_EQ(1, copy->getRefCount());
    }
}
