#include <HvUtil/HvConstString.h>

#include <Velmora/MemAllocator.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

long liveCopies()
{
    return hvtest::liveCount("HvConstString");
}

} // namespace

TEST(HvConstString, NullTextGivesNullDataAndLengthZero)
{
    hvtest::LeakCheck leaks("HvConstString");
    long before = liveCopies();
    HvConstString none(nullptr, 0);
    EXPECT_EQ(none.getData(), nullptr);
    EXPECT_EQ(none.getLength(), 0u);
    HvConstString noneWithLength(nullptr, 5);
    EXPECT_EQ(noneWithLength.getData(), nullptr);
    EXPECT_EQ(noneWithLength.getLength(), 0u);
    EXPECT_EQ(liveCopies(), before);
}

TEST(HvConstString, TextIsCopiedWithExactLength)
{
    hvtest::LeakCheck leaks("HvConstString");
    long before = liveCopies();
    const char source[] = "abc";
    {
        HvConstString copy(source, 3);
        EXPECT_EQ(liveCopies(), before + 1);
        EXPECT_NE(copy.getData(), source);
        EXPECT_STREQ(copy.getData(), "abc");
        EXPECT_EQ(copy.getLength(), 3u);
    }
    EXPECT_EQ(liveCopies(), before);
}

TEST(HvConstString, CopyTakesOnlyGivenLengthAndTerminates)
{
    hvtest::LeakCheck leaks("HvConstString");
    HvConstString prefix("abcdef", 3);
    EXPECT_EQ(prefix.getLength(), 3u);
    EXPECT_STREQ(prefix.getData(), "abc");
}

TEST(HvConstString, CopyBlockIsLengthPlusOneBytes)
{
    hvtest::LeakCheck leaks("HvConstString");
    long bytesBefore = Velmora::allocationStats("HvConstString").liveBytes;
    HvConstString copy("hello", 5);
    EXPECT_EQ(Velmora::allocationStats("HvConstString").liveBytes - bytesBefore, 6);
}

TEST(HvConstString, LengthZeroWithTextPointsAtSharedEmptyText)
{
    hvtest::LeakCheck leaks("HvConstString");
    long before = liveCopies();
    HvConstString first("not measured", 0);
    HvConstString second("", 0);
    EXPECT_EQ(first.getLength(), 0u);
    ASSERT_NE(first.getData(), nullptr);
    EXPECT_STREQ(first.getData(), "");
    EXPECT_EQ(first.getData(), second.getData());
    EXPECT_EQ(liveCopies(), before);
}

TEST(HvConstString, ReleaseBufferFreesCopyAndNullsData)
{
    hvtest::LeakCheck leaks("HvConstString");
    long before = liveCopies();
    HvConstString copy("abc", 3);
    copy.releaseBuffer();
    EXPECT_EQ(copy.getData(), nullptr);
    EXPECT_EQ(copy.getLength(), 0u);
    EXPECT_EQ(liveCopies(), before);
    copy.releaseBuffer();
    EXPECT_EQ(copy.getData(), nullptr);

    HvConstString empty("x", 0);
    empty.releaseBuffer();
    EXPECT_EQ(empty.getData(), nullptr);
    EXPECT_EQ(empty.getLength(), 0u);
    EXPECT_EQ(liveCopies(), before);
}

TEST(HvConstString, AssignReturnsCopyAndLeavesDataNull)
{
    hvtest::LeakCheck leaks("HvConstString");
    long before = liveCopies();
    HvConstString object("old", 3);
    const char source[] = "hello";
    char* copy = object.assign(source);
    // The old copy is gone and the new one belongs to the caller.
    EXPECT_EQ(liveCopies(), before + 1);
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy, source);
    EXPECT_STREQ(copy, "hello");
    EXPECT_EQ(object.getData(), nullptr);
    EXPECT_EQ(object.getLength(), 5u);
    HvConstString::sFreeCopy(copy, 5);
    EXPECT_EQ(liveCopies(), before);
}

TEST(HvConstString, AssignOfNullOrEmptyReturnsNull)
{
    hvtest::LeakCheck leaks("HvConstString");
    long before = liveCopies();
    HvConstString object("abc", 3);
    EXPECT_EQ(object.assign(nullptr), nullptr);
    EXPECT_EQ(object.getLength(), 0u);
    EXPECT_EQ(object.getData(), nullptr);
    EXPECT_EQ(liveCopies(), before);

    HvConstString other("abc", 3);
    EXPECT_EQ(other.assign(""), nullptr);
    EXPECT_EQ(other.getLength(), 0u);
    EXPECT_EQ(other.getData(), nullptr);
    EXPECT_EQ(liveCopies(), before);
}

TEST(HvConstString, DestructionAfterAssignLeavesCallersCopyAlone)
{
    hvtest::LeakCheck leaks("HvConstString");
    long before = liveCopies();
    char* copy = nullptr;
    {
        HvConstString object(nullptr, 0);
        copy = object.assign("kept");
    }
    EXPECT_EQ(liveCopies(), before + 1);
    EXPECT_STREQ(copy, "kept");
    HvConstString::sFreeCopy(copy, 4);
    EXPECT_EQ(liveCopies(), before);
    HvConstString::sFreeCopy(nullptr, 4);
    EXPECT_EQ(liveCopies(), before);
}

TEST(HvConstString, CaseChangeIsAsciiOnlyOverLength)
{
    hvtest::LeakCheck leaks("HvConstString");
    HvConstString text("Hello \xC4\xE4 @[`{ 42 z", 18);
    text.toUpper();
    EXPECT_EQ(std::string(text.getData()), "HELLO \xC4\xE4 @[`{ 42 Z");
    text.toLower();
    EXPECT_EQ(std::string(text.getData()), "hello \xC4\xE4 @[`{ 42 z");
}

TEST(HvConstString, CaseChangeWithoutDataDoesNothing)
{
    hvtest::LeakCheck leaks("HvConstString");
    HvConstString none(nullptr, 0);
    none.toUpper();
    none.toLower();
    EXPECT_EQ(none.getData(), nullptr);

    // After assign the object has a length but no data: still nothing happens.
    HvConstString assigned(nullptr, 0);
    char* copy = assigned.assign("abc");
    assigned.toUpper();
    EXPECT_EQ(assigned.getData(), nullptr);
    EXPECT_STREQ(copy, "abc");
    HvConstString::sFreeCopy(copy, 3);

    HvConstString empty("x", 0);
    empty.toUpper();
    EXPECT_STREQ(empty.getData(), "");
}

TEST(HvConstString, IndexOfCases)
{
    hvtest::LeakCheck leaks("HvConstString");
    HvConstString hello("hello", 5);
    EXPECT_EQ(hello.indexOf("l", 3), 3);
    EXPECT_EQ(hello.indexOf("l", 0), 2);
    EXPECT_EQ(hello.indexOf("lo", 0), 3);
    EXPECT_EQ(hello.indexOf("x", 0), -1);
    EXPECT_EQ(hello.indexOf("o", 4), 4);
    EXPECT_EQ(hello.indexOf("o", 5), -1);
    EXPECT_EQ(hello.indexOf("o", 6), -1);
    EXPECT_EQ(hello.indexOf(nullptr, 0), -1);
    EXPECT_EQ(hello.indexOf("h", -1), -1);

    HvConstString none(nullptr, 0);
    EXPECT_EQ(none.indexOf("a", 0), -1);
    HvConstString empty("x", 0);
    EXPECT_EQ(empty.indexOf("", 0), -1);
}

TEST(HvConstString, CompareIsEqualityWithNullRules)
{
    hvtest::LeakCheck leaks("HvConstString");
    HvConstString none(nullptr, 0);
    EXPECT_EQ(none.compare(nullptr), 1);
    EXPECT_EQ(none.compare(""), 1);
    EXPECT_EQ(none.compare("a"), 0);

    HvConstString abc("abc", 3);
    EXPECT_EQ(abc.compare(nullptr), 0);
    EXPECT_EQ(abc.compare("abc"), 1);
    // Not an ordering: smaller and greater texts are both just "different".
    EXPECT_EQ(abc.compare("abd"), 0);
    EXPECT_EQ(abc.compare("abb"), 0);
    EXPECT_EQ(abc.compare("ab"), 0);
    EXPECT_EQ(abc.compare("ABC"), 0);

    // The shared empty text is data, not null.
    HvConstString empty("x", 0);
    EXPECT_EQ(empty.compare(""), 1);
    EXPECT_EQ(empty.compare(nullptr), 0);
    EXPECT_EQ(empty.compare("x"), 0);
}
