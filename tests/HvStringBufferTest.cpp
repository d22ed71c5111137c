#include <HvUtil/HvStringBuffer.h>

#include <HvUtil/HvAssertionFailure.h>
#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvByteArrayInputStream.h>
#include <HvUtil/HvByteArrayOutputStream.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvInputStream.h>
#include <HvUtil/HvString.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

namespace {

std::string text(const HvStringBuffer* buffer)
{
    return buffer ? std::string(buffer->getData(), buffer->getLength()) : std::string("<null>");
}

// Runs op on a buffer of `content` (with `room`) that a second handle shares.
// A shared buffer is never changed in place: op must give back a new buffer
// and leave the shared text alone. Returns what op gave back.
HvString changedWhileShared(const char* content, unsigned int room, HvStringBuffer* (*op)(HvStringBuffer*))
{
    HvString mine(HvStringBuffer::sCreate(content, 0, room));
    HvString other(mine);
    HvString changed(op(mine.get()));
    EXPECT_NE(changed.get(), mine.get());
    EXPECT_EQ(text(other.get()), content);
    return changed;
}

// Checks an assertion failure raised by the buffer: type, text, file and line.
void expectAssertionFailure(const HvHandle<HvException>& e, const char* message, unsigned int line)
{
    ASSERT_FALSE(e.isNull()) << "nothing was thrown";
    const HvAssertionFailure* failure = dynamic_cast<const HvAssertionFailure*>(e.get());
    ASSERT_NE(failure, nullptr) << "not an HvAssertionFailure";
    EXPECT_STREQ(failure->getMessage().c_str(), message);
    EXPECT_STREQ(failure->getFile(), "HvStringBuffer.cpp");
    EXPECT_EQ(failure->getLine(), line);
    EXPECT_EQ(hvtest::assertionCount(), 1u);
    EXPECT_EQ(hvtest::lastAssertion().text, message);
    EXPECT_EQ(hvtest::lastAssertion().line, static_cast<int>(line));
}

// A memory stream over a copy of `content`.
HvByteArrayInputStream* newStream(const char* content)
{
    return new HvByteArrayInputStream(HvByteArray::sCreate(content).get(), 0, 0);
}

// A stream without mark support, which the tokenizer refuses.
class UnmarkableStream : public HvInputStream {
public:
    int read() override { return 'x'; }
    using HvInputStream::read;
};

// A stream whose block read fails.
class FailingStream : public HvInputStream {
public:
    int read() override { HvException::sThrow("read failed"); }
    int read(void*, unsigned int, unsigned int) override { HvException::sThrow("read failed"); }
    using HvInputStream::read;
};

} // namespace

// ---------------------------------------------------------------- sCreate

TEST(HvStringBuffer, CreateOfEmptyOrNullTextWithoutRoomIsNull)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    EXPECT_EQ(HvStringBuffer::sCreate("", 0, 0), nullptr);
    EXPECT_EQ(HvStringBuffer::sCreate(nullptr, 0, 0), nullptr);
    // A null text reserves nothing unless room is asked for.
    EXPECT_EQ(HvStringBuffer::sCreate(nullptr, 5, 0), nullptr);
}

TEST(HvStringBuffer, CreateOfEmptyTextWithRoomIsEmptyBuffer)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString empty(HvStringBuffer::sCreate("", 0, 16));
    ASSERT_FALSE(empty.isNull());
    EXPECT_EQ(empty->getLength(), 0u);
    EXPECT_EQ(empty->getCapacity(), 16u);
    EXPECT_STREQ(empty->getData(), "");

    HvString reserved(HvStringBuffer::sCreate(nullptr, 0, 16));
    ASSERT_FALSE(reserved.isNull());
    EXPECT_EQ(reserved->getLength(), 0u);
    EXPECT_EQ(reserved->getCapacity(), 16u);
    EXPECT_STREQ(reserved->getData(), "");
}

TEST(HvStringBuffer, CreateMeasuresTextAndSizesExactly)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvStringBuffer* raw = HvStringBuffer::sCreate("abc", 0, 0);
    ASSERT_NE(raw, nullptr);
    EXPECT_EQ(raw->getRefCount(), 0);
    HvString abc(raw);
    EXPECT_EQ(abc->getRefCount(), 1);
    EXPECT_EQ(abc->getLength(), 3u);
    EXPECT_EQ(abc->getCapacity(), 4u);
    EXPECT_STREQ(abc->getData(), "abc");
}

TEST(HvStringBuffer, CreateWithLengthTakesPrefix)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString abc(HvStringBuffer::sCreate("abcdef", 3, 0));
    EXPECT_STREQ(abc->getData(), "abc");
    EXPECT_EQ(abc->getLength(), 3u);
    EXPECT_EQ(abc->getCapacity(), 4u);
}

TEST(HvStringBuffer, CreateRaisesSmallCapacityAndKeepsLargeOne)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString raised(HvStringBuffer::sCreate("abcdef", 0, 2));
    EXPECT_EQ(raised->getCapacity(), 7u);
    EXPECT_STREQ(raised->getData(), "abcdef");
    HvString roomy(HvStringBuffer::sCreate("ab", 0, 10));
    EXPECT_EQ(roomy->getCapacity(), 10u);
    EXPECT_EQ(roomy->getLength(), 2u);
}

TEST(HvStringBuffer, CreateWithNullTextAndLengthReservesCharacters)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvStringBuffer* raw = HvStringBuffer::sCreate(nullptr, 3, 8);
    ASSERT_NE(raw, nullptr);
    EXPECT_EQ(raw->getLength(), 3u);
    EXPECT_EQ(raw->getCapacity(), 8u);
    EXPECT_EQ(raw->getData()[3], '\0');
    HvString hold(raw);
}

TEST(HvStringBuffer, CreateCopiesEmbeddedNulWithExplicitLength)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString buffer(HvStringBuffer::sCreate("a\0b", 3, 0));
    EXPECT_EQ(buffer->getLength(), 3u);
    EXPECT_EQ(std::memcmp(buffer->getData(), "a\0b\0", 4), 0);
}

TEST(HvStringBuffer, DataLivesBehindHeaderInOneBlock)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    long before = hvtest::liveStringBuffers();
    HvString buffer(HvStringBuffer::sCreate("abc", 0, 0));
    EXPECT_EQ(hvtest::liveStringBuffers(), before + 1);
    const char* header = reinterpret_cast<const char*>(buffer.get());
    EXPECT_EQ(buffer->getData(), header + sizeof(HvStringBuffer));
}

// ---------------------------------------------------------------- assign

TEST(HvStringBuffer, AssignOnNullBufferMakesNewOrNull)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString made(HvStringBuffer::sAssign(nullptr, "abc"));
    EXPECT_EQ(text(made.get()), "abc");
    EXPECT_EQ(made->getCapacity(), 4u);
    EXPECT_EQ(HvStringBuffer::sAssign(nullptr, ""), nullptr);
    EXPECT_EQ(HvStringBuffer::sAssign(nullptr, nullptr), nullptr);
}

TEST(HvStringBuffer, AssignReusesPrivateBufferWithRoom)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString buffer(HvStringBuffer::sCreate("abcdef", 0, 0));
    unsigned int oldHash = buffer->hashCode();
    HvStringBuffer* result = HvStringBuffer::sAssign(buffer.get(), "xyz");
    EXPECT_EQ(result, buffer.get());
    EXPECT_EQ(text(result), "xyz");
    EXPECT_EQ(result->getCapacity(), 7u);
    // The hash of the old text is forgotten.
    EXPECT_NE(result->hashCode(), oldHash);
    EXPECT_EQ(result->hashCode(), static_cast<unsigned int>(('x' * 5 + 'y') * 5 + 'z'));

    // Exactly fitting text (n + 1 == capacity) stays in place too.
    EXPECT_EQ(buffer->assign("123456"), buffer.get());
    EXPECT_EQ(text(buffer.get()), "123456");

    // Empty and null texts empty the private buffer in place.
    EXPECT_EQ(HvStringBuffer::sAssign(buffer.get(), ""), buffer.get());
    EXPECT_EQ(buffer->getLength(), 0u);
    EXPECT_STREQ(buffer->getData(), "");
    buffer->assign("q");
    EXPECT_EQ(HvStringBuffer::sAssign(buffer.get(), nullptr), buffer.get());
    EXPECT_EQ(buffer->getLength(), 0u);
    EXPECT_STREQ(buffer->getData(), "");
}

TEST(HvStringBuffer, AssignOfOwnTailMovesInPlace)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString buffer(HvStringBuffer::sCreate("hello", 0, 0));
    EXPECT_EQ(HvStringBuffer::sAssign(buffer.get(), buffer->getData() + 2), buffer.get());
    EXPECT_EQ(text(buffer.get()), "llo");
}

TEST(HvStringBuffer, AssignToSmallBufferMakesNewOne)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString buffer(HvStringBuffer::sCreate("ab", 0, 0));
    HvString result(HvStringBuffer::sAssign(buffer.get(), "longer"));
    EXPECT_NE(result.get(), buffer.get());
    EXPECT_EQ(text(result.get()), "longer");
    EXPECT_EQ(result->getCapacity(), 7u);
    EXPECT_EQ(text(buffer.get()), "ab");
}

TEST(HvStringBuffer, AssignToSharedBufferLeavesOtherHandleAlone)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString first(HvStringBuffer::sCreate("abcdef", 0, 0));
    HvString second(first);
    HvString result(HvStringBuffer::sAssign(first.get(), "x"));
    EXPECT_NE(result.get(), first.get());
    EXPECT_EQ(text(result.get()), "x");
    EXPECT_EQ(text(second.get()), "abcdef");
    // A shared buffer is not emptied in place either: the result is null.
    EXPECT_EQ(HvStringBuffer::sAssign(first.get(), ""), nullptr);
    EXPECT_EQ(text(first.get()), "abcdef");
}

// ---------------------------------------------------------------- append

TEST(HvStringBuffer, AppendToNullBufferCreates)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString whole(HvStringBuffer::sAppend(nullptr, "abc", 0));
    EXPECT_EQ(text(whole.get()), "abc");
    EXPECT_EQ(whole->getCapacity(), 4u);
    HvString part(HvStringBuffer::sAppend(nullptr, "abcdef", 2));
    EXPECT_EQ(text(part.get()), "ab");
    EXPECT_EQ(part->getCapacity(), 3u);
    EXPECT_EQ(HvStringBuffer::sAppend(nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(HvStringBuffer::sAppend(nullptr, "", 0), nullptr);
}

TEST(HvStringBuffer, AppendToNullBufferWithLongCountTakesWholeTextOnly)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    // The count is larger than the text: only the text's own bytes are read.
    char text3[3] = {'a', 'b', '\0'};
    HvString made(HvStringBuffer::sAppend(nullptr, text3, 100));
    EXPECT_EQ(text(made.get()), "ab");
    EXPECT_EQ(made->getCapacity(), 3u);
}

TEST(HvStringBuffer, AppendOfNullOrEmptyTextReturnsBufferUnchanged)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString buffer(HvStringBuffer::sCreate("abc", 0, 0));
    EXPECT_EQ(HvStringBuffer::sAppend(buffer.get(), nullptr, 0), buffer.get());
    EXPECT_EQ(HvStringBuffer::sAppend(buffer.get(), nullptr, 5), buffer.get());
    EXPECT_EQ(HvStringBuffer::sAppend(buffer.get(), "", 0), buffer.get());
    EXPECT_EQ(HvStringBuffer::sAppend(buffer.get(), "", 3), buffer.get());
    EXPECT_EQ(text(buffer.get()), "abc");
    EXPECT_EQ(buffer->getCapacity(), 4u);
}

TEST(HvStringBuffer, AppendMakesBufferOfExactlyNeededCapacity)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString buffer(HvStringBuffer::sCreate("abc", 0, 0));
    HvStringBuffer* old = buffer.get();
    buffer = HvStringBuffer::sAppend(buffer.get(), "de", 0);
    EXPECT_NE(buffer.get(), old);
    EXPECT_EQ(text(buffer.get()), "abcde");
    EXPECT_EQ(buffer->getCapacity(), 3u + 2u + 1u);
    EXPECT_EQ(buffer->getData()[5], '\0');

    // No growth reserve: the next append needs a new buffer again.
    old = buffer.get();
    buffer = buffer->append("f", 0);
    EXPECT_NE(buffer.get(), old);
    EXPECT_EQ(text(buffer.get()), "abcdef");
    EXPECT_EQ(buffer->getCapacity(), 7u);
}

TEST(HvStringBuffer, AppendInPlaceWhenPrivateAndLargeEnough)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString buffer(HvStringBuffer::sCreate("ab", 0, 10));
    unsigned int oldHash = buffer->hashCode();
    EXPECT_EQ(HvStringBuffer::sAppend(buffer.get(), "cd", 0), buffer.get());
    EXPECT_EQ(text(buffer.get()), "abcd");
    EXPECT_EQ(buffer->getCapacity(), 10u);
    EXPECT_NE(buffer->hashCode(), oldHash);
    EXPECT_EQ(buffer->hashCode(), static_cast<unsigned int>((('a' * 5 + 'b') * 5 + 'c') * 5 + 'd'));

    // Exactly filling the capacity still fits.
    EXPECT_EQ(HvStringBuffer::sAppend(buffer.get(), "efghi", 0), buffer.get());
    EXPECT_EQ(text(buffer.get()), "abcdefghi");
}

TEST(HvStringBuffer, AppendTakesCountOrWholeText)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString buffer(HvStringBuffer::sCreate("", 0, 32));
    buffer = HvStringBuffer::sAppend(buffer.get(), "abcdef", 2);
    EXPECT_EQ(text(buffer.get()), "ab");
    buffer = HvStringBuffer::sAppend(buffer.get(), "cd", 2);
    EXPECT_EQ(text(buffer.get()), "abcd");
    // A count beyond the text takes the whole text.
    buffer = HvStringBuffer::sAppend(buffer.get(), "xyz", 50);
    EXPECT_EQ(text(buffer.get()), "abcdxyz");
    EXPECT_EQ(buffer->getCapacity(), 32u);
}

TEST(HvStringBuffer, AppendWithLongCountMakesExactCapacityForWholeText)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString buffer(HvStringBuffer::sCreate("abc", 0, 0));
    buffer = HvStringBuffer::sAppend(buffer.get(), "de", 9);
    EXPECT_EQ(text(buffer.get()), "abcde");
    EXPECT_EQ(buffer->getCapacity(), 6u);
}

TEST(HvStringBuffer, AppendToSharedBufferLeavesOtherHandleUnchanged)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString mine(HvStringBuffer::sCreate("abc", 0, 20));
    HvString other(mine);
    mine = HvStringBuffer::sAppend(mine.get(), "def", 0);
    EXPECT_NE(mine.get(), other.get());
    EXPECT_EQ(text(mine.get()), "abcdef");
    // Even with room to spare, the copy is exactly as large as needed.
    EXPECT_EQ(mine->getCapacity(), 7u);
    EXPECT_EQ(text(other.get()), "abc");
    EXPECT_EQ(other->getCapacity(), 20u);
    EXPECT_EQ(other->getRefCount(), 1);
}

TEST(HvStringBuffer, AppendOwnTextToItself)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString roomy(HvStringBuffer::sCreate("ab", 0, 10));
    EXPECT_EQ(HvStringBuffer::sAppend(roomy.get(), roomy->getData(), 0), roomy.get());
    EXPECT_EQ(text(roomy.get()), "abab");

    HvString tight(HvStringBuffer::sCreate("xy", 0, 0));
    tight = HvStringBuffer::sAppend(tight.get(), tight.get());
    EXPECT_EQ(text(tight.get()), "xyxy");
    EXPECT_EQ(tight->getCapacity(), 5u);
}

TEST(HvStringBuffer, AppendBufferFollowsNullRules)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString other(HvStringBuffer::sCreate("def", 0, 0));
    // A null buffer gives the other buffer itself.
    EXPECT_EQ(HvStringBuffer::sAppend(nullptr, other.get()), other.get());
    EXPECT_EQ(HvStringBuffer::sAppend(nullptr, static_cast<const HvStringBuffer*>(nullptr)), nullptr);

    HvString buffer(HvStringBuffer::sCreate("abc", 0, 0));
    EXPECT_EQ(HvStringBuffer::sAppend(buffer.get(), static_cast<const HvStringBuffer*>(nullptr)), buffer.get());
    buffer = HvStringBuffer::sAppend(buffer.get(), other.get());
    EXPECT_EQ(text(buffer.get()), "abcdef");
    EXPECT_EQ(buffer->getCapacity(), 7u);
    EXPECT_EQ(text(other.get()), "def");

    // An empty other buffer adds nothing.
    HvString empty(HvStringBuffer::sCreate("", 0, 8));
    EXPECT_EQ(buffer->append(empty.get()), buffer.get());
    EXPECT_EQ(text(buffer.get()), "abcdef");
}

TEST(HvStringBuffer, AppendBufferTakesOtherTextUpToItsNul)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    // The other buffer's length is the count, and a count beyond the text
    // (here past an embedded NUL) takes the text only.
    HvString other(HvStringBuffer::sCreate("x\0z", 3, 0));
    HvString buffer(HvStringBuffer::sCreate("ab", 0, 0));
    buffer = HvStringBuffer::sAppend(buffer.get(), other.get());
    EXPECT_EQ(buffer->getLength(), 3u);
    EXPECT_STREQ(buffer->getData(), "abx");
    EXPECT_EQ(buffer->getCapacity(), 4u);
}

// ---------------------------------------------------------------- case

TEST(HvStringBuffer, CaseChangeOfNullOrEmptyReturnsItUnchanged)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    EXPECT_EQ(HvStringBuffer::sToLower(nullptr), nullptr);
    EXPECT_EQ(HvStringBuffer::sToUpper(nullptr), nullptr);
    HvString empty(HvStringBuffer::sCreate("", 0, 4));
    HvString alias(empty);
    EXPECT_EQ(HvStringBuffer::sToLower(empty.get()), empty.get());
    EXPECT_EQ(HvStringBuffer::sToUpper(empty.get()), empty.get());
}

TEST(HvStringBuffer, ToLowerAndToUpperChangeAsciiLettersInPlace)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString buffer(HvStringBuffer::sCreate("Hello, World 09 @[`{", 0, 0));
    EXPECT_EQ(HvStringBuffer::sToLower(buffer.get()), buffer.get());
    EXPECT_EQ(text(buffer.get()), "hello, world 09 @[`{");
    EXPECT_EQ(HvStringBuffer::sToUpper(buffer.get()), buffer.get());
    EXPECT_EQ(text(buffer.get()), "HELLO, WORLD 09 @[`{");
    EXPECT_EQ(buffer->toLower(), buffer.get());
    EXPECT_EQ(text(buffer.get()), "hello, world 09 @[`{");
}

TEST(HvStringBuffer, CaseChangeLeavesBytesAbove127Alone)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    const char source[] = "\xC4\xE4" "Ab" "\xFF\x80" "z";
    HvString buffer(HvStringBuffer::sCreate(source, 0, 0));
    HvStringBuffer::sToLower(buffer.get());
    EXPECT_EQ(text(buffer.get()), std::string("\xC4\xE4" "ab" "\xFF\x80" "z"));
    HvStringBuffer::sToUpper(buffer.get());
    EXPECT_EQ(text(buffer.get()), std::string("\xC4\xE4" "AB" "\xFF\x80" "Z"));
}

TEST(HvStringBuffer, CaseChangeClearsHash)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString buffer(HvStringBuffer::sCreate("AB", 0, 0));
    EXPECT_EQ(buffer->hashCode(), static_cast<unsigned int>('A' * 5 + 'B'));
    HvStringBuffer::sToLower(buffer.get());
    EXPECT_EQ(buffer->hashCode(), 583u);
    HvStringBuffer::sToUpper(buffer.get());
    EXPECT_EQ(buffer->hashCode(), static_cast<unsigned int>('A' * 5 + 'B'));
}

TEST(HvStringBuffer, CaseChangeOfSharedBufferCopies)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString lower = changedWhileShared("MiXeD", 20, &HvStringBuffer::sToLower);
    EXPECT_EQ(text(lower.get()), "mixed");
    EXPECT_EQ(lower->getCapacity(), 6u);
    HvString upper = changedWhileShared("MiXeD", 20, &HvStringBuffer::sToUpper);
    EXPECT_EQ(text(upper.get()), "MIXED");
    EXPECT_EQ(upper->getCapacity(), 6u);
}

// ---------------------------------------------------------------- trim

TEST(HvStringBuffer, TrimOfNullIsNull)
{
    EXPECT_EQ(HvStringBuffer::sTrim(nullptr), nullptr);
}

TEST(HvStringBuffer, TrimRemovesTabNewlineReturnAndBlankAtBothEnds)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString buffer(HvStringBuffer::sCreate(" \t x \r\n", 0, 0));
    unsigned int capacity = buffer->getCapacity();
    EXPECT_EQ(HvStringBuffer::sTrim(buffer.get()), buffer.get());
    EXPECT_EQ(text(buffer.get()), "x");
    EXPECT_EQ(std::strlen(buffer->getData()), 1u);
    EXPECT_EQ(buffer->getCapacity(), capacity);

    HvString inner(HvStringBuffer::sCreate("\n\t a \t b \r", 0, 0));
    inner->trim();
    EXPECT_EQ(text(inner.get()), "a \t b");
}

TEST(HvStringBuffer, TrimKeepsVerticalTabAndFormFeed)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString vt(HvStringBuffer::sCreate("\v x", 0, 0));
    HvStringBuffer::sTrim(vt.get());
    EXPECT_EQ(text(vt.get()), "\v x");
    HvString ff(HvStringBuffer::sCreate(" \fy\f ", 0, 0));
    HvStringBuffer::sTrim(ff.get());
    EXPECT_EQ(text(ff.get()), "\fy\f");
}

TEST(HvStringBuffer, TrimOfAllBlankGivesEmptyBufferNotNull)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString buffer(HvStringBuffer::sCreate(" \t\r\n ", 0, 0));
    HvStringBuffer* result = HvStringBuffer::sTrim(buffer.get());
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(result, buffer.get());
    EXPECT_EQ(result->getLength(), 0u);
    EXPECT_STREQ(result->getData(), "");
}

TEST(HvStringBuffer, TrimOfTextWithoutBlanksIsUnchanged)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString buffer(HvStringBuffer::sCreate("abc", 0, 0));
    EXPECT_EQ(HvStringBuffer::sTrim(buffer.get()), buffer.get());
    EXPECT_EQ(text(buffer.get()), "abc");
}

TEST(HvStringBuffer, TrimClearsHash)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString buffer(HvStringBuffer::sCreate(" ab ", 0, 0));
    unsigned int before = buffer->hashCode();
    HvStringBuffer::sTrim(buffer.get());
    EXPECT_NE(buffer->hashCode(), before);
    EXPECT_EQ(buffer->hashCode(), 583u);
}

TEST(HvStringBuffer, TrimOfSharedBufferCopiesWithSameCapacity)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString trimmed = changedWhileShared("  ab  ", 12, &HvStringBuffer::sTrim);
    EXPECT_EQ(text(trimmed.get()), "ab");
    EXPECT_EQ(trimmed->getCapacity(), 12u);
}

// ---------------------------------------------------------------- substr

TEST(HvStringBuffer, SubstrCases)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString hello(HvStringBuffer::sCreate("hello", 0, 0));

    HvString rest(HvStringBuffer::sSubstr(hello.get(), 2, 0));
    EXPECT_EQ(text(rest.get()), "llo");
    EXPECT_EQ(rest->getCapacity(), 4u);
    EXPECT_EQ(HvStringBuffer::sSubstr(hello.get(), 5, 1), nullptr);
    EXPECT_EQ(HvStringBuffer::sSubstr(hello.get(), 6, 1), nullptr);
    EXPECT_EQ(HvStringBuffer::sSubstr(hello.get(), 5, 0), nullptr);

    HvString middle(HvStringBuffer::sSubstr(hello.get(), 1, 3));
    EXPECT_EQ(text(middle.get()), "ell");
    EXPECT_EQ(middle->getCapacity(), 4u);
    HvString exact(HvStringBuffer::sSubstr(hello.get(), 1, 4));
    EXPECT_EQ(text(exact.get()), "ello");
    // A count beyond the end gives the rest.
    HvString tooLong(HvStringBuffer::sSubstr(hello.get(), 1, 5));
    EXPECT_EQ(text(tooLong.get()), "ello");
    HvString last(hello->substr(4, 1));
    EXPECT_EQ(text(last.get()), "o");

    HvString whole(HvStringBuffer::sSubstr(hello.get(), 0, 0));
    EXPECT_NE(whole.get(), hello.get());
    EXPECT_EQ(text(whole.get()), "hello");
    EXPECT_EQ(whole->getRefCount(), 1);
    EXPECT_EQ(text(hello.get()), "hello");
}

TEST(HvStringBuffer, SubstrOfNullIsNull)
{
    EXPECT_EQ(HvStringBuffer::sSubstr(nullptr, 0, 0), nullptr);
    EXPECT_EQ(HvStringBuffer::sSubstr(nullptr, 0, 3), nullptr);
}

// ---------------------------------------------------------------- hash

TEST(HvStringBuffer, HashOfAbIs583)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString ab(HvStringBuffer::sCreate("ab", 0, 0));
    EXPECT_EQ(ab->hashCode(), 97u * 5u + 98u);
    EXPECT_EQ(ab->hashCode(), 583u);
}

TEST(HvStringBuffer, HashUsesSignedCharacters)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString high(HvStringBuffer::sCreate("\x80", 0, 0));
    EXPECT_EQ(high->hashCode(), static_cast<unsigned int>(-128));
    EXPECT_EQ(high->hashCode(), 0xFFFFFF80u);
    HvString mixed(HvStringBuffer::sCreate("a\xFF", 0, 0));
    EXPECT_EQ(mixed->hashCode(), 97u * 5u - 1u);
}

TEST(HvStringBuffer, HashWrapsIn32Bits)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    const char* source = "abcdefghijklmnopqrstuvwxyz";
    HvString buffer(HvStringBuffer::sCreate(source, 0, 0));
    std::uint64_t expected = 0;
    for (const char* c = source; *c; ++c)
        expected = (expected * 5 + static_cast<std::uint64_t>(*c)) % (std::uint64_t(1) << 32);
    EXPECT_EQ(buffer->hashCode(), static_cast<unsigned int>(expected));
}

TEST(HvStringBuffer, HashStopsAtFirstNul)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString buffer(HvStringBuffer::sCreate("a\0b", 3, 0));
    EXPECT_EQ(buffer->getLength(), 3u);
    EXPECT_EQ(buffer->hashCode(), 97u);
}

TEST(HvStringBuffer, HashOfEmptyBufferIsZero)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString empty(HvStringBuffer::sCreate("", 0, 8));
    EXPECT_EQ(empty->hashCode(), 0u);
    EXPECT_EQ(empty->hashCode(), 0u);
}

TEST(HvStringBuffer, HashIsCachedUntilNextEdit)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    // A buffer no handle holds yet can be written through lockBuffer(),
    // which does not touch the cached hash: the stale value shows the cache.
    HvStringBuffer* raw = HvStringBuffer::sCreate("ab", 0, 0);
    EXPECT_EQ(raw->hashCode(), 583u);
    char* data = raw->lockBuffer(3);
    data[0] = 'x';
    data[1] = 'y';
    raw->releaseBuffer(2);
    EXPECT_STREQ(raw->getData(), "xy");
    EXPECT_EQ(raw->hashCode(), 583u);

    // An edit forgets it.
    EXPECT_EQ(HvStringBuffer::sToUpper(raw), raw);
    EXPECT_EQ(raw->hashCode(), static_cast<unsigned int>('X' * 5 + 'Y'));
    HvString hold(raw);
}

// ---------------------------------------------------------------- compare

TEST(HvStringBuffer, CompareWithNullBuffer)
{
    EXPECT_EQ(HvStringBuffer::sCompareWith(nullptr, nullptr), 0);
    EXPECT_EQ(HvStringBuffer::sCompareWith(nullptr, ""), 0);
    EXPECT_EQ(HvStringBuffer::sCompareWith(nullptr, "a"), -1);
}

TEST(HvStringBuffer, CompareWithNullTextGivesFirstCharacterAsSignedByte)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString abc(HvStringBuffer::sCreate("abc", 0, 0));
    EXPECT_EQ(HvStringBuffer::sCompareWith(abc.get(), nullptr), 'a');
    HvString high(HvStringBuffer::sCreate("\xC4x", 0, 0));
    EXPECT_EQ(HvStringBuffer::sCompareWith(high.get(), nullptr), -60);
    HvString empty(HvStringBuffer::sCreate("", 0, 4));
    EXPECT_EQ(HvStringBuffer::sCompareWith(empty.get(), nullptr), 0);
}

TEST(HvStringBuffer, CompareWithTextIsStrcmp)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString abc(HvStringBuffer::sCreate("abc", 0, 0));
    EXPECT_EQ(abc->compareWith("abc"), 0);
    EXPECT_LT(abc->compareWith("abd"), 0);
    EXPECT_GT(abc->compareWith("abb"), 0);
    EXPECT_GT(abc->compareWith("ab"), 0);
    EXPECT_LT(abc->compareWith("abcd"), 0);
    EXPECT_GT(abc->compareWith(""), 0);
    EXPECT_GT(abc->compareWith("ABC"), 0);
    HvString empty(HvStringBuffer::sCreate("", 0, 4));
    EXPECT_EQ(empty->compareWith(""), 0);
    EXPECT_LT(empty->compareWith("a"), 0);
}

TEST(HvStringBuffer, CompareNoCaseNullRules)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    EXPECT_EQ(HvStringBuffer::sCompareNoCase(nullptr, nullptr), 0);
    EXPECT_EQ(HvStringBuffer::sCompareNoCase(nullptr, ""), 0);
    EXPECT_EQ(HvStringBuffer::sCompareNoCase(nullptr, "A"), -1);
    HvString abc(HvStringBuffer::sCreate("Abc", 0, 0));
    EXPECT_EQ(HvStringBuffer::sCompareNoCase(abc.get(), nullptr), 'A');
    HvString high(HvStringBuffer::sCreate("\xE4", 0, 0));
    EXPECT_EQ(HvStringBuffer::sCompareNoCase(high.get(), nullptr), -28);
}

TEST(HvStringBuffer, CompareNoCaseFoldsAsciiLettersOnly)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString abd(HvStringBuffer::sCreate("abd", 0, 0));
    EXPECT_GT(abd->compareNoCase("ABC"), 0);
    EXPECT_EQ(abd->compareNoCase("ABC"), 'd' - 'c');
    EXPECT_EQ(abd->compareNoCase("ABD"), 0);
    EXPECT_EQ(abd->compareNoCase("aBd"), 0);
    EXPECT_LT(abd->compareNoCase("ABE"), 0);
    // Shorter texts end with the NUL taking part in the difference.
    EXPECT_EQ(abd->compareNoCase("ABDX"), -'x');
    EXPECT_EQ(abd->compareNoCase("AB"), 'd');
    // '@' and '`', '[' and '{' are not letters: no folding.
    HvString at(HvStringBuffer::sCreate("@[", 0, 0));
    EXPECT_EQ(at->compareNoCase("`{"), '@' - '`');
    EXPECT_EQ(at->compareNoCase("@{"), '[' - '{');
}

TEST(HvStringBuffer, CompareNoCaseTakesBytesAsUnsigned)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString high(HvStringBuffer::sCreate("\xE4", 0, 0));
    EXPECT_EQ(high->compareNoCase("a"), 0xE4 - 'a');
    EXPECT_GT(high->compareNoCase("Z"), 0);
    HvString low(HvStringBuffer::sCreate("a", 0, 0));
    EXPECT_EQ(low->compareNoCase("\xC4"), 'a' - 0xC4);
}

TEST(HvStringBuffer, CompareWithObject)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString abc(HvStringBuffer::sCreate("abc", 0, 0));
    HvString abd(HvStringBuffer::sCreate("abd", 0, 0));
    HvString abcAgain(HvStringBuffer::sCreate("abc", 0, 0));
    const HvObject* self = abc.get();
    EXPECT_EQ(abc->compareWith(self), 0);
    EXPECT_EQ(abc->compareWith(static_cast<const HvObject*>(nullptr)), 1);
    HvHandle<HvByteArray> bytes = HvByteArray::sCreate("abc");
    EXPECT_EQ(abc->compareWith(static_cast<const HvObject*>(bytes.get())), 1);
    EXPECT_LT(abc->compareWith(static_cast<const HvObject*>(abd.get())), 0);
    EXPECT_GT(abd->compareWith(static_cast<const HvObject*>(abc.get())), 0);
    EXPECT_EQ(abc->compareWith(static_cast<const HvObject*>(abcAgain.get())), 0);
}

// ---------------------------------------------------------------- indexOf

TEST(HvStringBuffer, IndexOfCases)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString hello(HvStringBuffer::sCreate("hello", 0, 0));
    EXPECT_EQ(HvStringBuffer::sIndexOf(hello.get(), "l", 3), 3);
    EXPECT_EQ(HvStringBuffer::sIndexOf(hello.get(), "l", 0), 2);
    EXPECT_EQ(HvStringBuffer::sIndexOf(hello.get(), "lo", 0), 3);
    EXPECT_EQ(HvStringBuffer::sIndexOf(hello.get(), "hello", 0), 0);
    EXPECT_EQ(HvStringBuffer::sIndexOf(hello.get(), "o", 4), 4);
    EXPECT_EQ(HvStringBuffer::sIndexOf(hello.get(), "h", 1), -1);
    EXPECT_EQ(HvStringBuffer::sIndexOf(hello.get(), "x", 0), -1);
    EXPECT_EQ(HvStringBuffer::sIndexOf(hello.get(), "hellos", 0), -1);
    EXPECT_EQ(HvStringBuffer::sIndexOf(hello.get(), "", 2), 2);
    // From at or past the end, a null needle or a null buffer: -1.
    EXPECT_EQ(HvStringBuffer::sIndexOf(hello.get(), "o", 5), -1);
    EXPECT_EQ(HvStringBuffer::sIndexOf(hello.get(), "", 5), -1);
    EXPECT_EQ(HvStringBuffer::sIndexOf(hello.get(), "o", 6), -1);
    EXPECT_EQ(HvStringBuffer::sIndexOf(hello.get(), nullptr, 0), -1);
    EXPECT_EQ(HvStringBuffer::sIndexOf(nullptr, "l", 0), -1);
    EXPECT_EQ(hello->indexOf("l", 3), 3);
}

TEST(HvStringBuffer, IndexOfWithNegativeStartIsMinusOne)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString hello(HvStringBuffer::sCreate("hello", 0, 0));
    EXPECT_EQ(HvStringBuffer::sIndexOf(hello.get(), "h", -1), -1);
}

// ---------------------------------------------------------------- lock/release

TEST(HvStringBuffer, LockBufferOnUnheldBufferGivesDataToFill)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvStringBuffer* raw = HvStringBuffer::sCreate(nullptr, 0, 8);
    char* data = HvStringBuffer::sLockBuffer(raw, 8);
    EXPECT_EQ(data, raw->getData());
    std::memcpy(data, "filled", 7);
    raw->releaseBuffer(6);
    EXPECT_EQ(raw->getLength(), 6u);
    HvString hold(raw);
    EXPECT_STREQ(hold.c_str(), "filled");
}

TEST(HvStringBuffer, LockBufferOnNullBufferRaisesAssertion)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    hvtest::AssertionScope capture;
    HvHandle<HvException> e = hvtest::thrownBy([] { HvStringBuffer::sLockBuffer(nullptr, 0); });
    expectAssertionFailure(e, "HvStringBuffer::lockBuffer", 357);
}

TEST(HvStringBuffer, LockBufferOnHeldBufferRaisesAssertionAndKeepsBuffer)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    hvtest::AssertionScope capture;
    {
        HvString held(HvStringBuffer::sCreate("keep", 0, 10));
        HvHandle<HvException> e = hvtest::thrownBy([&] { held->lockBuffer(4); });
        expectAssertionFailure(e, "HvStringBuffer::lockBuffer", 357);
        EXPECT_STREQ(held->getData(), "keep");
        EXPECT_EQ(held->getLength(), 4u);
        EXPECT_EQ(held->getCapacity(), 10u);
        EXPECT_EQ(held->getRefCount(), 1);
    }
}

TEST(HvStringBuffer, LockBufferBeyondCapacityRaisesAssertion)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    hvtest::AssertionScope capture;
    HvStringBuffer* raw = HvStringBuffer::sCreate("abc", 0, 0);
    // Exactly the capacity is allowed.
    EXPECT_EQ(raw->lockBuffer(4), raw->getData());
    {
        HvHandle<HvException> e = hvtest::thrownBy([&] { raw->lockBuffer(5); });
        expectAssertionFailure(e, "HvStringBuffer::lockBuffer", 357);
    }
    EXPECT_EQ(raw->getRefCount(), 0);
    EXPECT_STREQ(raw->getData(), "abc");
    EXPECT_EQ(raw->getLength(), 3u);
    HvString hold(raw);
}

TEST(HvStringBuffer, ReleaseBufferAtOrBeyondCapacityRaisesAssertionAndKeepsLength)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    hvtest::AssertionScope capture;
    HvStringBuffer* raw = HvStringBuffer::sCreate("abc", 0, 8);
    raw->lockBuffer(8);
    {
        HvHandle<HvException> e = hvtest::thrownBy([&] { raw->releaseBuffer(8); });
        expectAssertionFailure(e, "HvStringBuffer::releaseBuffer", 366);
    }
    EXPECT_EQ(raw->getLength(), 3u);
    hvtest::clearAssertions();
    {
        HvHandle<HvException> e = hvtest::thrownBy([&] { raw->releaseBuffer(100); });
        expectAssertionFailure(e, "HvStringBuffer::releaseBuffer", 366);
    }
    EXPECT_EQ(raw->getLength(), 3u);
    // One below the capacity is the largest length allowed.
    std::memcpy(raw->lockBuffer(8), "1234567", 8);
    raw->releaseBuffer(7);
    EXPECT_EQ(raw->getLength(), 7u);
    HvString hold(raw);
    EXPECT_STREQ(hold.c_str(), "1234567");
}

TEST(HvStringBuffer, ReleaseBufferMeasuresWithAllOnes)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvStringBuffer* raw = HvStringBuffer::sCreate(nullptr, 0, 16);
    std::strcpy(raw->lockBuffer(16), "measured");
    raw->releaseBuffer(0xFFFFFFFF);
    EXPECT_EQ(raw->getLength(), 8u);
    HvString hold(raw);
    EXPECT_STREQ(hold.c_str(), "measured");
}

TEST(HvStringBuffer, ReleaseBufferNeitherWritesNulNorClearsHash)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvStringBuffer* raw = HvStringBuffer::sCreate("abcd", 0, 8);
    unsigned int hash = raw->hashCode();
    raw->lockBuffer(8);
    raw->releaseBuffer(2);
    EXPECT_EQ(raw->getLength(), 2u);
    EXPECT_EQ(raw->getData()[2], 'c');
    EXPECT_EQ(raw->hashCode(), hash);
    HvString hold(raw);
}

TEST(HvStringBuffer, MeasuringUnterminatedBufferFailsWithoutOverRead)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    hvtest::AssertionScope capture;
    HvStringBuffer* raw = HvStringBuffer::sCreate(nullptr, 0, 4);
    char* data = raw->lockBuffer(4);
    // Every byte of the capacity is text: no NUL anywhere in the block.
    std::memset(data, 'x', 4);
    {
        HvHandle<HvException> e = hvtest::thrownBy([&] { raw->releaseBuffer(0xFFFFFFFF); });
        expectAssertionFailure(e, "HvStringBuffer::releaseBuffer", 366);
    }
    EXPECT_EQ(raw->getLength(), 0u);
    data[0] = '\0';
    HvString hold(raw);
}

// ---------------------------------------------------------------- read/parse/peek

TEST(HvStringBuffer, ReadIntoNullBufferMakesOneOfRequestedRoom)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvHandle<HvInputStream> in(newStream("hello world"));
    HvString buffer(HvStringBuffer::sRead(nullptr, *in, 4));
    EXPECT_EQ(text(buffer.get()), "hell");
    EXPECT_EQ(buffer->getCapacity(), 5u);

    // A private buffer with capacity above n is reused.
    EXPECT_EQ(HvStringBuffer::sRead(buffer.get(), *in, 4), buffer.get());
    EXPECT_EQ(text(buffer.get()), "o wo");
    // Not enough room (capacity must exceed n): a new buffer.
    HvStringBuffer* old = buffer.get();
    buffer = HvStringBuffer::sRead(buffer.get(), *in, 5);
    EXPECT_NE(buffer.get(), old);
    EXPECT_EQ(text(buffer.get()), "rld");
    EXPECT_EQ(buffer->getCapacity(), 6u);
    // At the end of the stream the length is 0.
    EXPECT_EQ(buffer->read(*in, 3), buffer.get());
    EXPECT_EQ(buffer->getLength(), 0u);
    EXPECT_STREQ(buffer->getData(), "");
}

TEST(HvStringBuffer, ReadIntoSharedBufferLeavesOtherHandleAlone)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvHandle<HvInputStream> in(newStream("data"));
    HvString mine(HvStringBuffer::sCreate("old", 0, 32));
    HvString other(mine);
    mine = HvStringBuffer::sRead(mine.get(), *in, 4);
    EXPECT_NE(mine.get(), other.get());
    EXPECT_EQ(text(mine.get()), "data");
    EXPECT_EQ(text(other.get()), "old");
}

TEST(HvStringBuffer, ReadClearsHash)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvHandle<HvInputStream> in(newStream("ab"));
    HvString buffer(HvStringBuffer::sCreate("zz", 0, 8));
    buffer->hashCode();
    buffer->read(*in, 2);
    EXPECT_EQ(buffer->hashCode(), 583u);
}

TEST(HvStringBuffer, ReadFailureReleasesNewBuffer)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvHandle<HvInputStream> in(new FailingStream);
    {
        HvHandle<HvException> e = hvtest::thrownBy([&] { HvStringBuffer::sRead(nullptr, *in, 8); });
        ASSERT_FALSE(e.isNull());
        EXPECT_STREQ(e->getMessage().c_str(), "read failed");
    }
    HvString kept(HvStringBuffer::sCreate("kept", 0, 16));
    {
        HvHandle<HvException> e = hvtest::thrownBy([&] { HvStringBuffer::sRead(kept.get(), *in, 8); });
        EXPECT_FALSE(e.isNull());
    }
    EXPECT_EQ(kept->getRefCount(), 1);
    EXPECT_EQ(kept->getCapacity(), 16u);
}

TEST(HvStringBuffer, ParseReadsTokenAndLeavesDelimiterInStream)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvHandle<HvInputStream> in(newStream("  abc,def"));
    HvString token(HvStringBuffer::sParse(nullptr, *in, ",;"));
    EXPECT_EQ(text(token.get()), "abc");
    EXPECT_EQ(token->getCapacity(), 4u);
    EXPECT_EQ(in->read(), ',');
    // The private buffer is reused when its capacity exceeds the token length.
    EXPECT_EQ(HvStringBuffer::sParse(token.get(), *in, ",;"), token.get());
    EXPECT_EQ(text(token.get()), "def");
    EXPECT_EQ(in->read(), -1);
}

TEST(HvStringBuffer, ParseSkipsWhiteSpaceAndStopsAtDelimiterOrEnd)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvHandle<HvInputStream> in(newStream("\r\n\t token rest"));
    HvString token(HvStringBuffer::sParse(nullptr, *in, " \t\r\n"));
    EXPECT_EQ(text(token.get()), "token");
    EXPECT_EQ(in->read(), ' ');
    token = token->parse(*in, " \t\r\n");
    EXPECT_EQ(text(token.get()), "rest");
    EXPECT_EQ(in->read(), -1);
    // Nothing left: an empty token.
    token = HvStringBuffer::sParse(token.get(), *in, " ");
    ASSERT_FALSE(token.isNull());
    EXPECT_EQ(token->getLength(), 0u);
}

TEST(HvStringBuffer, ParseAtDelimiterGivesEmptyToken)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvHandle<HvInputStream> in(newStream(";x"));
    HvString token(HvStringBuffer::sParse(nullptr, *in, ";"));
    ASSERT_FALSE(token.isNull());
    EXPECT_EQ(token->getLength(), 0u);
    EXPECT_EQ(in->read(), ';');
}

TEST(HvStringBuffer, ParseOfStreamWithoutMarkThrowsTokenizerError)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvHandle<HvInputStream> in(new UnmarkableStream);
    HvHandle<HvException> e = hvtest::thrownBy([&] { HvStringBuffer::sParse(nullptr, *in, " "); });
    ASSERT_FALSE(e.isNull());
    EXPECT_STREQ(e->getMessage().c_str(), "Can only tokenize streams where mark supported");
}

TEST(HvStringBuffer, PeekConsumesOnlyLeadingWhiteSpace)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvHandle<HvInputStream> in(newStream("  \tabc,def"));
    HvString token(HvStringBuffer::sPeek(nullptr, *in, ","));
    EXPECT_EQ(text(token.get()), "abc");
    EXPECT_EQ(in->read(), 'a');

    HvHandle<HvInputStream> again(newStream(" \r\nabc def"));
    EXPECT_EQ(HvStringBuffer::sPeek(token.get(), *again, " "), token.get());
    EXPECT_EQ(text(token.get()), "abc");
    token = token->parse(*again, " ");
    EXPECT_EQ(text(token.get()), "abc");
    EXPECT_EQ(again->read(), ' ');
}

TEST(HvStringBuffer, PeekAtEndGivesEmptyBufferAndLeavesStreamAtEnd)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvHandle<HvInputStream> in(newStream("   "));
    HvString token(HvStringBuffer::sPeek(nullptr, *in, ";"));
    ASSERT_FALSE(token.isNull());
    EXPECT_EQ(token->getLength(), 0u);
    EXPECT_EQ(token->getCapacity(), 1u);
    EXPECT_EQ(in->read(), -1);
}

TEST(HvStringBuffer, PeekIntoSharedBufferLeavesOtherHandleAlone)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvHandle<HvInputStream> in(newStream("new;"));
    HvString mine(HvStringBuffer::sCreate("old", 0, 32));
    HvString other(mine);
    mine = HvStringBuffer::sPeek(mine.get(), *in, ";");
    EXPECT_NE(mine.get(), other.get());
    EXPECT_EQ(text(mine.get()), "new");
    EXPECT_EQ(text(other.get()), "old");
    EXPECT_EQ(in->read(), 'n');
}

TEST(HvStringBuffer, PeekOfStreamWithoutMarkThrowsTokenizerError)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvHandle<HvInputStream> in(new UnmarkableStream);
    HvHandle<HvException> e = hvtest::thrownBy([&] { HvStringBuffer::sPeek(nullptr, *in, " "); });
    ASSERT_FALSE(e.isNull());
    EXPECT_STREQ(e->getMessage().c_str(), "Can only tokenize streams where mark supported");
}

TEST(HvStringBuffer, ParseTakesNulAnd0xFFBytesAsData)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    const char bytes[] = {'a', '\0', '\xff', 'b', ';', 'c'};
    HvHandle<HvInputStream> in(new HvByteArrayInputStream(HvByteArray::sCreate(sizeof bytes, bytes).get(), 0, 0));
    HvString token(HvStringBuffer::sParse(nullptr, *in, ";"));
    ASSERT_FALSE(token.isNull());
    EXPECT_EQ(token->getLength(), 4u);
    EXPECT_EQ(std::string(token->getData(), 4), std::string(bytes, 4));
    EXPECT_EQ(in->read(), ';');
}

// ---------------------------------------------------------------- clone/display

TEST(HvStringBuffer, CloneCopiesTextAndCapacity)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString original(HvStringBuffer::sCreate("abc", 0, 10));
    HvObject* copy = original->clone();
    HvStringBuffer* buffer = dynamic_cast<HvStringBuffer*>(copy);
    ASSERT_NE(buffer, nullptr);
    HvString hold(buffer);
    EXPECT_NE(buffer, original.get());
    EXPECT_EQ(text(buffer), "abc");
    EXPECT_EQ(buffer->getCapacity(), 10u);
    EXPECT_EQ(buffer->getRefCount(), 1);
    EXPECT_EQ(original->getRefCount(), 1);

    HvString empty(HvStringBuffer::sCreate("", 0, 16));
    HvString emptyCopy(dynamic_cast<HvStringBuffer*>(empty->clone()));
    ASSERT_FALSE(emptyCopy.isNull());
    EXPECT_EQ(emptyCopy->getLength(), 0u);
    EXPECT_EQ(emptyCopy->getCapacity(), 16u);
}

TEST(HvStringBuffer, DisplayWritesVerboseObjectDisplayThenText)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvString buffer(HvStringBuffer::sCreate("some text", 0, 0));
    HvByteArrayOutputStream out(0);
    buffer->display(out);
    char address[32];
    std::snprintf(address, sizeof(address), "%08lX", reinterpret_cast<unsigned long>(buffer.get()));
    std::string expected = std::string("1 \t(") + address + ")\tHvStringBuffer" + "some text";
    HvHandle<HvByteArray> bytes = out.toByteArray();
    ASSERT_FALSE(bytes.isNull());
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(bytes->getData()), bytes->getSize()), expected);
}

TEST(HvStringBuffer, LengthWithNoRoomForItsTerminatorFailsAsAnAllocation)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    EXPECT_THROW(HvStringBuffer::sCreate(nullptr, 0xFFFFFFFFu, 1), std::bad_alloc);
    HvHandle<HvByteArray> data = HvByteArray::sCreate("abc");
    HvByteArrayInputStream in(data.get(), 0, 0);
    EXPECT_THROW(HvStringBuffer::sRead(nullptr, in, 0xFFFFFFFFu), std::bad_alloc);
    // Nothing was consumed.
    EXPECT_EQ('a', in.read());
}
