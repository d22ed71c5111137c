// Output stream that collects bytes in a fixed buffer in front of another
// output stream, and passes them on when the buffer is full or flushed.
#ifndef HVUTIL_HVBUFFEREDOUTPUTSTREAM_H
#define HVUTIL_HVBUFFEREDOUTPUTSTREAM_H

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvOutputStream.h>

#include <cstddef>

class HvBufferedOutputStream : public HvOutputStream {
public:
    // A buffer of `size` bytes in front of `destination`. Throws
    // HvAssertionFailure "No buffer in HvBufferedOutputStream" when no
    // buffer results; a size of 0 gives none.
    HvBufferedOutputStream(HvOutputStream* destination, unsigned int size);
    // Releases buffer and destination without flushing: bytes still
    // buffered are lost.
    ~HvBufferedOutputStream() override;

    // Flushes first when the buffer is full, then buffers the low byte.
    void write(int byte) override;
    // Flushes first when the bytes do not fit in the free room; bytes larger
    // than the whole buffer then go straight to the destination. A null
    // buffer writes nothing.
    void write(const void* buffer, unsigned int length, unsigned int offset) override;
    using HvOutputStream::write;
    // Writes the buffered bytes to the destination and empties the buffer.
    // The destination itself is not flushed.
    void flush() override;

    // The destination stream.
    HvHandle<HvOutputStream> getDestination() const { return m_destination; }
    // Bytes buffered now.
    unsigned int getCount() const { return m_count; }
    // Size of the buffer in bytes.
    unsigned int getCapacity() const { return m_buffer.isNull() ? 0 : m_buffer->getSize(); }

    static void* operator new(std::size_t size);
    static void operator delete(void* p, std::size_t size);

private:
    HvHandle<HvByteArray> m_buffer;
    unsigned int m_count;
    HvHandle<HvOutputStream> m_destination;
};

#endif
