// SIP message framing of HvBufferedInputStream. The input picks the arrival
// pattern and the size guard; the rest is the byte stream of a connection.
//
// Invariants:
// - Without the guard, the stream handed out in pieces of sizes taken from
//   the input yields exactly the messages that it yields when every fill
//   gets all it asks for, and those messages laid end to end are the start
//   of the stream.
//   Narrowed: a message whose headers end without a Content-Length header
//   takes every byte buffered at that moment (that is the framing's rule),
//   so from the first such message on the two arrival patterns may cut the
//   stream differently. There the two messages must share the header block,
//   one must be the start of the other, and that header block must indeed
//   hold no Content-Length header; the messages after it are not compared.
// - With the guard at a limit taken from the input, both arrival patterns
//   yield the same messages (narrowed as above) and, unless a message
//   without Content-Length set them apart, the same rejection; the
//   one-shot messages are the unguarded ones up to the first that is larger
//   than the limit; a rejection is reported, with its exact text, whenever
//   such a message exists; no message handed out is larger than the limit
//   and the buffer never holds more than limit + kGuardSlack bytes. The
//   input may ask for its text to be repeated 16 or 128 times, so that the
//   stream is long enough for the buffer bound to matter; such streams are
//   only framed with the guard on, against the bound and the agreement of
//   the two arrival patterns.
//   Narrowed: for a message without Content-Length the guard weighs its
//   header block only; what it takes besides (all that is buffered, by the
//   rule above) is bounded by the buffer limit, not by the message limit.
#include <HvUtil/HvBufferedInputStream.h>

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvDatagramPacket.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvObserver.h>

#include "HvFuzzCheck.h"

#include <log4cplus/logger.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace {

// A source over fixed bytes that hands out at most the next piece per block
// read, the pieces taken in turn over and over; with no pieces, all that is
// asked for.
class PieceSource : public HvInputStream {
public:
    PieceSource(const std::string& text, const std::vector<unsigned int>& pieces) : m_text(text), m_pieces(pieces) {}

    int read() override
    {
        if (m_at >= m_text.size())
            return -1;
        return static_cast<unsigned char>(m_text[m_at++]);
    }
    int read(void* buffer, unsigned int length, unsigned int offset) override
    {
        if (m_at >= m_text.size())
            return -1;
        std::size_t n = std::min<std::size_t>(length, m_text.size() - m_at);
        if (!m_pieces.empty()) {
            n = std::min<std::size_t>(n, m_pieces[m_next]);
            m_next = (m_next + 1) % m_pieces.size();
        }
        std::memcpy(static_cast<char*>(buffer) + offset, m_text.data() + m_at, n);
        m_at += n;
        return static_cast<int>(n);
    }
    using HvInputStream::read;

private:
    const std::string& m_text;
    const std::vector<unsigned int>& m_pieces;
    std::size_t m_at = 0;
    std::size_t m_next = 0;
};

class Collector : public HvObserver {
public:
    void onNotification(HvHandle<HvObservable>, HvHandle<HvObject> object) override
    {
        if (HvDatagramPacket* packet = dynamic_cast<HvDatagramPacket*>(object.get())) {
            HvHandle<HvByteArray> data = packet->getData();
            messages.push_back(data.isNull() ? std::string()
                                             : std::string(reinterpret_cast<const char*>(data->getData()) +
                                                               packet->getOffset(),
                                                           packet->getLength()));
        } else if (HvException* failure = dynamic_cast<HvException*>(object.get())) {
            failures.push_back(failure->getMessage().c_str());
        }
    }
    std::vector<std::string> messages;
    std::vector<std::string> failures;
};

struct Outcome {
    std::vector<std::string> messages;
    std::vector<std::string> failures;
};

// Frames the whole text; with a limit, checks the buffer bound after every
// block().
Outcome frame(const std::string& text, const std::vector<unsigned int>& pieces, unsigned int initialSize,
              unsigned int limit)
{
    HvBufferedInputStream::sm_maxMessageSize.store(limit, std::memory_order_relaxed);
    HvHandle<PieceSource> source(new PieceSource(text, pieces));
    HvHandle<HvBufferedInputStream> stream(new HvBufferedInputStream(source.get(), initialSize));
    HvHandle<Collector> collector(new Collector);
    stream->attachObserver(HvHandle<HvObserver>(collector.get()));
    // Every round that returns true took at least one byte (a fill that
    // gives nothing ends the stream), so this ends within text.size() rounds;
    // the bound turns a framing that stops moving into a report.
    std::size_t rounds = 0;
    for (;;) {
        const bool more = stream->block();
        if (limit != 0)
            HV_FUZZ_CHECK(stream->getCapacity() <= static_cast<unsigned long long>(limit) +
                                                       HvBufferedInputStream::kGuardSlack,
                          "capacity " + std::to_string(stream->getCapacity()) + ", limit " + std::to_string(limit));
        if (!more)
            break;
        ++rounds;
        HV_FUZZ_CHECK(rounds <= text.size() + 1, "block() keeps returning true");
    }
    stream->detachObserver(HvHandle<HvObserver>(collector.get()));
    HvBufferedInputStream::sm_maxMessageSize.store(0, std::memory_order_relaxed);
    return Outcome{collector->messages, collector->failures};
}

std::string describe(const std::vector<std::string>& messages)
{
    std::string out = std::to_string(messages.size()) + " messages:";
    for (const std::string& m : messages)
        out += " " + hvfuzz::quoted(m);
    return out;
}

// Where the headers of a message end by the framing's rule (just past an
// LF that follows LF or CR LF CR), or npos.
HV_FUZZ_NOT_TRACED std::size_t headerEnd(const std::string& m)
{
    for (std::size_t i = 1; i < m.size(); ++i) {
        if (m[i] != '\n')
            continue;
        if (m[i - 1] == '\n' || (i >= 3 && m[i - 1] == '\r' && m[i - 2] == '\n' && m[i - 3] == '\r'))
            return i + 1;
    }
    return std::string::npos;
}

// True when a header block names a Content-Length the framing would see:
// "l" (lower case) right after an LF, or "Content-Length" (any case) right
// after an LF, then blanks and a ':'.
HV_FUZZ_NOT_TRACED bool namesContentLength(const std::string& headers)
{
    static const char kLong[] = "content-length";
    for (std::size_t lf = headers.find('\n'); lf != std::string::npos; lf = headers.find('\n', lf + 1)) {
        std::size_t name = lf + 1;
        std::size_t end = name;
        if (end < headers.size() && headers[end] == 'l') {
            ++end;
        } else {
            std::size_t k = 0;
            while (k < sizeof kLong - 1 && end < headers.size() &&
                   std::tolower(static_cast<unsigned char>(headers[end])) == kLong[k]) {
                ++k;
                ++end;
            }
            if (k != sizeof kLong - 1)
                continue;
        }
        while (end < headers.size() && headers[end] == ' ')
            ++end;
        if (end < headers.size() && headers[end] == ':')
            return true;
    }
    return false;
}

// The size the guard holds against the limit: the whole message when its
// headers name a Content-Length, else only its header block, since such a
// message also takes whatever else happened to be buffered.
HV_FUZZ_NOT_TRACED std::size_t framedSize(const std::string& m)
{
    const std::size_t end = headerEnd(m);
    if (end == std::string::npos || namesContentLength(m.substr(0, end)))
        return m.size();
    return end;
}

// Compares the messages of two arrival patterns; returns false when a
// message without Content-Length made them part (see the invariants).
bool sameFraming(const std::vector<std::string>& a, const std::vector<std::string>& b, const char* what)
{
    const std::size_t n = std::min(a.size(), b.size());
    for (std::size_t i = 0; i < n; ++i) {
        if (a[i] == b[i])
            continue;
        const std::string& shorter = a[i].size() < b[i].size() ? a[i] : b[i];
        const std::string& longer = a[i].size() < b[i].size() ? b[i] : a[i];
        const std::size_t end = headerEnd(shorter);
        HV_FUZZ_CHECK(end != std::string::npos && longer.compare(0, shorter.size(), shorter) == 0 &&
                          !namesContentLength(shorter.substr(0, end)),
                      std::string(what) + ": message " + std::to_string(i) + " " + hvfuzz::quoted(a[i]) +
                          " against " + hvfuzz::quoted(b[i]));
        return false;
    }
    HV_FUZZ_CHECK(a.size() == b.size(), std::string(what) + ": " + describe(a) + "; " + describe(b));
    return true;
}

// What both arrival patterns must agree on under the guard, and what no
// message handed out may exceed.
void compareGuarded(const Outcome& oneShot, const Outcome& chunked, unsigned int limit)
{
    if (sameFraming(oneShot.messages, chunked.messages, "guarded one-shot against chunked"))
        HV_FUZZ_CHECK(chunked.failures == oneShot.failures, "rejections differ");
    for (const Outcome* outcome : {&oneShot, &chunked})
        for (const std::string& m : outcome->messages)
            HV_FUZZ_CHECK(framedSize(m) <= limit, "a message of " + std::to_string(m.size()) + " bytes handed out");
}

// A long stream under the guard: the bound on the buffer (checked by
// frame()) and the agreement of the arrival patterns.
void checkGuard(const std::string& stream, const std::vector<unsigned int>& pieces, unsigned int initialSize,
                unsigned int limit)
{
    const std::vector<unsigned int> whole;
    const Outcome oneShot = frame(stream, whole, 0, limit);
    const Outcome chunked = frame(stream, pieces, initialSize, limit);
    compareGuarded(oneShot, chunked, limit);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // Header: flags, limit (2 bytes), initial buffer size, piece count, pieces.
    // Every rejection logs an error line; millions of them would only slow
    // the fuzzer down. The rejection itself is checked through the observer.
    static const bool quiet = [] {
        log4cplus::Logger::getInstance("ferrowind.hv.HvBufferedInputStream").setLogLevel(log4cplus::OFF_LOG_LEVEL);
        return true;
    }();
    (void)quiet;
    if (size < 5)
        return 0;
    const bool guard = (data[0] & 1) != 0;
    const unsigned int limit = guard ? 1u + (data[1] | (data[2] << 8)) % 4096u : 0u;
    const unsigned int initialSize = (data[0] & 2) ? data[3] : 0u;
    const std::size_t pieceCount = std::min<std::size_t>(data[4] % 8, size - 5);
    std::vector<unsigned int> pieces;
    for (std::size_t i = 0; i < pieceCount; ++i)
        pieces.push_back(1u + data[5 + i] * ((data[0] & 4) ? 37u : 1u));
    const std::size_t header = 5 + pieceCount;
    const std::string text(reinterpret_cast<const char*>(data) + header, size - header);
    // Inputs are a few kilobytes, far below limit + kGuardSlack; the bound
    // is only put to the test by a stream many times longer: the text over
    // and over, with pieces as many times larger so that the number of
    // fills stays that of the text alone. The stream is cut a chunk past
    // the bound: further bytes cannot take the buffer anywhere new, and
    // every one of them costs a full instrumented scan.
    static const std::size_t kBeyondBound = HvBufferedInputStream::kGuardSlack + HvBufferedInputStream::kChunk;
    const unsigned int repeatCode = (data[0] >> 3) & 7;
    const unsigned int repeat = repeatCode == 7 ? 128u : repeatCode >= 4 ? 16u : 1u;
    if (guard && repeat > 1) {
        const std::size_t length = std::min<std::size_t>(text.size() * repeat, limit + kBeyondBound);
        std::string stream;
        stream.reserve(length);
        while (stream.size() < length)
            stream.append(text, 0, length - stream.size());
        std::vector<unsigned int> scaled;
        for (unsigned int piece : pieces)
            scaled.push_back(piece * repeat);
        checkGuard(stream, scaled, initialSize, limit);
        return 0;
    }

    const std::vector<unsigned int> whole;
    const Outcome oneShot = frame(text, whole, 0, 0);
    const Outcome chunked = frame(text, pieces, initialSize, 0);
    HV_FUZZ_CHECK(oneShot.failures.empty() && chunked.failures.empty(), "a failure without a size guard");
    sameFraming(oneShot.messages, chunked.messages, "one-shot against chunked");
    std::string joined;
    for (const std::string& m : oneShot.messages) {
        HV_FUZZ_CHECK(!m.empty(), "an empty message");
        joined += m;
    }
    HV_FUZZ_CHECK(text.compare(0, joined.size(), joined) == 0, "messages are not the start of the stream");
    if (!guard)
        return 0;

    const Outcome guardedOneShot = frame(text, whole, 0, limit);
    const Outcome guardedChunked = frame(text, pieces, initialSize, limit);
    compareGuarded(guardedOneShot, guardedChunked, limit);
    std::size_t fitting = 0;
    while (fitting < oneShot.messages.size() && framedSize(oneShot.messages[fitting]) <= limit)
        ++fitting;
    const std::vector<std::string> expected(oneShot.messages.begin(), oneShot.messages.begin() + fitting);
    HV_FUZZ_CHECK(guardedOneShot.messages == expected,
                  "limit " + std::to_string(limit) + ": guarded " + describe(guardedOneShot.messages) +
                      "; expected " + describe(expected));
    const std::string rejection =
        "HvBufferedInputStream::block(): message larger than " + std::to_string(limit) + " bytes";
    HV_FUZZ_CHECK(guardedOneShot.failures.size() <= 1, "more than one rejection");
    if (fitting < oneShot.messages.size())
        HV_FUZZ_CHECK(guardedOneShot.failures.size() == 1, "an oversized message was not rejected");
    if (!guardedOneShot.failures.empty()) {
        HV_FUZZ_CHECK(guardedOneShot.failures[0] == rejection, hvfuzz::quoted(guardedOneShot.failures[0]));
        // Only a message (whole or still arriving) beyond the delivered ones
        // can have been too large.
        std::size_t delivered = 0;
        for (const std::string& m : expected)
            delivered += m.size();
        HV_FUZZ_CHECK(text.size() > delivered, "a rejection with nothing pending");
    }
    return 0;
}
