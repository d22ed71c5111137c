// HvDate: parse arbitrary text, format, parse again.
//
// Invariants: a text that does not parse fails with one of the parser's own
// messages; a text that parses formats into at most 29 characters and a NUL
// (into a buffer of exactly 30 bytes, so any overrun is caught), and that
// text parses again to the same fields: weekday, day, month, year, hour,
// minute, second and zone.
//
// Narrowed where the text format cannot carry the fields, as the parser's
// and formatter's rules make it:
// - a formatted text cut to 29 characters (fields wider than their columns,
//   five-digit years) has lost its zone;
// - a year field of 0 or below formats as a year number of 1900 or less,
//   which the parser reads as a two-digit or pre-1901 year, not back;
// - a day of month whose 32-bit field is -1 (strtol gave another value,
//   such as 4294967295) formats as "-1", which the parser refuses.
// The constructor takes a NUL-terminated text: the input is cut at its
// first NUL.
#include <HvUtil/HvDate.h>

#include <HvUtil/HvException.h>

#include "HvFuzzCheck.h"

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

namespace {

const char* const kMessages[] = {"HvDate cannot be constructed from NULL string",
                                 "Invalid Day of Week in HvDate",
                                 "Invalid Integer Day of Month in HvDate",
                                 "Invalid Month in HvDate",
                                 "Invalid Year in HvDate",
                                 "Invalid Hour Integer in HvDate",
                                 "Invalid Minute Integer in HvDate",
                                 "Invalid Second Integer in Date",
                                 "Invalid Time Zone in Date"};

bool isParserMessage(const char* text)
{
    for (const char* message : kMessages)
        if (std::strcmp(text, message) == 0)
            return true;
    return false;
}

std::string fieldsOf(const HvDate& date)
{
    const struct tm& t = date.getTime();
    return std::to_string(t.tm_wday) + " " + std::to_string(t.tm_mday) + " " + std::to_string(t.tm_mon) + " " +
           std::to_string(t.tm_year) + " " + std::to_string(t.tm_hour) + ":" + std::to_string(t.tm_min) + ":" +
           std::to_string(t.tm_sec) + " " + date.getZone();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), strnlen(reinterpret_cast<const char*>(data), size));
    std::unique_ptr<HvDate> date;
    try {
        date.reset(new HvDate(text.c_str()));
    } catch (const HvHandle<HvException>& e) {
        HV_FUZZ_CHECK(isParserMessage(e->getMessage().c_str()), hvfuzz::quoted(e->getMessage().c_str()));
        return 0;
    }

    // Exactly the 30 bytes callers are asked for, on the heap so that the
    // address checker sees a write past them.
    std::unique_ptr<char[]> buffer(new char[30]);
    HV_FUZZ_CHECK(date->getHvDate(buffer.get()) == buffer.get(), "getHvDate() returned another buffer");
    const std::string formatted(buffer.get(), strnlen(buffer.get(), 30));
    HV_FUZZ_CHECK(formatted.size() <= 29, "unterminated date text");

    const bool cut = formatted.size() < 4 || formatted.compare(formatted.size() - 4, 4, " GMT") != 0;
    const bool lossy = cut || date->getYear() <= 0 || date->getDate() == -1;
    try {
        HvDate again(formatted.c_str());
        if (!lossy)
            HV_FUZZ_CHECK(fieldsOf(again) == fieldsOf(*date), hvfuzz::quoted(text) + " gives " + fieldsOf(*date) +
                                                                  ", formatted " + hvfuzz::quoted(formatted) +
                                                                  " gives " + fieldsOf(again));
    } catch (const HvHandle<HvException>& e) {
        HV_FUZZ_CHECK(isParserMessage(e->getMessage().c_str()), hvfuzz::quoted(e->getMessage().c_str()));
        HV_FUZZ_CHECK(lossy, hvfuzz::quoted(text) + " formatted as " + hvfuzz::quoted(formatted) +
                                 " does not parse: " + e->getMessage().c_str());
    }
    return 0;
}
