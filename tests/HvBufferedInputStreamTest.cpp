#include <HvUtil/HvBufferedInputStream.h>

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvClientSocket.h>
#include <HvUtil/HvDatagramPacket.h>
#include <HvUtil/HvErrorStream.h>
#include <HvUtil/HvEventQueue.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvMonitorThread.h>
#include <HvUtil/HvObserverThread.h>
#include <HvUtil/HvOutputStream.h>
#include <HvUtil/HvSocketFactory.h>
#include <HvUtil/HvSocketInputStream.h>
#include <HvUtil/HvTCPEvent.h>
#include <HvUtil/HvTCPODispatcher.h>

#include <tests/support/HvTestSockets.h>
#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

// An input stream over a fixed text that hands it out in given pieces: each
// block read returns at most the next piece, so a test decides exactly what
// every fill of the buffered stream finds. Records the lengths asked for.
class ChunkedInputStream : public HvInputStream {
public:
    explicit ChunkedInputStream(std::string text, std::vector<unsigned int> pieces = {})
        : m_text(std::move(text)), m_pieces(std::move(pieces))
    {
    }

    int read() override
    {
        if (m_at >= m_text.size())
            return -1;
        return static_cast<unsigned char>(m_text[m_at++]);
    }
    int read(void* buffer, unsigned int length, unsigned int offset) override
    {
        asked.push_back(length);
        if (m_at >= m_text.size())
            return -1;
        std::size_t n = std::min<std::size_t>(length, m_text.size() - m_at);
        if (m_piece < m_pieces.size()) {
            n = std::min<std::size_t>(n, m_pieces[m_piece]);
            ++m_piece;
        }
        std::memcpy(static_cast<char*>(buffer) + offset, m_text.data() + m_at, n);
        m_at += n;
        return static_cast<int>(n);
    }
    using HvInputStream::read;
    unsigned int available() override { return availableAnswer; }

    // Adds text after what is there, as if more had arrived.
    void append(const std::string& more) { m_text += more; }
    std::size_t consumed() const { return m_at; }

    std::vector<unsigned int> asked;
    unsigned int availableAnswer = 0;

private:
    std::string m_text;
    std::vector<unsigned int> m_pieces;
    std::size_t m_at = 0;
    std::size_t m_piece = 0;
};

std::string textOf(const HvDatagramPacket& packet)
{
    HvHandle<HvByteArray> data = packet.getData();
    if (data.isNull())
        return std::string();
    return std::string(reinterpret_cast<const char*>(data->getData()) + packet.getOffset(), packet.getLength());
}

// What a buffered stream's observer received, in order; safe to read from
// another thread than the one that serves the stream.
class PacketCollector : public HvObserver {
public:
    void onNotification(HvHandle<HvObservable>, HvHandle<HvObject> object) override
    {
        std::function<void(const std::string&)> reply;
        std::string text;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (HvDatagramPacket* packet = dynamic_cast<HvDatagramPacket*>(object.get())) {
                text = textOf(*packet);
                m_packets.push_back(text);
                m_remoteAddresses.push_back(packet->getAddress().getAddress());
                m_remotePorts.push_back(packet->getPort());
                m_localAddresses.push_back(packet->getLocalAddress().getAddress());
                m_localPorts.push_back(packet->getLocalPort());
                reply = onPacket;
            } else if (HvException* failure = dynamic_cast<HvException*>(object.get())) {
                m_failures.push_back(failure->getMessage().c_str());
            } else {
                ++m_ticks;
            }
        }
        if (reply)
            reply(text);
    }

    std::vector<std::string> packets() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_packets;
    }
    std::vector<std::string> failures() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_failures;
    }
    int ticks() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_ticks;
    }
    unsigned int remoteAddress(std::size_t i) const { return m_remoteAddresses.at(i); }
    unsigned int remotePort(std::size_t i) const { return m_remotePorts.at(i); }
    unsigned int localAddress(std::size_t i) const { return m_localAddresses.at(i); }
    unsigned int localPort(std::size_t i) const { return m_localPorts.at(i); }

    // Called on the serving thread with each packet's text, outside the lock.
    std::function<void(const std::string&)> onPacket;

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_packets;
    std::vector<std::string> m_failures;
    std::vector<unsigned int> m_remoteAddresses;
    std::vector<unsigned int> m_remotePorts;
    std::vector<unsigned int> m_localAddresses;
    std::vector<unsigned int> m_localPorts;
    int m_ticks = 0;
};

// A buffered stream over a chunked source, with a collector attached.
struct Framer {
    HvHandle<ChunkedInputStream> source;
    HvHandle<HvBufferedInputStream> stream;
    HvHandle<PacketCollector> collector;

    explicit Framer(const std::string& text, std::vector<unsigned int> pieces = {}, unsigned int size = 0)
        : source(new ChunkedInputStream(text, std::move(pieces))),
          stream(new HvBufferedInputStream(source.get(), size)), collector(new PacketCollector)
    {
        stream->attachObserver(HvHandle<HvObserver>(collector.get()));
    }
    ~Framer() { stream->detachObserver(HvHandle<HvObserver>(collector.get())); }

    // block() until the source has ended; returns how often it returned true.
    int drain()
    {
        int rounds = 0;
        while (stream->block())
            ++rounds;
        return rounds;
    }
};

// Takes the message that the stream holds now, as text.
std::string takePacket(HvBufferedInputStream& stream)
{
    HvHandle<HvDatagramPacket> packet = stream.getPacket();
    return textOf(*packet);
}

// Restores the size guard whatever a test did with it.
struct GuardScope {
    explicit GuardScope(unsigned int limit) { HvBufferedInputStream::sm_maxMessageSize.store(limit); }
    ~GuardScope() { HvBufferedInputStream::sm_maxMessageSize.store(0); }
};

const std::string kInviteHead = "INVITE sip:bob@example.com SIP/2.0\r\nVia: SIP/2.0/TCP 10.0.0.1:5060\r\n";

} // namespace

// ---- construction, allocation ----

TEST(HvBufferedInputStream, AllocatedUnderItsClassTag)
{
    long before = hvtest::liveCount("HvBufferedInputStream");
    {
        HvHandle<HvBufferedInputStream> stream(new HvBufferedInputStream(new ChunkedInputStream("x"), 0));
        EXPECT_EQ(before + 1, hvtest::liveCount("HvBufferedInputStream"));
    }
    EXPECT_EQ(before, hvtest::liveCount("HvBufferedInputStream"));
}

TEST(HvBufferedInputStream, SizeZeroMakesTheBufferOnTheFirstFill)
{
    HvHandle<HvBufferedInputStream> stream(new HvBufferedInputStream(new ChunkedInputStream("abc"), 0));
    EXPECT_EQ(0u, stream->getCapacity());
    EXPECT_EQ('a', stream->read());
    EXPECT_EQ(8192u, stream->getCapacity());
}

TEST(HvBufferedInputStream, NonZeroSizeMakesTheBufferAtOnce)
{
    HvHandle<HvBufferedInputStream> stream(new HvBufferedInputStream(new ChunkedInputStream("abc"), 20000));
    EXPECT_EQ(20000u, stream->getCapacity());
    EXPECT_EQ('a', stream->read());
    EXPECT_EQ(20000u, stream->getCapacity());
}

// ---- reading ----

TEST(HvBufferedInputStream, ReadGivesBytesAsPositiveValuesThenMinusOne)
{
    HvHandle<HvBufferedInputStream> stream(new HvBufferedInputStream(new ChunkedInputStream("\xff" "A"), 0));
    EXPECT_EQ(255, stream->read());
    EXPECT_EQ('A', stream->read());
    EXPECT_EQ(-1, stream->read());
}

TEST(HvBufferedInputStream, FillsAskTheSourceForAtLeast8192Bytes)
{
    HvHandle<ChunkedInputStream> source(new ChunkedInputStream("hello"));
    HvHandle<HvBufferedInputStream> stream(new HvBufferedInputStream(source.get(), 0));
    EXPECT_EQ('h', stream->read());
    ASSERT_EQ(1u, source->asked.size());
    EXPECT_EQ(8192u, source->asked[0]);
}

TEST(HvBufferedInputStream, BlockReadOnAnEmptyBufferFillsWithTheLengthAsked)
{
    std::string text(20000, 'q');
    HvHandle<ChunkedInputStream> source(new ChunkedInputStream(text));
    HvHandle<HvBufferedInputStream> stream(new HvBufferedInputStream(source.get(), 0));
    std::vector<char> buffer(12000);
    EXPECT_EQ(12000, stream->read(buffer.data(), 12000, 0));
    ASSERT_EQ(1u, source->asked.size());
    EXPECT_EQ(12000u, source->asked[0]);
    EXPECT_EQ(12000u, stream->getCapacity());
}

TEST(HvBufferedInputStream, BlockReadTopsUpOnceAndReturnsWhatItHas)
{
    HvHandle<ChunkedInputStream> source(new ChunkedInputStream("abcdefghij", {3, 2, 5}));
    HvHandle<HvBufferedInputStream> stream(new HvBufferedInputStream(source.get(), 0));
    EXPECT_EQ('a', stream->read()); // first fill: "abc"
    char buffer[16] = {};
    // Two buffered, eight wanted: one top-up brings "de".
    EXPECT_EQ(4, stream->read(buffer, 8, 2));
    EXPECT_EQ("bcde", std::string(buffer + 2, 4));
    ASSERT_EQ(2u, source->asked.size());
    EXPECT_EQ(8192u, source->asked[1]);
}

TEST(HvBufferedInputStream, BlockReadAtTheEndGivesMinusOne)
{
    HvHandle<HvBufferedInputStream> stream(new HvBufferedInputStream(new ChunkedInputStream("ab"), 0));
    char buffer[4];
    EXPECT_EQ(2, stream->read(buffer, 4, 0));
    EXPECT_EQ(-1, stream->read(buffer, 4, 0));
    EXPECT_EQ(-1, stream->read());
}

TEST(HvBufferedInputStream, ReadWhenTheSourceGivesNothingIsTheEndNotAStaleByte)
{
    // The first fill brings 0 bytes: nothing lies at the position yet.
    HvHandle<HvBufferedInputStream> stream(new HvBufferedInputStream(new ChunkedInputStream("abc", {0}), 0));
    EXPECT_EQ(-1, stream->read());
    EXPECT_EQ(0u, stream->available());
    EXPECT_EQ('a', stream->read());

    Framer framer("abc", {0});
    EXPECT_FALSE(framer.stream->block());
    EXPECT_EQ(1, framer.collector->ticks());
}

TEST(HvBufferedInputStream, AvailableCountsBufferedBytesOnly)
{
    HvHandle<ChunkedInputStream> source(new ChunkedInputStream("abcdef", {4}));
    source->availableAnswer = 99;
    HvHandle<HvBufferedInputStream> stream(new HvBufferedInputStream(source.get(), 0));
    EXPECT_EQ(0u, stream->available());
    EXPECT_EQ('a', stream->read());
    EXPECT_EQ(3u, stream->available());
}

TEST(HvBufferedInputStream, SkipWithinTheBuffer)
{
    HvHandle<ChunkedInputStream> source(new ChunkedInputStream("abcdefgh"));
    HvHandle<HvBufferedInputStream> stream(new HvBufferedInputStream(source.get(), 0));
    EXPECT_EQ('a', stream->read());
    EXPECT_EQ(3u, stream->skip(3));
    EXPECT_EQ('e', stream->read());
    EXPECT_EQ(1u, source->asked.size());
}

TEST(HvBufferedInputStream, SkipBeyondTheBufferAsksTheSourceForTheRest)
{
    HvHandle<ChunkedInputStream> source(new ChunkedInputStream("abcdefghij", {3}));
    HvHandle<HvBufferedInputStream> stream(new HvBufferedInputStream(source.get(), 0));
    EXPECT_EQ('a', stream->read());
    // "bc" buffered, then the source skips "def".
    EXPECT_EQ(5u, stream->skip(5));
    EXPECT_EQ(6u, source->consumed());
    EXPECT_EQ('g', stream->read());
}

TEST(HvBufferedInputStream, SkipWithNothingBufferedIsTheSourcesSkip)
{
    HvHandle<ChunkedInputStream> source(new ChunkedInputStream("abcdefghij"));
    HvHandle<HvBufferedInputStream> stream(new HvBufferedInputStream(source.get(), 0));
    EXPECT_EQ(4u, stream->skip(4));
    EXPECT_EQ(4u, source->consumed());
    EXPECT_EQ(6u, stream->skip(200));
}

// ---- mark and reset ----

TEST(HvBufferedInputStream, MarkIsSupportedAndServesOneReset)
{
    HvHandle<HvBufferedInputStream> stream(new HvBufferedInputStream(new ChunkedInputStream("abcdef"), 0));
    EXPECT_TRUE(stream->markSupported());
    EXPECT_EQ('a', stream->read());
    stream->mark(100);
    EXPECT_EQ('b', stream->read());
    EXPECT_EQ('c', stream->read());
    stream->reset();
    EXPECT_EQ('b', stream->read());
    hvtest::expectPlainHvException([&] { stream->reset(); }, "mark limit exceeded");
}

TEST(HvBufferedInputStream, ResetWithoutMarkThrowsMarkLimitExceeded)
{
    HvHandle<HvBufferedInputStream> stream(new HvBufferedInputStream(new ChunkedInputStream("abc"), 0));
    hvtest::expectPlainHvException([&] { stream->reset(); }, "mark limit exceeded");
}

TEST(HvBufferedInputStream, MarkZeroMakesTheNextResetThrow)
{
    HvHandle<HvBufferedInputStream> stream(new HvBufferedInputStream(new ChunkedInputStream("abc"), 0));
    EXPECT_EQ('a', stream->read());
    stream->mark(0);
    hvtest::expectPlainHvException([&] { stream->reset(); }, "mark limit exceeded");
}

TEST(HvBufferedInputStream, ReadingPastTheLimitAcrossAFillDropsTheMark)
{
    std::string text = "0123456789abcdefghijklmnopqrstuvwxyz";
    HvHandle<HvBufferedInputStream> stream(new HvBufferedInputStream(new ChunkedInputStream(text, {12, 12, 12}), 0));
    stream->mark(10);
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(text[i], stream->read());
    hvtest::expectPlainHvException([&] { stream->reset(); }, "mark limit exceeded");
}

TEST(HvBufferedInputStream, MarkWithinItsLimitSurvivesAFill)
{
    std::string text = "0123456789abcdefghij";
    HvHandle<HvBufferedInputStream> stream(new HvBufferedInputStream(new ChunkedInputStream(text, {6, 6, 8}), 0));
    EXPECT_EQ('0', stream->read());
    EXPECT_EQ('1', stream->read());
    stream->mark(10);
    for (int i = 2; i < 10; ++i)
        EXPECT_EQ(text[i], stream->read());
    stream->reset();
    EXPECT_EQ('2', stream->read());
}

// ---- filling: compaction and growth ----

TEST(HvBufferedInputStream, BufferDoesNotGrowWhileReadBytesAreReclaimed)
{
    std::string text(100000, 'z');
    HvHandle<HvBufferedInputStream> stream(new HvBufferedInputStream(new ChunkedInputStream(text), 0));
    std::vector<char> buffer(8192);
    std::size_t total = 0;
    int got;
    while ((got = stream->read(buffer.data(), 8192, 0)) > 0)
        total += static_cast<std::size_t>(got);
    EXPECT_EQ(text.size(), total);
    EXPECT_EQ(8192u, stream->getCapacity());
}

TEST(HvBufferedInputStream, GrowthIsASixteenthRaisedToTheChunk)
{
    // 100 / 16 is below a chunk: raised to 8192.
    HvHandle<HvBufferedInputStream> small(new HvBufferedInputStream(new ChunkedInputStream("abc"), 100));
    EXPECT_EQ(3, small->readIntoBuffer(0));
    EXPECT_EQ(8292u, small->getCapacity());

    // 200000 / 16 = 12500; growth comes once fewer than 8192 bytes are free.
    std::string text(200000, 'm');
    HvHandle<HvBufferedInputStream> medium(new HvBufferedInputStream(new ChunkedInputStream(text), 200000));
    unsigned int filled = 0;
    while (filled + 8192 <= 200000)
        filled += static_cast<unsigned int>(medium->readIntoBuffer(0));
    EXPECT_EQ(200000u, medium->getCapacity());
    EXPECT_GT(medium->readIntoBuffer(0), 0);
    EXPECT_EQ(212500u, medium->getCapacity());
}

TEST(HvBufferedInputStream, GrowthIsCappedAt49152)
{
    std::string text(1000000 + 8192, 'c');
    HvHandle<HvBufferedInputStream> stream(new HvBufferedInputStream(new ChunkedInputStream(text), 1000000));
    unsigned int filled = 0;
    while (filled + 8192 <= 1000000)
        filled += static_cast<unsigned int>(stream->readIntoBuffer(0));
    EXPECT_EQ(1000000u, stream->getCapacity());
    EXPECT_GT(stream->readIntoBuffer(0), 0);
    EXPECT_EQ(1000000u + 49152u, stream->getCapacity());
}

TEST(HvBufferedInputStream, GrowthIsRaisedToALargeWantedChunk)
{
    std::string text(300000, 'w');
    HvHandle<HvBufferedInputStream> stream(new HvBufferedInputStream(new ChunkedInputStream(text), 16000));
    EXPECT_EQ(100000, stream->readIntoBuffer(100000));
    EXPECT_EQ(116000u, stream->getCapacity());
}

// ---- onNotification and block ----

TEST(HvBufferedInputStream, NotificationFillsWhenTheSourceHasDataAndTicks)
{
    Framer framer("abc");
    framer.source->availableAnswer = 0;
    framer.stream->onNotification(HvHandle<HvObservable>(), HvHandle<HvObject>());
    EXPECT_EQ(0u, framer.stream->available());
    EXPECT_TRUE(framer.source->asked.empty());
    EXPECT_EQ(1, framer.collector->ticks());

    framer.source->availableAnswer = 3;
    framer.stream->onNotification(HvHandle<HvObservable>(), HvHandle<HvObject>());
    EXPECT_EQ(3u, framer.stream->available());
    EXPECT_EQ(2, framer.collector->ticks());
}

TEST(HvBufferedInputStream, BlockAtTheEndOfTheSourceTicksAndReturnsFalse)
{
    Framer framer("");
    EXPECT_FALSE(framer.stream->block());
    EXPECT_EQ(1, framer.collector->ticks());
    EXPECT_TRUE(framer.collector->packets().empty());
}

TEST(HvBufferedInputStream, BlockWithAnIncompleteMessageNotifiesNothing)
{
    Framer framer(kInviteHead + "Content-Length: 5\r\n\r\nab");
    EXPECT_TRUE(framer.stream->block());
    EXPECT_EQ(0, framer.collector->ticks());
    EXPECT_TRUE(framer.collector->packets().empty());
}

// ---- framing ----

TEST(HvBufferedInputStream, MessageCompletesWhenTheWholeBodyHasArrived)
{
    const std::string head = kInviteHead + "Content-Length: 5\r\n\r\n";
    HvHandle<ChunkedInputStream> source(new ChunkedInputStream(head + "abc"));
    HvHandle<HvBufferedInputStream> stream(new HvBufferedInputStream(source.get(), 0));
    ASSERT_GT(stream->readIntoBuffer(0), 0);
    EXPECT_FALSE(stream->isReadComplete());
    source->append("deNEXT");
    ASSERT_EQ(6, stream->readIntoBuffer(0));
    EXPECT_TRUE(stream->isReadComplete());
    EXPECT_EQ(head + "abcde", takePacket(*stream));
    EXPECT_EQ(4u, stream->available());
    EXPECT_EQ('N', stream->read());
}

TEST(HvBufferedInputStream, CompactFormIsAContentLengthHeader)
{
    const std::string message = kInviteHead + "l: 3\r\n\r\nabc";
    Framer framer(message + "XYZ");
    EXPECT_TRUE(framer.stream->block());
    ASSERT_EQ(1u, framer.collector->packets().size());
    EXPECT_EQ(message, framer.collector->packets()[0]);
    EXPECT_EQ(3u, framer.stream->available());
}

TEST(HvBufferedInputStream, CompactFormZero)
{
    const std::string message = kInviteHead + "l: 0\r\n\r\n";
    Framer framer(message + "XYZ");
    EXPECT_TRUE(framer.stream->block());
    ASSERT_EQ(1u, framer.collector->packets().size());
    EXPECT_EQ(message, framer.collector->packets()[0]);
}

TEST(HvBufferedInputStream, UpperCaseLIsNotTheCompactForm)
{
    // Not a length header: complete at the blank line, and everything
    // buffered is taken.
    const std::string all = kInviteHead + "L: 3\r\n\r\nabcXYZ";
    Framer framer(all);
    EXPECT_TRUE(framer.stream->block());
    ASSERT_EQ(1u, framer.collector->packets().size());
    EXPECT_EQ(all, framer.collector->packets()[0]);
}

TEST(HvBufferedInputStream, LongFormIsMatchedWithoutRegardToCase)
{
    const std::string message = kInviteHead + "content-length: 3\r\n\r\nabc";
    Framer framer(message + "XYZ");
    EXPECT_TRUE(framer.stream->block());
    ASSERT_EQ(1u, framer.collector->packets().size());
    EXPECT_EQ(message, framer.collector->packets()[0]);
}

TEST(HvBufferedInputStream, SpacesBeforeTheColonAndTabsAfterItAreSkipped)
{
    const std::string message = kInviteHead + "CONTENT-LENGTH  :\t 4\r\n\r\nbody";
    Framer framer(message + "more");
    EXPECT_TRUE(framer.stream->block());
    ASSERT_EQ(1u, framer.collector->packets().size());
    EXPECT_EQ(message, framer.collector->packets()[0]);
}

TEST(HvBufferedInputStream, ANameEndingInContentLengthIsNotTheHeader)
{
    const std::string all = kInviteHead + "X-Content-Length: 3\r\n\r\nabcXYZ";
    Framer framer(all);
    EXPECT_TRUE(framer.stream->block());
    ASSERT_EQ(1u, framer.collector->packets().size());
    EXPECT_EQ(all, framer.collector->packets()[0]);
}

TEST(HvBufferedInputStream, WithoutContentLengthTheMessageTakesEverythingBuffered)
{
    const std::string all = kInviteHead + "To: <sip:bob@example.com>\r\n\r\nSTRAY BYTES";
    Framer framer(all);
    EXPECT_TRUE(framer.stream->block());
    ASSERT_EQ(1u, framer.collector->packets().size());
    EXPECT_EQ(all, framer.collector->packets()[0]);
    EXPECT_EQ(0u, framer.stream->available());
}

TEST(HvBufferedInputStream, LineFeedOnlyLineEndsEndTheHeaders)
{
    const std::string message = "INVITE sip:bob@example.com SIP/2.0\nVia: x\nContent-Length: 2\n\nhi";
    Framer framer(message + "REST");
    EXPECT_TRUE(framer.stream->block());
    ASSERT_EQ(1u, framer.collector->packets().size());
    EXPECT_EQ(message, framer.collector->packets()[0]);

    const std::string bare = "OPTIONS sip:x SIP/2.0\nVia: y\n\n";
    Framer noLength(bare);
    EXPECT_TRUE(noLength.stream->block());
    ASSERT_EQ(1u, noLength.collector->packets().size());
    EXPECT_EQ(bare, noLength.collector->packets()[0]);
}

TEST(HvBufferedInputStream, BackToBackMessagesInOneReadAreAllDelivered)
{
    const std::string first = kInviteHead + "Content-Length: 3\r\n\r\none";
    const std::string second = "ACK sip:bob@example.com SIP/2.0\r\nl: 0\r\n\r\n";
    const std::string third = "BYE sip:bob@example.com SIP/2.0\r\nContent-Length: 5\r\n\r\nthree";
    Framer framer(first + second + third);
    EXPECT_TRUE(framer.stream->block());
    std::vector<std::string> expected{first, second, third};
    EXPECT_EQ(expected, framer.collector->packets());
    EXPECT_EQ(1u, framer.source->asked.size());
    EXPECT_FALSE(framer.stream->block());
}

TEST(HvBufferedInputStream, BodyLargerThanAFillIsGatheredAcrossFills)
{
    std::string body(30000, 'b');
    for (std::size_t i = 0; i < body.size(); ++i)
        body[i] = static_cast<char>('a' + i % 26);
    const std::string message = kInviteHead + "Content-Length: 30000\r\n\r\n" + body;
    const std::string next = "ACK sip:x SIP/2.0\r\nl: 0\r\n\r\n";
    Framer framer(message + next, std::vector<unsigned int>(20, 5000));
    // One block() per piece of 5000 bytes, then the end.
    EXPECT_EQ(static_cast<int>((message.size() + next.size() + 4999) / 5000), framer.drain());
    std::vector<std::string> expected{message, next};
    EXPECT_EQ(expected, framer.collector->packets());
    // Growth by steps, never doubling.
    EXPECT_GE(framer.stream->getCapacity(), message.size());
    EXPECT_LT(framer.stream->getCapacity(), 2 * message.size());
}

TEST(HvBufferedInputStream, ContentLengthNameSplitAcrossTwoFills)
{
    const std::string first = kInviteHead + "Conte";
    const std::string second = "nt-Length: 4\r\n\r\nbodyNEXT";
    Framer framer(first + second, {static_cast<unsigned int>(first.size()), 100});
    EXPECT_TRUE(framer.stream->block());
    EXPECT_TRUE(framer.collector->packets().empty());
    EXPECT_TRUE(framer.stream->block());
    ASSERT_EQ(1u, framer.collector->packets().size());
    EXPECT_EQ(kInviteHead + "Content-Length: 4\r\n\r\nbody", framer.collector->packets()[0]);
    EXPECT_EQ(4u, framer.stream->available());
}

TEST(HvBufferedInputStream, DigitsSplitAcrossTwoFillsAreReadWhole)
{
    const std::string message = kInviteHead + "Content-Length: 12\r\n\r\n0123456789AB";
    const unsigned int cut = static_cast<unsigned int>((kInviteHead + "Content-Length: 1").size());
    Framer framer(message, {cut, 1000});
    EXPECT_TRUE(framer.stream->block());
    EXPECT_TRUE(framer.collector->packets().empty());
    EXPECT_TRUE(framer.stream->block());
    ASSERT_EQ(1u, framer.collector->packets().size());
    EXPECT_EQ(message, framer.collector->packets()[0]);
}

TEST(HvBufferedInputStream, RandomChunkingAlwaysYieldsTheSameThreeMessages)
{
    std::string body(1500, 'x');
    for (std::size_t i = 0; i < body.size(); ++i)
        body[i] = static_cast<char>('A' + i % 23);
    const std::vector<std::string> messages{
        "INVITE sip:bob@example.com SIP/2.0\r\nVia: SIP/2.0/TCP a:5060\r\nContact: <sip:alice@a:5060>\r\n"
        "Content-Length: 1500\r\n\r\n" + body,
        "MESSAGE sip:bob@example.com SIP/2.0\r\nTo: <sip:bob@example.com>\r\nl: 11\r\n\r\nhello: bob\n",
        "BYE sip:bob@example.com SIP/2.0\nVia: SIP/2.0/TCP a:5060\ncontent-length: 0\n\n"};
    std::string stream;
    for (const std::string& message : messages)
        stream += message;

    std::mt19937 random(20240521);
    std::uniform_int_distribution<unsigned int> size(1, 700);
    for (int round = 0; round < 100; ++round) {
        std::vector<unsigned int> pieces;
        for (std::size_t total = 0; total < stream.size();) {
            pieces.push_back(size(random));
            total += pieces.back();
        }
        Framer framer(stream, pieces);
        framer.drain();
        ASSERT_EQ(messages, framer.collector->packets()) << "round " << round;
        EXPECT_EQ(0u, framer.stream->available());
    }
}

TEST(HvBufferedInputStream, MessagesArrivingOneByteAtATimeAreFramedLikeWholeOnes)
{
    // Long headers with a colon-free stretch, a compact Content-Length and a
    // header name split over many fills, each fill a single byte.
    const std::vector<std::string> messages{
        kInviteHead + "Subject: " + std::string(3000, 's') + "\r\nContent-Length: 3\r\n\r\nabc",
        "BYE sip:bob@example.com SIP/2.0\nX-Long " + std::string(2000, '-') + ": v\nl: 2\n\nok",
        kInviteHead + "Content-Length: 0\r\n\r\n"};
    std::string stream;
    for (const std::string& message : messages)
        stream += message;
    Framer framer(stream, std::vector<unsigned int>(stream.size(), 1));
    framer.drain();
    EXPECT_EQ(messages, framer.collector->packets());
    EXPECT_EQ(0u, framer.stream->available());
}

TEST(HvBufferedInputStream, AMessageHalfScannedWhenTheBufferIsCompactedIsStillFramedWhole)
{
    // Fills of 8192 bytes, then the rest of a first message larger than a
    // chunk with ten bytes of the second, whose scan stops there. The next
    // fill moves those ten bytes to the front of the buffer and ends within
    // the second message's Content-Length value; the last fill brings the
    // rest of its digits, its body and a third message.
    const std::string first = kInviteHead + "Content-Length: 9000\r\n\r\n" + std::string(9000, 'b');
    const std::string head = "INVITE sip:bob@example.com SIP/2.0\r\nSubject: ";
    const std::string cut = "\r\nContent-Length: 1";
    const std::string second = head + std::string(10 + 8192 - head.size() - cut.size(), 's') + cut +
                               "2\r\n\r\n0123456789AB";
    const std::string third =
        "BYE sip:bob@example.com SIP/2.0\r\nContent-Length: 2000\r\n\r\n" + std::string(2000, 't');
    Framer framer(first + second + third, {8192, static_cast<unsigned int>(first.size() - 8192 + 10), 8192, 100000});
    framer.drain();
    EXPECT_EQ((std::vector<std::string>{first, second, third}), framer.collector->packets());
}

TEST(HvBufferedInputStream, BytesReadDirectlyBetweenFillsMoveWhereTheFramingStarts)
{
    // "A\r\n\r" is scanned, then its first three bytes are read directly:
    // the message now starts at the "\r", and the "\n" that comes next does
    // not end a blank line there.
    const std::string message = kInviteHead + "Content-Length: 2\r\n\r\nok";
    Framer framer("A\r\n\r\n" + message, {4, 1, 1000});
    EXPECT_TRUE(framer.stream->block());
    for (int i = 0; i < 3; ++i)
        framer.stream->read();
    framer.drain();
    EXPECT_EQ((std::vector<std::string>{"\r\n" + message}), framer.collector->packets());
}

// ---- getPacket ----

TEST(HvBufferedInputStream, PacketOverAnotherSourceCarriesZeroEndpoints)
{
    long before = hvtest::liveCount("HvDatagramPacket");
    Framer framer(kInviteHead + "l: 0\r\n\r\n");
    ASSERT_GT(framer.stream->readIntoBuffer(0), 0);
    ASSERT_TRUE(framer.stream->isReadComplete());
    HvHandle<HvDatagramPacket> packet = framer.stream->getPacket();
    EXPECT_EQ(before + 1, hvtest::liveCount("HvDatagramPacket"));
    EXPECT_EQ(0u, packet->getAddress().getAddress());
    EXPECT_EQ(0u, packet->getPort());
    EXPECT_EQ(0u, packet->getLocalAddress().getAddress());
    EXPECT_EQ(0u, packet->getLocalPort());
    EXPECT_EQ(0u, packet->getOffset());
    EXPECT_EQ(kInviteHead + "l: 0\r\n\r\n", textOf(*packet));
    packet = HvHandle<HvDatagramPacket>();
    EXPECT_EQ(before, hvtest::liveCount("HvDatagramPacket"));
}

TEST(HvBufferedInputStream, PacketIsDumpedAboveLevelSeven)
{
    const std::string message = kInviteHead + "l: 2\r\n\r\nok";
    hvtest::DebugOutputCapture capture(false);
    capture.stream().setLevel(7);
    {
        Framer framer(message + message);
        EXPECT_TRUE(framer.stream->block());
        EXPECT_EQ(2u, framer.collector->packets().size());
    }
    EXPECT_EQ("", capture.text());

    capture.stream().setLevel(8);
    Framer framer(message);
    EXPECT_TRUE(framer.stream->block());
    EXPECT_EQ("\n Begin #################################\n" + message + " ################################# end\n",
              capture.text());
}

TEST(HvBufferedInputStream, PacketOverALoopbackConnectionCarriesItsEndpoints)
{
    hvtest::RawListener listener;
    HvHandle<HvClientSocket> socket(new HvClientSocket(hvtest::loopback(), listener.port(), HvInetAddress()));
    hvtest::Descriptor peer = listener.accept();
    ASSERT_TRUE(peer.valid());
    HvHandle<HvBufferedInputStream> stream(new HvBufferedInputStream(new HvSocketInputStream(socket.get()), 0));
    HvHandle<PacketCollector> collector(new PacketCollector);
    stream->attachObserver(HvHandle<HvObserver>(collector.get()));

    const std::string message = kInviteHead + "Content-Length: 4\r\n\r\nbody";
    ASSERT_TRUE(hvtest::sendAll(peer.get(), message));
    while (collector->packets().empty() && stream->block()) {
    }
    ASSERT_EQ(1u, collector->packets().size());
    EXPECT_EQ(message, collector->packets()[0]);
    EXPECT_EQ(hvtest::loopback().getAddress(), collector->remoteAddress(0));
    EXPECT_EQ(listener.port(), collector->remotePort(0));
    EXPECT_EQ(hvtest::loopback().getAddress(), collector->localAddress(0));
    EXPECT_EQ(hvtest::peerPortOf(peer.get()), collector->localPort(0));
    EXPECT_NE(0u, collector->localPort(0));

    stream->detachObserver(HvHandle<HvObserver>(collector.get()));
    int descriptor = socket->getDescriptor();
    socket->close();
    if (HvSocketFactory::sFromHandle(descriptor).get() == socket.get())
        HvSocketFactory::sRemoveHandle(descriptor);
}

// ---- hostile input ----

TEST(HvBufferedInputStream, ColonAtTheScanStartNeverReadsInFrontOfIt)
{
    // Nothing but spaces before the first ':' leaves no header name: the
    // scan reports an incomplete message, whatever follows.
    for (const char* text : {":abc\r\n\r\n", "   : x\r\n\r\n", ":"}) {
        HvHandle<HvBufferedInputStream> stream(new HvBufferedInputStream(new ChunkedInputStream(text), 0));
        ASSERT_GT(stream->readIntoBuffer(0), 0);
        EXPECT_FALSE(stream->isReadComplete()) << text;
    }
}

TEST(HvBufferedInputStream, NextMessageIsNeverMatchedAgainstBytesAlreadyTaken)
{
    // The first message ends in "\n"; the bytes after it begin with "l:",
    // which only forms the compact header with a line end inside the scan.
    const std::string first = kInviteHead + "Content-Length: 0\r\n\r\n";
    const std::string rest = "l: 3\r\n\r\nabcXYZ";
    Framer framer(first + rest);
    EXPECT_TRUE(framer.stream->block());
    std::vector<std::string> expected{first, rest};
    EXPECT_EQ(expected, framer.collector->packets());
}

TEST(HvBufferedInputStream, ScanStopsAtTheLastBufferedByte)
{
    for (const std::string& text : {kInviteHead + "Content-Length:", kInviteHead + "Content-Length:  \r\n",
                                   kInviteHead + "Content-Length: 5", kInviteHead + "Content-Length: 5\r\n\r",
                                   kInviteHead + "l", kInviteHead + "\r"}) {
        HvHandle<HvBufferedInputStream> stream(new HvBufferedInputStream(new ChunkedInputStream(text), 0));
        ASSERT_GT(stream->readIntoBuffer(0), 0);
        EXPECT_FALSE(stream->isReadComplete()) << text;
    }
}

TEST(HvBufferedInputStream, ContentLengthBeyond32BitsNeverWrapsToASmallLength)
{
    // 4294967301 is 2^32 + 5: wrapped, it would frame the message after five bytes.
    const std::string text = kInviteHead + "Content-Length: 4294967301\r\n\r\nabcdeNEXT";
    Framer framer(text);
    EXPECT_TRUE(framer.stream->block());
    EXPECT_TRUE(framer.collector->packets().empty());
    EXPECT_FALSE(framer.stream->isReadComplete());
    EXPECT_EQ(text.size(), framer.stream->available());

    const std::string huge = kInviteHead + "Content-Length: 99999999999999999999999999\r\n\r\nabc";
    Framer hugeFramer(huge);
    EXPECT_TRUE(hugeFramer.stream->block());
    EXPECT_TRUE(hugeFramer.collector->packets().empty());
}

TEST(HvBufferedInputStream, GetPacketWithoutAWholeMessageTakesOnlyWhatIsBuffered)
{
    const std::string text = kInviteHead + "Content-Length: 100\r\n\r\nab";
    HvHandle<HvBufferedInputStream> stream(new HvBufferedInputStream(new ChunkedInputStream(text), 0));
    ASSERT_GT(stream->readIntoBuffer(0), 0);
    EXPECT_FALSE(stream->isReadComplete());
    EXPECT_EQ(text, takePacket(*stream));
    EXPECT_EQ(0u, stream->available());
    // Nothing left: an empty packet, and the stream is still usable.
    EXPECT_EQ("", takePacket(*stream));
    EXPECT_EQ(-1, stream->read());
}

// ---- the message-size guard ----

TEST(HvBufferedInputStream, GuardOffByDefault)
{
    EXPECT_EQ(0u, HvBufferedInputStream::sm_maxMessageSize.load());
    std::string body(200000, 'g');
    const std::string message = kInviteHead + "Content-Length: 200000\r\n\r\n" + body;
    Framer framer(message, std::vector<unsigned int>(100, 9000));
    framer.drain();
    ASSERT_EQ(1u, framer.collector->packets().size());
    EXPECT_EQ(message, framer.collector->packets()[0]);
    EXPECT_TRUE(framer.collector->failures().empty());
}

TEST(HvBufferedInputStream, GuardRejectsHeadersWithoutABlankLine)
{
    GuardScope guard(20000);
    std::string endless = kInviteHead;
    while (endless.size() < 1000000)
        endless += "X-Filler: 0123456789abcdefghijklmnopqrstuvwxyz\r\n";
    Framer framer(endless, std::vector<unsigned int>(400, 3000));
    unsigned int largest = 0;
    while (framer.stream->block())
        largest = std::max(largest, framer.stream->getCapacity());
    std::vector<std::string> expected{"HvBufferedInputStream::block(): message larger than 20000 bytes"};
    EXPECT_EQ(expected, framer.collector->failures());
    EXPECT_TRUE(framer.collector->packets().empty());
    EXPECT_LE(largest, 20000u + HvBufferedInputStream::kGuardSlack);
    EXPECT_LT(framer.source->consumed(), 20000u + 2 * 3000u);
    // Dropped and ended: no buffer, no more reading from the source.
    EXPECT_EQ(0u, framer.stream->getCapacity());
    std::size_t consumed = framer.source->consumed();
    EXPECT_FALSE(framer.stream->block());
    EXPECT_EQ(-1, framer.stream->read());
    EXPECT_EQ(0u, framer.stream->available());
    EXPECT_EQ(consumed, framer.source->consumed());
    EXPECT_EQ(1u, framer.collector->failures().size());
}

TEST(HvBufferedInputStream, GuardRejectsADeclaredBodyBeyondTheLimitAtOnce)
{
    GuardScope guard(20000);
    Framer framer(kInviteHead + "Content-Length: 4294967295\r\n\r\nabc");
    EXPECT_FALSE(framer.stream->block());
    std::vector<std::string> expected{"HvBufferedInputStream::block(): message larger than 20000 bytes"};
    EXPECT_EQ(expected, framer.collector->failures());
    EXPECT_EQ(0u, framer.stream->getCapacity());
}

TEST(HvBufferedInputStream, GuardRejectsAWholeMessageBeyondTheLimit)
{
    GuardScope guard(1000);
    const std::string small = kInviteHead + "l: 3\r\n\r\nabc";
    const std::string large = kInviteHead + "l: 2000\r\n\r\n" + std::string(2000, 'L');
    Framer framer(small + large);
    EXPECT_FALSE(framer.stream->block());
    std::vector<std::string> packets{small};
    EXPECT_EQ(packets, framer.collector->packets());
    std::vector<std::string> failures{"HvBufferedInputStream::block(): message larger than 1000 bytes"};
    EXPECT_EQ(failures, framer.collector->failures());
}

TEST(HvBufferedInputStream, GuardLetsMessagesUpToTheLimitThrough)
{
    const std::string message = kInviteHead + "l: 500\r\n\r\n" + std::string(500, 'k');
    GuardScope guard(static_cast<unsigned int>(message.size()));
    std::string all;
    for (int i = 0; i < 50; ++i)
        all += message;
    Framer framer(all, std::vector<unsigned int>(200, 333));
    framer.drain();
    EXPECT_EQ(std::vector<std::string>(50, message), framer.collector->packets());
    EXPECT_TRUE(framer.collector->failures().empty());
}

namespace {

// One library connection to a raw peer, served by a thread that calls the
// buffered stream's block() until it returns false.
struct ServedConnection {
    hvtest::RawListener listener;
    HvHandle<HvClientSocket> socket;
    hvtest::Descriptor peer;
    HvHandle<HvBufferedInputStream> stream;
    HvHandle<PacketCollector> collector;
    std::thread server;
    std::atomic<bool> ended{false};
    std::atomic<unsigned int> largestCapacity{0};

    ServedConnection()
    {
        socket = new HvClientSocket(hvtest::loopback(), listener.port(), HvInetAddress());
        peer = listener.accept();
        EXPECT_TRUE(peer.valid());
        stream = dynamic_cast<HvBufferedInputStream*>(socket->getInputStream().get());
        EXPECT_FALSE(stream.isNull());
        collector = new PacketCollector;
        stream->attachObserver(HvHandle<HvObserver>(collector.get()));
    }
    void start()
    {
        server = std::thread([this] {
            while (stream->block())
                largestCapacity.store(std::max(largestCapacity.load(), stream->getCapacity()));
            ended.store(true);
        });
    }
    // The owner's answer to an ended stream: close the connection.
    void close()
    {
        int descriptor = socket->getDescriptor();
        socket->close();
        if (server.joinable())
            server.join();
        stream->detachObserver(HvHandle<HvObserver>(collector.get()));
        if (descriptor != -1 && HvSocketFactory::sFromHandle(descriptor).get() == socket.get())
            HvSocketFactory::sRemoveHandle(descriptor);
    }
    ~ServedConnection() { close(); }
};

// Threads of raw peers; `beforeJoin` runs first, to make them return.
struct PeerThreads {
    explicit PeerThreads(std::function<void()> beforeJoin) : m_beforeJoin(std::move(beforeJoin)) {}
    ~PeerThreads() { joinAll(); }
    void joinAll()
    {
        if (m_beforeJoin)
            m_beforeJoin();
        m_beforeJoin = nullptr;
        for (std::thread& thread : threads) {
            if (thread.joinable())
                thread.join();
        }
    }

    std::vector<std::thread> threads;

private:
    std::function<void()> m_beforeJoin;
};

} // namespace

TEST(HvBufferedInputStream, GuardDropsHostilePeersWhileAnotherConnectionGoesOn)
{
    const unsigned int limit = 65536;
    GuardScope guard(limit);

    ServedConnection good;
    good.collector->onPacket = [&good](const std::string& text) {
        HvHandle<HvOutputStream> out = good.socket->getOutputStream();
        std::string reply = "SIP/2.0 200 OK\r\nl: " + std::to_string(text.size()) + "\r\n\r\n";
        out->write(reply.data(), static_cast<unsigned int>(reply.size()), 0);
        out->flush();
    };
    ServedConnection endlessHeaders;
    ServedConnection hugeBody;
    good.start();
    endlessHeaders.start();
    hugeBody.start();

    // 16 MB of header lines that never end, and a declared body of 4 GB.
    // However the test ends, the hostile connections are closed before
    // their peers are joined, so that a blocked send always returns.
    PeerThreads peers([&] {
        endlessHeaders.close();
        hugeBody.close();
    });
    peers.threads.emplace_back([&] {
        std::string line = "X-Filler: 0123456789abcdefghijklmnopqrstuvwxyz0123456789abcdefghijklmnopqrstuvwxyz\r\n";
        std::string block = kInviteHead;
        while (block.size() < 65536)
            block += line;
        std::size_t sent = 0;
        while (sent < 16u * 1024u * 1024u && hvtest::sendAll(endlessHeaders.peer.get(), block))
            sent += block.size();
    });
    peers.threads.emplace_back([&] {
        std::string head = kInviteHead + "Content-Length: 4294967295\r\n\r\n";
        std::string chunk(65536, 'B');
        if (!hvtest::sendAll(hugeBody.peer.get(), head))
            return;
        for (int i = 0; i < 256 && hvtest::sendAll(hugeBody.peer.get(), chunk); ++i) {
        }
    });

    // The well-behaved connection keeps exchanging messages meanwhile.
    for (int i = 0; i < 20; ++i) {
        std::string message = "MESSAGE sip:bob@example.com SIP/2.0\r\nCSeq: " + std::to_string(i) +
                              " MESSAGE\r\nContent-Length: 5\r\n\r\nhello";
        ASSERT_TRUE(hvtest::sendAll(good.peer.get(), message));
        std::string expected = "SIP/2.0 200 OK\r\nl: " + std::to_string(message.size()) + "\r\n\r\n";
        ASSERT_EQ(expected, hvtest::readExactly(good.peer.get(), expected.size())) << "exchange " << i;
    }

    ASSERT_TRUE(hvtest::waitUntil([&] { return endlessHeaders.ended.load() && hugeBody.ended.load(); }));
    const std::vector<std::string> failure{"HvBufferedInputStream::block(): message larger than 65536 bytes"};
    EXPECT_EQ(failure, endlessHeaders.collector->failures());
    EXPECT_EQ(failure, hugeBody.collector->failures());
    EXPECT_TRUE(endlessHeaders.collector->packets().empty());
    EXPECT_TRUE(hugeBody.collector->packets().empty());
    EXPECT_LE(endlessHeaders.largestCapacity.load(), limit + HvBufferedInputStream::kGuardSlack);
    EXPECT_LE(hugeBody.largestCapacity.load(), limit + HvBufferedInputStream::kGuardSlack);
    EXPECT_EQ(0u, endlessHeaders.stream->getCapacity());
    EXPECT_EQ(0u, hugeBody.stream->getCapacity());

    // The owners close the dropped connections; their peers' sends then fail.
    peers.joinAll();

    EXPECT_FALSE(good.ended.load());
    EXPECT_EQ(20u, good.collector->packets().size());
    EXPECT_TRUE(good.collector->failures().empty());
    good.close();
}

// ---- a connection end to end ----

TEST(HvBufferedInputStream, ObserverThreadDeliversMessagesAndRepliesGoBackThroughTheDispatcher)
{
    hvtest::RawListener listener;
    HvHandle<HvClientSocket> socket(new HvClientSocket(hvtest::loopback(), listener.port(), HvInetAddress()));
    hvtest::Descriptor peer = listener.accept();
    ASSERT_TRUE(peer.valid());
    HvHandle<HvInputStream> input = socket->getInputStream();
    ASSERT_NE(nullptr, dynamic_cast<HvBufferedInputStream*>(input.get()));

    HvHandle<PacketCollector> collector(new PacketCollector);
    HvClientSocket* replyTo = socket.get();
    collector->onPacket = [replyTo](const std::string& text) {
        const std::string reply = "SIP/2.0 200 OK\r\nl: " + std::to_string(text.size()) + "\r\n\r\n";
        HvHandle<HvByteArray> array = HvByteArray::sCreate(static_cast<unsigned int>(reply.size()), reply.data());
        HvTCPODispatcher::getInstance()->getEventQueue()->addItem(new HvTCPEvent(replyTo, array.get()));
    };
    input->attachObserver(HvHandle<HvObserver>(collector.get()));
    HvHandle<HvObserverThread> observer = HvMonitorThread::monitorObservable(input.get());
    ASSERT_FALSE(observer.isNull());

    const std::vector<std::string> messages{
        kInviteHead + "Content-Length: 7\r\n\r\nsdp=one",
        "ACK sip:bob@example.com SIP/2.0\r\nl: 0\r\n\r\n",
        "BYE sip:bob@example.com SIP/2.0\nContent-Length: 3\n\nbye"};
    // The first two in one send, the third cut in the middle of its headers.
    ASSERT_TRUE(hvtest::sendAll(peer.get(), messages[0] + messages[1] + messages[2].substr(0, 20)));
    ASSERT_TRUE(hvtest::waitUntil([&] { return collector->packets().size() == 2; }));
    ASSERT_TRUE(hvtest::sendAll(peer.get(), messages[2].substr(20)));
    ASSERT_TRUE(hvtest::waitUntil([&] { return collector->packets().size() == 3; }));
    EXPECT_EQ(messages, collector->packets());

    std::string expected;
    for (std::size_t i = 0; i < messages.size(); ++i) {
        expected += "SIP/2.0 200 OK\r\nl: " + std::to_string(messages[i].size()) + "\r\n\r\n";
        EXPECT_EQ(hvtest::loopback().getAddress(), collector->remoteAddress(i));
        EXPECT_EQ(listener.port(), collector->remotePort(i));
        EXPECT_EQ(hvtest::loopback().getAddress(), collector->localAddress(i));
        EXPECT_EQ(hvtest::peerPortOf(peer.get()), collector->localPort(i));
    }
    EXPECT_EQ(expected, hvtest::readExactly(peer.get(), expected.size()));
    EXPECT_TRUE(collector->failures().empty());

    // The peer hangs up: block() ends with a nil tick, the thread waits for
    // its next signal and ends once terminated.
    int ticks = collector->ticks();
    peer.reset();
    ASSERT_TRUE(hvtest::waitUntil([&] { return collector->ticks() > ticks; }));
    observer->terminate();
    ASSERT_TRUE(hvtest::waitUntil([&] { return hvtest::hasEnded(observer.get()); }));
    input->detachObserver(HvHandle<HvObserver>(collector.get()));
    int descriptor = socket->getDescriptor();
    socket->close();
    if (descriptor != -1 && HvSocketFactory::sFromHandle(descriptor).get() == socket.get())
        HvSocketFactory::sRemoveHandle(descriptor);
}
