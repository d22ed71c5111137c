#include <HvUtil/HvStreamTokenizer.h>

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvByteArrayInputStream.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvInputStream.h>
#include <HvUtil/HvString.h>

#include <Velmora/LogCapture.h>

#include <tests/support/HvTestStreams.h>
#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

namespace {

const char kLoggerName[] = "ferrowind.hv.HvStreamTokenizer";
const char kMissingNewline[] =
    "HvStreamTokenizer::sGetLine: Missing newline character at the end of a line in SIP message, ignoring";
const char kCanNotMark[] = "Can only tokenize streams where mark supported";

using hvtest::rest;
using hvtest::streamOf;
using hvtest::UnmarkableStream;

} // namespace

// ---------------------------------------------------------------- sDiscardLine

TEST(HvStreamTokenizer, DiscardLineConsumesThroughLineFeedAndReturnsIt)
{
    HvHandle<HvInputStream> in = streamOf("first line\r\nsecond");
    EXPECT_EQ(HvStreamTokenizer::sDiscardLine(*in), '\n');
    EXPECT_EQ(rest(*in), "second");
}

TEST(HvStreamTokenizer, DiscardLineStopsAtA0xFFDataByte)
{
    HvHandle<HvInputStream> in = streamOf(std::string("ab\xff" "cd\nef"));
    EXPECT_EQ(HvStreamTokenizer::sDiscardLine(*in), 0xFF);
    EXPECT_EQ(rest(*in), "cd\nef");
}

TEST(HvStreamTokenizer, DiscardLineAtEndReturnsMinusOne)
{
    HvHandle<HvInputStream> in = streamOf("no line end");
    EXPECT_EQ(HvStreamTokenizer::sDiscardLine(*in), -1);
    EXPECT_EQ(in->read(), -1);
}

TEST(HvStreamTokenizer, DiscardLineNeedsNoMark)
{
    HvHandle<HvInputStream> in(new UnmarkableStream("skip me\nkeep"));
    EXPECT_EQ(HvStreamTokenizer::sDiscardLine(*in), '\n');
    EXPECT_EQ(rest(*in), "keep");
}

// ---------------------------------------------------------------- sDiscardWhite

TEST(HvStreamTokenizer, DiscardWhiteSkipsBlankTabCrLfAndLeavesNextCharacter)
{
    HvHandle<HvInputStream> in = streamOf(" \t\r\n \vx");
    // Vertical tab is not white space here.
    EXPECT_EQ(HvStreamTokenizer::sDiscardWhite(*in), '\v');
    EXPECT_EQ(rest(*in), "\vx");
}

TEST(HvStreamTokenizer, DiscardWhiteAtEndReturnsMinusOneAndStaysAtEnd)
{
    HvHandle<HvInputStream> in = streamOf("  \r\n");
    EXPECT_EQ(HvStreamTokenizer::sDiscardWhite(*in), -1);
    EXPECT_EQ(in->read(), -1);
}

TEST(HvStreamTokenizer, EveryMarkingFunctionRefusesAStreamWithoutMark)
{
    HvHandle<HvInputStream> in(new UnmarkableStream(" 12 \"q\"\r\n"));
    char buffer[8];
    hvtest::expectPlainHvException([&] { HvStreamTokenizer::sDiscardWhite(*in); }, kCanNotMark);
    hvtest::expectPlainHvException([&] { HvStreamTokenizer::sPeekToken(*in, ";", buffer, sizeof buffer); },
                                   kCanNotMark);
    hvtest::expectPlainHvException([&] { HvStreamTokenizer::sLookAhead(*in, ";"); }, kCanNotMark);
    hvtest::expectPlainHvException([&] { HvStreamTokenizer::sGetToken(*in, ";", buffer, sizeof buffer); },
                                   kCanNotMark);
    hvtest::expectPlainHvException([&] { HvStreamTokenizer::sGetUnsigned(*in); }, kCanNotMark);
    hvtest::expectPlainHvException([&] { HvStreamTokenizer::sGetDouble(*in); }, kCanNotMark);
    hvtest::expectPlainHvException([&] { HvStreamTokenizer::sGetQuote(*in); }, kCanNotMark);
    hvtest::expectPlainHvException([&] { HvStreamTokenizer::sIsEmptyLine(*in); }, kCanNotMark);
    hvtest::expectPlainHvException([&] { HvStreamTokenizer::sGetLine(*in); }, kCanNotMark);
    hvtest::expectPlainHvException([&] { HvStreamTokenizer::sGetLine(*in, buffer, sizeof buffer); }, kCanNotMark);
    // Each refuses before reading anything.
    EXPECT_EQ(rest(*in), " 12 \"q\"\r\n");
}

// ---------------------------------------------------------------- sPeekToken

TEST(HvStreamTokenizer, PeekTokenCopiesTokenAndConsumesNothing)
{
    HvHandle<HvInputStream> in = streamOf("abc;def");
    char buffer[16];
    std::memset(buffer, 'Z', sizeof buffer);
    EXPECT_TRUE(HvStreamTokenizer::sPeekToken(*in, ";", buffer, sizeof buffer));
    EXPECT_STREQ(buffer, "abc");
    EXPECT_EQ(rest(*in), "abc;def");
}

TEST(HvStreamTokenizer, PeekTokenDropsLeadingWhiteSpaceWithoutConsumingIt)
{
    HvHandle<HvInputStream> in = streamOf(" \t\r\nab c,d");
    char buffer[16];
    EXPECT_TRUE(HvStreamTokenizer::sPeekToken(*in, ",", buffer, sizeof buffer));
    // White space inside the token is kept.
    EXPECT_STREQ(buffer, "ab c");
    EXPECT_EQ(rest(*in), " \t\r\nab c,d");
}

TEST(HvStreamTokenizer, PeekTokenAtEndOfStreamBeforeDelimiterIsFalse)
{
    HvHandle<HvInputStream> in = streamOf("abc");
    char buffer[16];
    EXPECT_FALSE(HvStreamTokenizer::sPeekToken(*in, ";", buffer, sizeof buffer));
    EXPECT_EQ(std::string(buffer, 3), "abc");
    EXPECT_EQ(rest(*in), "abc");
}

TEST(HvStreamTokenizer, PeekTokenStopsAtA0xFFDataByte)
{
    HvHandle<HvInputStream> in = streamOf(std::string("ab\xff;"));
    char buffer[16];
    EXPECT_FALSE(HvStreamTokenizer::sPeekToken(*in, ";", buffer, sizeof buffer));
    EXPECT_EQ(std::string(buffer, 2), "ab");
    EXPECT_EQ(rest(*in), std::string("ab\xff;"));
}

TEST(HvStreamTokenizer, PeekTokenNeedsRoomForTheTerminator)
{
    HvHandle<HvInputStream> in = streamOf("abc;");
    char buffer[8];
    std::memset(buffer, 'Z', sizeof buffer);
    // Three characters fill a buffer of 3: no room for the NUL, false.
    EXPECT_FALSE(HvStreamTokenizer::sPeekToken(*in, ";", buffer, 3));
    EXPECT_EQ(std::string(buffer, 4), "abcZ");
    EXPECT_TRUE(HvStreamTokenizer::sPeekToken(*in, ";", buffer, 4));
    EXPECT_STREQ(buffer, "abc");
    EXPECT_EQ(rest(*in), "abc;");
}

TEST(HvStreamTokenizer, PeekTokenWithNoRoomWritesNothingAndIsFalse)
{
    HvHandle<HvInputStream> in = streamOf(";x");
    char sentinel = 'Z';
    EXPECT_FALSE(HvStreamTokenizer::sPeekToken(*in, ";", &sentinel, 0));
    EXPECT_EQ(sentinel, 'Z');
    // An empty token with room is true.
    char buffer[4] = {'Z', 'Z', 'Z', 'Z'};
    EXPECT_TRUE(HvStreamTokenizer::sPeekToken(*in, ";", buffer, sizeof buffer));
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(rest(*in), ";x");
}

// ---------------------------------------------------------------- sLookAhead

TEST(HvStreamTokenizer, LookAheadConsumesWhiteSpaceAndCountsToken)
{
    HvHandle<HvInputStream> in = streamOf("  \r\nabc;def");
    EXPECT_EQ(HvStreamTokenizer::sLookAhead(*in, ";"), 3u);
    EXPECT_EQ(rest(*in), "abc;def");
}

TEST(HvStreamTokenizer, LookAheadCountsToEndAndTakes0xFFAsData)
{
    HvHandle<HvInputStream> in = streamOf(std::string("a\xff" "b c"));
    EXPECT_EQ(HvStreamTokenizer::sLookAhead(*in, ";"), 5u);
    EXPECT_EQ(HvStreamTokenizer::sLookAhead(*in, " "), 3u);
}

TEST(HvStreamTokenizer, LookAheadAtEndIsZero)
{
    HvHandle<HvInputStream> in = streamOf("   ");
    EXPECT_EQ(HvStreamTokenizer::sLookAhead(*in, ";"), 0u);
    EXPECT_EQ(in->read(), -1);
}

TEST(HvStreamTokenizer, NulByteIsDataNotADelimiter)
{
    HvHandle<HvInputStream> in = streamOf(std::string("a\0b;", 4));
    EXPECT_EQ(HvStreamTokenizer::sLookAhead(*in, ";"), 3u);
}

// ---------------------------------------------------------------- sGetToken

TEST(HvStreamTokenizer, GetTokenConsumesTokenAndLeavesDelimiter)
{
    HvHandle<HvInputStream> in = streamOf("  abc;def");
    char buffer[16];
    EXPECT_TRUE(HvStreamTokenizer::sGetToken(*in, ";", buffer, sizeof buffer));
    EXPECT_STREQ(buffer, "abc");
    EXPECT_EQ(rest(*in), ";def");
}

TEST(HvStreamTokenizer, GetTokenLongerThanBufferFillsItUnterminatedConsumesAndFails)
{
    HvHandle<HvInputStream> in = streamOf("abcd;");
    char buffer[8];
    std::memset(buffer, 'Z', sizeof buffer);
    EXPECT_FALSE(HvStreamTokenizer::sGetToken(*in, ";", buffer, 3));
    EXPECT_EQ(std::string(buffer, 4), "abcZ");
    EXPECT_EQ(rest(*in), "d;");
}

TEST(HvStreamTokenizer, GetTokenOfExactlyBufferSizeIsNotTerminated)
{
    HvHandle<HvInputStream> in = streamOf("abc;");
    char buffer[8];
    std::memset(buffer, 'Z', sizeof buffer);
    EXPECT_TRUE(HvStreamTokenizer::sGetToken(*in, ";", buffer, 3));
    EXPECT_EQ(std::string(buffer, 4), "abcZ");
    EXPECT_EQ(rest(*in), ";");
}

TEST(HvStreamTokenizer, GetTokenShorterThanBufferIsTerminated)
{
    HvHandle<HvInputStream> in = streamOf("ab");
    char buffer[8];
    std::memset(buffer, 'Z', sizeof buffer);
    EXPECT_TRUE(HvStreamTokenizer::sGetToken(*in, ";", buffer, 3));
    EXPECT_STREQ(buffer, "ab");
    EXPECT_EQ(in->read(), -1);
}

TEST(HvStreamTokenizer, GetTokenOfEmptyTokenStoresEmptyString)
{
    HvHandle<HvInputStream> in = streamOf(" ;x");
    char buffer[4] = {'Z', 'Z', 'Z', 'Z'};
    EXPECT_TRUE(HvStreamTokenizer::sGetToken(*in, ";", buffer, sizeof buffer));
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(rest(*in), ";x");
}

TEST(HvStreamTokenizer, GetTokenOfEmptyTokenIntoNoRoomWritesNothing)
{
    HvHandle<HvInputStream> in = streamOf(";x");
    char sentinel = 'Z';
    EXPECT_TRUE(HvStreamTokenizer::sGetToken(*in, ";", &sentinel, 0));
    EXPECT_EQ(sentinel, 'Z');
    EXPECT_EQ(rest(*in), ";x");
}

// ---------------------------------------------------------------- sGetUnsigned

TEST(HvStreamTokenizer, GetUnsignedReadsDigitsAndLeavesNextCharacter)
{
    HvHandle<HvInputStream> in = streamOf("  42;");
    EXPECT_EQ(HvStreamTokenizer::sGetUnsigned(*in), 42u);
    EXPECT_EQ(rest(*in), ";");
}

TEST(HvStreamTokenizer, GetUnsignedWithoutDigitThrowsAndLeavesCharacter)
{
    HvHandle<HvInputStream> in = streamOf(";");
    hvtest::expectPlainHvException([&] { HvStreamTokenizer::sGetUnsigned(*in); }, "unsigned number expected");
    EXPECT_EQ(rest(*in), ";");
}

TEST(HvStreamTokenizer, GetUnsignedHasNoSign)
{
    HvHandle<HvInputStream> in = streamOf("-1");
    hvtest::expectPlainHvException([&] { HvStreamTokenizer::sGetUnsigned(*in); }, "unsigned number expected");
    EXPECT_EQ(rest(*in), "-1");
}

TEST(HvStreamTokenizer, GetUnsignedAtEndThrows)
{
    HvHandle<HvInputStream> in = streamOf(" ");
    hvtest::expectPlainHvException([&] { HvStreamTokenizer::sGetUnsigned(*in); }, "unsigned number expected");
}

TEST(HvStreamTokenizer, GetUnsignedWrapsModulo2To32)
{
    HvHandle<HvInputStream> in = streamOf("4294967295 4294967296 4294967301");
    EXPECT_EQ(HvStreamTokenizer::sGetUnsigned(*in), 4294967295u);
    EXPECT_EQ(HvStreamTokenizer::sGetUnsigned(*in), 0u);
    EXPECT_EQ(HvStreamTokenizer::sGetUnsigned(*in), 5u);
    EXPECT_EQ(in->read(), -1);
}

// ---------------------------------------------------------------- sGetDouble

TEST(HvStreamTokenizer, GetDoubleReadsDecimalAndLeavesNextCharacter)
{
    HvHandle<HvInputStream> in = streamOf(" 3.25 ");
    EXPECT_DOUBLE_EQ(HvStreamTokenizer::sGetDouble(*in), 3.25);
    EXPECT_EQ(rest(*in), " ");
}

TEST(HvStreamTokenizer, GetDoubleWithSecondPointThrows)
{
    HvHandle<HvInputStream> in = streamOf("1.2.3");
    hvtest::expectPlainHvException([&] { HvStreamTokenizer::sGetDouble(*in); }, "floating-point value expected");
}

TEST(HvStreamTokenizer, GetDoubleOfPointAloneThrows)
{
    HvHandle<HvInputStream> in = streamOf(".");
    hvtest::expectPlainHvException([&] { HvStreamTokenizer::sGetDouble(*in); }, "floating-point value expected");
}

TEST(HvStreamTokenizer, GetDoubleWithoutDigitThrowsAndLeavesCharacter)
{
    HvHandle<HvInputStream> in = streamOf("-2");
    hvtest::expectPlainHvException([&] { HvStreamTokenizer::sGetDouble(*in); }, "floating-point value expected");
    EXPECT_EQ(rest(*in), "-2");
}

TEST(HvStreamTokenizer, GetDoubleTakesTrailingOrLeadingPoint)
{
    HvHandle<HvInputStream> in = streamOf("1. .5 17;");
    EXPECT_DOUBLE_EQ(HvStreamTokenizer::sGetDouble(*in), 1.0);
    EXPECT_DOUBLE_EQ(HvStreamTokenizer::sGetDouble(*in), 0.5);
    EXPECT_DOUBLE_EQ(HvStreamTokenizer::sGetDouble(*in), 17.0);
    EXPECT_EQ(rest(*in), ";");
}

TEST(HvStreamTokenizer, GetDoubleHasNoExponent)
{
    HvHandle<HvInputStream> in = streamOf("2e3");
    EXPECT_DOUBLE_EQ(HvStreamTokenizer::sGetDouble(*in), 2.0);
    EXPECT_EQ(rest(*in), "e3");
}

// ---------------------------------------------------------------- sGetQuote

TEST(HvStreamTokenizer, GetQuoteKeepsQuotesAndEscapesAndLeavesTheRest)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    // double quote, a, backslash, double quote, b, double quote, blank, x
    HvHandle<HvInputStream> in = streamOf("\"a\\\"b\" x");
    HvString quoted = HvStreamTokenizer::sGetQuote(*in);
    EXPECT_EQ(quoted.length(), 6u);
    EXPECT_STREQ(quoted.c_str(), "\"a\\\"b\"");
    EXPECT_EQ(rest(*in), " x");
}

TEST(HvStreamTokenizer, GetQuoteSkipsWhiteSpaceAndTakesAnyByteInside)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvHandle<HvInputStream> in = streamOf(std::string("\r\n \"a;\xff\\\\\"rest"));
    HvString quoted = HvStreamTokenizer::sGetQuote(*in);
    EXPECT_EQ(std::string(quoted.c_str(), quoted.length()), std::string("\"a;\xff\\\\\""));
    EXPECT_EQ(rest(*in), "rest");
}

TEST(HvStreamTokenizer, GetQuoteOfEmptyQuotes)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvHandle<HvInputStream> in = streamOf("\"\";");
    EXPECT_STREQ(HvStreamTokenizer::sGetQuote(*in).c_str(), "\"\"");
    EXPECT_EQ(rest(*in), ";");
}

TEST(HvStreamTokenizer, GetQuoteWithoutOpeningQuoteThrows)
{
    HvHandle<HvInputStream> in = streamOf("  abc\"");
    hvtest::expectPlainHvException([&] { HvStreamTokenizer::sGetQuote(*in); }, "quote ( \" ) expected");
}

TEST(HvStreamTokenizer, GetQuoteEndingInsideTheStringThrows)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvHandle<HvInputStream> open = streamOf("\"abc");
    hvtest::expectPlainHvException([&] { HvStreamTokenizer::sGetQuote(*open); }, "quote ( \" ) expected");
    HvHandle<HvInputStream> escaped = streamOf("\"abc\\\"");
    hvtest::expectPlainHvException([&] { HvStreamTokenizer::sGetQuote(*escaped); }, "quote ( \" ) expected");
    HvHandle<HvInputStream> backslashLast = streamOf("\"abc\\");
    hvtest::expectPlainHvException([&] { HvStreamTokenizer::sGetQuote(*backslashLast); },
                                   "quote ( \" ) expected");
    HvHandle<HvInputStream> empty = streamOf("");
    hvtest::expectPlainHvException([&] { HvStreamTokenizer::sGetQuote(*empty); }, "quote ( \" ) expected");
}

// ---------------------------------------------------------------- sIsEmptyLine

TEST(HvStreamTokenizer, IsEmptyLineTrueForBlanksTabsAndCrBeforeLf)
{
    HvHandle<HvInputStream> in = streamOf(" \t\r\n");
    EXPECT_TRUE(HvStreamTokenizer::sIsEmptyLine(*in));
    EXPECT_EQ(rest(*in), " \t\r\n");
}

TEST(HvStreamTokenizer, IsEmptyLineFalseForText)
{
    HvHandle<HvInputStream> in = streamOf(" a\r\n");
    EXPECT_FALSE(HvStreamTokenizer::sIsEmptyLine(*in));
    EXPECT_EQ(rest(*in), " a\r\n");
}

TEST(HvStreamTokenizer, IsEmptyLineFalseAtEndOfStream)
{
    HvHandle<HvInputStream> in = streamOf("  ");
    EXPECT_FALSE(HvStreamTokenizer::sIsEmptyLine(*in));
    EXPECT_EQ(rest(*in), "  ");
}

// ---------------------------------------------------------------- sGetLine

TEST(HvStreamTokenizer, GetLineReturnsLineWithoutCrLf)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    Velmora::LogCapture capture(kLoggerName);
    HvHandle<HvInputStream> in = streamOf("Via: x\r\nTo: y\nFrom: z");
    EXPECT_STREQ(HvStreamTokenizer::sGetLine(*in).c_str(), "Via: x");
    EXPECT_STREQ(HvStreamTokenizer::sGetLine(*in).c_str(), "To: y");
    EXPECT_STREQ(HvStreamTokenizer::sGetLine(*in).c_str(), "From: z");
    EXPECT_EQ(in->read(), -1);
    // LF alone and the end of the stream are line ends too.
    EXPECT_TRUE(capture.records().empty());
}

TEST(HvStreamTokenizer, GetLineWithLoneCrLogsAndLosesTheNextCharacter)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    Velmora::LogCapture capture(kLoggerName);
    HvHandle<HvInputStream> in = streamOf("Via: x\rYZ");
    EXPECT_STREQ(HvStreamTokenizer::sGetLine(*in).c_str(), "Via: x");
    EXPECT_EQ(rest(*in), "Z");
    std::vector<Velmora::LogRecord> records = capture.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].level, 10000);
    EXPECT_EQ(records[0].message, kMissingNewline);
    EXPECT_EQ(records[0].file, "HvStreamTokenizer");
}

TEST(HvStreamTokenizer, GetLineWithCrAtEndOfStreamLogs)
{
    Velmora::LogCapture capture(kLoggerName);
    HvHandle<HvInputStream> in = streamOf("Via: x\r");
    EXPECT_STREQ(HvStreamTokenizer::sGetLine(*in).c_str(), "Via: x");
    EXPECT_EQ(capture.messages(), std::vector<std::string>{kMissingNewline});
}

TEST(HvStreamTokenizer, GetLineReadsThroughParseSoLeadingWhiteSpaceIsSkipped)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvHandle<HvInputStream> in = streamOf("\r\n  text\r\n");
    EXPECT_STREQ(HvStreamTokenizer::sGetLine(*in).c_str(), "text");
    EXPECT_EQ(in->read(), -1);
}

TEST(HvStreamTokenizer, GetLineAtEndIsEmpty)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    HvHandle<HvInputStream> in = streamOf("");
    HvString line = HvStreamTokenizer::sGetLine(*in);
    EXPECT_EQ(line.length(), 0u);
    EXPECT_EQ(in->read(), -1);
}

TEST(HvStreamTokenizer, GetLineIntoBufferReadsLineAndItsEnd)
{
    Velmora::LogCapture capture(kLoggerName);
    HvHandle<HvInputStream> in = streamOf("\r\n\r\n  Via: x\r\nnext");
    char buffer[16];
    // Leading white space and empty lines are skipped.
    EXPECT_TRUE(HvStreamTokenizer::sGetLine(*in, buffer, sizeof buffer));
    EXPECT_STREQ(buffer, "Via: x");
    EXPECT_EQ(rest(*in), "next");
    EXPECT_TRUE(capture.records().empty());
}

TEST(HvStreamTokenizer, GetLineIntoBufferWithLoneCrLogs)
{
    Velmora::LogCapture capture(kLoggerName);
    HvHandle<HvInputStream> in = streamOf("ab\rYZ");
    char buffer[16];
    EXPECT_TRUE(HvStreamTokenizer::sGetLine(*in, buffer, sizeof buffer));
    EXPECT_STREQ(buffer, "ab");
    EXPECT_EQ(rest(*in), "Z");
    EXPECT_EQ(capture.messages(), std::vector<std::string>{kMissingNewline});
}

TEST(HvStreamTokenizer, GetLineIntoTooSmallBufferFailsAndLeavesLineEnd)
{
    HvHandle<HvInputStream> in = streamOf("abcdef\r\n");
    char buffer[8];
    std::memset(buffer, 'Z', sizeof buffer);
    EXPECT_FALSE(HvStreamTokenizer::sGetLine(*in, buffer, 3));
    EXPECT_EQ(std::string(buffer, 4), "abcZ");
    EXPECT_EQ(rest(*in), "def\r\n");
}

// ---------------------------------------------------------------- random input

TEST(HvStreamTokenizer, RandomInputEndsEveryFunctionWithAResultOrItsText)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    const char alphabet[] = {' ', '\t', '\r', '\n', '"', '\\', '.', ';', '\xff', '\0', '7', 'x'};
    std::mt19937 random(20240611u);
    for (int round = 0; round < 2000; ++round) {
        std::size_t length = random() % 64;
        std::string content;
        for (std::size_t i = 0; i < length; ++i)
            content.push_back(alphabet[random() % sizeof alphabet]);
        HvHandle<HvInputStream> in = streamOf(content);
        char buffer[9];
        // Each call either returns or throws its own text; all of them end.
        for (int call = 0; call < 12; ++call) {
            std::string failure = hvtest::messageOf([&] {
                switch ((round + call) % 9) {
                case 0: HvStreamTokenizer::sDiscardLine(*in); break;
                case 1: HvStreamTokenizer::sPeekToken(*in, ";", buffer, sizeof buffer); break;
                case 2: HvStreamTokenizer::sGetToken(*in, ";.", buffer, 4); break;
                case 3: HvStreamTokenizer::sGetUnsigned(*in); break;
                case 4: HvStreamTokenizer::sGetDouble(*in); break;
                case 5: HvStreamTokenizer::sGetQuote(*in); break;
                case 6: HvStreamTokenizer::sIsEmptyLine(*in); break;
                case 7: HvStreamTokenizer::sGetLine(*in); break;
                default: HvStreamTokenizer::sGetLine(*in, buffer, sizeof buffer); break;
                }
            });
            EXPECT_TRUE(failure == "<no exception>" || failure == "unsigned number expected" ||
                        failure == "floating-point value expected" || failure == "quote ( \" ) expected")
                << failure;
        }
    }
}
