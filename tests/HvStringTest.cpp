#include <HvUtil/HvString.h>

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvByteArrayInputStream.h>
#include <HvUtil/HvByteArrayOutputStream.h>
#include <HvUtil/HvInputStream.h>
#include <HvUtil/HvOutputStream.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace {

HvHandle<HvInputStream> streamOf(const char* content)
{
    return HvHandle<HvInputStream>(new HvByteArrayInputStream(HvByteArray::sCreate(content).get(), 0, 0));
}

} // namespace

TEST(HvString, DefaultIsEmptyString)
{
    HvString empty;
    EXPECT_TRUE(empty.isNull());
    EXPECT_STREQ(empty.c_str(), "");
    EXPECT_EQ(empty.length(), 0u);
    EXPECT_EQ(empty.hashCode(), 0u);
}

TEST(HvString, FromTextTakesOneReference)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    long before = hvtest::liveStringBuffers();
    {
        HvString abc("abc");
        ASSERT_FALSE(abc.isNull());
        EXPECT_STREQ(abc.c_str(), "abc");
        EXPECT_EQ(abc.length(), 3u);
        EXPECT_EQ(abc->getCapacity(), 4u);
        EXPECT_EQ(abc->getRefCount(), 1);
        EXPECT_EQ(hvtest::liveStringBuffers(), before + 1);
    }
    EXPECT_EQ(hvtest::liveStringBuffers(), before);
}

TEST(HvString, FromEmptyOrNullTextIsEmpty)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString fromEmpty("");
    HvString fromNull(static_cast<const char*>(nullptr));
    EXPECT_TRUE(fromEmpty.isNull());
    EXPECT_TRUE(fromNull.isNull());
    EXPECT_STREQ(fromNull.c_str(), "");
}

TEST(HvString, FromBufferTakesIt)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvStringBuffer* raw = HvStringBuffer::sCreate("xyz", 0, 0);
    HvString held(raw);
    EXPECT_EQ(held.get(), raw);
    EXPECT_EQ(raw->getRefCount(), 1);
}

TEST(HvString, CopySharesTheBuffer)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString first("shared");
    HvString second(first);
    EXPECT_EQ(first.get(), second.get());
    EXPECT_EQ(first->getRefCount(), 2);
    HvString third;
    third = first;
    EXPECT_EQ(first->getRefCount(), 3);
    third = "other";
    EXPECT_EQ(first->getRefCount(), 2);
    EXPECT_STREQ(third.c_str(), "other");
    third = "";
    EXPECT_TRUE(third.isNull());
}

TEST(HvString, AppendStoresResultBack)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString text;
    text.append("ab");
    EXPECT_STREQ(text.c_str(), "ab");
    text.append("cdef", 2);
    EXPECT_STREQ(text.c_str(), "abcd");
    EXPECT_EQ(text->getCapacity(), 5u);
    text.append("xyz", 10);
    EXPECT_STREQ(text.c_str(), "abcdxyz");
    EXPECT_EQ(text->getCapacity(), 8u);
    EXPECT_EQ(text->getRefCount(), 1);
}

TEST(HvString, AppendToSharedBufferLeavesOtherHandleUnchanged)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString mine("abc");
    HvString other(mine);
    mine.append("def");
    EXPECT_STREQ(mine.c_str(), "abcdef");
    EXPECT_STREQ(other.c_str(), "abc");
    EXPECT_NE(mine.get(), other.get());
    EXPECT_EQ(mine->getRefCount(), 1);
    EXPECT_EQ(other->getRefCount(), 1);
}

TEST(HvString, AppendStringToEmptySharesOther)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString other("tail");
    HvString text;
    text.append(other);
    EXPECT_EQ(text.get(), other.get());
    EXPECT_EQ(other->getRefCount(), 2);
    // Appending now must not change the other handle's text.
    text.append(other);
    EXPECT_STREQ(text.c_str(), "tailtail");
    EXPECT_STREQ(other.c_str(), "tail");
    HvString empty;
    text.append(empty);
    EXPECT_STREQ(text.c_str(), "tailtail");
}

TEST(HvString, CaseChangeOnSharedBufferCopies)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString mine("Hello \xC4");
    HvString other(mine);
    mine.toUpper();
    EXPECT_STREQ(mine.c_str(), "HELLO \xC4");
    EXPECT_STREQ(other.c_str(), "Hello \xC4");
    other.toLower();
    EXPECT_STREQ(other.c_str(), "hello \xC4");
    HvString empty;
    EXPECT_TRUE(empty.toUpper().isNull());
}

TEST(HvString, TrimStoresResult)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString text(" \t x \r\n");
    HvString other(text);
    text.trim();
    EXPECT_STREQ(text.c_str(), "x");
    EXPECT_STREQ(other.c_str(), " \t x \r\n");
    HvString blank("   ");
    blank.trim();
    EXPECT_FALSE(blank.isNull());
    EXPECT_EQ(blank.length(), 0u);
    HvString empty;
    EXPECT_TRUE(empty.trim().isNull());
}

TEST(HvString, SubstrDefaultsToRest)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString hello("hello");
    EXPECT_STREQ(hello.substr(2).c_str(), "llo");
    EXPECT_STREQ(hello.substr(1, 3).c_str(), "ell");
    EXPECT_TRUE(hello.substr(5, 1).isNull());
    EXPECT_TRUE(hello.substr(6, 1).isNull());
    EXPECT_TRUE(HvString().substr(0).isNull());
}

TEST(HvString, QueriesOnEmptyAndNonEmpty)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString hello("hello");
    EXPECT_EQ(hello.indexOf("l", 3), 3);
    EXPECT_EQ(hello.indexOf("l"), 2);
    EXPECT_EQ(hello.hashCode(), ((('h' * 5u + 'e') * 5u + 'l') * 5u + 'l') * 5u + 'o');
    EXPECT_EQ(HvString("ab").hashCode(), 583u);
    EXPECT_EQ(hello.compareWith("hello"), 0);
    EXPECT_GT(HvString("abd").compareNoCase("ABC"), 0);

    HvString empty;
    EXPECT_EQ(empty.indexOf("x"), -1);
    EXPECT_EQ(empty.compareWith(nullptr), 0);
    EXPECT_EQ(empty.compareWith(""), 0);
    EXPECT_EQ(empty.compareWith("a"), -1);
    EXPECT_EQ(empty.compareNoCase(nullptr), 0);
    EXPECT_EQ(empty.compareNoCase("a"), -1);
}

TEST(HvString, ExtractionReadsBlankSeparatedWords)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvHandle<HvInputStream> in = streamOf(" one two\tthree\r\nfour");
    HvString a, b, c, d;
    *in >> a >> b;
    *in >> c >> d;
    EXPECT_STREQ(a.c_str(), "one");
    EXPECT_STREQ(b.c_str(), "two");
    EXPECT_STREQ(c.c_str(), "three");
    EXPECT_STREQ(d.c_str(), "four");
    EXPECT_EQ(in->read(), -1);

    HvString end("previous");
    *in >> end;
    EXPECT_EQ(end.length(), 0u);
    EXPECT_STREQ(end.c_str(), "");
}

TEST(HvString, ExtractionLeavesDelimiterInStream)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvHandle<HvInputStream> in = streamOf("word\nnext");
    HvString word;
    *in >> word;
    EXPECT_STREQ(word.c_str(), "word");
    EXPECT_EQ(in->read(), '\n');
}

TEST(HvString, ExtractionIntoSharedStringLeavesOtherHandleAlone)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvHandle<HvInputStream> in = streamOf("new");
    HvString mine("old text");
    HvString other(mine);
    *in >> mine;
    EXPECT_STREQ(mine.c_str(), "new");
    EXPECT_STREQ(other.c_str(), "old text");
}

TEST(HvString, ExtractionFromStreamWithoutMarkThrowsAndKeepsTheString)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    class Unmarkable : public HvInputStream {
    public:
        int read() override { return 'x'; }
        using HvInputStream::read;
    };
    HvHandle<HvInputStream> in(new Unmarkable);
    HvString word("kept");
    EXPECT_EQ(hvtest::messageOf([&] { *in >> word; }), "Can only tokenize streams where mark supported");
    EXPECT_STREQ(word.c_str(), "kept");
}

TEST(HvString, InsertionIntoHvOutputStreamWritesTextOnly)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvByteArrayOutputStream out(0);
    out << HvString("abc") << HvString() << HvString("d");
    EXPECT_EQ(hvtest::textOf(out), "abcd");

    HvByteArrayOutputStream emptyOut(0);
    emptyOut << HvString();
    EXPECT_EQ(emptyOut.getCount(), 0u);

    // The whole length is written, including an embedded NUL.
    HvByteArrayOutputStream binary(0);
    binary << HvString(HvStringBuffer::sCreate("a\0b", 3, 0));
    EXPECT_EQ(hvtest::textOf(binary), std::string("a\0b", 3));
}

TEST(HvString, InsertionIntoStdOstream)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    std::ostringstream out;
    out << HvString("abc") << HvString() << '|' << HvString("x y");
    EXPECT_EQ(out.str(), "abc|x y");
}

TEST(HvString, ConvertsFromAnObjectHandleHoldingAStringBuffer)
{
    HvHandle<HvObject> object(HvStringBuffer::sCreate("shared", 0, 0));
    HvString fromHandle = object;
    EXPECT_STREQ("shared", fromHandle.c_str());
    HvString assigned;
    assigned = object;
    EXPECT_EQ(assigned.get(), fromHandle.get());
    EXPECT_EQ(3, object->getRefCount());
}

TEST(HvString, ConversionFromAnotherObjectTypeIsReported)
{
    HvHandle<HvObject> bytes(HvByteArray::sCreate("abc").get());
    EXPECT_EQ("dynamic_cast failed on HvHandle construction", hvtest::messageOf([&] { HvString wrong = bytes; }));

    HvString text("keep");
    EXPECT_EQ("dynamic_cast failed on HvHandle assignment", hvtest::messageOf([&] { text = bytes; }));
    EXPECT_EQ(1, bytes->getRefCount());
}
