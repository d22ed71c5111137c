// Small helpers shared by the tests of the SIP programs: header values of a
// message in text form, numbers out of the load generator's JSON, the
// per-call cost ceiling of the parsing tests, the request step run on text,
// and reading one SIP message off a TCP connection.
#ifndef HVUTIL_TESTS_HVTESTSIP_H
#define HVUTIL_TESTS_HVTESTSIP_H

#include "HvSipResponderCore.h"
#include "HvTestSockets.h"

#include <HvUtil/HvByteArray.h>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <regex>
#include <string>

namespace hvtest {

// The value of header line `name` of `message` ("" when absent).
inline std::string sipHeader(const std::string& message, const std::string& name)
{
    const std::string key = "\r\n" + name + ": ";
    std::string::size_type start = message.find(key);
    if (start == std::string::npos)
        return std::string();
    start += key.size();
    return message.substr(start, message.find("\r\n", start) - start);
}

// The value of a numeric JSON key ("sent", "timeout", ...), -1 when absent.
inline double jsonNumber(const std::string& json, const std::string& key)
{
    std::smatch match;
    if (!std::regex_search(json, match, std::regex("\"" + key + "\":(-?[0-9]+(\\.[0-9]+)?)")))
        return -1;
    return std::stod(match[1].str());
}

// The sanitizers slow every call tens of times over; the ceiling only has to
// catch a gross slowdown in the plain build.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kCostRounds = 2000;
constexpr double kCostCeilingUs = 10000.0;
#else
constexpr int kCostRounds = 20000;
constexpr double kCostCeilingUs = 1000.0;
#endif

// A source address for the request step.
inline HvSipSource sipSourceAt(const char* dottedQuad, unsigned int port, bool udp = true)
{
    HvSipSource source;
    source.address.setAddress(::inet_addr(dottedQuad));
    source.port = port;
    source.udp = udp;
    return source;
}

// The request step on `text`, as one datagram or one framed message.
inline HvSipResponderCore::Result handleSip(const std::string& text, const HvSipSource& source)
{
    HvHandle<HvByteArray> bytes = HvByteArray::sCreate(static_cast<unsigned int>(text.size()), text.data());
    return HvSipResponderCore::sHandle(bytes.get(), 0, static_cast<unsigned int>(text.size()), source);
}

// The reply of a result as text ("" when there is none).
inline std::string replyText(const HvSipResponderCore::Result& result)
{
    if (result.reply.isNull())
        return std::string();
    return std::string(reinterpret_cast<const char*>(result.reply->getData()), result.reply->getSize());
}

// How long a test waits for a reply from a program under test.
constexpr int kSipReplyTimeoutMs = 10000;

// Reads one SIP message (headers and a body of its Content-Length) from a
// TCP connection; "" on time-out or close.
inline std::string readSipMessage(int descriptor, int timeoutMs = kSipReplyTimeoutMs)
{
    std::string head;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (head.find("\r\n\r\n") == std::string::npos) {
        int left = static_cast<int>(
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count());
        if (left <= 0 || !waitReady(descriptor, POLLIN, left))
            return std::string();
        char c;
        if (::recv(descriptor, &c, 1, 0) != 1)
            return std::string();
        head += c;
    }
    std::smatch match;
    std::size_t body = 0;
    if (std::regex_search(head, match, std::regex("\r\nContent-Length: *([0-9]+)\r\n", std::regex::icase)))
        body = std::stoul(match[1].str());
    if (body == 0)
        return head;
    return head + readExactly(descriptor, body, timeoutMs);
}

} // namespace hvtest

#endif
