// The TCP side of the load generator, seen through the program against a raw
// loopback answerer: replies cut in pieces and spread over connections are
// framed and matched; a target that sends an endless message loses its
// connection instead of growing the generator's buffer, and the run ends.
#include "HvSipTcpClient.h"

#include "support/HvTestProcess.h"
#include "support/HvTestSockets.h"
#include "support/HvTestSip.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>

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

std::string okReply(const std::string& request)
{
    return "SIP/2.0 200 OK\r\n"
           "Via: " + sipHeader(request, "Via") + "\r\n"
           "From: " + sipHeader(request, "From") + "\r\n"
           "To: " + sipHeader(request, "To") + ";tag=answerer\r\n"
           "Call-ID: " + sipHeader(request, "Call-ID") + "\r\n"
           "CSeq: " + sipHeader(request, "CSeq") + "\r\n"
           "Content-Length: 0\r\n\r\n";
}

double jsonNumber(const std::string& json, const std::string& key)
{
    std::smatch match;
    if (!std::regex_search(json, match, std::regex("\"" + key + "\":(-?[0-9]+(\\.[0-9]+)?)")))
        return -1;
    return std::stod(match[1].str());
}

// Accepts connections on a loopback port and hands every request (cut at
// its blank line; the generator sends no bodies) to `answer` with the
// connection's descriptor and number, from a thread of its own.
class TcpAnswerer {
public:
    using Policy = std::function<void(int descriptor, int connection, const std::string& request)>;

    explicit TcpAnswerer(Policy policy) : m_policy(std::move(policy))
    {
        m_thread = std::thread([this] { serve(); });
    }
    ~TcpAnswerer()
    {
        m_stop = true;
        m_thread.join();
    }
    unsigned int port() const { return m_listener.port(); }
    std::map<int, int> requestsPerConnection()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_requests;
    }

private:
    void serve()
    {
        std::vector<hvtest::Descriptor> connections;
        std::vector<std::string> buffers;
        while (!m_stop) {
            hvtest::Descriptor accepted = m_listener.accept(0);
            if (accepted.valid()) {
                connections.push_back(std::move(accepted));
                buffers.emplace_back();
            }
            std::vector<pollfd> entries;
            for (hvtest::Descriptor& connection : connections)
                entries.push_back(pollfd{connection.get(), POLLIN, 0});
            if (entries.empty() || poll(entries.data(), entries.size(), 20) <= 0)
                continue;
            for (std::size_t index = 0; index < connections.size(); ++index) {
                if (entries[index].revents == 0 || !connections[index].valid())
                    continue;
                char chunk[4096];
                ssize_t got = ::recv(connections[index].get(), chunk, sizeof chunk, 0);
                if (got <= 0) {
                    connections[index].reset();
                    continue;
                }
                buffers[index].append(chunk, static_cast<std::size_t>(got));
                std::string::size_type end;
                while ((end = buffers[index].find("\r\n\r\n")) != std::string::npos) {
                    const std::string request = buffers[index].substr(0, end + 4);
                    buffers[index].erase(0, end + 4);
                    {
                        std::lock_guard<std::mutex> lock(m_mutex);
                        ++m_requests[static_cast<int>(index)];
                    }
                    m_policy(connections[index].get(), static_cast<int>(index), request);
                }
            }
        }
    }

    hvtest::RawListener m_listener;
    Policy m_policy;
    std::mutex m_mutex;
    std::map<int, int> m_requests;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

} // namespace

TEST(HvSipTcpClient, RepliesCutInPiecesOverSeveralConnectionsAreFramedAndMatched)
{
    TcpAnswerer answerer([](int descriptor, int, const std::string& request) {
        // Three sends, the first ending inside the status line.
        const std::string reply = okReply(request);
        hvtest::sendAll(descriptor, reply.substr(0, 5));
        hvtest::sendAll(descriptor, reply.substr(5, 40));
        hvtest::sendAll(descriptor, reply.substr(45));
    });
    hvtest::ProcessResult load = hvtest::runProcess(
        HV_SIP_LOAD, {"--target", "127.0.0.1:" + std::to_string(answerer.port()), "--transport", "tcp",
                      "--connections", "3", "--concurrency", "6", "--count", "60", "--timeout", "5000", "--json"});
    EXPECT_EQ(0, load.exitStatus) << load.err << load.out;
    EXPECT_EQ(60, jsonNumber(load.out, "succeeded")) << load.out;
    EXPECT_EQ(3, jsonNumber(load.out, "connections")) << load.out;
    // Round robin: every connection carried a third.
    const std::map<int, int> perConnection = answerer.requestsPerConnection();
    ASSERT_EQ(3u, perConnection.size());
    for (const auto& entry : perConnection)
        EXPECT_EQ(20, entry.second) << "connection " << entry.first;
}

TEST(HvSipTcpClient, TargetClosingRightAfterTheLastReplyIsNoError)
{
    // As a SIPp server does once it has handled the calls it was told to:
    // the connection closes right behind the last reply.
    std::atomic<int> answered{0};
    TcpAnswerer answerer([&answered](int descriptor, int, const std::string& request) {
        hvtest::sendAll(descriptor, okReply(request));
        if (++answered == 20)
            ::shutdown(descriptor, SHUT_RDWR);
    });
    // The close races with the end of the run: several runs give it chances.
    for (int run = 0; run < 20; ++run) {
        answered = 0;
        hvtest::ProcessResult load = hvtest::runProcess(
            HV_SIP_LOAD, {"--target", "127.0.0.1:" + std::to_string(answerer.port()), "--transport", "tcp",
                          "--concurrency", "1", "--count", "20", "--timeout", "5000", "--json"});
        EXPECT_EQ(0, load.exitStatus) << "run " << run << ": " << load.err << load.out;
        EXPECT_EQ(std::string::npos, load.err.find(" lost: ")) << load.err;
        EXPECT_EQ(20, jsonNumber(load.out, "succeeded")) << load.out;
    }
}

TEST(HvSipTcpClient, TargetSendingAnEndlessMessageLosesItsConnectionAndTheRunEnds)
{
    TcpAnswerer answerer([](int descriptor, int, const std::string&) {
        // Headers that never end: 256 KiB without a blank line.
        std::string endless = "SIP/2.0 200 OK\r\nX-Filler: ";
        hvtest::sendAll(descriptor, endless);
        const std::string filler(16384, 'a');
        for (int i = 0; i < 16; ++i) {
            if (!hvtest::sendAll(descriptor, filler))
                break;
        }
    });
    const auto start = std::chrono::steady_clock::now();
    hvtest::ProcessResult load = hvtest::runProcess(
        HV_SIP_LOAD, {"--target", "127.0.0.1:" + std::to_string(answerer.port()), "--transport", "tcp",
                      "--concurrency", "1", "--count", "3", "--timeout", "500", "--json"});
    EXPECT_EQ(1, load.exitStatus) << load.err;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_NE(std::string::npos,
              load.err.find("hv-sip-load: connection 1 to 127.0.0.1:" + std::to_string(answerer.port()) +
                            " lost: HvBufferedInputStream::block(): message larger than 65536 bytes\n"))
        << load.err;
    EXPECT_NE(std::string::npos, load.err.find("hv-sip-load: sending stopped: no connection to the target is open\n"))
        << load.err;
    EXPECT_EQ(1, jsonNumber(load.out, "sent")) << load.out;
    EXPECT_EQ(1, jsonNumber(load.out, "timeout")) << load.out;
    EXPECT_EQ(0, jsonNumber(load.out, "succeeded")) << load.out;
}
