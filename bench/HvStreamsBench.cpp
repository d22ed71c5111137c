// Text on streams, measured next to the plain C and C++ way of doing the same
// work on the same bytes in the same run:
//   - framing: SIP messages of 500 bytes and 4 KiB (an INVITE over TCP with
//     an SDP body, Content-Length in the long or the compact "l" form) cut out
//     of a memory source that hands out at most 64 KiB per read, through
//     block() and through readIntoBuffer() + isReadComplete() + getPacket();
//   - the framing scan alone (isReadComplete() over a buffer already filled)
//     against a memchr() line walk that finds the same header ends and
//     Content-Length values, and against one memchr() over all the bytes;
//   - line reading: HvStreamTokenizer::sGetLine over an HvByteArrayInputStream
//     of SIP header lines, against std::getline on an std::istringstream;
//   - parameter lists: HvParameters::parse + getString of a Via-style
//     parameter string, against splitting and joining with std::string.
// Every benchmark checks its result against the corpus before it measures, so
// a framer or a parser that loses bytes fails instead of looking fast.
//
// Naming: BM_<Case>_Hv... measures this library, BM_<Case>_Std... the anchor.
#include <HvUtil/HvBufferedInputStream.h>
#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvByteArrayInputStream.h>
#include <HvUtil/HvDatagramPacket.h>
#include <HvUtil/HvInputStream.h>
#include <HvUtil/HvObserver.h>
#include <HvUtil/HvParameters.h>
#include <HvUtil/HvStreamTokenizer.h>
#include <HvUtil/HvString.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <strings.h>
#include <utility>
#include <vector>

namespace {

// What one read of the memory source hands out at most: a busy connection
// delivers this much per recv() with the library's 240 KiB socket buffers.
const unsigned int kReadSize = 65536;

// Corpus size per benchmark iteration: big enough that one pass is several
// milliseconds and the per-iteration set-up does not count.
const std::size_t kCorpusBytes = 4u << 20;

// ---------------------------------------------------------------------------
// SIP messages

// Appends SDP lines to `body` until it is `length` bytes long; the last line
// is cut where the length ends, as the body is opaque to the framer.
void fillSdp(std::string& body, std::size_t length, unsigned int sequence)
{
    char line[160];
    std::snprintf(line, sizeof line,
                  "v=0\r\no=alice 2890844526 %u IN IP4 10.0.0.1\r\ns=-\r\nc=IN IP4 10.0.0.1\r\nt=0 0\r\n"
                  "m=audio 49170 RTP/AVP 0 8 97 101\r\n",
                  sequence);
    body = line;
    static const char* const kCodecs[] = {"PCMU/8000", "PCMA/8000", "iLBC/8000", "telephone-event/8000",
                                          "opus/48000/2", "G722/8000", "AMR-WB/16000"};
    unsigned int n = 0;
    while (body.size() < length) {
        std::snprintf(line, sizeof line, "a=rtpmap:%u %s\r\na=candidate:%u 1 UDP 2130706431 10.0.%u.%u %u typ host\r\n",
                      96 + n % 32, kCodecs[n % 7], n, n % 250, (n * 7) % 250, 20000 + n);
        body += line;
        ++n;
    }
    body.resize(length);
}

// One INVITE of exactly `size` bytes. Large messages carry the headers a call
// picks up on its way through proxies (more Vias, Record-Routes and feature
// headers); the SDP body fills the rest. Compact messages use the one-letter
// header names, Content-Length as "l".
std::string sipMessage(std::size_t size, unsigned int sequence, bool compact)
{
    char text[512];
    std::string headers;
    std::snprintf(text, sizeof text, "INVITE sip:bob@biloxi.example.com SIP/2.0\r\n");
    headers += text;
    int vias = size > 1000 ? 4 : 1;
    for (int i = 0; i < vias; ++i) {
        std::snprintf(text, sizeof text, "%s: SIP/2.0/TCP proxy%d.atlanta.example.com:5060;branch=z9hG4bK%08x%d\r\n",
                      compact ? "v" : "Via", i, sequence * 2654435761u, i);
        headers += text;
    }
    headers += "Max-Forwards: 70\r\n";
    std::snprintf(text, sizeof text, "%s: Alice <sip:alice@atlanta.example.com>;tag=%x\r\n", compact ? "f" : "From",
                  sequence * 40503u);
    headers += text;
    headers += compact ? "t: Bob <sip:bob@biloxi.example.com>\r\n" : "To: Bob <sip:bob@biloxi.example.com>\r\n";
    std::snprintf(text, sizeof text, "%s: %u-3848276298220188511@atlanta.example.com\r\n", compact ? "i" : "Call-ID",
                  sequence);
    headers += text;
    std::snprintf(text, sizeof text, "CSeq: %u INVITE\r\n", sequence % 1000 + 1);
    headers += text;
    headers += compact ? "m: <sip:alice@client.atlanta.example.com;transport=tcp>\r\n"
                       : "Contact: <sip:alice@client.atlanta.example.com;transport=tcp>\r\n";
    if (size > 1000) {
        for (int i = 0; i < 3; ++i) {
            std::snprintf(text, sizeof text, "Record-Route: <sip:proxy%d.atlanta.example.com;lr;ftag=%x>\r\n", i,
                          sequence * 31u + i);
            headers += text;
        }
        headers += "Allow: INVITE, ACK, CANCEL, OPTIONS, BYE, REFER, NOTIFY, MESSAGE, SUBSCRIBE, INFO, UPDATE\r\n";
        headers += compact ? "k: replaces, timer, 100rel, path\r\n" : "Supported: replaces, timer, 100rel, path\r\n";
        headers += "Session-Expires: 1800;refresher=uac\r\n";
        headers += "P-Asserted-Identity: \"Alice\" <sip:alice@atlanta.example.com>\r\n";
        headers += "User-Agent: Softphone/4.2.1 (build 20261124)\r\n";
    }
    headers += compact ? "c: application/sdp\r\n" : "Content-Type: application/sdp\r\n";

    // The Content-Length line's own length depends on the number it carries.
    const char* lengthName = compact ? "l: " : "Content-Length: ";
    std::size_t body = 0;
    for (int round = 0; round < 3; ++round) {
        std::size_t fixed = headers.size() + std::strlen(lengthName) + std::to_string(body).size() + 4;
        if (fixed > size) {
            std::fprintf(stderr, "a %zu-byte message cannot hold its %zu bytes of headers\n", size, fixed);
            std::abort();
        }
        body = size - fixed;
    }
    headers += lengthName;
    headers += std::to_string(body);
    headers += "\r\n\r\n";
    std::string sdp;
    fillSdp(sdp, body, sequence);
    std::string message = headers + sdp;
    if (message.size() != size) {
        std::fprintf(stderr, "built a %zu-byte message instead of %zu\n", message.size(), size);
        std::abort();
    }
    return message;
}

struct Corpus {
    std::string bytes;
    // Length of each message, in order.
    std::vector<unsigned int> lengths;
    // Bytes of each message up to and including its blank line.
    std::vector<unsigned int> headerLengths;
    // The Content-Length each message declares.
    std::vector<unsigned int> bodyLengths;
};

// kCorpusBytes of back-to-back messages of `size` bytes; one in four uses the
// compact header names.
const Corpus& sipCorpus(std::size_t size)
{
    static std::map<std::size_t, Corpus> corpora;
    Corpus& corpus = corpora[size];
    if (!corpus.bytes.empty())
        return corpus;
    unsigned int count = static_cast<unsigned int>(std::max<std::size_t>(1, kCorpusBytes / size));
    corpus.bytes.reserve(count * size);
    for (unsigned int i = 0; i < count; ++i) {
        std::string message = sipMessage(size, i, i % 4 == 3);
        std::size_t blank = message.find("\r\n\r\n");
        corpus.lengths.push_back(static_cast<unsigned int>(message.size()));
        corpus.headerLengths.push_back(static_cast<unsigned int>(blank + 4));
        corpus.bodyLengths.push_back(static_cast<unsigned int>(message.size() - blank - 4));
        corpus.bytes += message;
    }
    return corpus;
}

// ---------------------------------------------------------------------------
// Framing

// A test-only source: hands out the corpus in reads of at most `chunk` bytes,
// as a connection's socket stream would, then -1.
class MemoryChunkSource : public HvInputStream {
public:
    MemoryChunkSource(const std::string& bytes, unsigned int chunk) : m_bytes(bytes), m_chunk(chunk) {}

    int read() override
    {
        if (m_position >= m_bytes.size())
            return -1;
        return static_cast<unsigned char>(m_bytes[m_position++]);
    }
    int read(void* buffer, unsigned int length, unsigned int offset) override
    {
        std::size_t left = m_bytes.size() - m_position;
        if (left == 0)
            return -1;
        std::size_t n = std::min<std::size_t>({length, m_chunk, left});
        std::memcpy(static_cast<char*>(buffer) + offset, m_bytes.data() + m_position, n);
        m_position += n;
        return static_cast<int>(n);
    }
    using HvInputStream::read;
    unsigned int available() override { return static_cast<unsigned int>(m_bytes.size() - m_position); }

private:
    const std::string& m_bytes;
    unsigned int m_chunk;
    std::size_t m_position = 0;
};

// Takes every packet block() delivers, and keeps the message bytes when asked
// to, for the check before measuring.
class PacketCounter : public HvObserver {
public:
    void onNotification(HvHandle<HvObservable>, HvHandle<HvObject> object) override
    {
        if (object.isNull())
            return;
        HvDatagramPacket* packet = dynamic_cast<HvDatagramPacket*>(object.get());
        if (packet == nullptr) {
            ++m_others;
            return;
        }
        ++m_messages;
        m_bytes += packet->getLength();
        if (m_keep) {
            HvHandle<HvByteArray> data = packet->getData();
            m_kept.emplace_back(reinterpret_cast<const char*>(data->getData()) + packet->getOffset(),
                                packet->getLength());
        }
    }

    bool m_keep = false;
    std::vector<std::string> m_kept;
    std::uint64_t m_messages = 0;
    std::uint64_t m_bytes = 0;
    std::uint64_t m_others = 0;
};

// Cuts the corpus into messages with readIntoBuffer(64 KiB) and as many
// isReadComplete()/getPacket() as each fill allows; `sink` sees every packet.
template <class Sink>
void frameWithReadIntoBuffer(const Corpus& corpus, Sink&& sink)
{
    HvHandle<MemoryChunkSource> source(new MemoryChunkSource(corpus.bytes, kReadSize));
    HvHandle<HvBufferedInputStream> in(new HvBufferedInputStream(source.get(), kReadSize));
    while (in->readIntoBuffer(kReadSize) > 0) {
        while (in->isReadComplete())
            sink(in->getPacket());
    }
}

// Cuts the corpus into messages with block() until the source has ended.
void frameWithBlock(const Corpus& corpus, PacketCounter& counter)
{
    HvHandle<MemoryChunkSource> source(new MemoryChunkSource(corpus.bytes, kReadSize));
    HvHandle<HvBufferedInputStream> in(new HvBufferedInputStream(source.get(), kReadSize));
    in->attachObserver(HvHandle<HvObserver>(&counter));
    while (in->block()) {
    }
    // The observer holds the stream as its source; detaching breaks the cycle.
    counter.detach();
}

// Empty when `messages` are the corpus's messages in order; otherwise what differs.
std::string compareWithCorpus(const Corpus& corpus, const std::vector<std::string>& messages)
{
    if (messages.size() != corpus.lengths.size())
        return "framed " + std::to_string(messages.size()) + " messages instead of " +
               std::to_string(corpus.lengths.size());
    std::size_t at = 0;
    for (std::size_t i = 0; i < messages.size(); ++i) {
        if (messages[i].compare(0, std::string::npos, corpus.bytes, at, corpus.lengths[i]) != 0)
            return "message " + std::to_string(i) + " differs from the one sent";
        at += corpus.lengths[i];
    }
    return std::string();
}

// Rates of whole passes over the corpus: bytes, messages (items) and
// messages per second.
void countCorpusPasses(benchmark::State& state, const Corpus& corpus)
{
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * corpus.bytes.size()));
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * corpus.lengths.size()));
    state.counters["messages_per_second"] = benchmark::Counter(
        static_cast<double>(state.iterations() * corpus.lengths.size()), benchmark::Counter::kIsRate);
}

void BM_Framing_HvReadIntoBuffer(benchmark::State& state)
{
    const Corpus& corpus = sipCorpus(static_cast<std::size_t>(state.range(0)));
    std::vector<std::string> framed;
    frameWithReadIntoBuffer(corpus, [&](const HvHandle<HvDatagramPacket>& packet) {
        HvHandle<HvByteArray> data = packet->getData();
        framed.emplace_back(reinterpret_cast<const char*>(data->getData()) + packet->getOffset(), packet->getLength());
    });
    std::string difference = compareWithCorpus(corpus, framed);
    if (!difference.empty()) {
        state.SkipWithError(difference.c_str());
        return;
    }
    framed.clear();
    for (auto _ : state) {
        std::uint64_t messages = 0;
        std::uint64_t bytes = 0;
        frameWithReadIntoBuffer(corpus, [&](const HvHandle<HvDatagramPacket>& packet) {
            ++messages;
            bytes += packet->getLength();
        });
        if (messages != corpus.lengths.size() || bytes != corpus.bytes.size()) {
            state.SkipWithError("a pass framed other messages than the corpus holds");
            return;
        }
    }
    countCorpusPasses(state, corpus);
}
BENCHMARK(BM_Framing_HvReadIntoBuffer)->Arg(500)->Arg(4096)->Unit(benchmark::kMillisecond);

void BM_Framing_HvBlock(benchmark::State& state)
{
    const Corpus& corpus = sipCorpus(static_cast<std::size_t>(state.range(0)));
    HvHandle<PacketCounter> counter(new PacketCounter);
    counter->m_keep = true;
    frameWithBlock(corpus, *counter);
    std::string difference = compareWithCorpus(corpus, counter->m_kept);
    if (difference.empty() && counter->m_others != 0)
        difference = "block() notified something else than packets and ticks";
    if (!difference.empty()) {
        state.SkipWithError(difference.c_str());
        return;
    }
    counter->m_keep = false;
    counter->m_kept.clear();
    for (auto _ : state) {
        counter->m_messages = 0;
        counter->m_bytes = 0;
        frameWithBlock(corpus, *counter);
        if (counter->m_messages != corpus.lengths.size() || counter->m_bytes != corpus.bytes.size()) {
            state.SkipWithError("a pass framed other messages than the corpus holds");
            return;
        }
    }
    countCorpusPasses(state, corpus);
}
BENCHMARK(BM_Framing_HvBlock)->Arg(500)->Arg(4096)->Unit(benchmark::kMillisecond);

// One message whose headers arrive a byte per fill, as from a peer that
// sends them a byte per segment: the framing must not scan the headers again
// from their start at every byte. Argument: the size of one header line.
void BM_Framing_HvBlockOneBytePerFill(benchmark::State& state)
{
    const std::string message = "OPTIONS sip:bob@example.com SIP/2.0\r\nSubject: " +
                                std::string(static_cast<std::size_t>(state.range(0)), 's') +
                                "\r\nContent-Length: 0\r\n\r\n";
    HvHandle<PacketCounter> counter(new PacketCounter);
    for (auto _ : state) {
        counter->m_messages = 0;
        HvHandle<MemoryChunkSource> source(new MemoryChunkSource(message, 1));
        HvHandle<HvBufferedInputStream> in(new HvBufferedInputStream(source.get(), 0));
        in->attachObserver(HvHandle<HvObserver>(counter.get()));
        while (in->block()) {
        }
        counter->detach();
        if (counter->m_messages != 1) {
            state.SkipWithError("the message was not framed once");
            return;
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * message.size()));
}
BENCHMARK(BM_Framing_HvBlockOneBytePerFill)->Arg(1024)->Arg(16384)->Arg(65536)->Unit(benchmark::kMillisecond);

// The scan alone: the whole corpus sits in the stream's buffer, and each step
// is one isReadComplete() followed by skip() over the message, so neither
// fills nor packet copies are measured. Bytes per second count whole
// messages; header_bytes_per_second counts only the header bytes, which are
// all the scan has to look at (the body is measured, not read).
void BM_FrameScan_HvIsReadComplete(benchmark::State& state)
{
    const Corpus& corpus = sipCorpus(static_cast<std::size_t>(state.range(0)));
    HvHandle<MemoryChunkSource> source(new MemoryChunkSource(corpus.bytes, kReadSize));
    HvHandle<HvBufferedInputStream> in(new HvBufferedInputStream(source.get(), kReadSize));
    while (in->readIntoBuffer(kReadSize) > 0) {
    }
    if (in->available() != corpus.bytes.size()) {
        state.SkipWithError("the buffer does not hold the whole corpus");
        return;
    }
    std::uint64_t headerBytes = 0;
    for (unsigned int length : corpus.headerLengths)
        headerBytes += length;
    for (auto _ : state) {
        in->mark(0xFFFFFFFFu);
        for (unsigned int length : corpus.lengths) {
            if (!in->isReadComplete()) {
                state.SkipWithError("isReadComplete() found a buffered message incomplete");
                return;
            }
            in->skip(length);
        }
        if (in->available() != 0) {
            state.SkipWithError("the messages did not end with the buffer");
            return;
        }
        in->reset();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * corpus.bytes.size()));
    state.counters["header_bytes_per_second"] =
        benchmark::Counter(static_cast<double>(state.iterations() * headerBytes), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_FrameScan_HvIsReadComplete)->Arg(500)->Arg(4096)->Unit(benchmark::kMicrosecond);

// The same job done with memchr(): walk the header lines from one LF to the
// next, take Content-Length (long or compact form) from its line, stop at the
// blank line, and step over the declared body. It reads the same bytes as the
// library's scan and finds the same message boundaries.
std::size_t memchrMessageEnd(const char* data, std::size_t start, std::size_t end, bool& ok)
{
    std::size_t line = start;
    unsigned long contentLength = 0;
    for (;;) {
        const char* lf = static_cast<const char*>(std::memchr(data + line, '\n', end - line));
        if (lf == nullptr) {
            ok = false;
            return end;
        }
        std::size_t next = static_cast<std::size_t>(lf - data) + 1;
        std::size_t length = next - line;
        if (length <= 2 && (length == 1 || data[line] == '\r'))
            break;
        if (length > 15 && strncasecmp(data + line, "Content-Length:", 15) == 0)
            contentLength = std::strtoul(data + line + 15, nullptr, 10);
        else if (length > 2 && data[line] == 'l' && data[line + 1] == ':')
            contentLength = std::strtoul(data + line + 2, nullptr, 10);
        line = next;
    }
    // `line` is the start of the blank line; the body follows it.
    std::size_t headerEnd = line + (data[line] == '\r' ? 2 : 1);
    ok = end - headerEnd >= contentLength;
    return headerEnd + contentLength;
}

void BM_FrameScan_StdMemchr(benchmark::State& state)
{
    const Corpus& corpus = sipCorpus(static_cast<std::size_t>(state.range(0)));
    const char* data = corpus.bytes.data();
    const std::size_t end = corpus.bytes.size();
    for (auto _ : state) {
        std::size_t at = 0;
        for (unsigned int length : corpus.lengths) {
            bool ok = true;
            std::size_t next = memchrMessageEnd(data, at, end, ok);
            if (!ok || next != at + length) {
                state.SkipWithError("the memchr() walk found another message end");
                return;
            }
            at = next;
        }
        benchmark::DoNotOptimize(at);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * corpus.bytes.size()));
}
BENCHMARK(BM_FrameScan_StdMemchr)->Arg(500)->Arg(4096)->Unit(benchmark::kMicrosecond);

// Raw speed of memory: one memchr() over every byte of the corpus for a byte
// that is not there.
void BM_FrameScanAllBytes_StdMemchr(benchmark::State& state)
{
    const Corpus& corpus = sipCorpus(static_cast<std::size_t>(state.range(0)));
    if (std::memchr(corpus.bytes.data(), '\0', corpus.bytes.size()) != nullptr) {
        state.SkipWithError("the corpus holds a NUL byte");
        return;
    }
    for (auto _ : state) {
        const void* found = std::memchr(corpus.bytes.data(), '\0', corpus.bytes.size());
        benchmark::DoNotOptimize(found);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * corpus.bytes.size()));
}
BENCHMARK(BM_FrameScanAllBytes_StdMemchr)->Arg(500)->Arg(4096)->Unit(benchmark::kMicrosecond);

// ---------------------------------------------------------------------------
// Line reading

// About 256 KiB of SIP header lines (the header sections of the 500-byte and
// 4 KiB messages, without their blank lines), each ended by CR LF.
struct Lines {
    std::string text;
    std::uint64_t count = 0;
    // Characters of all lines without their ends.
    std::uint64_t characters = 0;
};

const Lines& headerLines()
{
    static Lines lines;
    if (!lines.text.empty())
        return lines;
    for (unsigned int i = 0; lines.text.size() < (256u << 10); ++i) {
        std::string message = sipMessage(i % 2 == 0 ? 500 : 4096, i, i % 4 == 3);
        std::size_t blank = message.find("\r\n\r\n");
        lines.text.append(message, 0, blank + 2);
    }
    for (std::size_t at = 0; at < lines.text.size();) {
        std::size_t end = lines.text.find("\r\n", at);
        ++lines.count;
        lines.characters += end - at;
        at = end + 2;
    }
    return lines;
}

void BM_GetLine_HvString(benchmark::State& state)
{
    const Lines& lines = headerLines();
    HvHandle<HvByteArray> bytes = HvByteArray::sCreate(static_cast<unsigned int>(lines.text.size()), lines.text.data());
    for (auto _ : state) {
        HvHandle<HvByteArrayInputStream> in(new HvByteArrayInputStream(bytes.get(), 0, 0));
        std::uint64_t count = 0;
        std::uint64_t characters = 0;
        while (in->available() > 0) {
            HvString line = HvStreamTokenizer::sGetLine(*in);
            ++count;
            characters += line.length();
        }
        if (count != lines.count || characters != lines.characters) {
            state.SkipWithError("sGetLine() read other lines than the text holds");
            return;
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * lines.text.size()));
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * lines.count));
}
BENCHMARK(BM_GetLine_HvString)->Unit(benchmark::kMicrosecond);

void BM_GetLine_HvBuffer(benchmark::State& state)
{
    const Lines& lines = headerLines();
    HvHandle<HvByteArray> bytes = HvByteArray::sCreate(static_cast<unsigned int>(lines.text.size()), lines.text.data());
    // One more than the longest line, as sGetToken leaves a full buffer
    // without its terminating zero.
    char line[1024];
    for (auto _ : state) {
        HvHandle<HvByteArrayInputStream> in(new HvByteArrayInputStream(bytes.get(), 0, 0));
        std::uint64_t count = 0;
        std::uint64_t characters = 0;
        while (in->available() > 0) {
            if (!HvStreamTokenizer::sGetLine(*in, line, sizeof line)) {
                state.SkipWithError("sGetLine() found a line longer than its buffer");
                return;
            }
            ++count;
            characters += std::strlen(line);
        }
        if (count != lines.count || characters != lines.characters) {
            state.SkipWithError("sGetLine() read other lines than the text holds");
            return;
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * lines.text.size()));
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * lines.count));
}
BENCHMARK(BM_GetLine_HvBuffer)->Unit(benchmark::kMicrosecond);

// The stream is built once and rewound, so the anchor pays no copy of the
// text per pass (the library's stream reads the array in place as well). The
// CR that std::getline leaves at the end of each line is dropped, as the
// library drops it.
void BM_GetLine_StdGetline(benchmark::State& state)
{
    const Lines& lines = headerLines();
    std::istringstream in(lines.text);
    std::string line;
    for (auto _ : state) {
        in.clear();
        in.seekg(0);
        std::uint64_t count = 0;
        std::uint64_t characters = 0;
        while (std::getline(in, line)) {
            if (!line.empty() && line.back() == '\r')
                line.pop_back();
            ++count;
            characters += line.size();
        }
        if (count != lines.count || characters != lines.characters) {
            state.SkipWithError("std::getline read other lines than the text holds");
            return;
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * lines.text.size()));
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * lines.count));
}
BENCHMARK(BM_GetLine_StdGetline)->Unit(benchmark::kMicrosecond);

// ---------------------------------------------------------------------------
// Parameter lists

const char kViaParameters[] = "transport=tcp;lr;branch=z9hG4bK776asdhds;maddr=10.0.0.1;ttl=15";

// The anchor: split on ';' and at the first '=', trim nothing (the text has
// no blanks), keep the pairs in a vector and write them back newest first,
// which is the order the library's list writes.
std::string stdParseAndJoin(const std::string& text)
{
    std::vector<std::pair<std::string, std::string>> items;
    std::size_t at = 0;
    while (at <= text.size()) {
        std::size_t end = text.find(';', at);
        if (end == std::string::npos)
            end = text.size();
        std::size_t equals = text.find('=', at);
        if (equals == std::string::npos || equals > end)
            items.emplace_back(text.substr(at, end - at), std::string());
        else
            items.emplace_back(text.substr(at, equals - at), text.substr(equals + 1, end - equals - 1));
        at = end + 1;
    }
    std::string out;
    out.reserve(80);
    for (std::size_t i = items.size(); i-- > 0;) {
        out += items[i].first;
        if (!items[i].second.empty()) {
            out += '=';
            out += items[i].second;
        }
        if (i > 0)
            out += ';';
    }
    return out;
}

void BM_ParamParse_HvParameters(benchmark::State& state)
{
    const std::string expected = stdParseAndJoin(kViaParameters);
    {
        HvHandle<HvParameters> parameters(new HvParameters(";"));
        parameters->parse(kViaParameters);
        HvString text = parameters->getString();
        if (expected != text.c_str()) {
            std::string message = "getString() wrote \"" + std::string(text.c_str()) + "\", expected \"" + expected + "\"";
            state.SkipWithError(message.c_str());
            return;
        }
    }
    for (auto _ : state) {
        HvHandle<HvParameters> parameters(new HvParameters(";"));
        parameters->parse(kViaParameters);
        HvString text = parameters->getString();
        if (text.length() != expected.size()) {
            state.SkipWithError("getString() wrote a text of another length");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ParamParse_HvParameters);

void BM_ParamParse_StdSplit(benchmark::State& state)
{
    const std::string input = kViaParameters;
    for (auto _ : state) {
        std::string text = stdParseAndJoin(input);
        if (text.size() != input.size()) {
            state.SkipWithError("the split and join wrote a text of another length");
            return;
        }
        benchmark::DoNotOptimize(text.data());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ParamParse_StdSplit);

} // namespace
