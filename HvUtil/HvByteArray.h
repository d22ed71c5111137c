// Fixed-length block of raw bytes that follow the header in one allocation;
// always handed out through HvHandle<HvByteArray>.
#ifndef HVUTIL_HVBYTEARRAY_H
#define HVUTIL_HVBYTEARRAY_H

#include <HvUtil/HvHandle.h>

#include <cstddef>
#include <iosfwd>

class HvByteArray : public HvObject {
public:
    // `length` bytes, copied from data when it is not null (else left for
    // the caller to fill).
    static HvHandle<HvByteArray> sCreate(unsigned int length, const void* data);
    // The text's bytes without its NUL; an empty handle for null.
    static HvHandle<HvByteArray> sCreate(const char* text);
    // A slice of `length` bytes from `offset` (0: the rest of the source).
    // Bytes beyond the source's end are left unfilled.
    static HvHandle<HvByteArray> sCreate(const HvByteArray* source, unsigned int length, unsigned int offset);

    // Copies min(count, length - at) bytes from source + from to `at`; nothing
    // when `at` is at or past the end.
    void copy(unsigned int at, const void* source, unsigned int count, unsigned int from);
    // As above, with count also clipped to the source array's end; nothing
    // when `from` is at or past it.
    void copy(unsigned int at, const HvByteArray* source, unsigned int count, unsigned int from);

    // Throws HvException "index out of bounds".
    unsigned char& operator[](unsigned int index);
    const unsigned char& operator[](unsigned int index) const;

    unsigned int getSize() const { return m_length; }

    // Stream forms' window: `offset` is kept inside the array, and a length
    // of 0 or one past the end becomes the rest of the array from `offset`.
    void clipWindow(unsigned int& offset, unsigned int& length) const
    {
        if (offset > m_length)
            offset = m_length;
        if (length == 0 || length > m_length - offset)
            length = m_length - offset;
    }
    unsigned char* getData() { return reinterpret_cast<unsigned char*>(this + 1); }
    const unsigned char* getData() const { return reinterpret_cast<const unsigned char*>(this + 1); }

    // h = (h * 2) XOR byte over all bytes; not cached.
    unsigned int hashCode() const override;
    // 0 for the same object; anything else throws HvException
    // "HvByteArray::compareWith": byte arrays have no ordering.
    int compareWith(const HvObject* other) const override;
    // A new array with the same bytes, count 0.
    HvObject* clone() const override;
    // Writes the bytes to the stream.
    virtual void display(HvOutputStream& out) const;
    using HvObject::display;

    static void* operator new(std::size_t size, unsigned int extra);
    static void operator delete(void* p, unsigned int extra);
    static void operator delete(void* p);

private:
    explicit HvByteArray(unsigned int length) : m_length(length) {}
    static HvByteArray* sAllocate(unsigned int length);

    unsigned int m_length;
};

// Writes every byte as a character.
std::ostream& operator<<(std::ostream& out, const HvByteArray& array);

#endif
