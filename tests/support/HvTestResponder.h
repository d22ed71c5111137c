// hv-sip-responder as a child of a test: started on free loopback ports
// (the ports read from its listening line), stopped with a signal, expected
// to exit 0 (every allocator tag back at its count from start-up) and to
// print its "stopped" line. Header-only; for the tests of the SIP programs,
// which define HV_SIP_RESPONDER.
#ifndef HVUTIL_TESTS_HVTESTRESPONDER_H
#define HVUTIL_TESTS_HVTESTRESPONDER_H

#include "HvTestProcess.h"

#include <gtest/gtest.h>

#include <csignal>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <vector>

namespace hvtest {

// The counters of a "stopped" or "stats" line, by name.
inline std::map<std::string, unsigned long> countsOf(const std::string& line)
{
    std::map<std::string, unsigned long> counts;
    std::regex field("([a-z_]+)=([0-9]+)");
    for (auto it = std::sregex_iterator(line.begin(), line.end(), field); it != std::sregex_iterator(); ++it)
        counts[(*it)[1].str()] = std::stoul((*it)[2].str());
    return counts;
}

class ResponderProcess {
public:
    // How long starting up and stopping may take (sanitizer builds included).
    static constexpr int kExitTimeoutMs = 60000;

    explicit ResponderProcess(std::vector<std::string> extra = {})
    {
        std::vector<std::string> arguments{"--address", "127.0.0.1", "--port", "0"};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        m_process.reset(new TestProcess(HV_SIP_RESPONDER, arguments));
        std::string line;
        if (!m_process->readLine(line, kExitTimeoutMs)) {
            ADD_FAILURE() << "no listening line; stderr: " << m_process->errText();
            return;
        }
        std::smatch match;
        if (!std::regex_match(line, match,
                              std::regex("hv-sip-responder listening on udp 127\\.0\\.0\\.1:([0-9]+) "
                                         "tcp 127\\.0\\.0\\.1:([0-9]+)"))) {
            ADD_FAILURE() << "unexpected first line: " << line;
            return;
        }
        udpPort = static_cast<unsigned int>(std::stoul(match[1].str()));
        tcpPort = static_cast<unsigned int>(std::stoul(match[2].str()));
    }

    bool ready() const { return udpPort != 0 && tcpPort != 0; }
    TestProcess& process() { return *m_process; }

    // Sends `sig`, expects exit 0; gives the "stopped" line.
    std::string stop(int sig = SIGTERM)
    {
        EXPECT_TRUE(m_process->signal(sig));
        EXPECT_EQ(0, m_process->waitExit(kExitTimeoutMs)) << "stderr: " << m_process->errText();
        std::string line;
        while (m_process->readLine(line, 0)) {
            if (line.compare(0, 25, "hv-sip-responder stopped:") == 0)
                return line;
        }
        ADD_FAILURE() << "no stopped line; stdout: " << m_process->outText();
        return std::string();
    }

    // For a responder started with --stats: reads its per-second lines until
    // each named counter has reached at least its count (ten lines at most).
    // Datagrams are handed to a pool, so one that needs no answer may still
    // wait for a worker after later ones were answered, and a stop drops
    // what was not yet handled.
    bool awaitCounted(const std::map<std::string, unsigned long>& atLeast)
    {
        std::map<std::string, unsigned long> seen;
        auto reached = [&] {
            for (const auto& wanted : atLeast) {
                if (seen[wanted.first] < wanted.second)
                    return false;
            }
            return true;
        };
        std::string line;
        for (int lines = 0; !reached() && lines < 10 && m_process->readLine(line, 5000); ++lines) {
            for (const auto& counted : countsOf(line))
                seen[counted.first] += counted.second;
        }
        return reached();
    }

    unsigned int udpPort = 0;
    unsigned int tcpPort = 0;

private:
    std::unique_ptr<TestProcess> m_process;
};

} // namespace hvtest

#endif
