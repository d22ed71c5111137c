// A broken-down calendar time with a zone label, read from and written as
// the fixed date text of RFC 1123 ("Sun, 06 Nov 1994 08:49:37 GMT"), with
// comparisons against the clock and second arithmetic in local time.
#ifndef HVUTIL_HVDATE_H
#define HVUTIL_HVDATE_H

#include <ctime>

class HvDate {
public:
    // Month and weekday names, January and Sunday first.
    static const char* const MONTH[12];
    static const char* const WKDAY[7];

    // The current time (see init()).
    HvDate();
    // All fields 0 and zone "GMT", then constructHvDate(text); throws as it does.
    explicit HvDate(const char* text);

    // The current local time from time() and localtime_r, with the zone
    // label "GMT" although the fields are local.
    void init();
    // Parses "Www, dd Mmm yyyy hh:mm:ss GMT"; throws HvException with the
    // text of the first step that fails, keeping the fields stored before it.
    void constructHvDate(const char* text);
    // Writes the date text into buffer (at least 30 bytes) and returns it.
    // Dates whose fields do not fit (five-digit years, for one) are cut to
    // 29 characters.
    char* getHvDate(char* buffer) const;

    int getDate() const { return m_time.tm_mday; }
    // Years since 1900, as stored.
    int getYear() const { return m_time.tm_year; }
    int getHour() const { return m_time.tm_hour; }
    int getMinute() const { return m_time.tm_min; }
    int getSecond() const { return m_time.tm_sec; }
    // 0 to 11 when valid.
    int getMonth() const { return m_time.tm_mon; }
    const char* getZone() const { return m_zone; }
    // The names of the stored weekday and month; null when out of range.
    const char* getDayOfWeek() const { return getDay(m_time.tm_wday); }
    const char* getMonthOfYear() const { return getMonth(m_time.tm_mon); }

    // Name of a weekday 0-6 or month 0-11; null for any other number.
    static const char* getDay(int day);
    static const char* getMonth(int month);
    // Number of an exactly spelled (case-sensitive) name; -1 when unknown or null.
    static int getDay(const char* name);
    static int getMonth(const char* name);

    // Store the value unchecked.
    void setMonth(int month) { m_time.tm_mon = month; }
    void setDate(int date) { m_time.tm_mday = date; }
    void setHour(int hour) { m_time.tm_hour = hour; }
    void setMinute(int minute) { m_time.tm_min = minute; }
    void setSecond(int second) { m_time.tm_sec = second; }
    // Stores the month's number, -1 when the name is unknown.
    void setMonthOfYear(const char* name) { m_time.tm_mon = getMonth(name); }
    // Takes up to three characters of the text; null leaves the zone alone.
    void setZone(const char* zone);
    // Stores year + 2001 below 50, year + 1900 for 50 to 99, else the year
    // itself: a full year number, unlike the years since 1900 kept elsewhere.
    void setYear(int year);

    // Moves the date by seconds through mktime and localtime_r, replacing
    // every calendar field (not the zone label). Nothing changes when the
    // result cannot be represented.
    void addSeconds(int seconds);
    void subtractSeconds(int seconds);

    // The fields read as local time (mktime) against time() now: the same
    // second; the date is past; the date is to come.
    bool equals() const;
    bool after() const;
    bool before() const;
    // Seconds from now to the date, negative for past dates.
    long getDelta() const;

    // The calendar fields in the system's layout.
    const struct tm& getTime() const { return m_time; }

private:
    // mktime of a copy of the fields.
    std::time_t toTime() const;
    void moveBy(long seconds);

    struct tm m_time;
    char m_zone[4];
};

#endif
