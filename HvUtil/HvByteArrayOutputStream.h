// Output stream that collects bytes in a growing byte array.
#ifndef HVUTIL_HVBYTEARRAYOUTPUTSTREAM_H
#define HVUTIL_HVBYTEARRAYOUTPUTSTREAM_H

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvOutputStream.h>

class HvByteArrayOutputStream : public HvOutputStream {
public:
    // Room to grow by beyond each write that does not fit.
    static const unsigned int kGrowthReserve = 256;

    // With a capacity the buffer is made at once; with 0 on the first write.
    explicit HvByteArrayOutputStream(unsigned int initialCapacity);
    ~HvByteArrayOutputStream() override;

    void write(int byte) override;
    // Appends; a buffer that is too small or shared is replaced by a larger
    // copy. A null buffer writes nothing.
    void write(const void* buffer, unsigned int length, unsigned int offset) override;
    using HvOutputStream::write;

    // Writes the collected bytes to `out` (nothing when none or no `out`).
    void writeTo(HvOutputStream* out) const;
    // A new array holding a copy of the collected bytes.
    HvHandle<HvByteArray> toByteArray() const;

    unsigned int getCount() const { return m_count; }
    HvHandle<HvByteArray> getBuffer() const { return m_buffer; }

private:
    HvHandle<HvByteArray> m_buffer;
    unsigned int m_count;
};

#endif
