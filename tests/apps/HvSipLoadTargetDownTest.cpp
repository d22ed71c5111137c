// The load generator against targets that do not answer: it reports
// time-outs (or the refused connection) and ends in bounded time, never hangs.
#include "support/HvTestProcess.h"
#include "support/HvTestSockets.h"
#include "support/HvTestSip.h"

#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <regex>
#include <string>
#include <vector>

namespace {

using hvtest::jsonNumber;

using Clock = std::chrono::steady_clock;

} // namespace

TEST(HvSipLoadTargetDown, UdpTargetThatNeverAnswersGivesFiveTimeouts)
{
    // Bound and never read: every request is swallowed.
    hvtest::RawUdpSocket silent;
    const auto start = Clock::now();
    hvtest::ProcessResult load = hvtest::runProcess(
        HV_SIP_LOAD, {"--target", "127.0.0.1:" + std::to_string(silent.port()), "--count", "5", "--timeout", "500",
                      "--t1", "100", "--json"});
    const auto elapsed = Clock::now() - start;
    EXPECT_EQ(1, load.exitStatus) << load.err;
    EXPECT_EQ(5, jsonNumber(load.out, "sent")) << load.out;
    EXPECT_EQ(0, jsonNumber(load.out, "succeeded")) << load.out;
    EXPECT_EQ(0, jsonNumber(load.out, "completed")) << load.out;
    EXPECT_EQ(5, jsonNumber(load.out, "failed")) << load.out;
    EXPECT_EQ(5, jsonNumber(load.out, "timeout")) << load.out;
    EXPECT_EQ(0, jsonNumber(load.out, "wrong_status")) << load.out;
    EXPECT_EQ(0, jsonNumber(load.out, "malformed")) << load.out;
    // Timer E at 100, 300 ms (then 700, past the time-out): two per call.
    EXPECT_GE(jsonNumber(load.out, "retransmissions"), 5) << load.out;
    EXPECT_LE(jsonNumber(load.out, "retransmissions"), 10) << load.out;
    EXPECT_LT(elapsed, std::chrono::seconds(8));
}

TEST(HvSipLoadTargetDown, UdpPortNobodyHoldsGivesTimeoutsWithoutRetransmissionsWhenTurnedOff)
{
    const unsigned int port = hvtest::freeUdpPort();
    const auto start = Clock::now();
    hvtest::ProcessResult load = hvtest::runProcess(
        HV_SIP_LOAD, {"--target", "127.0.0.1:" + std::to_string(port), "--count", "5", "--timeout", "500",
                      "--no-retransmit", "--json"});
    const auto elapsed = Clock::now() - start;
    EXPECT_EQ(1, load.exitStatus) << load.err;
    EXPECT_EQ(5, jsonNumber(load.out, "timeout")) << load.out;
    EXPECT_EQ(5, jsonNumber(load.out, "failed")) << load.out;
    EXPECT_EQ(0, jsonNumber(load.out, "retransmissions")) << load.out;
    EXPECT_LT(elapsed, std::chrono::seconds(8));
}

TEST(HvSipLoadTargetDown, UdpDurationRunEndsAboutATimeoutAfterSending)
{
    hvtest::RawUdpSocket silent;
    const auto start = Clock::now();
    hvtest::ProcessResult load = hvtest::runProcess(
        HV_SIP_LOAD, {"--target", "127.0.0.1:" + std::to_string(silent.port()), "--duration", "0.5", "--timeout",
                      "700", "--concurrency", "3", "--json"});
    const auto elapsed = Clock::now() - start;
    EXPECT_EQ(1, load.exitStatus) << load.err;
    // A closed loop of 3 whose calls all time out: 3 at once, then 3 more
    // when they end at 700 ms, after sending stopped at 500 ms: none.
    EXPECT_EQ(3, jsonNumber(load.out, "sent")) << load.out;
    EXPECT_EQ(3, jsonNumber(load.out, "timeout")) << load.out;
    EXPECT_GE(elapsed, std::chrono::milliseconds(700));
    EXPECT_LT(elapsed, std::chrono::seconds(8));
}

TEST(HvSipLoadTargetDown, TcpTargetThatRefusesFailsAtOnceWithTheReasonOnStderr)
{
    const unsigned int port = hvtest::closedPort();
    const auto start = Clock::now();
    hvtest::ProcessResult load = hvtest::runProcess(
        HV_SIP_LOAD, {"--target", "127.0.0.1:" + std::to_string(port), "--transport", "tcp", "--connections", "2",
                      "--count", "5", "--json"});
    const auto elapsed = Clock::now() - start;
    EXPECT_EQ(1, load.exitStatus);
    EXPECT_EQ("", load.out);
    const std::string prefix = "hv-sip-load: cannot connect to 127.0.0.1:" + std::to_string(port) + " over tcp: ";
    // The library's own error log may come first; the program's line is whole.
    EXPECT_TRUE(load.err.rfind(prefix, 0) == 0 || load.err.find("\n" + prefix) != std::string::npos) << load.err;
    EXPECT_NE(std::string::npos, load.err.find("Connection refused")) << load.err;
    EXPECT_LT(elapsed, std::chrono::seconds(5));
}

TEST(HvSipLoadTargetDown, TcpTargetThatAcceptsButNeverAnswersGivesTimeouts)
{
    // The kernel completes connections into the backlog; nothing reads them.
    hvtest::RawListener listener;
    const auto start = Clock::now();
    hvtest::ProcessResult load = hvtest::runProcess(
        HV_SIP_LOAD, {"--target", "127.0.0.1:" + std::to_string(listener.port()), "--transport", "tcp",
                      "--count", "4", "--timeout", "400", "--json"});
    const auto elapsed = Clock::now() - start;
    EXPECT_EQ(1, load.exitStatus) << load.err;
    EXPECT_EQ(4, jsonNumber(load.out, "sent")) << load.out;
    EXPECT_EQ(4, jsonNumber(load.out, "timeout")) << load.out;
    EXPECT_EQ(0, jsonNumber(load.out, "retransmissions")) << load.out;
    EXPECT_LT(elapsed, std::chrono::seconds(8));
}

TEST(HvSipLoadTargetDown, InterruptStopsALongRunAndStillReports)
{
    hvtest::RawUdpSocket silent;
    hvtest::TestProcess load(HV_SIP_LOAD, {"--target", "127.0.0.1:" + std::to_string(silent.port()), "--duration",
                                           "600", "--timeout", "300", "--no-retransmit", "--json"});
    ASSERT_TRUE(load.started());
    // The first request shows that the run is under way.
    std::string request;
    ASSERT_TRUE(silent.receive(request, nullptr, 10000));
    EXPECT_EQ(0u, request.find("OPTIONS "));
    const auto start = Clock::now();
    ASSERT_TRUE(load.signal(SIGINT));
    EXPECT_EQ(1, load.waitExit(10000)) << load.errText();
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
    EXPECT_GE(jsonNumber(load.outText(), "sent"), 1) << load.outText();
    EXPECT_EQ(jsonNumber(load.outText(), "sent"), jsonNumber(load.outText(), "timeout")) << load.outText();
}
