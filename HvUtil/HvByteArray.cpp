#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvOutputStream.h>

#include <cstring>
#include <new>
#include <ostream>

void* HvByteArray::operator new(std::size_t size, unsigned int extra)
{
    return ::operator new(size + extra);
}

void HvByteArray::operator delete(void* p, unsigned int)
{
    ::operator delete(p);
}

void HvByteArray::operator delete(void* p)
{
    ::operator delete(p);
}

HvByteArray* HvByteArray::sAllocate(unsigned int length)
{
    return new (length) HvByteArray(length);
}

HvHandle<HvByteArray> HvByteArray::sCreate(unsigned int length, const void* data)
{
    HvByteArray* array = sAllocate(length);
    if (data && length != 0)
        std::memcpy(array->getData(), data, length);
    return array;
}

HvHandle<HvByteArray> HvByteArray::sCreate(const char* text)
{
    if (!text)
        return HvHandle<HvByteArray>();
    return sCreate(static_cast<unsigned int>(std::strlen(text)), text);
}

HvHandle<HvByteArray> HvByteArray::sCreate(const HvByteArray* source, unsigned int length, unsigned int offset)
{
    bool inside = source && offset < source->m_length;
    if (length == 0 && source)
        length = inside ? source->m_length - offset : 0;
    HvByteArray* array = sAllocate(length);
    if (inside) {
        unsigned int available = source->m_length - offset;
        std::memcpy(array->getData(), source->getData() + offset, length < available ? length : available);
    }
    return array;
}

void HvByteArray::copy(unsigned int at, const void* source, unsigned int count, unsigned int from)
{
    if (at >= m_length)
        return;
    unsigned int room = m_length - at;
    std::memmove(getData() + at, static_cast<const unsigned char*>(source) + from, count < room ? count : room);
}

void HvByteArray::copy(unsigned int at, const HvByteArray* source, unsigned int count, unsigned int from)
{
    if (!source || from >= source->m_length)
        return;
    unsigned int rest = source->m_length - from;
    copy(at, source->getData(), count < rest ? count : rest, from);
}

unsigned char& HvByteArray::operator[](unsigned int index)
{
    if (index >= m_length)
        HvException::sThrow("index out of bounds");
    return getData()[index];
}

const unsigned char& HvByteArray::operator[](unsigned int index) const
{
    if (index >= m_length)
        HvException::sThrow("index out of bounds");
    return getData()[index];
}

unsigned int HvByteArray::hashCode() const
{
    unsigned int hash = 0;
    const unsigned char* bytes = getData();
    for (unsigned int i = 0; i < m_length; ++i)
        hash = (hash * 2) ^ bytes[i];
    return hash;
}

int HvByteArray::compareWith(const HvObject* other) const
{
    if (other == this)
        return 0;
    HvException::sThrow("HvByteArray::compareWith");
}

HvObject* HvByteArray::clone() const
{
    // A live copy: the caller's first handle owns it.
    HvByteArray* copy = sAllocate(m_length);
    std::memcpy(copy->getData(), getData(), m_length);
    return copy;
}

void HvByteArray::display(HvOutputStream& out) const
{
    out.write(const_cast<HvByteArray*>(this), 0, 0);
}

std::ostream& operator<<(std::ostream& out, const HvByteArray& array)
{
    return out.write(reinterpret_cast<const char*>(array.getData()), array.getSize());
}
