// The two programs against each other: the real responder on free loopback
// ports, the real load generator run to a bounded count over UDP and TCP.
#include "support/HvTestProcess.h"
#include "support/HvTestSip.h"

#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <memory>
#include <regex>
#include <string>
#include <vector>

namespace {

using hvtest::jsonNumber;

std::string jsonText(const std::string& json, const std::string& key)
{
    std::smatch match;
    if (!std::regex_search(json, match, std::regex("\"" + key + "\":\"([^\"]*)\"")))
        return "<absent>";
    return match[1].str();
}

class HvSipEndToEnd : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_responder.reset(new hvtest::TestProcess(HV_SIP_RESPONDER, {"--port", "0"}));
        ASSERT_TRUE(m_responder->started());
        std::string line;
        ASSERT_TRUE(m_responder->readLine(line)) << m_responder->errText();
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match,
                                     std::regex("hv-sip-responder listening on udp 127\\.0\\.0\\.1:([0-9]+) "
                                                "tcp 127\\.0\\.0\\.1:([0-9]+)")))
            << line;
        m_udpPort = match[1].str();
        m_tcpPort = match[2].str();
        EXPECT_NE("0", m_udpPort);
        EXPECT_NE("0", m_tcpPort);
    }

    void TearDown() override
    {
        if (!m_responder || !m_responder->started())
            return;
        ASSERT_TRUE(m_responder->signal(SIGTERM));
        EXPECT_EQ(0, m_responder->waitExit()) << m_responder->errText();
        std::string line;
        bool stopped = false;
        while (m_responder->readLine(line, 1000))
            stopped = stopped || line.rfind("hv-sip-responder stopped: requests=", 0) == 0;
        EXPECT_TRUE(stopped) << m_responder->outText();
    }

    // Runs the load generator with --json and checks a clean run of `count`.
    std::string runClean(const std::vector<std::string>& arguments, const std::string& count)
    {
        std::vector<std::string> all = arguments;
        all.insert(all.end(), {"--count", count, "--json", "--timeout", "5000"});
        hvtest::ProcessResult load = hvtest::runProcess(HV_SIP_LOAD, all, 60000);
        EXPECT_EQ(0, load.exitStatus) << load.err << load.out;
        const std::string& json = load.out;
        const double expected = std::stod(count);
        EXPECT_EQ(expected, jsonNumber(json, "sent")) << json;
        EXPECT_EQ(expected, jsonNumber(json, "completed")) << json;
        EXPECT_EQ(expected, jsonNumber(json, "succeeded")) << json;
        EXPECT_EQ(0, jsonNumber(json, "failed")) << json;
        EXPECT_EQ(0, jsonNumber(json, "timeout")) << json;
        EXPECT_EQ(0, jsonNumber(json, "wrong_status")) << json;
        EXPECT_EQ(0, jsonNumber(json, "malformed")) << json;
        EXPECT_GT(jsonNumber(json, "calls_per_s"), 0) << json;
        EXPECT_GT(jsonNumber(json, "max"), 0) << json;
        EXPECT_LE(jsonNumber(json, "p50"), jsonNumber(json, "p99")) << json;
        EXPECT_LE(jsonNumber(json, "p99"), jsonNumber(json, "max")) << json;
        EXPECT_GE(jsonNumber(json, "cpu_us"), 0) << json;
        EXPECT_EQ('\n', json.empty() ? ' ' : json.back());
        return json;
    }

    std::unique_ptr<hvtest::TestProcess> m_responder;
    std::string m_udpPort;
    std::string m_tcpPort;
};

} // namespace

TEST_F(HvSipEndToEnd, UdpRunOfACountSucceedsEveryCall)
{
    const std::string json = runClean({"--target", "127.0.0.1:" + m_udpPort, "--concurrency", "20"}, "500");
    EXPECT_EQ("udp", jsonText(json, "transport"));
    EXPECT_EQ("closed", jsonText(json, "mode"));
    EXPECT_EQ(20, jsonNumber(json, "concurrency"));
}

TEST_F(HvSipEndToEnd, TcpRunOverOneConnectionSucceedsEveryCall)
{
    const std::string json =
        runClean({"--target", "127.0.0.1:" + m_tcpPort, "--transport", "tcp", "--connections", "1"}, "500");
    EXPECT_EQ("tcp", jsonText(json, "transport"));
    EXPECT_EQ(1, jsonNumber(json, "connections"));
    EXPECT_EQ(0, jsonNumber(json, "retransmissions"));
}

TEST_F(HvSipEndToEnd, TcpRunOverFourConnectionsSucceedsEveryCall)
{
    const std::string json = runClean(
        {"--target", "127.0.0.1:" + m_tcpPort, "--transport", "tcp", "--connections", "4", "--concurrency", "16"},
        "800");
    EXPECT_EQ(4, jsonNumber(json, "connections"));
}

TEST_F(HvSipEndToEnd, OpenLoopPacesTheCountAtTheRate)
{
    // 60 calls at 100/s take about 0.6 s of sending.
    const std::string json = runClean({"--target", "127.0.0.1:" + m_udpPort, "--rate", "100"}, "60");
    EXPECT_EQ("open", jsonText(json, "mode"));
    EXPECT_EQ(100, jsonNumber(json, "rate"));
    EXPECT_GE(jsonNumber(json, "duration_s"), 0.55) << json;
}

TEST_F(HvSipEndToEnd, DurationRunPrintsTheHumanTableAndEndsOnTime)
{
    const auto start = std::chrono::steady_clock::now();
    hvtest::ProcessResult load = hvtest::runProcess(
        HV_SIP_LOAD, {"--target", "127.0.0.1:" + m_udpPort, "--duration", "1", "--concurrency", "4"}, 60000);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(0, load.exitStatus) << load.err;
    EXPECT_EQ(0u, load.out.find("hv-sip-load: OPTIONS to 127.0.0.1:" + m_udpPort +
                                " over udp, closed loop with 4 in flight\n"))
        << load.out;
    EXPECT_NE(std::string::npos, load.out.find("\n  failed           0 (timeout 0, wrong status 0, malformed 0)\n"))
        << load.out;
    std::smatch match;
    ASSERT_TRUE(std::regex_search(load.out, match, std::regex("\n  succeeded        ([0-9]+)\n"))) << load.out;
    EXPECT_GT(std::stoul(match[1].str()), 0u);
    EXPECT_LT(elapsed, std::chrono::seconds(30));
}
