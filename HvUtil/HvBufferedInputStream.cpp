#include <HvUtil/HvBufferedInputStream.h>
#include <HvUtil/HvClientSocket.h>
#include <HvUtil/HvDatagramPacket.h>
#include <HvUtil/HvErrorStream.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvSocketInputStream.h>

#include <Velmora/Logger.h>
#include <Velmora/MemAllocator.h>
#include <Velmora/TraceScope.h>

#include <cstring>
#include <limits>
#include <mutex>
#include <string>

namespace {

const char kTag[] = "HvBufferedInputStream";

// Messages are dumped to the default error stream above this level.
const unsigned int kDumpLevel = 7;

const unsigned char CR = '\r';
const unsigned char LF = '\n';

// The long header name with the line end before it, so that a name that
// merely ends in "Content-Length" does not match.
const char kLongName[] = "\nContent-Length";
const unsigned int kLongNameLength = sizeof kLongName - 1;

const unsigned int kMaxUnsigned = std::numeric_limits<unsigned int>::max();

Velmora::AceCleanupLogger& logger()
{
    static Velmora::AceCleanupLogger& instance = Velmora::fileScopeLogger("HvBufferedInputStream");
    return instance;
}

// Keeps dumps of messages from several connections from interleaving. The
// error stream's own object mutex cannot serve: it is a shared pool entry
// that the writes under it may need themselves.
std::mutex& dumpMutex()
{
    static std::mutex instance;
    return instance;
}

bool equalsIgnoringCase(const unsigned char* bytes, const char* text, unsigned int length)
{
    for (unsigned int i = 0; i < length; ++i) {
        unsigned char a = bytes[i];
        unsigned char b = static_cast<unsigned char>(text[i]);
        if (a >= 'A' && a <= 'Z')
            a = static_cast<unsigned char>(a - 'A' + 'a');
        if (b >= 'A' && b <= 'Z')
            b = static_cast<unsigned char>(b - 'A' + 'a');
        if (a != b)
            return false;
    }
    return true;
}

// The three bytes seen before the current one, most recent first.
struct History {
    unsigned char last1 = 0;
    unsigned char last2 = 0;
    unsigned char last3 = 0;

    void push(unsigned char c)
    {
        last3 = last2;
        last2 = last1;
        last1 = c;
    }
    // True when `c` is the LF that ends a blank line ("\r\n\r\n" or "\n\n").
    bool endsBlankLine(unsigned char c) const
    {
        return c == LF && ((last3 == CR && last2 == LF && last1 == CR) || last1 == LF);
    }
};

} // namespace

std::atomic<unsigned int> HvBufferedInputStream::sm_maxMessageSize(0);

void* HvBufferedInputStream::operator new(std::size_t size)
{
    return Velmora::DefaultStaticMemAllocator::allocate(size, kTag);
}

void HvBufferedInputStream::operator delete(void* p, std::size_t size)
{
    Velmora::DefaultStaticMemAllocator::deallocate(p, size, kTag);
}

HvBufferedInputStream::HvBufferedInputStream(HvInputStream* source, unsigned int size)
    : m_position(0), m_count(0), m_markPosition(0), m_markLimit(0), m_source(source), m_headerEnd(0),
      m_contentLength(0), m_contentLengthSeen(false), m_rejected(false), m_scanStart(0), m_scanEnd(0),
      m_scanHistory()
{
    if (size != 0)
        m_buffer = HvByteArray::sCreate(size, nullptr);
}

HvBufferedInputStream::~HvBufferedInputStream()
{
}

void HvBufferedInputStream::clearFraming()
{
    m_headerEnd = 0;
    m_contentLength = 0;
    m_contentLengthSeen = false;
    m_scanEnd = 0;
}

int HvBufferedInputStream::readIntoBuffer(unsigned int wanted)
{
    if (m_position > 0) {
        unsigned int kept = m_position;
        if (m_markLimit != 0) {
            if (m_position - m_markPosition > m_markLimit)
                m_markLimit = 0;
            else
                kept = m_markPosition;
        }
        // Moving the live bytes on every read would cost more than the dead
        // space it frees: only when nothing is live or the gap is large.
        if (kept == m_count || kept > kChunk) {
            if (m_count > kept)
                m_buffer->copy(0, m_buffer->getData(), m_count - kept, kept);
            m_count -= kept;
            m_position -= kept;
            m_markPosition = m_markPosition >= kept ? m_markPosition - kept : 0;
            // The framing found so far stays valid for the moved bytes.
            m_headerEnd = m_headerEnd >= kept ? m_headerEnd - kept : 0;
            if (m_scanStart >= kept) {
                m_scanStart -= kept;
                m_scanEnd = m_scanEnd != 0 ? m_scanEnd - kept : 0;
            } else {
                m_scanEnd = 0;
            }
        }
    }

    const unsigned int chunk = wanted > kChunk ? wanted : kChunk;
    // A buffer that someone else also holds is never filled in place.
    unsigned int room = 0;
    if (!m_buffer.isNull() && m_buffer->getRefCount() < 2)
        room = m_buffer->getSize() - m_count;
    if (room < chunk) {
        const unsigned int size = m_buffer.isNull() ? 0 : m_buffer->getSize();
        unsigned int increment = m_buffer.isNull() ? kChunk : size / 16;
        if (increment > kMaxIncrement)
            increment = kMaxIncrement;
        if (increment < chunk)
            increment = chunk;
        unsigned long long grown = static_cast<unsigned long long>(size) + increment;
        const unsigned int newSize = grown > kMaxUnsigned ? kMaxUnsigned : static_cast<unsigned int>(grown);
        if (logger().isEnabledFor(Velmora::Logger::DEBUG))
            logger().log(Velmora::Logger::DEBUG,
                         "HvBufferedInputStream::readIntoBuffer : buffer grows from " + std::to_string(size) +
                             " to " + std::to_string(newSize) + " bytes",
                         "HvBufferedInputStream", __LINE__);
        m_buffer = m_buffer.isNull() ? HvByteArray::sCreate(newSize, nullptr)
                                     : HvByteArray::sCreate(m_buffer.get(), newSize, 0);
    }

    int got = m_source->read(m_buffer, m_count, chunk);
    if (got < 0)
        return -1;
    m_count += static_cast<unsigned int>(got);
    return got;
}

int HvBufferedInputStream::read()
{
    if (m_rejected)
        return -1;
    if (m_position >= m_count) {
        if (readIntoBuffer(0) == -1)
            return -1;
        // A source that gave nothing leaves nothing to hand out.
        if (m_position >= m_count)
            return -1;
    }
    return m_buffer->getData()[m_position++];
}

int HvBufferedInputStream::read(void* buffer, unsigned int length, unsigned int offset)
{
    if (m_rejected)
        return -1;
    if (!buffer)
        return 0;
    if (m_position == m_count) {
        if (readIntoBuffer(length) == -1)
            return -1;
    } else if (m_count - m_position < length) {
        // What is buffered is handed out even when the top-up finds nothing.
        readIntoBuffer(length - (m_count - m_position));
    }
    const unsigned int buffered = m_count - m_position;
    const unsigned int n = length < buffered ? length : buffered;
    if (n != 0)
        std::memcpy(static_cast<unsigned char*>(buffer) + offset, m_buffer->getData() + m_position, n);
    m_position += n;
    return static_cast<int>(n);
}

unsigned int HvBufferedInputStream::skip(unsigned int count)
{
    const unsigned int buffered = m_count - m_position;
    if (buffered >= count) {
        m_position += count;
        return count;
    }
    if (buffered > 0) {
        m_position = m_count;
        return buffered + m_source->skip(count - buffered);
    }
    return m_source->skip(count);
}

unsigned int HvBufferedInputStream::available()
{
    return m_count - m_position;
}

bool HvBufferedInputStream::markSupported()
{
    return true;
}

void HvBufferedInputStream::mark(unsigned int readLimit)
{
    m_markPosition = m_position;
    m_markLimit = readLimit;
}

void HvBufferedInputStream::reset()
{
    if (m_markLimit == 0)
        HvException::sThrow("mark limit exceeded");
    m_position = m_markPosition;
    // One reset per mark: readers that need another mark again.
    m_markLimit = 0;
}

void HvBufferedInputStream::onNotification(HvHandle<HvObservable>, HvHandle<HvObject>)
{
    if (!m_rejected && m_source->available() != 0)
        readIntoBuffer(0);
    notifyObservers(HvHandle<HvObject>());
}

bool HvBufferedInputStream::block()
{
    Velmora::TraceScope scope(logger(), "HvBufferedInputStream::block", "HvBufferedInputStream", __LINE__);
    if (m_rejected) {
        notifyObservers(HvHandle<HvObject>());
        return false;
    }
    int got = readIntoBuffer(0);
    if (got == 0 || got == -1) {
        notifyObservers(HvHandle<HvObject>());
        return false;
    }
    const unsigned int limit = sm_maxMessageSize.load(std::memory_order_relaxed);
    while (isReadComplete()) {
        if (limit != 0 && pendingMessageSize() > limit) {
            rejectOversizedMessage(limit);
            return false;
        }
        HvHandle<HvDatagramPacket> packet = getPacket();
        notifyObservers(HvHandle<HvObject>(packet.get()));
        // A whole message always holds at least its blank line; an empty
        // packet would mean the framing no longer moves, so stop asking.
        if (packet->getLength() == 0)
            break;
    }
    if (limit != 0 && pendingMessageSize() > limit) {
        rejectOversizedMessage(limit);
        return false;
    }
    return true;
}

unsigned long long HvBufferedInputStream::pendingMessageSize() const
{
    const unsigned long long buffered = m_count > m_position ? m_count - m_position : 0;
    if (!m_contentLengthSeen && m_headerEnd <= m_position)
        return buffered;
    unsigned long long declared = m_headerEnd > m_position ? m_headerEnd - m_position : 0;
    if (m_contentLengthSeen)
        declared += m_contentLength;
    // Without a known header end the buffered bytes are all headers so far.
    if (m_headerEnd <= m_position && buffered > declared)
        return buffered;
    return declared;
}

void HvBufferedInputStream::rejectOversizedMessage(unsigned int limit)
{
    const std::string text =
        "HvBufferedInputStream::block(): message larger than " + std::to_string(limit) + " bytes";
    logger().log(Velmora::Logger::ERROR, text, "HvBufferedInputStream", __LINE__);
    m_rejected = true;
    m_buffer = HvHandle<HvByteArray>();
    m_position = 0;
    m_count = 0;
    m_markPosition = 0;
    m_markLimit = 0;
    clearFraming();
    notifyObservers(HvHandle<HvObject>(new HvException(HvString(text.c_str()))));
}

bool HvBufferedInputStream::isReadComplete()
{
    if (m_buffer.isNull() || m_position >= m_count)
        return false;
    const unsigned char* data = m_buffer->getData();
    const unsigned int start = m_position;
    const unsigned int end = m_count;
    History seen;
    unsigned int i = start;
    // Resumed only for the same message start over bytes still buffered:
    // everything before the checkpoint led to the same decisions last time.
    if (m_scanEnd != 0 && m_scanStart == start && m_scanEnd <= end) {
        i = m_scanEnd;
        seen.last1 = m_scanHistory[0];
        seen.last2 = m_scanHistory[1];
        seen.last3 = m_scanHistory[2];
    }
    for (;;) {
        // Up to the next ':', unless a blank line comes first: then the
        // headers ended without a Content-Length and there is no body.
        unsigned int colon = end;
        for (; i < end; ++i) {
            const unsigned char c = data[i];
            if (seen.endsBlankLine(c)) {
                m_headerEnd = i + 1;
                return true;
            }
            if (c == ':') {
                colon = i;
                break;
            }
            seen.push(c);
        }
        if (colon == end) {
            m_scanStart = start;
            m_scanEnd = end;
            m_scanHistory[0] = seen.last1;
            m_scanHistory[1] = seen.last2;
            m_scanHistory[2] = seen.last3;
            return false;
        }

        // The header name ends at the last byte before the ':' that is not a
        // space; a ':' with nothing but spaces before it in the scan has none.
        if (colon == start)
            return false;
        unsigned int nameEnd = colon - 1;
        bool noName = false;
        while (data[nameEnd] == ' ') {
            if (nameEnd == start) {
                noName = true;
                break;
            }
            --nameEnd;
        }
        if (noName)
            return false;

        // Both forms are matched only against bytes of this scan, never
        // against bytes in front of the position.
        const bool compact = nameEnd > start && data[nameEnd - 1] == LF && data[nameEnd] == 'l';
        const bool longForm = nameEnd - start >= kLongNameLength - 1 &&
                              equalsIgnoringCase(data + nameEnd - (kLongNameLength - 1), kLongName, kLongNameLength);
        if (!compact && !longForm) {
            seen.push(':');
            i = colon + 1;
            continue;
        }

        m_contentLengthSeen = true;
        unsigned int j = colon + 1;
        while (j < end && (data[j] == ' ' || data[j] == '\t' || data[j] == CR || data[j] == LF))
            ++j;
        if (j >= end)
            return false;

        // A value beyond 32 bits stays at the largest one instead of wrapping
        // round to a small length that would cut the stream at a wrong place.
        unsigned long long length = 0;
        while (data[j] >= '0' && data[j] <= '9') {
            length = length * 10 + (data[j] - '0');
            if (length > kMaxUnsigned)
                length = kMaxUnsigned;
            ++j;
            if (j >= end) {
                m_contentLength = static_cast<unsigned int>(length);
                return false;
            }
        }
        m_contentLength = static_cast<unsigned int>(length);

        History blank;
        for (; j < end; ++j) {
            const unsigned char c = data[j];
            if (blank.endsBlankLine(c)) {
                m_headerEnd = j + 1;
                return end - m_headerEnd >= m_contentLength;
            }
            blank.push(c);
        }
        return false;
    }
}

unsigned int HvBufferedInputStream::messageLength() const
{
    const unsigned int buffered = m_count > m_position ? m_count - m_position : 0;
    if (!m_contentLengthSeen || m_headerEnd < m_position)
        return buffered;
    const unsigned long long length = static_cast<unsigned long long>(m_headerEnd - m_position) + m_contentLength;
    // Only a getPacket() without a complete message gets here with more than
    // is buffered; it takes what there is rather than reading past the end.
    return length < buffered ? static_cast<unsigned int>(length) : buffered;
}

HvHandle<HvDatagramPacket> HvBufferedInputStream::getPacket()
{
    Velmora::TraceScope scope(logger(), "HvBufferedInputStream::getPacket", "HvBufferedInputStream", __LINE__);
    const unsigned int length = messageLength();
    const unsigned char* from = m_buffer.isNull() ? nullptr : m_buffer->getData() + m_position;
    HvHandle<HvByteArray> array = HvByteArray::sCreate(length, from);

    HvErrorStream* errors = HvErrorStream::sGetDefault();
    if (errors->getLevel() > kDumpLevel) {
        std::lock_guard<std::mutex> lock(dumpMutex());
        *errors << "\n Begin #################################\n";
        array->display(*errors);
        *errors << " ################################# end\n";
    }

    HvInetAddress remoteAddress;
    unsigned int remotePort = 0;
    HvInetAddress localAddress;
    unsigned int localPort = 0;
    if (HvSocketInputStream* input = dynamic_cast<HvSocketInputStream*>(m_source.get())) {
        if (HvClientSocket* socket = input->getSocket()) {
            remoteAddress = socket->getRemoteAddress();
            remotePort = socket->getRemotePort();
            localAddress = socket->getLocalAddress();
            localPort = socket->getLocalPort();
        }
    }
    HvHandle<HvDatagramPacket> packet(
        new HvDatagramPacket(array.get(), 0, length, remoteAddress, remotePort, localAddress, localPort));

    m_position += length;
    clearFraming();
    return packet;
}
