#include "HvSipLoadReport.h"

#include "HvLatencyHistogram.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <string>

namespace {

HvSipLoadReport filledReport()
{
    HvSipLoadReport report;
    report.target = "127.0.0.1:5060";
    report.transport = "udp";
    report.connections = 1;
    report.openLoop = false;
    report.concurrency = 10;
    report.rate = 0.0;
    report.durationSeconds = 2.5;
    report.sent = 1000;
    report.completed = 998;
    report.succeeded = 995;
    report.timeouts = 2;
    report.wrongStatus = 2;
    report.malformed = 1;
    report.failed = 5;
    report.retransmissions = 7;
    report.strays = 3;
    report.perSecond = {400, 450, 148};
    report.p50 = 120;
    report.p90 = 250;
    report.p99 = 900;
    report.p999 = 1500;
    report.max = 2048;
    report.cpuMicroseconds = 499000;
    return report;
}

} // namespace

TEST(HvSipLoadReport, JsonHasExactlyTheDocumentedKeysWithNumbersAsNumbers)
{
    EXPECT_EQ("{\"transport\":\"udp\",\"connections\":1,\"mode\":\"closed\",\"concurrency\":10,\"rate\":0,"
              "\"duration_s\":2.500,\"sent\":1000,\"completed\":998,\"succeeded\":995,\"failed\":5,"
              "\"failures\":{\"timeout\":2,\"wrong_status\":2,\"malformed\":1},\"retransmissions\":7,"
              "\"calls_per_s\":399.200,"
              "\"latency_us\":{\"p50\":120,\"p90\":250,\"p99\":900,\"p999\":1500,\"max\":2048},"
              "\"per_second\":[400,450,148],\"cpu_us\":499000,\"cpu_us_per_call\":500.000}\n",
              filledReport().toJson());
}

TEST(HvSipLoadReport, JsonOfAnOpenLoopOverTcpGivesModeRateAndConnections)
{
    HvSipLoadReport report = filledReport();
    report.transport = "tcp";
    report.connections = 4;
    report.openLoop = true;
    report.concurrency = 0;
    report.rate = 250.5;
    const std::string json = report.toJson();
    EXPECT_EQ(0u, json.find("{\"transport\":\"tcp\",\"connections\":4,\"mode\":\"open\",\"concurrency\":0,"
                            "\"rate\":250.500,"))
        << json;
}

TEST(HvSipLoadReport, JsonOfAnEmptyRunHasNoDivisionByZero)
{
    HvSipLoadReport report;
    report.transport = "udp";
    EXPECT_EQ("{\"transport\":\"udp\",\"connections\":1,\"mode\":\"closed\",\"concurrency\":0,\"rate\":0,"
              "\"duration_s\":0.000,\"sent\":0,\"completed\":0,\"succeeded\":0,\"failed\":0,"
              "\"failures\":{\"timeout\":0,\"wrong_status\":0,\"malformed\":0},\"retransmissions\":0,"
              "\"calls_per_s\":0.000,"
              "\"latency_us\":{\"p50\":0,\"p90\":0,\"p99\":0,\"p999\":0,\"max\":0},"
              "\"per_second\":[],\"cpu_us\":0,\"cpu_us_per_call\":0.000}\n",
              report.toJson());
}

TEST(HvSipLoadReport, HumanTableListsEveryFigure)
{
    EXPECT_EQ("hv-sip-load: OPTIONS to 127.0.0.1:5060 over udp, closed loop with 10 in flight\n"
              "  duration         2.500 s\n"
              "  sent             1000\n"
              "  completed        998\n"
              "  succeeded        995\n"
              "  failed           5 (timeout 2, wrong status 2, malformed 1)\n"
              "  retransmissions  7\n"
              "  stray replies    3\n"
              "  calls/s          399.200\n"
              "  latency (us)     p50 120  p90 250  p99 900  p99.9 1500  max 2048\n"
              "  cpu              499000 us (500.000 us/call)\n",
              filledReport().toTable());
}

TEST(HvSipLoadReport, HumanTableOfAnOpenLoopOverTcpNamesConnectionsAndRate)
{
    HvSipLoadReport report = filledReport();
    report.transport = "tcp";
    report.connections = 4;
    report.openLoop = true;
    report.rate = 500;
    const std::string table = report.toTable();
    EXPECT_EQ(0u, table.find("hv-sip-load: OPTIONS to 127.0.0.1:5060 over tcp (4 connections), open loop at 500/s\n"))
        << table;
}

TEST(HvSipLoadReport, LatenciesAreTakenFromTheHistogram)
{
    HvLatencyHistogram histogram;
    for (std::uint64_t value = 1; value <= 1000; ++value)
        histogram.record(value);
    HvSipLoadReport report;
    report.takeLatencies(histogram);
    EXPECT_EQ(histogram.getPercentile(50.0), report.p50);
    EXPECT_EQ(histogram.getPercentile(90.0), report.p90);
    EXPECT_EQ(histogram.getPercentile(99.0), report.p99);
    EXPECT_EQ(histogram.getPercentile(99.9), report.p999);
    EXPECT_EQ(1000u, report.max);
    EXPECT_NEAR(500.0, static_cast<double>(report.p50), 5.0);
    EXPECT_NEAR(999.0, static_cast<double>(report.p999), 10.0);
}

TEST(HvSipLoadReport, CpuTimeIsReadFromAStatLineWhoseNameHoldsBlanksAndParentheses)
{
    // utime 150 and stime 50 ticks at 100 ticks per second: 2 seconds.
    const std::string line =
        "4242 (odd) name (x)) S 1 4242 4242 0 -1 4194560 100 0 0 0 150 50 0 0 20 0 3 0 100 1000 10";
    EXPECT_EQ(2000000u, HvSipLoadReport::sCpuMicrosecondsOfStatLine(line, 100));
    EXPECT_EQ(0u, HvSipLoadReport::sCpuMicrosecondsOfStatLine("4242 (short) S 1 2", 100));
    EXPECT_EQ(0u, HvSipLoadReport::sCpuMicrosecondsOfStatLine("no parenthesis", 100));
    EXPECT_EQ(0u, HvSipLoadReport::sCpuMicrosecondsOfStatLine(line, 0));
}

TEST(HvSipLoadReport, CpuTimeOfThisProcessGrowsWithWork)
{
    const std::uint64_t before = HvSipLoadReport::sReadCpuMicroseconds();
    // Work until the kernel's tick-grained count has moved, bounded by time.
    volatile std::uint64_t sink = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    std::uint64_t after = before;
    while (after == before && std::chrono::steady_clock::now() < deadline) {
        for (int i = 0; i < 1000000; ++i)
            sink = sink + static_cast<std::uint64_t>(i);
        after = HvSipLoadReport::sReadCpuMicroseconds();
    }
    EXPECT_GT(after, before);
    EXPECT_EQ(0u, after % (1000000u / static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK))));
}
