// The library's string: a reference-counted buffer whose characters live in
// the same allocation as its header, held through HvString.
//
// Editing follows one rule: an operation is given a buffer that may be null
// (the empty string) and returns the buffer that holds the result, either the
// same one changed in place (when it is private, count <= 1, and large
// enough) or a new one. The caller stores the result back into its handle,
// which releases the old buffer if it was replaced. The static s-forms take
// the possibly-null buffer; the members are the same operations on `this`.
#ifndef HVUTIL_HVSTRINGBUFFER_H
#define HVUTIL_HVSTRINGBUFFER_H

#include <HvUtil/HvObject.h>

#include <atomic>
#include <cstddef>

class HvInputStream;

class HvStringBuffer : public HvObject {
public:
    // A new buffer with count 0, or null for the empty string when no room
    // is asked for. A zero length with a text means strlen(text); the
    // capacity is raised to length + 1. A null text with a length reserves
    // the characters for the caller to fill.
    static HvStringBuffer* sCreate(const char* text, unsigned int length, unsigned int capacity);

    // Editing: each returns the buffer that holds the result.
    static HvStringBuffer* sAssign(HvStringBuffer* buffer, const char* text);
    // Appends n characters of text (its whole length when n is 0 or longer
    // than the text). A new buffer is exactly as large as needed.
    static HvStringBuffer* sAppend(HvStringBuffer* buffer, const char* text, unsigned int n);
    static HvStringBuffer* sAppend(HvStringBuffer* buffer, const HvStringBuffer* other);
    static HvStringBuffer* sToLower(HvStringBuffer* buffer);
    static HvStringBuffer* sToUpper(HvStringBuffer* buffer);
    // Strips tab, newline, carriage return and blank at both ends.
    static HvStringBuffer* sTrim(HvStringBuffer* buffer);
    // count characters from start (the rest when count is 0 or too long);
    // null when start is at or past the end.
    static HvStringBuffer* sSubstr(const HvStringBuffer* buffer, unsigned int start, unsigned int count);
    // One block read of up to n bytes; its result is the new length.
    static HvStringBuffer* sRead(HvStringBuffer* buffer, HvInputStream& in, unsigned int n);
    // Skips leading white space and reads up to (not including) the first
    // delimiter or the end. Throws what the stream or tokenizer throws.
    static HvStringBuffer* sParse(HvStringBuffer* buffer, HvInputStream& in, const char* delimiters);
    // As sParse, but only the leading white space is consumed.
    static HvStringBuffer* sPeek(HvStringBuffer* buffer, HvInputStream& in, const char* delimiters);

    // Queries on a possibly-null buffer.
    static int sIndexOf(const HvStringBuffer* buffer, const char* needle, int from);
    static int sCompareWith(const HvStringBuffer* buffer, const char* text);
    static int sCompareNoCase(const HvStringBuffer* buffer, const char* text);

    // The same operations on this buffer.
    HvStringBuffer* assign(const char* text) { return sAssign(this, text); }
    HvStringBuffer* append(const char* text, unsigned int n) { return sAppend(this, text, n); }
    HvStringBuffer* append(const HvStringBuffer* other) { return sAppend(this, other); }
    HvStringBuffer* toLower() { return sToLower(this); }
    HvStringBuffer* toUpper() { return sToUpper(this); }
    HvStringBuffer* trim() { return sTrim(this); }
    HvStringBuffer* substr(unsigned int start, unsigned int count) const { return sSubstr(this, start, count); }
    HvStringBuffer* read(HvInputStream& in, unsigned int n) { return sRead(this, in, n); }
    HvStringBuffer* parse(HvInputStream& in, const char* delimiters) { return sParse(this, in, delimiters); }
    HvStringBuffer* peek(HvInputStream& in, const char* delimiters) { return sPeek(this, in, delimiters); }
    int indexOf(const char* needle, int from) const { return sIndexOf(this, needle, from); }
    int compareWith(const char* text) const { return sCompareWith(this, text); }
    int compareNoCase(const char* text) const { return sCompareNoCase(this, text); }

    // Direct access for a buffer no handle holds yet (count 0) with at least
    // n bytes of room. Throws HvAssertionFailure "HvStringBuffer::lockBuffer".
    static char* sLockBuffer(HvStringBuffer* buffer, unsigned int n);
    char* lockBuffer(unsigned int n) { return sLockBuffer(this, n); }
    // Sets the length to n (0xFFFFFFFF: measure with strlen). The caller has
    // written the NUL. Throws HvAssertionFailure "HvStringBuffer::releaseBuffer"
    // when n is not below the capacity.
    void releaseBuffer(unsigned int n);

    const char* getData() const { return m_pData; }
    unsigned int getLength() const { return m_length; }
    unsigned int getCapacity() const { return m_capacity; }

    // 0 for the same object, 1 for null or another class, else strcmp.
    int compareWith(const HvObject* other) const override;
    // hash = hash * 5 + signed char over the text up to its NUL; cached.
    unsigned int hashCode() const override;
    HvObject* clone() const override;
    // Verbose object display, then the text.
    virtual void display(HvOutputStream& out) const;
    using HvObject::display;

    // Header and characters are one block from the tagged allocator.
    static void* operator new(std::size_t size, unsigned int extra);
    static void operator delete(void* p, unsigned int extra);
    static void operator delete(void* p);

    ~HvStringBuffer() override;

private:
    HvStringBuffer(unsigned int length, unsigned int capacity);
    HvStringBuffer(const HvStringBuffer&) = delete;
    HvStringBuffer& operator=(const HvStringBuffer&) = delete;

    // True when at most one handle holds this buffer (it may be changed in place).
    bool isPrivate() const { return getRefCount() <= 1; }
    // A buffer for reading n characters: this one if private and larger than n.
    static HvStringBuffer* bufferForRead(HvStringBuffer* buffer, unsigned int n);
    // Sets the length, writes the NUL and forgets the hash.
    void setLength(unsigned int length);
    static HvStringBuffer* changeCase(HvStringBuffer* buffer, char from, char to);

    char* m_pData;
    unsigned int m_length;
    unsigned int m_capacity;
    // Cached hash, 0 when not computed; may be filled by a reader of a shared buffer.
    mutable std::atomic<unsigned int> m_hash;
};

#endif
