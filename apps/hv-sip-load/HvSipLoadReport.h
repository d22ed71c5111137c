// What one run of hv-sip-load measured, and its two renderings: the human
// table (default) and the one-line JSON object (--json) that scripts and the
// benchmarks read. Formatting is pure, so both are tested without a run.
#ifndef HVSIPLOAD_HVSIPLOADREPORT_H
#define HVSIPLOAD_HVSIPLOADREPORT_H

#include <cstdint>
#include <string>
#include <vector>

class HvLatencyHistogram;

struct HvSipLoadReport {
    // The run's settings, as reported.
    std::string target;          // "HOST:PORT" as given
    std::string transport;       // "udp" or "tcp"
    unsigned int connections = 1;
    bool openLoop = false;       // "mode": "open" or "closed"
    unsigned int concurrency = 0; // 0 in open loop
    double rate = 0.0;           // 0 in closed loop

    // From the first send to the end of the last transaction, in seconds.
    double durationSeconds = 0.0;
    std::uint64_t sent = 0;           // transactions started (first copies sent)
    std::uint64_t completed = 0;      // transactions that got a final reply
    std::uint64_t succeeded = 0;      // final reply 200 that matched the request
    std::uint64_t failed = 0;         // timeout + wrongStatus + malformed
    std::uint64_t timeouts = 0;       // no final reply within --timeout
    std::uint64_t wrongStatus = 0;    // a final reply other than 200
    std::uint64_t malformed = 0;      // a final reply whose Call-ID or CSeq does not match, or unreadable
    std::uint64_t retransmissions = 0; // UDP copies sent again by timer E
    std::uint64_t strays = 0;         // final replies for no pending transaction (not failures)
    // Completed transactions in second 1, 2, ... of the run.
    std::vector<std::uint64_t> perSecond;
    // Latency of completed transactions, microseconds.
    std::uint64_t p50 = 0, p90 = 0, p99 = 0, p999 = 0, max = 0;
    // User plus system CPU time of the process, microseconds.
    std::uint64_t cpuMicroseconds = 0;

    // Completed transactions per second of the run; 0 for a run of no length.
    double getCallsPerSecond() const;
    // CPU microseconds per completed transaction; 0 when none completed.
    double getCpuPerCall() const;

    // Copies the percentiles (50, 90, 99, 99.9) and the maximum.
    void takeLatencies(const HvLatencyHistogram& histogram);

    // One JSON object and a line feed, with exactly the keys transport,
    // connections, mode, concurrency, rate, duration_s, sent, completed,
    // succeeded, failed, failures {timeout, wrong_status, malformed},
    // retransmissions, calls_per_s, latency_us {p50, p90, p99, p999, max},
    // per_second, cpu_us, cpu_us_per_call.
    std::string toJson() const;
    // The human table, several lines, each ending in a line feed.
    std::string toTable() const;

    // utime + stime of this process from /proc/self/stat, in microseconds;
    // 0 when it cannot be read.
    static std::uint64_t sReadCpuMicroseconds();
    // The same from a /proc/<pid>/stat line (the command name may hold
    // blanks and parentheses); 0 when the line is not one.
    static std::uint64_t sCpuMicrosecondsOfStatLine(const std::string& line, long ticksPerSecond);
};

#endif
