// Input stream that buffers another one, with mark and reset. On a
// connection it is also where the byte stream is cut into whole SIP
// messages (headers up to the blank line, then as many body bytes as the
// Content-Length header, long or compact "l" form, declares), each handed to
// the observer as an HvDatagramPacket.
#ifndef HVUTIL_HVBUFFEREDINPUTSTREAM_H
#define HVUTIL_HVBUFFEREDINPUTSTREAM_H

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvInputStream.h>

#include <atomic>
#include <cstddef>

class HvDatagramPacket;

class HvBufferedInputStream : public HvInputStream {
public:
    // Fills read at least this many bytes, and dead bytes in front of the
    // kept data are only moved away once there are more than this many.
    static const unsigned int kChunk = 8192;
    // Growth steps are a 16th of the buffer, but never more than this, so
    // that one large message does not double the memory of a connection.
    static const unsigned int kMaxIncrement = 49152;
    // How far the buffer may outgrow sm_maxMessageSize while the guard is
    // on: dead bytes not yet compacted (kChunk), one fill (kChunk) and one
    // growth step (kMaxIncrement).
    static const unsigned int kGuardSlack = kChunk + kChunk + kMaxIncrement;

    // Largest message, in bytes, that block() frames; 0 (the default) means
    // no limit. Without a limit a peer that sends headers and never a blank
    // line, or declares Content-Length 4294967295, makes its connection hold
    // whatever it sends. With one, block() reports such a message to the
    // observer as an HvException "HvBufferedInputStream::block(): message
    // larger than <limit> bytes", drops the buffer and from then on behaves
    // as on an ended source (returns false), so that the owner closes the
    // connection; while the guard is on the buffer never exceeds
    // limit + kGuardSlack bytes. Read at every block(); other streams are
    // not affected.
    static std::atomic<unsigned int> sm_maxMessageSize;

    // Takes a handle on `source`. A size of 0 leaves the buffer to the first
    // fill, which makes it kChunk bytes (or what that fill asks for).
    HvBufferedInputStream(HvInputStream* source, unsigned int size);
    ~HvBufferedInputStream() override;

    // When the source has bytes available, reads them into the buffer; then
    // notifies the observer with a nil tick.
    void onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object) override;
    // Reads what arrived. When the source has ended (the fill gave 0 or -1),
    // notifies a nil tick and returns false. Otherwise notifies the observer
    // once with each whole message now buffered, as an HvDatagramPacket, and
    // returns true. See sm_maxMessageSize for oversized messages.
    bool block() override;
    // The next byte (0 to 255), filling the buffer first when it is used up;
    // -1 at the end.
    int read() override;
    // Up to `length` buffered bytes to buffer + offset. An empty buffer is
    // filled first (-1 when the source has ended); a buffer holding fewer
    // than `length` bytes is topped up by one fill.
    int read(void* buffer, unsigned int length, unsigned int offset) override;
    using HvInputStream::read;
    // Skips buffered bytes first, and asks the source to skip the rest.
    unsigned int skip(unsigned int count) override;
    // The buffered bytes not yet read; the source is not asked.
    unsigned int available() override;
    // True.
    bool markSupported() override;
    // Saves the position; fills drop the mark once reading went more than
    // `readLimit` bytes past it. A limit of 0 leaves no valid mark.
    void mark(unsigned int readLimit) override;
    // Back to the mark, which serves once. Throws HvException "mark limit
    // exceeded" without a valid mark.
    void reset() override;

    // Compacts and grows the buffer as needed, then reads at least
    // max(wanted, kChunk) bytes' worth from the source into it. Returns what
    // the source read, or -1.
    int readIntoBuffer(unsigned int wanted);
    // True when a whole message lies between the position and the last
    // buffered byte. Records the message's header end and Content-Length.
    bool isReadComplete();
    // Takes the message that isReadComplete() found out of the buffer. Over
    // an HvSocketInputStream the packet carries the connection's remote and
    // local endpoints; over any other source, zero addresses and ports.
    HvHandle<HvDatagramPacket> getPacket();

    // The source stream.
    HvHandle<HvInputStream> getSourceStream() const { return m_source; }
    // Size of the buffer in bytes; 0 while there is none.
    unsigned int getCapacity() const { return m_buffer.isNull() ? 0 : m_buffer->getSize(); }

    static void* operator new(std::size_t size);
    static void operator delete(void* p, std::size_t size);

private:
    // Length of the message that starts at the position, as getPacket()
    // takes it, never more than is buffered.
    unsigned int messageLength() const;
    // Bytes the message at the position needs (or already takes) when its
    // headers or declared body are known to be longer than what arrived.
    unsigned long long pendingMessageSize() const;
    // Reports an oversized message and turns the stream into an ended one.
    void rejectOversizedMessage(unsigned int limit);
    void clearFraming();

    HvHandle<HvByteArray> m_buffer;
    unsigned int m_position;
    unsigned int m_count;
    unsigned int m_markPosition;
    unsigned int m_markLimit;
    HvHandle<HvInputStream> m_source;
    unsigned int m_headerEnd;
    unsigned int m_contentLength;
    bool m_contentLengthSeen;
    // Set once an oversized message was rejected: the stream has ended.
    bool m_rejected;
    // Where the last scan of the message starting at m_scanStart ran out of
    // bytes before its next ':' or the end of its headers (m_scanEnd, 0 when
    // there is no such point), and the last three bytes it had seen there.
    // The next scan of the same message goes on from that point, so that a
    // message arriving in small pieces is scanned once, not once per piece.
    unsigned int m_scanStart;
    unsigned int m_scanEnd;
    unsigned char m_scanHistory[3];
};

#endif
