#include <HvUtil/HvStringBuffer.h>
#include <HvUtil/HvAssertionFailure.h>
#include <HvUtil/HvInputStream.h>
#include <HvUtil/HvOutputStream.h>
#include <HvUtil/HvStreamTokenizer.h>
#include <HvUtil/HvString.h>

#include <Velmora/MemAllocator.h>

#include <cstring>
#include <new>
#include <ostream>

namespace {

const char kTag[] = "HvStringBuffer";
const unsigned int kMeasure = 0xFFFFFFFF;

bool isTrimmed(char c)
{
    return c == '\t' || c == '\n' || c == '\r' || c == ' ';
}

char foldCase(char c)
{
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

} // namespace

void* HvStringBuffer::operator new(std::size_t size, unsigned int extra)
{
    return Velmora::NoSizeMemAllocator::allocate(size + extra, kTag);
}

void HvStringBuffer::operator delete(void* p, unsigned int)
{
    Velmora::NoSizeMemAllocator::deallocate(p, kTag);
}

void HvStringBuffer::operator delete(void* p)
{
    Velmora::NoSizeMemAllocator::deallocate(p, kTag);
}

HvStringBuffer::HvStringBuffer(unsigned int length, unsigned int capacity)
    : m_pData(reinterpret_cast<char*>(this + 1)), m_length(length), m_capacity(capacity), m_hash(0)
{
}

HvStringBuffer::~HvStringBuffer()
{
}

HvStringBuffer* HvStringBuffer::sCreate(const char* text, unsigned int length, unsigned int capacity)
{
    if (!text && capacity == 0)
        return nullptr;
    if (text && length == 0) {
        length = static_cast<unsigned int>(std::strlen(text));
        // The empty string is never materialised unless room is asked for.
        if (length == 0 && capacity == 0)
            return nullptr;
    }
    // A length with no room for its NUL cannot be allocated.
    if (length == kMeasure)
        throw std::bad_alloc();
    if (capacity < length + 1)
        capacity = length + 1;
    HvStringBuffer* buffer = new (capacity) HvStringBuffer(length, capacity);
    if (text && length != 0)
        std::memcpy(buffer->m_pData, text, length);
    buffer->m_pData[length] = '\0';
    return buffer;
}

void HvStringBuffer::setLength(unsigned int length)
{
    m_length = length;
    m_pData[length] = '\0';
    m_hash.store(0, std::memory_order_relaxed);
}

HvStringBuffer* HvStringBuffer::sAssign(HvStringBuffer* buffer, const char* text)
{
    unsigned int n = text ? static_cast<unsigned int>(std::strlen(text)) : 0;
    if (buffer && buffer->isPrivate() && buffer->m_capacity >= n + 1) {
        std::memmove(buffer->m_pData, text ? text : "", n);
        buffer->setLength(n);
        return buffer;
    }
    return sCreate(text, n, 0);
}

HvStringBuffer* HvStringBuffer::sAppend(HvStringBuffer* buffer, const char* text, unsigned int n)
{
    if (!text)
        return buffer;
    unsigned int taken = (n != 0 && ::strnlen(text, n) == n) ? n : static_cast<unsigned int>(std::strlen(text));
    // An n beyond the text takes the whole text here too: passing n on to
    // sCreate would copy bytes past the text's end.
    if (!buffer)
        return taken == 0 ? nullptr : sCreate(text, taken, 0);
    if (taken == 0)
        return buffer;
    unsigned int needed = buffer->m_length + taken + 1;
    HvStringBuffer* result = buffer;
    if (!buffer->isPrivate() || buffer->m_capacity < needed)
        result = sCreate(buffer->m_pData, buffer->m_length, needed);
    // memmove: the text may be this very buffer's own characters.
    std::memmove(result->m_pData + result->m_length, text, taken);
    result->setLength(result->m_length + taken);
    return result;
}

HvStringBuffer* HvStringBuffer::sAppend(HvStringBuffer* buffer, const HvStringBuffer* other)
{
    if (!buffer)
        return const_cast<HvStringBuffer*>(other);
    if (!other)
        return buffer;
    return sAppend(buffer, other->m_pData, other->m_length);
}

HvStringBuffer* HvStringBuffer::changeCase(HvStringBuffer* buffer, char from, char to)
{
    if (!buffer || buffer->m_length == 0)
        return buffer;
    HvStringBuffer* result = buffer;
    if (!buffer->isPrivate())
        result = sCreate(buffer->m_pData, buffer->m_length, buffer->m_length + 1);
    for (unsigned int i = result->m_length; i-- > 0;) {
        char c = result->m_pData[i];
        if (c >= from && c <= from + 25)
            result->m_pData[i] = static_cast<char>(c - from + to);
    }
    result->m_hash.store(0, std::memory_order_relaxed);
    return result;
}

HvStringBuffer* HvStringBuffer::sToLower(HvStringBuffer* buffer)
{
    return changeCase(buffer, 'A', 'a');
}

HvStringBuffer* HvStringBuffer::sToUpper(HvStringBuffer* buffer)
{
    return changeCase(buffer, 'a', 'A');
}

HvStringBuffer* HvStringBuffer::sTrim(HvStringBuffer* buffer)
{
    if (!buffer)
        return nullptr;
    HvStringBuffer* result = buffer;
    if (!buffer->isPrivate())
        result = sCreate(buffer->m_pData, buffer->m_length, buffer->m_capacity);
    unsigned int end = result->m_length;
    while (end > 0 && isTrimmed(result->m_pData[end - 1]))
        --end;
    unsigned int start = 0;
    while (start < end && isTrimmed(result->m_pData[start]))
        ++start;
    std::memmove(result->m_pData, result->m_pData + start, end - start);
    result->setLength(end - start);
    return result;
}

HvStringBuffer* HvStringBuffer::sSubstr(const HvStringBuffer* buffer, unsigned int start, unsigned int count)
{
    if (!buffer || start >= buffer->m_length)
        return nullptr;
    unsigned int rest = buffer->m_length - start;
    return sCreate(buffer->m_pData + start, (count != 0 && count <= rest) ? count : rest, 0);
}

HvStringBuffer* HvStringBuffer::bufferForRead(HvStringBuffer* buffer, unsigned int n)
{
    if (buffer && buffer->isPrivate() && buffer->m_capacity > n)
        return buffer;
    if (n == kMeasure)
        throw std::bad_alloc();
    return sCreate(nullptr, 0, n + 1);
}

HvStringBuffer* HvStringBuffer::sRead(HvStringBuffer* buffer, HvInputStream& in, unsigned int n)
{
    HvStringBuffer* target = bufferForRead(buffer, n);
    int count;
    try {
        count = in.read(target->m_pData, n, 0);
    } catch (...) {
        // A buffer made here belongs to nobody yet.
        if (target != buffer)
            delete target;
        throw;
    }
    target->setLength(count > 0 ? static_cast<unsigned int>(count) : 0);
    return target;
}

HvStringBuffer* HvStringBuffer::sParse(HvStringBuffer* buffer, HvInputStream& in, const char* delimiters)
{
    unsigned int n = HvStreamTokenizer::sLookAhead(in, delimiters);
    return sRead(buffer, in, n);
}

HvStringBuffer* HvStringBuffer::sPeek(HvStringBuffer* buffer, HvInputStream& in, const char* delimiters)
{
    unsigned int n = HvStreamTokenizer::sLookAhead(in, delimiters);
    in.mark(0xFFFFFFFF);
    HvStringBuffer* result = sRead(buffer, in, n);
    in.reset();
    return result;
}

int HvStringBuffer::sIndexOf(const HvStringBuffer* buffer, const char* needle, int from)
{
    if (!buffer || !needle || from < 0 || static_cast<unsigned int>(from) >= buffer->m_length)
        return -1;
    const char* found = std::strstr(buffer->m_pData + from, needle);
    return found ? static_cast<int>(found - buffer->m_pData) : -1;
}

int HvStringBuffer::sCompareWith(const HvStringBuffer* buffer, const char* text)
{
    if (!buffer)
        return (!text || !*text) ? 0 : -1;
    if (!text)
        return static_cast<signed char>(buffer->m_pData[0]);
    return std::strcmp(buffer->m_pData, text);
}

int HvStringBuffer::sCompareNoCase(const HvStringBuffer* buffer, const char* text)
{
    if (!buffer)
        return (!text || !*text) ? 0 : -1;
    if (!text)
        return static_cast<signed char>(buffer->m_pData[0]);
    const char* mine = buffer->m_pData;
    while (*mine && *text && foldCase(*mine) == foldCase(*text)) {
        ++mine;
        ++text;
    }
    return static_cast<unsigned char>(foldCase(*mine)) - static_cast<unsigned char>(foldCase(*text));
}

char* HvStringBuffer::sLockBuffer(HvStringBuffer* buffer, unsigned int n)
{
    if (!buffer || buffer->getRefCount() != 0 || buffer->m_capacity < n)
        HvAssertionFailure::sThrow("HvStringBuffer::lockBuffer", "HvStringBuffer.cpp", 357, HV_COMPILE_TIMESTAMP);
    return buffer->m_pData;
}

void HvStringBuffer::releaseBuffer(unsigned int n)
{
    if (n == kMeasure)
        n = static_cast<unsigned int>(::strnlen(m_pData, m_capacity));
    if (m_capacity <= n)
        HvAssertionFailure::sThrow("HvStringBuffer::releaseBuffer", "HvStringBuffer.cpp", 366,
                                   HV_COMPILE_TIMESTAMP);
    m_length = n;
}

int HvStringBuffer::compareWith(const HvObject* other) const
{
    if (other == this)
        return 0;
    const HvStringBuffer* text = dynamic_cast<const HvStringBuffer*>(other);
    if (!text)
        return 1;
    return std::strcmp(m_pData, text->m_pData);
}

unsigned int HvStringBuffer::hashCode() const
{
    unsigned int cached = m_hash.load(std::memory_order_relaxed);
    if (cached != 0)
        return cached;
    unsigned int hash = 0;
    for (const char* c = m_pData; *c; ++c)
        hash = hash * 5 + static_cast<unsigned int>(static_cast<int>(static_cast<signed char>(*c)));
    // Stored once, complete: a reader on another thread never sees a partial hash.
    m_hash.store(hash, std::memory_order_relaxed);
    return hash;
}

HvObject* HvStringBuffer::clone() const
{
    return sCreate(m_pData, m_length, m_capacity);
}

void HvStringBuffer::display(HvOutputStream& out) const
{
    HvObject::display(out, true);
    out << m_pData;
}

HvOutputStream& operator<<(HvOutputStream& out, const HvString& text)
{
    if (!text.isNull())
        out.write(text.get()->getData(), text.get()->getLength(), 0);
    return out;
}

std::ostream& operator<<(std::ostream& out, const HvString& text)
{
    return out.write(text.c_str(), text.length());
}

HvInputStream& operator>>(HvInputStream& in, HvString& text)
{
    text = HvStringBuffer::sParse(text.get(), in, " \t\r\n");
    return in;
}
