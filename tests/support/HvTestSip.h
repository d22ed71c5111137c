// Small readers shared by the tests of the SIP programs: header values of a
// message in text form, numbers out of the load generator's JSON, and the
// per-call cost ceiling of the parsing tests.
#ifndef HVUTIL_TESTS_HVTESTSIP_H
#define HVUTIL_TESTS_HVTESTSIP_H

#include <regex>
#include <string>

namespace hvtest {

// The value of header line `name` of `message` ("" when absent).
inline std::string sipHeader(const std::string& message, const std::string& name)
{
    const std::string key = "\r\n" + name + ": ";
    std::string::size_type start = message.find(key);
    if (start == std::string::npos)
        return std::string();
    start += key.size();
    return message.substr(start, message.find("\r\n", start) - start);
}

// The value of a numeric JSON key ("sent", "timeout", ...), -1 when absent.
inline double jsonNumber(const std::string& json, const std::string& key)
{
    std::smatch match;
    if (!std::regex_search(json, match, std::regex("\"" + key + "\":(-?[0-9]+(\\.[0-9]+)?)")))
        return -1;
    return std::stod(match[1].str());
}

// The sanitizers slow every call tens of times over; the ceiling only has to
// catch a gross slowdown in the plain build.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kCostRounds = 2000;
constexpr double kCostCeilingUs = 10000.0;
#else
constexpr int kCostRounds = 20000;
constexpr double kCostCeilingUs = 1000.0;
#endif

} // namespace hvtest

#endif
