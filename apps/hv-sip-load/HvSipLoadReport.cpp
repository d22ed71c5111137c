#include "HvSipLoadReport.h"

#include "HvLatencyHistogram.h"

#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

namespace {

// Three decimals are finer than anything the clocks here resolve.
std::string decimal(double value)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.3f", value);
    return text;
}

// Whole values without decimals ("rate":0, "rate":500), others with three.
std::string number(double value)
{
    if (value >= 0.0 && value < 1e15 && value == static_cast<double>(static_cast<std::uint64_t>(value)))
        return std::to_string(static_cast<std::uint64_t>(value));
    return decimal(value);
}

} // namespace

double HvSipLoadReport::getCallsPerSecond() const
{
    return durationSeconds > 0.0 ? static_cast<double>(completed) / durationSeconds : 0.0;
}

double HvSipLoadReport::getCpuPerCall() const
{
    return completed > 0 ? static_cast<double>(cpuMicroseconds) / static_cast<double>(completed) : 0.0;
}

void HvSipLoadReport::takeLatencies(const HvLatencyHistogram& histogram)
{
    p50 = histogram.getPercentile(50.0);
    p90 = histogram.getPercentile(90.0);
    p99 = histogram.getPercentile(99.0);
    p999 = histogram.getPercentile(99.9);
    max = histogram.getMax();
}

std::string HvSipLoadReport::toJson() const
{
    std::ostringstream out;
    out << "{\"transport\":\"" << transport << "\""
        << ",\"connections\":" << connections
        << ",\"mode\":\"" << (openLoop ? "open" : "closed") << "\""
        << ",\"concurrency\":" << concurrency
        << ",\"rate\":" << number(rate)
        << ",\"duration_s\":" << decimal(durationSeconds)
        << ",\"sent\":" << sent
        << ",\"completed\":" << completed
        << ",\"succeeded\":" << succeeded
        << ",\"failed\":" << failed
        << ",\"failures\":{\"timeout\":" << timeouts << ",\"wrong_status\":" << wrongStatus
        << ",\"malformed\":" << malformed << "}"
        << ",\"retransmissions\":" << retransmissions
        << ",\"calls_per_s\":" << decimal(getCallsPerSecond())
        << ",\"latency_us\":{\"p50\":" << p50 << ",\"p90\":" << p90 << ",\"p99\":" << p99
        << ",\"p999\":" << p999 << ",\"max\":" << max << "}"
        << ",\"per_second\":[";
    for (std::size_t second = 0; second < perSecond.size(); ++second)
        out << (second ? "," : "") << perSecond[second];
    out << "]"
        << ",\"cpu_us\":" << cpuMicroseconds
        << ",\"cpu_us_per_call\":" << decimal(getCpuPerCall()) << "}\n";
    return out.str();
}

std::string HvSipLoadReport::toTable() const
{
    std::ostringstream out;
    out << "hv-sip-load: OPTIONS to " << target << " over " << transport;
    if (transport == "tcp")
        out << " (" << connections << (connections == 1 ? " connection" : " connections") << ")";
    if (openLoop)
        out << ", open loop at " << number(rate) << "/s\n";
    else
        out << ", closed loop with " << concurrency << " in flight\n";
    out << "  duration         " << decimal(durationSeconds) << " s\n"
        << "  sent             " << sent << "\n"
        << "  completed        " << completed << "\n"
        << "  succeeded        " << succeeded << "\n"
        << "  failed           " << failed << " (timeout " << timeouts << ", wrong status " << wrongStatus
        << ", malformed " << malformed << ")\n"
        << "  retransmissions  " << retransmissions << "\n"
        << "  stray replies    " << strays << "\n"
        << "  calls/s          " << decimal(getCallsPerSecond()) << "\n"
        << "  latency (us)     p50 " << p50 << "  p90 " << p90 << "  p99 " << p99 << "  p99.9 " << p999
        << "  max " << max << "\n"
        << "  cpu              " << cpuMicroseconds << " us (" << decimal(getCpuPerCall()) << " us/call)\n";
    return out.str();
}

std::uint64_t HvSipLoadReport::sCpuMicrosecondsOfStatLine(const std::string& line, long ticksPerSecond)
{
    // The command name is in parentheses and may hold either; the fields
    // after the last ')' are state (3), ..., utime (14), stime (15).
    std::string::size_type close = line.rfind(')');
    if (close == std::string::npos || ticksPerSecond <= 0)
        return 0;
    std::istringstream fields(line.substr(close + 1));
    std::string field;
    unsigned long long utime = 0;
    unsigned long long stime = 0;
    for (int number = 3; number <= 15; ++number) {
        if (!(fields >> field))
            return 0;
        if (number == 14 || number == 15) {
            char* end = nullptr;
            unsigned long long value = std::strtoull(field.c_str(), &end, 10);
            if (end == field.c_str() || *end != '\0')
                return 0;
            (number == 14 ? utime : stime) = value;
        }
    }
    return (utime + stime) * 1000000ull / static_cast<unsigned long long>(ticksPerSecond);
}

std::uint64_t HvSipLoadReport::sReadCpuMicroseconds()
{
    std::ifstream stat("/proc/self/stat");
    std::string line((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    return sCpuMicrosecondsOfStatLine(line, sysconf(_SC_CLK_TCK));
}
