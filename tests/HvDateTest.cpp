#include <HvUtil/HvDate.h>

#include <HvUtil/HvException.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <random>
#include <string>

namespace {

// Arithmetic and comparisons go through the local time zone: the tests fix
// it to UTC so that no daylight-saving change moves the clock under them.
class UtcZone : public ::testing::Environment {
public:
    void SetUp() override
    {
        setenv("TZ", "UTC", 1);
        tzset();
    }
};

::testing::Environment* const fs_utc = ::testing::AddGlobalTestEnvironment(new UtcZone);

const char kExample[] = "Sun, 06 Nov 1994 08:49:37 GMT";

std::string formatted(const HvDate& date)
{
    char buffer[30];
    return date.getHvDate(buffer);
}

// The calendar fields the parser sets, and the zone.
struct Fields {
    int weekday;
    int date;
    int month;
    int year;
    int hour;
    int minute;
    int second;
    std::string zone;

    bool operator==(const Fields& o) const
    {
        return weekday == o.weekday && date == o.date && month == o.month && year == o.year && hour == o.hour &&
               minute == o.minute && second == o.second && zone == o.zone;
    }
};

std::ostream& operator<<(std::ostream& out, const Fields& f)
{
    return out << "{wday " << f.weekday << ", " << f.date << "/" << f.month << "/" << f.year << " " << f.hour << ":"
               << f.minute << ":" << f.second << " " << f.zone << "}";
}

Fields fieldsOf(const HvDate& date)
{
    return Fields{date.getTime().tm_wday, date.getDate(),   date.getMonth(),  date.getYear(),
                  date.getHour(),         date.getMinute(), date.getSecond(), date.getZone()};
}

// What parsing `text` throws, or "" when it does not throw.
std::string parseFailure(HvDate& date, const char* text)
{
    HvHandle<HvException> e = hvtest::thrownBy([&] { date.constructHvDate(text); });
    return e.isNull() ? std::string() : std::string(e->getMessage().c_str());
}

// A heap copy of exactly the text and its NUL, so that the address
// sanitizer sees any read past the NUL.
std::unique_ptr<char[]> exactCopy(const std::string& text)
{
    std::unique_ptr<char[]> copy(new char[text.size() + 1]);
    std::memcpy(copy.get(), text.c_str(), text.size() + 1);
    return copy;
}

// ---------------------------------------------------------------- parse model

// strtok_r's walk as POSIX describes it, over a std::string: skip leading
// delimiters, take up to the next delimiter, step over that one.
class Tokens {
public:
    explicit Tokens(const std::string& text) : m_text(text), m_position(0) {}

    bool next(const char* delimiters, std::string& token)
    {
        std::size_t start = m_text.find_first_not_of(delimiters, m_position);
        if (start == std::string::npos) {
            m_position = m_text.size();
            return false;
        }
        std::size_t end = m_text.find_first_of(delimiters, start);
        token = m_text.substr(start, end == std::string::npos ? std::string::npos : end - start);
        m_position = end == std::string::npos ? m_text.size() : end + 1;
        return true;
    }

private:
    std::string m_text;
    std::size_t m_position;
};

int position(const char* const* names, int count, const std::string& name)
{
    for (int i = 0; i < count; ++i) {
        if (name == names[i])
            return i;
    }
    return -1;
}

const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

long number(const std::string& token)
{
    return std::strtol(token.c_str(), nullptr, 10);
}

// The documented parse: the failure text ("" for none) and the fields as
// they stand after it.
std::string modelParse(const std::string& text, Fields& f)
{
    if (text.empty())
        return "HvDate cannot be constructed from NULL string";
    Tokens tokens(text);
    std::string token;
    int day = tokens.next(",", token) ? position(kDays, 7, token) : -1;
    if (day < 0)
        return "Invalid Day of Week in HvDate";
    f.weekday = day;
    if (!tokens.next(" ", token) || number(token) == -1)
        return "Invalid Integer Day of Month in HvDate";
    f.date = static_cast<int>(number(token));
    int month = tokens.next(" ", token) ? position(kMonths, 12, token) : -1;
    if (month < 0)
        return "Invalid Month in HvDate";
    f.month = month;
    if (!tokens.next(" ", token))
        return "Invalid Year in HvDate";
    long year = number(token);
    f.year = static_cast<int>(year > 1900 ? year - 1900 : (year < 50 ? year + 100 : year));
    if (!tokens.next(":", token))
        return "Invalid Hour Integer in HvDate";
    f.hour = static_cast<int>(number(token));
    if (!tokens.next(":", token))
        return "Invalid Minute Integer in HvDate";
    f.minute = static_cast<int>(number(token));
    if (!tokens.next(" ", token))
        return "Invalid Second Integer in Date";
    f.second = static_cast<int>(number(token));
    if (!tokens.next(" ", token) || token != "GMT")
        return "Invalid Time Zone in Date";
    return "";
}

} // namespace

// ---------------------------------------------------------------- parsing

TEST(HvDate, ParsesTheRfc1123Example)
{
    HvDate date(kExample);
    EXPECT_EQ((Fields{0, 6, 10, 94, 8, 49, 37, "GMT"}), fieldsOf(date));
    EXPECT_STREQ("Sun", date.getDayOfWeek());
    EXPECT_STREQ("Nov", date.getMonthOfYear());
}

TEST(HvDate, FormatsTheExampleBackToTheSameText)
{
    EXPECT_EQ(kExample, formatted(HvDate(kExample)));
}

TEST(HvDate, TwoDigitYearsBelowFiftyAreThisCentury)
{
    EXPECT_EQ(109, HvDate("Sun, 06 Nov 09 08:49:37 GMT").getYear());
    EXPECT_EQ(100, HvDate("Sun, 06 Nov 00 08:49:37 GMT").getYear());
    EXPECT_EQ(149, HvDate("Sun, 06 Nov 49 08:49:37 GMT").getYear());
}

TEST(HvDate, TwoDigitYearsFromFiftyAreTheLastCentury)
{
    EXPECT_EQ(99, HvDate("Sun, 06 Nov 99 08:49:37 GMT").getYear());
    EXPECT_EQ(50, HvDate("Sun, 06 Nov 50 08:49:37 GMT").getYear());
}

TEST(HvDate, FourDigitYearsFrom1901AreStoredSince1900)
{
    EXPECT_EQ(99, HvDate("Sun, 06 Nov 1999 08:49:37 GMT").getYear());
    EXPECT_EQ(1, HvDate("Sun, 06 Nov 1901 08:49:37 GMT").getYear());
    EXPECT_EQ(8099, HvDate("Sun, 06 Nov 9999 08:49:37 GMT").getYear());
}

TEST(HvDate, YearsFromFiftyTo1900AreStoredAsTheyAre)
{
    HvDate date("Sun, 06 Nov 1900 08:49:37 GMT");
    EXPECT_EQ(1900, date.getYear());
    // Stored as years since 1900, it formats as 3800.
    EXPECT_EQ("Sun, 06 Nov 3800 08:49:37 GMT", formatted(date));
    EXPECT_EQ(500, HvDate("Sun, 06 Nov 500 08:49:37 GMT").getYear());
}

TEST(HvDate, DatesAtTheEndsOfTheFourDigitRangeRoundTrip)
{
    const char* first = "Tue, 01 Jan 1901 00:00:00 GMT";
    const char* last = "Fri, 31 Dec 9999 23:59:59 GMT";
    EXPECT_EQ(first, formatted(HvDate(first)));
    EXPECT_EQ(last, formatted(HvDate(last)));
    EXPECT_EQ((Fields{2, 1, 0, 1, 0, 0, 0, "GMT"}), fieldsOf(HvDate(first)));
    EXPECT_EQ((Fields{5, 31, 11, 8099, 23, 59, 59, "GMT"}), fieldsOf(HvDate(last)));
}

TEST(HvDate, DatesAtTheEndsOfTheTwoDigitRangeFormatWithFourDigits)
{
    EXPECT_EQ("Sat, 01 Jan 2000 00:00:00 GMT", formatted(HvDate("Sat, 01 Jan 00 00:00:00 GMT")));
    EXPECT_EQ("Fri, 31 Dec 2049 23:59:59 GMT", formatted(HvDate("Fri, 31 Dec 49 23:59:59 GMT")));
    EXPECT_EQ("Sun, 01 Jan 1950 00:00:00 GMT", formatted(HvDate("Sun, 01 Jan 50 00:00:00 GMT")));
    EXPECT_EQ("Fri, 31 Dec 1999 23:59:59 GMT", formatted(HvDate("Fri, 31 Dec 99 23:59:59 GMT")));
}

TEST(HvDate, EveryMonthAndWeekdayRoundTripsThroughText)
{
    for (int w = 0; w < 7; ++w) {
        for (int m = 0; m < 12; ++m) {
            char text[40];
            std::snprintf(text, sizeof text, "%s, 09 %s 2024 07:08:09 GMT", kDays[w], kMonths[m]);
            HvDate date(text);
            EXPECT_EQ((Fields{w, 9, m, 124, 7, 8, 9, "GMT"}), fieldsOf(date)) << text;
            EXPECT_EQ(text, formatted(date));
        }
    }
}

TEST(HvDate, EveryDayOfALeapYearRoundTripsThroughText)
{
    HvDate day("Mon, 01 Jan 2024 12:00:00 GMT");
    int monthsSeen = 0;
    int weekdaysSeen = 0;
    for (int i = 0; i < 366; ++i) {
        std::string text = formatted(day);
        HvDate parsed(text.c_str());
        EXPECT_EQ(fieldsOf(day), fieldsOf(parsed)) << text;
        EXPECT_EQ(text, formatted(parsed));
        monthsSeen |= 1 << day.getMonth();
        weekdaysSeen |= 1 << day.getTime().tm_wday;
        day.addSeconds(86400);
    }
    EXPECT_EQ(0xFFF, monthsSeen);
    EXPECT_EQ(0x7F, weekdaysSeen);
    EXPECT_EQ("Wed, 01 Jan 2025 12:00:00 GMT", formatted(day));
}

TEST(HvDate, NumbersAreNotRangeTested)
{
    HvDate date("Sun, 99 Nov 1994 25:61:99 GMT");
    EXPECT_EQ((Fields{0, 99, 10, 94, 25, 61, 99, "GMT"}), fieldsOf(date));
    EXPECT_EQ("Sun, 99 Nov 1994 25:61:99 GMT", formatted(date));
}

TEST(HvDate, TextAfterANumberIsIgnored)
{
    HvDate date("Sun, 06th Nov 1994AD 08h:49m:37s GMT");
    EXPECT_EQ((Fields{0, 6, 10, 94, 8, 49, 37, "GMT"}), fieldsOf(date));
}

TEST(HvDate, RepeatedSeparatorsAreSkipped)
{
    HvDate date("Sun,  06   Nov  1994  08::49:37   GMT  trailing");
    EXPECT_EQ((Fields{0, 6, 10, 94, 8, 49, 37, "GMT"}), fieldsOf(date));
}

TEST(HvDate, ParsesTextsLongerThanAnyStackCopy)
{
    std::string text = std::string(kExample) + " " + std::string(10000, 'x');
    std::unique_ptr<char[]> copy = exactCopy(text);
    HvDate date(copy.get());
    EXPECT_EQ((Fields{0, 6, 10, 94, 8, 49, 37, "GMT"}), fieldsOf(date));
    HvDate other;
    std::unique_ptr<char[]> longDay = exactCopy("Sun, " + std::string(10000, '9'));
    EXPECT_EQ("Invalid Month in HvDate", parseFailure(other, longDay.get()));
}

// ---------------------------------------------------------------- parse failures

TEST(HvDate, EmptyOrNullTextIsRefused)
{
    hvtest::expectPlainHvException([] { HvDate date(""); }, "HvDate cannot be constructed from NULL string");
    hvtest::expectPlainHvException([] { HvDate date(nullptr); }, "HvDate cannot be constructed from NULL string");
}

TEST(HvDate, UnknownDayNameIsRefused)
{
    hvtest::expectPlainHvException([] { HvDate date("Xyz, 06 Nov 1994 08:49:37 GMT"); },
                                   "Invalid Day of Week in HvDate");
    HvDate date;
    EXPECT_EQ("Invalid Day of Week in HvDate", parseFailure(date, "sun, 06 Nov 1994 08:49:37 GMT"));
    EXPECT_EQ("Invalid Day of Week in HvDate", parseFailure(date, ",,,"));
    EXPECT_EQ("Invalid Day of Week in HvDate", parseFailure(date, "Sunday, 06 Nov 1994 08:49:37 GMT"));
}

TEST(HvDate, DayOfMonthMinusOneIsRefused)
{
    HvDate date;
    EXPECT_EQ("Invalid Integer Day of Month in HvDate", parseFailure(date, "Sun, -1 Nov 1994 08:49:37 GMT"));
}

TEST(HvDate, MissingDayOfMonthIsRefusedAsInvalid)
{
    HvDate date;
    EXPECT_EQ("Invalid Integer Day of Month in HvDate", parseFailure(date, "Sun,"));
    EXPECT_EQ("Invalid Integer Day of Month in HvDate", parseFailure(date, "Sun,   "));
    EXPECT_EQ("Invalid Integer Day of Month in HvDate", parseFailure(date, "Sun"));
}

TEST(HvDate, UnknownMonthIsRefused)
{
    HvDate date;
    EXPECT_EQ("Invalid Month in HvDate", parseFailure(date, "Sun, 06 Foo 1994 08:49:37 GMT"));
    EXPECT_EQ("Invalid Month in HvDate", parseFailure(date, "Sun, 06 nov 1994 08:49:37 GMT"));
    EXPECT_EQ("Invalid Month in HvDate", parseFailure(date, "Sun, 06"));
}

TEST(HvDate, MissingYearIsRefused)
{
    HvDate date;
    EXPECT_EQ("Invalid Year in HvDate", parseFailure(date, "Sun, 06 Nov"));
    EXPECT_EQ("Invalid Year in HvDate", parseFailure(date, "Sun, 06 Nov   "));
}

TEST(HvDate, MissingHourIsRefused)
{
    HvDate date;
    EXPECT_EQ("Invalid Hour Integer in HvDate", parseFailure(date, "Sun, 06 Nov 1994"));
    EXPECT_EQ("Invalid Hour Integer in HvDate", parseFailure(date, "Sun, 06 Nov 1994 :::"));
}

TEST(HvDate, MissingMinuteIsRefused)
{
    HvDate date;
    EXPECT_EQ("Invalid Minute Integer in HvDate", parseFailure(date, "Sun, 06 Nov 1994 08"));
    EXPECT_EQ("Invalid Minute Integer in HvDate", parseFailure(date, "Sun, 06 Nov 1994 08 49 37 GMT"));
}

TEST(HvDate, MissingSecondIsRefusedNamingDate)
{
    HvDate date;
    EXPECT_EQ("Invalid Second Integer in Date", parseFailure(date, "Sun, 06 Nov 1994 08:49"));
    EXPECT_EQ("Invalid Second Integer in Date", parseFailure(date, "Sun, 06 Nov 1994 08:49:"));
}

TEST(HvDate, ZoneOtherThanGmtIsRefusedNamingDate)
{
    HvDate date;
    EXPECT_EQ("Invalid Time Zone in Date", parseFailure(date, "Sun, 06 Nov 1994 08:49:37 UTC"));
    EXPECT_EQ("Invalid Time Zone in Date", parseFailure(date, "Sun, 06 Nov 1994 08:49:37 gmt"));
    EXPECT_EQ("Invalid Time Zone in Date", parseFailure(date, "Sun, 06 Nov 1994 08:49:37 GMT+1"));
    EXPECT_EQ("Invalid Time Zone in Date", parseFailure(date, "Sun, 06 Nov 1994 08:49:37"));
    hvtest::expectPlainHvException([] { HvDate d("Sun, 06 Nov 1994 08:49:37 UTC"); }, "Invalid Time Zone in Date");
}

TEST(HvDate, FailedParseKeepsTheFieldsStoredBeforeIt)
{
    HvDate date("Sat, 02 Jan 2021 03:04:05 GMT");
    EXPECT_EQ("Invalid Time Zone in Date", parseFailure(date, "Sun, 06 Nov 1994 08:49:37 UTC"));
    EXPECT_EQ((Fields{0, 6, 10, 94, 8, 49, 37, "GMT"}), fieldsOf(date));

    HvDate other("Sat, 02 Jan 2021 03:04:05 GMT");
    EXPECT_EQ("Invalid Month in HvDate", parseFailure(other, "Mon, 07 Foo 1994 08:49:37 GMT"));
    EXPECT_EQ((Fields{1, 7, 0, 121, 3, 4, 5, "GMT"}), fieldsOf(other));

    HvDate third("Sat, 02 Jan 2021 03:04:05 GMT");
    third.setZone("ABC");
    EXPECT_EQ("Invalid Day of Week in HvDate", parseFailure(third, "Xyz, 06 Nov 1994 08:49:37 GMT"));
    EXPECT_EQ((Fields{6, 2, 0, 121, 3, 4, 5, "ABC"}), fieldsOf(third));
}

TEST(HvDate, SuccessfulParseSetsTheZoneToGmt)
{
    HvDate date;
    date.setZone("ABC");
    date.constructHvDate(kExample);
    EXPECT_STREQ("GMT", date.getZone());
}

// Arbitrary text never makes the parser read outside it (the address
// sanitizer build checks that); each ends in the documented fields or text.
TEST(HvDate, RandomTextsParseAsDocumentedWithinTheirBuffers)
{
    std::mt19937 random(1123);
    const char* pieces[] = {"Sun", "Mon", "Sat", "Xyz", "Jan", "Nov", "Dec", "GMT", "UTC", ",", " ", ":", "-1",
                            "06", "1994", "09", "99", "1900", "08", "49", "37", "", "  ", "::", ",,"};
    const HvDate base("Sat, 02 Jan 2021 03:04:05 GMT");
    int mismatches = 0;
    for (int round = 0; round < 100000; ++round) {
        std::string text;
        switch (random() % 4) {
        case 0: { // a well-formed date
            char buffer[64];
            std::snprintf(buffer, sizeof buffer, "%s, %02u %s %u %02u:%02u:%02u GMT", kDays[random() % 7],
                          static_cast<unsigned>(random() % 32), kMonths[random() % 12],
                          static_cast<unsigned>(random() % 2 ? random() % 100 : 1850 + random() % 300),
                          static_cast<unsigned>(random() % 24), static_cast<unsigned>(random() % 60),
                          static_cast<unsigned>(random() % 60));
            text = buffer;
            break;
        }
        case 1: { // a well-formed date with a few characters changed, cut or added
            text = kExample;
            for (int edits = 1 + random() % 3; edits > 0 && !text.empty(); --edits) {
                std::size_t at = random() % text.size();
                char c = static_cast<char>(1 + random() % 255);
                switch (random() % 4) {
                case 0: text.erase(at, 1); break;
                case 1: text.insert(at, 1, c); break;
                case 2: text[at] = c; break;
                default: text.resize(at); break;
                }
            }
            break;
        }
        case 2: // pieces of dates in any order
            for (int n = random() % 12; n > 0; --n)
                text += pieces[random() % (sizeof pieces / sizeof pieces[0])];
            break;
        default: // any bytes
            for (int n = random() % 48; n > 0; --n)
                text += static_cast<char>(1 + random() % 255);
            break;
        }
        if (random() % 16 == 0)
            text += std::string(64 + random() % 64, static_cast<char>(1 + random() % 255));

        Fields expected = fieldsOf(base);
        std::string expectedFailure = modelParse(text, expected);
        HvDate date = base;
        std::unique_ptr<char[]> copy = exactCopy(text);
        std::string failure = parseFailure(date, copy.get());
        if ((failure != expectedFailure || !(fieldsOf(date) == expected)) && ++mismatches <= 5)
            ADD_FAILURE() << "text \"" << text << "\" (round " << round << "): \"" << failure << "\" "
                          << fieldsOf(date) << ", expected \"" << expectedFailure << "\" " << expected;
    }
    EXPECT_EQ(0, mismatches);
}

// ---------------------------------------------------------------- formatting

TEST(HvDate, OutOfRangeMonthFormatsWithoutAName)
{
    HvDate date(kExample);
    date.setMonth(12);
    EXPECT_EQ(nullptr, date.getMonthOfYear());
    EXPECT_EQ("Sun, 06  1994 08:49:37 GMT", formatted(date));
    date.setMonthOfYear("Foo");
    EXPECT_EQ(-1, date.getMonth());
    EXPECT_EQ("Sun, 06  1994 08:49:37 GMT", formatted(date));
}

TEST(HvDate, OversizedFieldsAreCutToTheThirtyByteBuffer)
{
    HvDate date(kExample);
    date.setYear(123456);
    char buffer[40];
    std::memset(buffer, '#', sizeof buffer);
    EXPECT_EQ(buffer, date.getHvDate(buffer));
    EXPECT_STREQ("Sun, 06 Nov 125356 08:49:37 G", buffer);
    for (std::size_t i = 30; i < sizeof buffer; ++i)
        EXPECT_EQ('#', buffer[i]) << "byte " << i << " was written";

    HvDate extreme(kExample);
    extreme.setYear(INT_MAX);
    extreme.setDate(INT_MIN);
    extreme.setHour(INT_MIN);
    std::memset(buffer, '#', sizeof buffer);
    extreme.getHvDate(buffer);
    EXPECT_STREQ("Sun, -2147483648 Nov 21474855", buffer);
    EXPECT_EQ('#', buffer[30]);
}

TEST(HvDate, FormatsSmallNumbersWithLeadingZerosAndTheYearInFourPlaces)
{
    HvDate date("Mon, 01 Feb 1901 00:00:00 GMT");
    // -3850 + 2001 is the year field -1849: the year 51.
    date.setYear(-3850);
    EXPECT_EQ("Mon, 01 Feb   51 00:00:00 GMT", formatted(date));
}

TEST(HvDate, GetHvDateOfNullIsNull)
{
    HvDate date(kExample);
    EXPECT_EQ(nullptr, date.getHvDate(nullptr));
}

// ---------------------------------------------------------------- names

TEST(HvDate, NamesTablesHoldTheRfc1123Names)
{
    for (int i = 0; i < 7; ++i)
        EXPECT_STREQ(kDays[i], HvDate::WKDAY[i]);
    for (int i = 0; i < 12; ++i)
        EXPECT_STREQ(kMonths[i], HvDate::MONTH[i]);
}

TEST(HvDate, NumbersMapToNamesAndOthersToNull)
{
    for (int i = 0; i < 7; ++i)
        EXPECT_STREQ(kDays[i], HvDate::getDay(i));
    for (int i = 0; i < 12; ++i)
        EXPECT_STREQ(kMonths[i], HvDate::getMonth(i));
    EXPECT_EQ(nullptr, HvDate::getDay(7));
    EXPECT_EQ(nullptr, HvDate::getDay(-1));
    EXPECT_EQ(nullptr, HvDate::getMonth(12));
    EXPECT_EQ(nullptr, HvDate::getMonth(-1));
}

TEST(HvDate, NamesMapToNumbersExactlyAndCaseSensitively)
{
    for (int i = 0; i < 7; ++i)
        EXPECT_EQ(i, HvDate::getDay(kDays[i]));
    for (int i = 0; i < 12; ++i)
        EXPECT_EQ(i, HvDate::getMonth(kMonths[i]));
    EXPECT_EQ(-1, HvDate::getDay("sun"));
    EXPECT_EQ(-1, HvDate::getDay("Sunday"));
    EXPECT_EQ(-1, HvDate::getDay(""));
    EXPECT_EQ(-1, HvDate::getDay(static_cast<const char*>(nullptr)));
    EXPECT_EQ(-1, HvDate::getMonth("JAN"));
    EXPECT_EQ(-1, HvDate::getMonth("Ja"));
    EXPECT_EQ(-1, HvDate::getMonth(static_cast<const char*>(nullptr)));
}

// ---------------------------------------------------------------- setters

TEST(HvDate, SettersStoreValuesUnchecked)
{
    HvDate date(kExample);
    date.setMonth(3);
    date.setDate(45);
    date.setHour(-2);
    date.setMinute(77);
    date.setSecond(100);
    EXPECT_EQ(3, date.getMonth());
    EXPECT_EQ(45, date.getDate());
    EXPECT_EQ(-2, date.getHour());
    EXPECT_EQ(77, date.getMinute());
    EXPECT_EQ(100, date.getSecond());
    // Thirty characters: the last one does not fit the buffer.
    EXPECT_EQ("Sun, 45 Apr 1994 -2:77:100 GM", formatted(date));
}

TEST(HvDate, SetMonthOfYearStoresTheNamesNumber)
{
    HvDate date(kExample);
    date.setMonthOfYear("Dec");
    EXPECT_EQ(11, date.getMonth());
    date.setMonthOfYear("dec");
    EXPECT_EQ(-1, date.getMonth());
}

TEST(HvDate, SetYearStoresAFullYearNumber)
{
    HvDate date(kExample);
    date.setYear(9);
    EXPECT_EQ(2010, date.getYear());
    date.setYear(49);
    EXPECT_EQ(2050, date.getYear());
    date.setYear(50);
    EXPECT_EQ(1950, date.getYear());
    date.setYear(99);
    EXPECT_EQ(1999, date.getYear());
    date.setYear(100);
    EXPECT_EQ(100, date.getYear());
    date.setYear(2024);
    EXPECT_EQ(2024, date.getYear());
    date.setYear(-5);
    EXPECT_EQ(1996, date.getYear());
}

TEST(HvDate, SetZoneKeepsThreeCharacters)
{
    HvDate date(kExample);
    date.setZone("UTC");
    EXPECT_STREQ("UTC", date.getZone());
    EXPECT_EQ("Sun, 06 Nov 1994 08:49:37 UTC", formatted(date));
    date.setZone("LONGZONE");
    EXPECT_STREQ("LON", date.getZone());
    date.setZone("Z");
    EXPECT_STREQ("Z", date.getZone());
    date.setZone(nullptr);
    EXPECT_STREQ("Z", date.getZone());
    date.setZone("");
    EXPECT_STREQ("", date.getZone());
    EXPECT_EQ("Sun, 06 Nov 1994 08:49:37 ", formatted(date));
}

// ---------------------------------------------------------------- the clock

TEST(HvDate, InitTakesTheLocalTimeWithTheGmtLabel)
{
    for (int attempt = 0; attempt < 5; ++attempt) {
        std::time_t before = std::time(nullptr);
        HvDate date;
        std::time_t after = std::time(nullptr);
        if (before != after)
            continue;
        struct tm local;
        ASSERT_NE(nullptr, localtime_r(&before, &local));
        EXPECT_EQ(local.tm_sec, date.getSecond());
        EXPECT_EQ(local.tm_min, date.getMinute());
        EXPECT_EQ(local.tm_hour, date.getHour());
        EXPECT_EQ(local.tm_mday, date.getDate());
        EXPECT_EQ(local.tm_mon, date.getMonth());
        EXPECT_EQ(local.tm_year, date.getYear());
        EXPECT_EQ(local.tm_wday, date.getTime().tm_wday);
        EXPECT_EQ(local.tm_yday, date.getTime().tm_yday);
        EXPECT_EQ(local.tm_isdst, date.getTime().tm_isdst);
        EXPECT_EQ(local.tm_gmtoff, date.getTime().tm_gmtoff);
        EXPECT_STREQ("GMT", date.getZone());
        return;
    }
    FAIL() << "the clock never stayed within one second";
}

TEST(HvDate, InitLabelsTheDateGmtEvenAfterAnotherZone)
{
    HvDate date(kExample);
    date.setZone("CET");
    date.init();
    EXPECT_STREQ("GMT", date.getZone());
}

TEST(HvDate, AddSecondsMovesEveryFieldButTheZone)
{
    HvDate date("Fri, 31 Dec 1999 23:59:59 GMT");
    date.setZone("ABC");
    date.addSeconds(1);
    EXPECT_EQ((Fields{6, 1, 0, 100, 0, 0, 0, "ABC"}), fieldsOf(date));
    EXPECT_EQ(0, date.getTime().tm_yday);
    date.addSeconds(86400 * 59);
    EXPECT_EQ("Tue, 29 Feb 2000 00:00:00 ABC", formatted(date));
    EXPECT_EQ(59, date.getTime().tm_yday);
}

TEST(HvDate, SubtractSecondsGoesBack)
{
    HvDate date("Sat, 01 Jan 2000 00:00:00 GMT");
    date.subtractSeconds(1);
    EXPECT_EQ("Fri, 31 Dec 1999 23:59:59 GMT", formatted(date));
    date.subtractSeconds(-3601);
    EXPECT_EQ("Sat, 01 Jan 2000 01:00:00 GMT", formatted(date));
}

TEST(HvDate, ArithmeticNormalisesOutOfRangeFields)
{
    HvDate date("Sun, 06 Nov 1994 25:61:99 GMT");
    date.addSeconds(0);
    EXPECT_EQ("Mon, 07 Nov 1994 02:02:39 GMT", formatted(date));
    date.setDate(31);
    date.addSeconds(0);
    EXPECT_EQ("Thu, 01 Dec 1994 02:02:39 GMT", formatted(date));
}

TEST(HvDate, DeltaOfADateAMinuteAheadIsAboutSixty)
{
    HvDate date;
    date.addSeconds(60);
    long delta = date.getDelta();
    EXPECT_GE(delta, 58);
    EXPECT_LE(delta, 60);
    EXPECT_TRUE(date.before());
    EXPECT_FALSE(date.after());
    EXPECT_FALSE(date.equals());
}

TEST(HvDate, PastDatesHaveNegativeDeltasAndLieBeforeNow)
{
    HvDate date;
    date.subtractSeconds(120);
    long delta = date.getDelta();
    EXPECT_GE(delta, -122);
    EXPECT_LE(delta, -120);
    EXPECT_TRUE(date.after());
    EXPECT_FALSE(date.before());
    EXPECT_FALSE(date.equals());
    EXPECT_TRUE(HvDate(kExample).after());
}

TEST(HvDate, TheCurrentTimeEqualsNow)
{
    for (int attempt = 0; attempt < 5; ++attempt) {
        std::time_t before = std::time(nullptr);
        HvDate date;
        bool equal = date.equals();
        bool past = date.after();
        bool future = date.before();
        long delta = date.getDelta();
        if (std::time(nullptr) != before)
            continue;
        EXPECT_TRUE(equal);
        EXPECT_FALSE(past);
        EXPECT_FALSE(future);
        EXPECT_EQ(0, delta);
        return;
    }
    FAIL() << "the clock never stayed within one second";
}
