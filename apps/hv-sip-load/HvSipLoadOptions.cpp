#include "HvSipLoadOptions.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace {

// Whole numbers only: strtoul alone would take signs, blanks and "0x".
bool parseWhole(const std::string& text, unsigned long minimum, unsigned long maximum, unsigned long& value)
{
    if (text.empty() || text.size() > 12)
        return false;
    unsigned long result = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return false;
        result = result * 10 + static_cast<unsigned long>(c - '0');
    }
    if (result < minimum || result > maximum)
        return false;
    value = result;
    return true;
}

// A finite decimal number in (minimumExclusive, maximum]; no hexadecimal,
// infinity or NaN, which strtod would otherwise accept.
bool parseDecimal(const std::string& text, double minimumExclusive, double maximum, double& value)
{
    if (text.empty() || text.find_first_not_of("0123456789.") != std::string::npos)
        return false;
    errno = 0;
    char* end = nullptr;
    double result = std::strtod(text.c_str(), &end);
    if (errno != 0 || end != text.c_str() + text.size() || !std::isfinite(result))
        return false;
    if (result <= minimumExclusive || result > maximum)
        return false;
    value = result;
    return true;
}

std::string invalid(const char* option, const std::string& value, const char* expected)
{
    return std::string("invalid ") + option + " '" + value + "': expected " + expected;
}

} // namespace

const char* HvSipLoadOptions::sUsage()
{
    return "Usage: hv-sip-load [options]\n"
           "Sends SIP OPTIONS requests to a target and reports calls/s, failures and latency.\n"
           "\n"
           "  --target HOST:PORT   where to send (default 127.0.0.1:5060); HOST a dotted quad or a name\n"
           "  --transport udp|tcp  transport (default udp)\n"
           "  --connections N      TCP connections, requests spread round robin (default 1)\n"
           "  --concurrency N      closed loop: N transactions in flight (default 10)\n"
           "  --rate R             open loop: R new transactions per second (not with --concurrency)\n"
           "  --duration S         seconds of sending (default 10)\n"
           "  --count N            total transactions (not with --duration)\n"
           "  --timeout MS         per-transaction time-out (default 32000)\n"
           "  --t1 MS              RFC 3261 T1 for UDP retransmission (default 500)\n"
           "  --no-retransmit      no UDP retransmissions\n"
           "  --json               one JSON object on stdout instead of the table\n"
           "  --help               this text\n"
           "  --version            the program's version\n"
           "\n"
           "Exit status: 0 when every transaction succeeded, 1 when any failed, 2 on a usage error.\n";
}

HvSipLoadOptions::Action HvSipLoadOptions::parse(int argc, const char* const* argv)
{
    error.clear();
    bool rateGiven = false;
    bool concurrencyGiven = false;
    bool durationGiven = false;
    bool countGiven = false;

    for (int index = 1; index < argc; ++index) {
        std::string argument = argv[index] ? argv[index] : "";
        if (argument.compare(0, 2, "--") != 0 || argument.size() == 2) {
            error = "unexpected argument '" + argument + "'";
            return Action::Error;
        }
        std::string name = argument;
        std::string value;
        bool hasValue = false;
        std::string::size_type equals = argument.find('=');
        if (equals != std::string::npos) {
            name = argument.substr(0, equals);
            value = argument.substr(equals + 1);
            hasValue = true;
        }

        if (name == "--help" || name == "--version" || name == "--json" || name == "--no-retransmit") {
            if (hasValue) {
                error = "option " + name + " takes no value";
                return Action::Error;
            }
            if (name == "--help")
                return Action::Help;
            if (name == "--version")
                return Action::Version;
            if (name == "--json")
                json = true;
            else
                retransmit = false;
            continue;
        }

        static const char* const kValued[] = {"--target", "--transport", "--connections", "--concurrency",
                                              "--rate",   "--duration",  "--count",       "--timeout",
                                              "--t1"};
        bool known = false;
        for (const char* option : kValued)
            known = known || name == option;
        if (!known) {
            error = "unknown option '" + name + "'";
            return Action::Error;
        }
        if (!hasValue) {
            if (index + 1 >= argc || argv[index + 1] == nullptr) {
                error = "option " + name + " needs a value";
                return Action::Error;
            }
            value = argv[++index];
        }

        unsigned long whole = 0;
        double decimal = 0.0;
        if (name == "--target") {
            std::string::size_type colon = value.rfind(':');
            if (colon == std::string::npos || colon == 0 ||
                !parseWhole(value.substr(colon + 1), 1, 65535, whole)) {
                error = invalid("--target", value, "HOST:PORT with PORT from 1 to 65535");
                return Action::Error;
            }
            targetHost = value.substr(0, colon);
            targetPort = static_cast<unsigned int>(whole);
        } else if (name == "--transport") {
            if (value != "udp" && value != "tcp") {
                error = invalid("--transport", value, "udp or tcp");
                return Action::Error;
            }
            tcp = value == "tcp";
        } else if (name == "--connections") {
            if (!parseWhole(value, 1, 1000, whole)) {
                error = invalid("--connections", value, "a whole number from 1 to 1000");
                return Action::Error;
            }
            connections = static_cast<unsigned int>(whole);
        } else if (name == "--concurrency") {
            if (!parseWhole(value, 1, 100000, whole)) {
                error = invalid("--concurrency", value, "a whole number from 1 to 100000");
                return Action::Error;
            }
            concurrency = static_cast<unsigned int>(whole);
            concurrencyGiven = true;
        } else if (name == "--rate") {
            if (!parseDecimal(value, 0.0, 1000000.0, decimal)) {
                error = invalid("--rate", value, "transactions per second above 0 and at most 1000000");
                return Action::Error;
            }
            rate = decimal;
            rateGiven = true;
        } else if (name == "--duration") {
            if (!parseDecimal(value, 0.0, 86400.0, decimal)) {
                error = invalid("--duration", value, "seconds above 0 and at most 86400");
                return Action::Error;
            }
            durationSeconds = decimal;
            durationGiven = true;
        } else if (name == "--count") {
            if (!parseWhole(value, 1, 1000000000ul, whole)) {
                error = invalid("--count", value, "a whole number from 1 to 1000000000");
                return Action::Error;
            }
            count = whole;
            countGiven = true;
        } else if (name == "--timeout") {
            if (!parseWhole(value, 1, 3600000, whole)) {
                error = invalid("--timeout", value, "milliseconds from 1 to 3600000");
                return Action::Error;
            }
            timeoutMs = static_cast<unsigned int>(whole);
        } else {
            if (!parseWhole(value, 1, 60000, whole)) {
                error = invalid("--t1", value, "milliseconds from 1 to 60000");
                return Action::Error;
            }
            t1Ms = static_cast<unsigned int>(whole);
        }
    }

    if (rateGiven && concurrencyGiven) {
        error = "--rate and --concurrency cannot be used together";
        return Action::Error;
    }
    if (durationGiven && countGiven) {
        error = "--duration and --count cannot be used together";
        return Action::Error;
    }
    openLoop = rateGiven;
    countMode = countGiven;
    return Action::Run;
}
