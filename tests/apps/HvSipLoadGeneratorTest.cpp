// The generator's matching and checking, seen through the program: a raw
// loopback answerer in this test replies to each request as the test says
// (right, wrong status, wrong Call-ID, provisional first, twice, or only to
// the retransmission), and the report must count each case by its kind.
#include "HvSipLoadGenerator.h"

#include "support/HvTestProcess.h"
#include "support/HvTestSockets.h"
#include "support/HvTestSip.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace {

using hvtest::sipHeader;

std::string replyTo(const std::string& request, const std::string& statusLine, const std::string& callId)
{
    return statusLine + "\r\n"
           "Via: " + sipHeader(request, "Via") + "\r\n"
           "From: " + sipHeader(request, "From") + "\r\n"
           "To: " + sipHeader(request, "To") + ";tag=answerer\r\n"
           "Call-ID: " + callId + "\r\n"
           "CSeq: " + sipHeader(request, "CSeq") + "\r\n"
           "Content-Length: 0\r\n\r\n";
}

// Answers datagrams on a loopback port from a thread of its own. `answer`
// gets the request, the number of the transaction (by order of first
// arrival of its Via) and the number of this copy, and returns the replies.
class Answerer {
public:
    using Policy = std::function<std::vector<std::string>(const std::string& request, int transaction, int copy)>;

    explicit Answerer(Policy policy) : m_policy(std::move(policy))
    {
        m_thread = std::thread([this] { serve(); });
    }
    ~Answerer()
    {
        m_stop = true;
        m_thread.join();
    }
    unsigned int port() const { return m_socket.port(); }

private:
    void serve()
    {
        std::map<std::string, int> transactions;
        std::map<std::string, int> copies;
        while (!m_stop) {
            std::string request;
            unsigned int sender = 0;
            if (!m_socket.receive(request, &sender, 50))
                continue;
            const std::string via = sipHeader(request, "Via");
            if (transactions.count(via) == 0) {
                const int next = static_cast<int>(transactions.size());
                transactions[via] = next;
            }
            const int copy = copies[via]++;
            for (const std::string& reply : m_policy(request, transactions[via], copy))
                m_socket.sendTo(sender, reply);
        }
    }

    hvtest::RawUdpSocket m_socket;
    Policy m_policy;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

// A figure of the human table ("  succeeded        5").
long tableFigure(const std::string& table, const std::string& label)
{
    std::smatch match;
    if (!std::regex_search(table, match, std::regex("\n  " + label + " +([0-9]+)")))
        return -1;
    return std::stol(match[1].str());
}

} // namespace

TEST(HvSipLoadGenerator, RepliesAreCountedByKindAndLateCopiesAsStrays)
{
    Answerer answerer([](const std::string& request, int transaction, int copy) -> std::vector<std::string> {
        if (copy != 0)
            return {};
        const std::string callId = sipHeader(request, "Call-ID");
        // Received datagrams are handled on a pool of threads, so the late
        // copy sent for transaction 3 is only sure to be handled before the
        // run ends when the target is slow to answer what follows it.
        if (transaction >= 4)
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        switch (transaction % 6) {
        case 1:
        case 5:
            return {replyTo(request, "SIP/2.0 486 Busy Here", callId)};
        case 2:
            return {replyTo(request, "SIP/2.0 200 OK", "not-" + callId)};
        case 3:
            return {replyTo(request, "SIP/2.0 100 Trying", callId), replyTo(request, "SIP/2.0 200 OK", callId),
                    replyTo(request, "SIP/2.0 200 OK", callId)};
        default:
            return {replyTo(request, "SIP/2.0 200 OK", callId)};
        }
    });
    // One in flight, so the answerer sees the transactions in order.
    hvtest::ProcessResult load = hvtest::runProcess(
        HV_SIP_LOAD, {"--target", "127.0.0.1:" + std::to_string(answerer.port()), "--count", "6", "--concurrency",
                      "1", "--timeout", "5000"});
    EXPECT_EQ(1, load.exitStatus) << load.err;
    EXPECT_EQ(6, tableFigure(load.out, "sent")) << load.out;
    EXPECT_EQ(6, tableFigure(load.out, "completed")) << load.out;
    EXPECT_EQ(3, tableFigure(load.out, "succeeded")) << load.out;
    EXPECT_EQ(3, tableFigure(load.out, "failed")) << load.out;
    EXPECT_NE(std::string::npos, load.out.find("(timeout 0, wrong status 2, malformed 1)")) << load.out;
    EXPECT_EQ(1, tableFigure(load.out, "stray replies")) << load.out;
}

TEST(HvSipLoadGenerator, TimerERetransmissionReachesATargetThatLostTheFirstCopy)
{
    Answerer answerer([](const std::string& request, int, int copy) -> std::vector<std::string> {
        if (copy == 0)
            return {};
        return {replyTo(request, "SIP/2.0 200 OK", sipHeader(request, "Call-ID"))};
    });
    hvtest::ProcessResult load = hvtest::runProcess(
        HV_SIP_LOAD, {"--target", "127.0.0.1:" + std::to_string(answerer.port()), "--count", "5", "--t1", "50",
                      "--timeout", "5000"});
    EXPECT_EQ(0, load.exitStatus) << load.err << load.out;
    EXPECT_EQ(5, tableFigure(load.out, "succeeded")) << load.out;
    EXPECT_GE(tableFigure(load.out, "retransmissions"), 5) << load.out;
}

TEST(HvSipLoadGenerator, RequestsCarryAFreshBranchCallIdAndRport)
{
    std::mutex mutex;
    std::vector<std::string> requests;
    Answerer answerer([&](const std::string& request, int, int) -> std::vector<std::string> {
        {
            std::lock_guard<std::mutex> lock(mutex);
            requests.push_back(request);
        }
        return {replyTo(request, "SIP/2.0 200 OK", sipHeader(request, "Call-ID"))};
    });
    hvtest::ProcessResult load = hvtest::runProcess(
        HV_SIP_LOAD, {"--target", "127.0.0.1:" + std::to_string(answerer.port()), "--count", "3", "--concurrency",
                      "1"});
    EXPECT_EQ(0, load.exitStatus) << load.err;
    std::lock_guard<std::mutex> lock(mutex);
    ASSERT_EQ(3u, requests.size());
    std::vector<std::string> branches;
    std::vector<std::string> callIds;
    for (const std::string& request : requests) {
        EXPECT_EQ(0u, request.find("OPTIONS sip:127.0.0.1:" + std::to_string(answerer.port()) + " SIP/2.0\r\n"));
        std::smatch match;
        const std::string via = sipHeader(request, "Via");
        ASSERT_TRUE(std::regex_match(via, match,
                                     std::regex("SIP/2\\.0/UDP 127\\.0\\.0\\.1:([0-9]+);branch=(z9hG4bK[^;]+);rport")))
            << via;
        EXPECT_NE("0", match[1].str());
        branches.push_back(match[2].str());
        const std::string callId = sipHeader(request, "Call-ID");
        EXPECT_TRUE(std::regex_match(
            callId, std::regex("[0-9a-f]{8}-[0-9a-f]{4}-1[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}@127\\.0\\.0\\.1")))
            << callId;
        callIds.push_back(callId);
        EXPECT_EQ("70", sipHeader(request, "Max-Forwards"));
        EXPECT_EQ("0", sipHeader(request, "Content-Length"));
        EXPECT_TRUE(std::regex_match(sipHeader(request, "CSeq"), std::regex("[0-9]+ OPTIONS")));
        EXPECT_TRUE(std::regex_search(sipHeader(request, "From"), std::regex(";tag=.+")));
    }
    EXPECT_NE(branches[0], branches[1]);
    EXPECT_NE(branches[1], branches[2]);
    EXPECT_NE(callIds[0], callIds[1]);
    EXPECT_NE(callIds[1], callIds[2]);
}

TEST(HvSipLoadGenerator, RetransmissionIntervalsDoubleFromT1AndStopGrowingAtT2)
{
    // Copies at 0.7, 2.1, 4.9 and 8.9 s (intervals 0.7, 1.4, 2.8, then T2 =
    // 4 s instead of 5.6); the time-out at 9.5 s comes before the next one.
    // Without the cap the fourth would be due at 10.5 s.
    hvtest::RawUdpSocket silent;
    hvtest::ProcessResult load = hvtest::runProcess(
        HV_SIP_LOAD, {"--target", "127.0.0.1:" + std::to_string(silent.port()), "--count", "1", "--t1", "700",
                      "--timeout", "9500"},
        30000);
    EXPECT_EQ(1, load.exitStatus) << load.err;
    EXPECT_EQ(1, tableFigure(load.out, "failed")) << load.out;
    EXPECT_EQ(4, tableFigure(load.out, "retransmissions")) << load.out;
    // The original and the four copies reached the target.
    int copies = 0;
    std::string request;
    while (silent.receive(request, nullptr, 100))
        ++copies;
    EXPECT_EQ(5, copies);
}
