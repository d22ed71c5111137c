#include <HvUtil/HvParameters.h>

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvByteArrayInputStream.h>
#include <HvUtil/HvByteArrayOutputStream.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvInputStream.h>
#include <HvUtil/HvMutex.h>
#include <HvUtil/HvString.h>

#include <Velmora/LogCapture.h>
#include <Velmora/MemAllocator.h>

#include <tests/support/HvTestStreams.h>
#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

const char kOverflow[] = "HvParameters - Buffer overflow";
const char kInvalid[] = "Invalid Parameter\n";
const char kNoPair[] = "Parameter doesn't have Key/Value pair\n";

using hvtest::rest;
using hvtest::streamOf;
using hvtest::UnmarkableStream;

std::string textOf(const HvString& text)
{
    return std::string(text.c_str(), text.length());
}

std::string valueOf(const HvParameters& list, const char* key)
{
    return textOf(list.getValue(key));
}

// Every block a list can own: the list, its lock, its items and their
// texts, and the string buffers it hands out. Declared first in a test, it
// checks at the end that all of them were given back.
class ListLeakCheck {
public:
    ListLeakCheck()
    {
        // The object mutex pool is built once per process; it is not a leak.
        HvMutex::sInitialize();
        for (const char* tag : kTags)
            m_before.push_back(hvtest::liveCount(tag));
    }
    ~ListLeakCheck()
    {
        for (std::size_t i = 0; i < sizeof kTags / sizeof kTags[0]; ++i)
            EXPECT_EQ(hvtest::liveCount(kTags[i]), m_before[i]) << kTags[i] << " blocks leaked";
    }
    ListLeakCheck(const ListLeakCheck&) = delete;
    ListLeakCheck& operator=(const ListLeakCheck&) = delete;

private:
    static constexpr const char* kTags[] = {"HvParameters", "HvParameters::Item", "HvConstString", "HvMutex",
                                            "HvStringBuffer"};
    std::vector<long> m_before;
};

} // namespace

// ---------------------------------------------------------------- parsing

TEST(HvParameters, ParsesPairsAndWritesThemBackInReverseOrder)
{
    ListLeakCheck leaks;
    HvParameters list;
    list.parse("a=1;b=2");
    EXPECT_EQ(list.getCount(), 2u);
    EXPECT_EQ(valueOf(list, "a"), "1");
    EXPECT_EQ(valueOf(list, "b"), "2");
    EXPECT_EQ(textOf(list.getString()), "b=2;a=1");
}

TEST(HvParameters, ValueMayContainEqualsSign)
{
    ListLeakCheck leaks;
    HvParameters list;
    list.parse("a=x=y");
    EXPECT_EQ(list.getCount(), 1u);
    EXPECT_EQ(valueOf(list, "a"), "x=y");
}

TEST(HvParameters, QuotedValueKeepsSeparatorsAndBothQuotes)
{
    ListLeakCheck leaks;
    HvParameters list;
    list.parse("k=\"1;2\"");
    EXPECT_EQ(list.getCount(), 1u);
    EXPECT_EQ(valueOf(list, "k"), "\"1;2\"");
    EXPECT_EQ(textOf(list.getString()), "k=\"1;2\"");
}

TEST(HvParameters, EscapedQuoteDoesNotCloseQuotedValue)
{
    ListLeakCheck leaks;
    HvParameters list;
    list.parse("k=\"a\\\";b\";z=9");
    EXPECT_EQ(list.getCount(), 2u);
    EXPECT_EQ(valueOf(list, "k"), "\"a\\\";b\"");
    EXPECT_EQ(valueOf(list, "z"), "9");
}

TEST(HvParameters, KeysCompareWithoutCaseAndTrimmed)
{
    ListLeakCheck leaks;
    HvParameters list;
    list.parse("a=1;Long-Key=v");
    EXPECT_EQ(valueOf(list, "A"), "1");
    EXPECT_EQ(valueOf(list, " a "), "1");
    EXPECT_EQ(valueOf(list, "\tLONG-key\r\n"), "v");
    EXPECT_TRUE(list.isPresent("LONG-KEY"));
    EXPECT_FALSE(list.isPresent("b"));
    EXPECT_EQ(list.getValue("b").length(), 0u);
}

TEST(HvParameters, NullKeyFindsNothing)
{
    ListLeakCheck leaks;
    HvParameters list;
    list.parse("a=1");
    EXPECT_TRUE(list.getValue(nullptr).isNull());
    EXPECT_FALSE(list.isPresent(nullptr));
    list.removeValue(nullptr);
    EXPECT_EQ(list.getCount(), 1u);
}

TEST(HvParameters, KeyWithoutValueHasEmptyValueAndIsWrittenAlone)
{
    ListLeakCheck leaks;
    HvParameters list;
    list.parse("lr;b=2");
    EXPECT_EQ(list.getCount(), 2u);
    EXPECT_TRUE(list.isPresent("lr"));
    EXPECT_TRUE(list.getValue("lr").isNull());
    EXPECT_EQ(textOf(list.getString()), "b=2;lr");
}

TEST(HvParameters, TokensEndedBySeparatorAreTrimmed)
{
    ListLeakCheck leaks;
    HvParameters list;
    list.parse(" a = 1 ;\tflag\t; b=two words;c=3");
    EXPECT_EQ(list.getCount(), 4u);
    EXPECT_EQ(valueOf(list, "a"), "1");
    EXPECT_TRUE(list.isPresent("flag"));
    EXPECT_EQ(valueOf(list, "b"), "two words");
    EXPECT_EQ(textOf(list.getString()), "c=3;b=two words;flag;a=1");
}

TEST(HvParameters, LeadingCommaAddsNothingAndStaysInStream)
{
    ListLeakCheck leaks;
    HvParameters list;
    HvHandle<HvInputStream> in = streamOf(",a=1");
    list.parse(*in);
    EXPECT_EQ(list.getCount(), 0u);
    EXPECT_EQ(rest(*in), ",a=1");
}

TEST(HvParameters, CommaEndsTheListAndStaysInStream)
{
    ListLeakCheck leaks;
    HvParameters list;
    HvHandle<HvInputStream> in = streamOf("a=1;b, c=3");
    list.parse(*in);
    EXPECT_EQ(list.getCount(), 2u);
    EXPECT_EQ(valueOf(list, "a"), "1");
    EXPECT_TRUE(list.isPresent("b"));
    EXPECT_EQ(rest(*in), ", c=3");
}

TEST(HvParameters, LineFeedEndsTheLineAndTheNextLineStays)
{
    ListLeakCheck leaks;
    HvParameters list;
    HvHandle<HvInputStream> in = streamOf("a=1\r\nb=2");
    list.parse(*in);
    EXPECT_EQ(list.getCount(), 1u);
    // Carriage returns are dropped wherever they are.
    EXPECT_EQ(valueOf(list, "a"), "1");
    EXPECT_EQ(rest(*in), "b=2");
}

TEST(HvParameters, FoldedLineContinuesTheList)
{
    ListLeakCheck leaks;
    HvParameters list;
    HvHandle<HvInputStream> in = streamOf("a=1;\r\n b=2;\n\tc=3\nnext");
    list.parse(*in);
    EXPECT_EQ(list.getCount(), 3u);
    EXPECT_EQ(valueOf(list, "a"), "1");
    EXPECT_EQ(valueOf(list, "b"), "2");
    EXPECT_EQ(valueOf(list, "c"), "3");
    EXPECT_EQ(rest(*in), "next");
}

TEST(HvParameters, FoldWithoutSeparatorJoinsTheTextIntoOneList)
{
    ListLeakCheck leaks;
    HvParameters list;
    HvHandle<HvInputStream> in = streamOf("a=1\n b=2");
    list.parse(*in);
    // The line end and the blank that folds it are both dropped.
    EXPECT_EQ(list.getCount(), 1u);
    EXPECT_EQ(valueOf(list, "a"), "1b=2");
    EXPECT_EQ(in->read(), -1);
}

TEST(HvParameters, ByteFFIsDataInValues)
{
    ListLeakCheck leaks;
    HvParameters list;
    HvHandle<HvInputStream> in = streamOf(std::string("k=a\xff" "b;q=\"x\xffy\";z"));
    list.parse(*in);
    EXPECT_EQ(list.getCount(), 3u);
    EXPECT_EQ(valueOf(list, "k"), std::string("a\xff" "b"));
    EXPECT_EQ(valueOf(list, "q"), std::string("\"x\xffy\""));
    EXPECT_TRUE(list.isPresent("z"));
}

TEST(HvParameters, CustomSeparatorsSplitOnEachAndJoinWithAll)
{
    ListLeakCheck leaks;
    HvParameters list(";&");
    list.parse("a=1&b=2;c");
    EXPECT_EQ(list.getCount(), 3u);
    EXPECT_EQ(textOf(list.getString()), "c;&b=2;&a=1");
}

TEST(HvParameters, WithoutSeparatorsTheLineIsOneItem)
{
    ListLeakCheck leaks;
    HvParameters list("");
    list.parse("a=1;b");
    EXPECT_EQ(list.getCount(), 1u);
    EXPECT_EQ(valueOf(list, "a"), "1;b");
}

TEST(HvParameters, TextEndingInSeparatorAddsAnItemWithEmptyKey)
{
    ListLeakCheck leaks;
    HvParameters list;
    list.parse("a=1;");
    EXPECT_EQ(list.getCount(), 2u);
    EXPECT_TRUE(list.isPresent(""));
    EXPECT_EQ(textOf(list.getString()), ";a=1");
}

TEST(HvParameters, LastKeyWithoutValueIsNotTrimmed)
{
    ListLeakCheck leaks;
    HvParameters list;
    list.parse("a=1; b ");
    EXPECT_EQ(list.getCount(), 2u);
    EXPECT_EQ(textOf(list.getString()), " b ;a=1");
}

TEST(HvParameters, ParseOfEmptyTextAddsOneEmptyKey)
{
    ListLeakCheck leaks;
    HvParameters list;
    list.parse("");
    EXPECT_EQ(list.getCount(), 1u);
    EXPECT_TRUE(list.isPresent(""));
}

TEST(HvParameters, ParseAddsToWhatTheListHolds)
{
    ListLeakCheck leaks;
    HvParameters list;
    list.parse("a=1");
    list.parse("b=2");
    EXPECT_EQ(list.getCount(), 2u);
    EXPECT_EQ(textOf(list.getString()), "b=2;a=1");
}

TEST(HvParameters, StreamWithoutMarkServesLineWithoutLookAhead)
{
    ListLeakCheck leaks;
    HvParameters list;
    HvHandle<HvInputStream> in(new UnmarkableStream("a=1;b=\"x,y\""));
    list.parse(*in);
    EXPECT_EQ(list.getCount(), 2u);
    EXPECT_EQ(valueOf(list, "b"), "\"x,y\"");
}

TEST(HvParameters, StreamWithoutMarkFailsAtTheLineEndCheck)
{
    ListLeakCheck leaks;
    hvtest::AssertionScope assertions;
    HvParameters list;
    HvHandle<HvInputStream> in(new UnmarkableStream("a=1;b=2\nc=3"));
    EXPECT_EQ(hvtest::messageOf([&] { list.parse(*in); }), "HvInputStream::reset()");
    // Items ended by a separator before the failure stay.
    EXPECT_EQ(list.getCount(), 1u);
    EXPECT_EQ(valueOf(list, "a"), "1");
}

// ---------------------------------------------------------------- parse failures

TEST(HvParameters, EmptyTokenBeforeSeparatorIsInvalid)
{
    ListLeakCheck leaks;
    HvParameters list;
    hvtest::expectPlainHvException([&] { list.parse(";a=1"); }, kInvalid);
    EXPECT_EQ(list.getCount(), 0u);
}

TEST(HvParameters, BlankTokenAfterItemsIsInvalidAndEarlierItemsStay)
{
    ListLeakCheck leaks;
    HvParameters list;
    hvtest::expectPlainHvException([&] { list.parse("a=1; \t;b=2"); }, kInvalid);
    EXPECT_EQ(list.getCount(), 1u);
    EXPECT_EQ(valueOf(list, "a"), "1");
}

TEST(HvParameters, LineEndingAfterEqualsWithoutValueOrKeyFails)
{
    ListLeakCheck leaks;
    HvParameters list;
    hvtest::expectPlainHvException([&] { list.parse("a="); }, kNoPair);
    hvtest::expectPlainHvException([&] { list.parse("=1"); }, kNoPair);
    EXPECT_EQ(list.getCount(), 0u);
    hvtest::expectPlainHvException([&] { list.parse("a=1;b="); }, kNoPair);
    EXPECT_EQ(list.getCount(), 1u);
    EXPECT_TRUE(list.isPresent("a"));
}

TEST(HvParameters, BlankValueAtLineEndTrimsToEmpty)
{
    ListLeakCheck leaks;
    HvParameters list;
    list.parse("a= ");
    EXPECT_EQ(list.getCount(), 1u);
    EXPECT_TRUE(list.isPresent("a"));
    EXPECT_TRUE(list.getValue("a").isNull());
}

TEST(HvParameters, LineOf1023CharactersFitsAnd1024Overflow)
{
    ListLeakCheck leaks;
    HvParameters list;
    list.parse(std::string(1023, 'k').c_str());
    EXPECT_EQ(list.getCount(), 1u);
    EXPECT_EQ(list.getString().length(), 1023u);
    hvtest::expectPlainHvException([&] { list.parse(std::string(1024, 'k').c_str()); }, kOverflow);
    EXPECT_EQ(list.getCount(), 1u);
}

TEST(HvParameters, LongLineOverflowsAndEarlierItemsStay)
{
    ListLeakCheck leaks;
    HvParameters list;
    std::string text = "x=1;y;z=" + std::string(5000, 'v');
    hvtest::expectPlainHvException([&] { list.parse(text.c_str()); }, kOverflow);
    EXPECT_EQ(list.getCount(), 2u);
    EXPECT_EQ(valueOf(list, "x"), "1");
    EXPECT_TRUE(list.isPresent("y"));
}

TEST(HvParameters, QuotedValueUpToTheBufferFitsOneMoreOverflows)
{
    ListLeakCheck leaks;
    HvParameters list;
    // k, its NUL, the quotes and the text take n + 4 of the 1024 bytes, and
    // the line's own NUL one more.
    std::string fits = "k=\"" + std::string(1019, 'q') + "\"";
    list.parse(fits.c_str());
    EXPECT_EQ(list.getCount(), 1u);
    EXPECT_EQ(list.getValue("k").length(), 1021u);
    std::string full = "k=\"" + std::string(1020, 'q') + "\"";
    hvtest::expectPlainHvException([&] { list.parse(full.c_str()); }, kOverflow);
    std::string past = "k=\"" + std::string(1021, 'q') + "\"";
    hvtest::expectPlainHvException([&] { list.parse(past.c_str()); }, kOverflow);
    EXPECT_EQ(list.getCount(), 1u);
}

TEST(HvParameters, LongQuotedValueOverflowsWithoutWritingPastTheBuffer)
{
    ListLeakCheck leaks;
    HvParameters list;
    std::string text = "a=1;k=\"" + std::string(100000, ';') + "\";b=2";
    HvHandle<HvInputStream> in = streamOf(text);
    hvtest::expectPlainHvException([&] { list.parse(*in); }, kOverflow);
    EXPECT_EQ(list.getCount(), 1u);
    EXPECT_EQ(valueOf(list, "a"), "1");
}

TEST(HvParameters, UnterminatedQuoteStopsAtEndOfStream)
{
    ListLeakCheck leaks;
    HvParameters list;
    hvtest::expectPlainHvException([&] { list.parse("a=1;k=\"abc"); }, kOverflow);
    EXPECT_EQ(list.getCount(), 1u);
    EXPECT_EQ(valueOf(list, "a"), "1");
    // Only the end of the stream stops it: a 0xFF byte is text.
    HvHandle<HvInputStream> in = streamOf(std::string("k=\"ab\xff\xff"));
    hvtest::expectPlainHvException([&] { list.parse(*in); }, kOverflow);
    EXPECT_EQ(list.getCount(), 1u);
}

TEST(HvParameters, BackslashAtEndOfStreamInsideQuoteStops)
{
    ListLeakCheck leaks;
    HvParameters list;
    hvtest::expectPlainHvException([&] { list.parse("a=1;k=\"ab\\"); }, kOverflow);
    EXPECT_EQ(list.getCount(), 1u);
    hvtest::expectPlainHvException([&] { list.parse("k=\"ab\\\""); }, kOverflow);
    EXPECT_EQ(list.getCount(), 1u);
}

TEST(HvParameters, RandomLinesParseOrFailWithOneOfTheTexts)
{
    ListLeakCheck leaks;
    // Heavy on the characters the parser treats specially; lengths reach
    // past the 1024-byte line buffer.
    const char alphabet[] = {';', '=', '"', '\\', ',', '\n', '\r', ' ', '\t', '\xff', '\0', 'a', 'B', '1'};
    std::mt19937 random(20240611u);
    for (int round = 0; round < 3000; ++round) {
        std::size_t length = random() % (round % 10 == 0 ? 3000 : 40);
        std::string line;
        for (std::size_t i = 0; i < length; ++i)
            line.push_back(alphabet[random() % sizeof alphabet]);
        HvParameters list;
        HvHandle<HvInputStream> in = streamOf(line);
        std::string failure = hvtest::messageOf([&] { list.parse(*in); });
        EXPECT_TRUE(failure == "<no exception>" || failure == kOverflow || failure == kInvalid ||
                    failure == kNoPair)
            << failure;
        // Whatever was added can be written and searched.
        HvString text = list.getString();
        if (list.getCount() == 0) {
            EXPECT_EQ(text.length(), 0u);
        }
        list.isPresent("a");
    }
}

// ---------------------------------------------------------------- text out

TEST(HvParameters, GetStringOfEmptyListIsEmpty)
{
    ListLeakCheck leaks;
    HvParameters list;
    HvString text = list.getString();
    EXPECT_EQ(text.length(), 0u);
    EXPECT_STREQ(text.c_str(), "");
}

TEST(HvParameters, GetStringStartsWithRoomFor80Characters)
{
    ListLeakCheck leaks;
    HvParameters list;
    list.parse("a=1");
    HvString text = list.getString();
    ASSERT_FALSE(text.isNull());
    EXPECT_EQ(text->getCapacity(), 80u);
    EXPECT_EQ(textOf(text), "a=1");
}

TEST(HvParameters, SerializeWritesTheStringAndNothingForEmptyList)
{
    ListLeakCheck leaks;
    HvParameters list;
    HvByteArrayOutputStream empty(0);
    list.serialize(empty);
    EXPECT_EQ(empty.getCount(), 0u);
    list.parse("a=1;b;c=\"x;y\"");
    HvByteArrayOutputStream out(0);
    list.serialize(out);
    EXPECT_EQ(hvtest::textOf(out), "c=\"x;y\";b;a=1");
}

TEST(HvParameters, ParseOfGetStringGivesAnEqualList)
{
    ListLeakCheck leaks;
    const char* text = "a=1;flag;q=\"x;y\\\"z\";B=two words;e=x=y";
    HvParameters first;
    first.parse(text);
    HvParameters second;
    second.parse(first.getString().c_str());
    ASSERT_EQ(second.getCount(), first.getCount());
    for (const char* key : {"a", "flag", "q", "B", "e"}) {
        EXPECT_TRUE(second.isPresent(key)) << key;
        EXPECT_EQ(valueOf(second, key), valueOf(first, key)) << key;
    }
    // Reversed twice: back in the order of the text.
    EXPECT_EQ(textOf(second.getString()), text);
}

// ---------------------------------------------------------------- editing

TEST(HvParameters, SetValueAddsTrimmedPairAtTheHead)
{
    ListLeakCheck leaks;
    HvParameters list;
    list.parse("a=1");
    list.setValue(" b\t", " 2 ");
    EXPECT_EQ(list.getCount(), 2u);
    EXPECT_EQ(textOf(list.getString()), "b=2;a=1");
}

TEST(HvParameters, SetValueReplacesValueOfEqualKeyInPlace)
{
    ListLeakCheck leaks;
    HvParameters list;
    list.parse("a=1;b=2;c=3");
    list.setValue("B", "new");
    EXPECT_EQ(list.getCount(), 3u);
    // The stored key keeps its spelling and place.
    EXPECT_EQ(textOf(list.getString()), "c=3;b=new;a=1");
    list.setValue("a", "");
    EXPECT_EQ(textOf(list.getString()), "c=3;b=new;a");
}

TEST(HvParameters, SetValueIgnoresNullValueAndEmptyKey)
{
    ListLeakCheck leaks;
    HvParameters list;
    list.setValue("a", nullptr);
    list.setValue("", "1");
    list.setValue(nullptr, "1");
    EXPECT_EQ(list.getCount(), 0u);
    list.setValue("a", "");
    EXPECT_EQ(list.getCount(), 1u);
    EXPECT_TRUE(list.isPresent("a"));
}

TEST(HvParameters, RemoveValueUnlinksFirstMatchingItem)
{
    ListLeakCheck leaks;
    HvParameters list;
    list.parse("a=1;b=2;c=3");
    list.removeValue(" B ");
    EXPECT_EQ(list.getCount(), 2u);
    EXPECT_EQ(textOf(list.getString()), "c=3;a=1");
    list.removeValue("missing");
    EXPECT_EQ(list.getCount(), 2u);
    list.removeValue("c");
    list.removeValue("a");
    EXPECT_EQ(list.getCount(), 0u);
    EXPECT_EQ(list.getString().length(), 0u);
}

TEST(HvParameters, ClearFreesEveryItem)
{
    ListLeakCheck leaks;
    HvParameters list;
    long before = hvtest::liveCount("HvParameters::Item");
    list.parse("a=1;b=2;c");
    EXPECT_EQ(hvtest::liveCount("HvParameters::Item"), before + 3);
    list.clear();
    EXPECT_EQ(list.getCount(), 0u);
    EXPECT_EQ(hvtest::liveCount("HvParameters::Item"), before);
    list.parse("d=4");
    EXPECT_EQ(textOf(list.getString()), "d=4");
}

// ---------------------------------------------------------------- storage

TEST(HvParameters, ItemsAndLockComeFromTheTaggedAllocator)
{
    ListLeakCheck leaks;
    HvMutex::sInitialize();
    Velmora::AllocationStats mutexes = Velmora::allocationStats("HvMutex");
    Velmora::AllocationStats items = Velmora::allocationStats("HvParameters::Item");
    {
        HvParameters list;
        EXPECT_EQ(Velmora::allocationStats("HvMutex").liveCount, mutexes.liveCount + 1);
        EXPECT_EQ(Velmora::allocationStats("HvMutex").liveBytes,
                  mutexes.liveBytes + static_cast<long>(sizeof(HvMutex)));
        list.parse("a=1;b");
        EXPECT_EQ(Velmora::allocationStats("HvParameters::Item").liveCount, items.liveCount + 2);
        EXPECT_EQ(Velmora::allocationStats("HvParameters::Item").liveBytes,
                  items.liveBytes + 2 * static_cast<long>(sizeof(HvParameters::Item)));
    }
    EXPECT_EQ(Velmora::allocationStats("HvMutex").liveCount, mutexes.liveCount);
}

TEST(HvParameters, CloneIsAReversedCopyFromTheTaggedAllocator)
{
    ListLeakCheck leaks;
    HvParameters list(";&");
    list.parse("a=1;b=2");
    Velmora::AllocationStats lists = Velmora::allocationStats("HvParameters");
    HvObject* copy = list.clone();
    EXPECT_EQ(Velmora::allocationStats("HvParameters").liveCount, lists.liveCount + 1);
    EXPECT_EQ(Velmora::allocationStats("HvParameters").liveBytes,
              lists.liveBytes + static_cast<long>(sizeof(HvParameters)));
    EXPECT_EQ(copy->getRefCount(), 0);
    HvHandle<HvParameters> held(copy);
    EXPECT_EQ(held->getCount(), 2u);
    EXPECT_EQ(textOf(held->getString()), "a=1;&b=2");
    held = HvHandle<HvParameters>();
    EXPECT_EQ(Velmora::allocationStats("HvParameters").liveCount, lists.liveCount);
}

// ---------------------------------------------------------------- copying

TEST(HvParameters, CopyHoldsItemsReversedWithSeparatorsAndOwnLock)
{
    ListLeakCheck leaks;
    HvParameters list(";&");
    list.parse("a=1;b=2;c");
    long mutexes = hvtest::liveCount("HvMutex");
    HvParameters copy(list);
    EXPECT_EQ(hvtest::liveCount("HvMutex"), mutexes + 1);
    EXPECT_EQ(copy.getCount(), 3u);
    EXPECT_EQ(textOf(list.getString()), "c;&b=2;&a=1");
    EXPECT_EQ(textOf(copy.getString()), "a=1;&b=2;&c");
    copy.setValue("a", "changed");
    EXPECT_EQ(valueOf(list, "a"), "1");
}

TEST(HvParameters, AssignmentReplacesItemsAndSeparators)
{
    ListLeakCheck leaks;
    HvParameters source(",");
    source.parse("a=1,b=2");
    EXPECT_EQ(source.getCount(), 1u);
    source.setValue("b", "2");
    HvParameters target;
    target.parse("x=9;y");
    target = source;
    EXPECT_EQ(target.getCount(), 2u);
    EXPECT_FALSE(target.isPresent("x"));
    EXPECT_EQ(textOf(source.getString()), "b=2,a=1");
    EXPECT_EQ(textOf(target.getString()), "a=1,b=2");
}

TEST(HvParameters, AssignmentToItselfKeepsTheList)
{
    ListLeakCheck leaks;
    HvParameters list;
    list.parse("a=1;b=2");
    HvParameters& same = list;
    list = same;
    EXPECT_EQ(list.getCount(), 2u);
    EXPECT_EQ(textOf(list.getString()), "b=2;a=1");
}

TEST(HvParameters, TwoListsAssignedToEachOtherFromTwoThreads)
{
    ListLeakCheck leaks;
    HvParameters first;
    HvParameters second;
    first.parse("a=1;b=2");
    second.parse("c=3;d=4");
    std::thread one([&] {
        for (int i = 0; i < 200; ++i)
            first = second;
    });
    std::thread two([&] {
        for (int i = 0; i < 200; ++i)
            second = first;
    });
    one.join();
    two.join();
    // Each copy is whole: two items, whatever the interleaving.
    EXPECT_LE(first.getCount(), 2u);
    EXPECT_LE(second.getCount(), 2u);
}

// ---------------------------------------------------------------- threads

TEST(HvParameters, ListIsSharedSafelyBetweenThreads)
{
    ListLeakCheck leaks;
    HvParameters list;
    const int kThreads = 4;
    const int kKeys = 10;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&list, t] {
            for (int round = 0; round < 50; ++round) {
                for (int k = 0; k < kKeys; ++k) {
                    std::string key = "k" + std::to_string(t) + "_" + std::to_string(k);
                    std::string value = std::to_string(round);
                    list.setValue(key.c_str(), value.c_str());
                    EXPECT_EQ(valueOf(list, key.c_str()), value);
                    list.getString();
                    if (round % 2 == 0)
                        list.removeValue(key.c_str());
                }
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(list.getCount(), static_cast<unsigned int>(kThreads * kKeys));
    EXPECT_EQ(valueOf(list, "k3_9"), "49");
}

// ---------------------------------------------------------------- tracing

TEST(HvParameters, EveryPublicOperationIsTraced)
{
    ListLeakCheck leaks;
    Velmora::LogCapture capture("ferrowind.hv.HvParameters");
    {
        HvParameters list;
        list.parse("a=1");
        HvHandle<HvInputStream> in = streamOf("b=2");
        list.parse(*in);
        HvParameters copy(list);
        copy = list;
        list.getString();
        HvByteArrayOutputStream out(0);
        list.serialize(out);
        list.isPresent("a");
        list.getValue("a");
        list.setValue("c", "3");
        list.removeValue("c");
        list.clear();
    }
    for (const char* name :
         {"HvParameters copy ctor", "HvParameters::operator =", "HvParameters::clear", "HvParameters::parse (1)",
          "HvParameters::parse (2)", "HvParameters::getString", "HvParameters::serialize",
          "HvParameters::isPresent", "HvParameters::removeValue", "HvParameters::setValue",
          "HvParameters::getValue"}) {
        EXPECT_TRUE(capture.contains(std::string("ENTER: ") + name)) << name;
        EXPECT_TRUE(capture.contains(std::string("EXIT:  ") + name)) << name;
    }
}
