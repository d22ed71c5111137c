#include <HvUtil/HvDate.h>
#include <HvUtil/HvException.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

const char* const HvDate::MONTH[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
const char* const HvDate::WKDAY[7] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};

namespace {

// Longest date text getHvDate() writes, without its NUL.
const int kDateTextMax = 29;

// Parse copies of texts up to this size stay on the stack.
const std::size_t kLocalCopy = 64;

int indexOf(const char* const* names, int count, const char* name)
{
    if (!name)
        return -1;
    for (int i = 0; i < count; ++i) {
        if (std::strcmp(names[i], name) == 0)
            return i;
    }
    return -1;
}

} // namespace

HvDate::HvDate()
    : m_time(), m_zone()
{
    init();
}

HvDate::HvDate(const char* text)
    : m_time(), m_zone("GMT")
{
    constructHvDate(text);
}

void HvDate::init()
{
    std::time_t now = std::time(nullptr);
    struct tm local;
    if (localtime_r(&now, &local))
        m_time = local;
    std::strcpy(m_zone, "GMT");
}

void HvDate::constructHvDate(const char* text)
{
    if (!text || !*text)
        HvException::sThrow("HvDate cannot be constructed from NULL string");

    // strtok_r cuts the text it walks: it works on a copy of any length.
    std::size_t length = std::strlen(text);
    char local[kLocalCopy];
    std::unique_ptr<char[]> heap;
    char* copy = local;
    if (length >= sizeof local) {
        heap.reset(new char[length + 1]);
        copy = heap.get();
    }
    std::memcpy(copy, text, length + 1);
    char* rest = nullptr;

    int day = getDay(strtok_r(copy, ",", &rest));
    if (day == -1)
        HvException::sThrow("Invalid Day of Week in HvDate");
    m_time.tm_wday = day;

    // A missing day of month is as invalid as the -1 that strtol may give.
    char* token = strtok_r(nullptr, " ", &rest);
    long date = token ? std::strtol(token, nullptr, 10) : -1;
    if (date == -1)
        HvException::sThrow("Invalid Integer Day of Month in HvDate");
    m_time.tm_mday = static_cast<int>(date);

    int month = getMonth(strtok_r(nullptr, " ", &rest));
    if (month == -1)
        HvException::sThrow("Invalid Month in HvDate");
    m_time.tm_mon = month;

    token = strtok_r(nullptr, " ", &rest);
    if (!token)
        HvException::sThrow("Invalid Year in HvDate");
    long year = std::strtol(token, nullptr, 10);
    // Four-digit years from 1901 on become years since 1900; 00-49 mean
    // 2000-2049; 50-1900 are kept, so 50-99 mean 1950-1999.
    if (year >= 1901)
        year -= 1900;
    else if (year < 50)
        year += 100;
    m_time.tm_year = static_cast<int>(year);

    token = strtok_r(nullptr, ":", &rest);
    if (!token)
        HvException::sThrow("Invalid Hour Integer in HvDate");
    m_time.tm_hour = static_cast<int>(std::strtol(token, nullptr, 10));

    token = strtok_r(nullptr, ":", &rest);
    if (!token)
        HvException::sThrow("Invalid Minute Integer in HvDate");
    m_time.tm_min = static_cast<int>(std::strtol(token, nullptr, 10));

    // The last two texts name "Date", not "HvDate"; callers match them as they are.
    token = strtok_r(nullptr, " ", &rest);
    if (!token)
        HvException::sThrow("Invalid Second Integer in Date");
    m_time.tm_sec = static_cast<int>(std::strtol(token, nullptr, 10));

    token = strtok_r(nullptr, " ", &rest);
    if (!token || std::strcmp(token, "GMT") != 0)
        HvException::sThrow("Invalid Time Zone in Date");
    std::strcpy(m_zone, "GMT");
}

char* HvDate::getHvDate(char* buffer) const
{
    if (!buffer)
        return nullptr;
    // Unchecked setters can make fields of any size: the text is built
    // apart and only what fits the caller's 30 bytes is handed over.
    char text[160];
    int n = 0;
    if (const char* day = getDay(m_time.tm_wday))
        n = std::snprintf(text, sizeof text, "%s, ", day);
    const char* month = getMonth(m_time.tm_mon);
    n += std::snprintf(text + n, sizeof text - n, "%02d %s %4lld %02d:%02d:%02d %s", m_time.tm_mday,
                       month ? month : "", static_cast<long long>(m_time.tm_year) + 1900, m_time.tm_hour,
                       m_time.tm_min, m_time.tm_sec, m_zone);
    if (n > kDateTextMax)
        n = kDateTextMax;
    std::memcpy(buffer, text, n);
    buffer[n] = '\0';
    return buffer;
}

const char* HvDate::getDay(int day)
{
    return (day >= 0 && day < 7) ? WKDAY[day] : nullptr;
}

const char* HvDate::getMonth(int month)
{
    return (month >= 0 && month < 12) ? MONTH[month] : nullptr;
}

int HvDate::getDay(const char* name)
{
    return indexOf(WKDAY, 7, name);
}

int HvDate::getMonth(const char* name)
{
    return indexOf(MONTH, 12, name);
}

void HvDate::setZone(const char* zone)
{
    if (!zone)
        return;
    // The label holds three characters; a longer text would overrun it.
    int i = 0;
    for (; i < 3 && zone[i]; ++i)
        m_zone[i] = zone[i];
    m_zone[i] = '\0';
}

void HvDate::setYear(int year)
{
    // Note: a full year number, unlike the years since 1900 stored by the
    // parser; callers rely on it as it is.
    if (year < 50)
        m_time.tm_year = year + 2001;
    else if (year <= 99)
        m_time.tm_year = year + 1900;
    else
        m_time.tm_year = year;
}

std::time_t HvDate::toTime() const
{
    struct tm fields = m_time;
    return std::mktime(&fields);
}

void HvDate::moveBy(long seconds)
{
    std::time_t moved = toTime() + seconds;
    struct tm local;
    if (localtime_r(&moved, &local))
        m_time = local;
}

void HvDate::addSeconds(int seconds)
{
    moveBy(seconds);
}

void HvDate::subtractSeconds(int seconds)
{
    moveBy(-static_cast<long>(seconds));
}

bool HvDate::equals() const
{
    return toTime() == std::time(nullptr);
}

bool HvDate::after() const
{
    return toTime() < std::time(nullptr);
}

bool HvDate::before() const
{
    return toTime() > std::time(nullptr);
}

long HvDate::getDelta() const
{
    return static_cast<long>(toTime() - std::time(nullptr));
}
