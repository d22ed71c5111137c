// A DNS server for tests: one UDP socket on 127.0.0.1 at a port of the
// system's choosing, served by a thread of its own. It answers A queries for
// the names it was given (in the order given), says "no such name" to every
// other query, or stays silent, and counts what it was asked. Point the
// resolver at it with GetHostByNameServer::setServers(server.serverList()).
#ifndef HVUTIL_TESTS_HVTESTDNSSERVER_H
#define HVUTIL_TESTS_HVTESTDNSSERVER_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace hvtest {

class TestDnsServer {
public:
    enum Mode {
        ANSWER,   // A records for known names, NXDOMAIN for the rest
        SILENT,   // reads and counts queries, never answers
        SERVFAIL  // answers every query with "server failure"
    };

    explicit TestDnsServer(Mode mode = ANSWER) : m_mode(mode)
    {
        m_socket = ::socket(AF_INET, SOCK_DGRAM, 0);
        if (m_socket < 0)
            throw std::runtime_error("socket");
        sockaddr_in address;
        std::memset(&address, 0, sizeof address);
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = 0;
        socklen_t length = sizeof address;
        if (::bind(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            ::close(m_socket);
            throw std::runtime_error("bind");
        }
        m_port = ntohs(address.sin_port);
        m_thread = std::thread([this] { serve(); });
    }

    ~TestDnsServer()
    {
        m_stop.store(true);
        m_thread.join();
        ::close(m_socket);
    }

    TestDnsServer(const TestDnsServer&) = delete;
    TestDnsServer& operator=(const TestDnsServer&) = delete;

    // Answers A queries for `name` (any case) with these dotted quads, first first.
    void add(const std::string& name, const std::vector<std::string>& addresses)
    {
        std::vector<uint32_t> values;
        for (const std::string& text : addresses) {
            in_addr parsed;
            if (inet_pton(AF_INET, text.c_str(), &parsed) != 1)
                throw std::invalid_argument(text);
            values.push_back(parsed.s_addr);
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        m_names[lower(name)] = values;
    }

    unsigned short port() const { return m_port; }
    // "127.0.0.1:<port>", as the resolver's server setting takes it.
    std::string serverList() const { return "127.0.0.1:" + std::to_string(m_port); }

    // Queries received so far, and the names they asked for, oldest first.
    int queryCount() const { return m_queries.load(); }
    std::vector<std::string> askedNames() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_asked;
    }

private:
    static std::string lower(std::string text)
    {
        for (char& c : text)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return text;
    }

    void serve()
    {
        while (!m_stop.load()) {
            pollfd fd{m_socket, POLLIN, 0};
            if (::poll(&fd, 1, 20) <= 0)
                continue;
            unsigned char query[1500];
            sockaddr_in from;
            socklen_t fromLength = sizeof from;
            ssize_t got =
                ::recvfrom(m_socket, query, sizeof query, 0, reinterpret_cast<sockaddr*>(&from), &fromLength);
            if (got < 12)
                continue;
            std::vector<unsigned char> reply = answer(query, static_cast<std::size_t>(got));
            m_queries.fetch_add(1);
            if (!reply.empty())
                ::sendto(m_socket, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&from), fromLength);
        }
    }

    // The reply to one query; empty for none.
    std::vector<unsigned char> answer(const unsigned char* query, std::size_t length)
    {
        // The question: labels up to the root, then type and class.
        std::size_t at = 12;
        std::string name;
        while (at < length && query[at] != 0) {
            std::size_t label = query[at];
            if (label > 63 || at + 1 + label > length)
                return {};
            if (!name.empty())
                name += '.';
            name.append(reinterpret_cast<const char*>(query + at + 1), label);
            at += 1 + label;
        }
        if (at + 5 > length)
            return {};
        std::size_t questionEnd = at + 5;
        unsigned int type = (query[at + 1] << 8) | query[at + 2];

        std::vector<uint32_t> addresses;
        bool known = false;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_asked.push_back(name);
            auto found = m_names.find(lower(name));
            if (found != m_names.end()) {
                known = true;
                addresses = found->second;
            }
        }
        if (m_mode == SILENT)
            return {};

        std::vector<unsigned char> reply(query, query + questionEnd);
        reply[2] = static_cast<unsigned char>(0x80 | (query[2] & 0x79)); // response, keep opcode and RD
        unsigned int rcode = 0;
        if (m_mode == SERVFAIL)
            rcode = 2;
        else if (!known)
            rcode = 3;
        reply[3] = static_cast<unsigned char>(0x80 | rcode); // RA
        reply[4] = 0;
        reply[5] = 1; // one question
        std::size_t answers = (rcode == 0 && type == 1) ? addresses.size() : 0;
        reply[6] = static_cast<unsigned char>(answers >> 8);
        reply[7] = static_cast<unsigned char>(answers & 0xff);
        for (std::size_t i = 8; i < 12; ++i)
            reply[i] = 0;
        for (std::size_t i = 0; i < answers; ++i) {
            const unsigned char record[] = {0xc0, 0x0c, 0, 1, 0, 1, 0, 0, 0, 60, 0, 4};
            reply.insert(reply.end(), record, record + sizeof record);
            const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&addresses[i]);
            reply.insert(reply.end(), bytes, bytes + 4);
        }
        return reply;
    }

    Mode m_mode;
    int m_socket = -1;
    unsigned short m_port = 0;
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_queries{0};
    mutable std::mutex m_mutex;
    std::map<std::string, std::vector<uint32_t>> m_names;
    std::vector<std::string> m_asked;
    std::thread m_thread;
};

} // namespace hvtest

#endif
