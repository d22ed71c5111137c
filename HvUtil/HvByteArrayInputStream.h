// Input stream over (a window of) a byte array, with mark and reset.
#ifndef HVUTIL_HVBYTEARRAYINPUTSTREAM_H
#define HVUTIL_HVBYTEARRAYINPUTSTREAM_H

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvInputStream.h>

class HvByteArrayInputStream : public HvInputStream {
public:
    // Reads from offset; a length of 0, or one past the array's end, reads
    // to the end of the array. A null array is an empty stream.
    HvByteArrayInputStream(const HvByteArray* array, unsigned int offset, unsigned int length);
    ~HvByteArrayInputStream() override;

    int read() override;
    int read(void* buffer, unsigned int length, unsigned int offset) override;
    using HvInputStream::read;
    unsigned int skip(unsigned int count) override;
    unsigned int available() override;
    bool markSupported() override;
    // Saves the position; the limit is ignored.
    void mark(unsigned int readLimit) override;
    // Back to the saved position. The mark starts at 0, not at the
    // construction offset: callers rely on reset() rewinding to the start.
    void reset() override;

private:
    HvHandle<HvByteArray> m_array;
    unsigned int m_position;
    unsigned int m_end;
    unsigned int m_mark;
};

#endif
