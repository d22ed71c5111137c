#include <HvUtil/HvByteArrayInputStream.h>

#include <cstring>

HvByteArrayInputStream::HvByteArrayInputStream(const HvByteArray* array, unsigned int offset, unsigned int length)
    : m_array(const_cast<HvByteArray*>(array)), m_position(offset), m_end(0), m_mark(0)
{
    if (!array)
        return;
    unsigned int size = array->getSize();
    // offset + length is compared without overflow.
    m_end = (length != 0 && offset <= size && length <= size - offset) ? offset + length : size;
}

HvByteArrayInputStream::~HvByteArrayInputStream()
{
}

int HvByteArrayInputStream::read()
{
    if (m_position >= m_end)
        return -1;
    return m_array->getData()[m_position++];
}

int HvByteArrayInputStream::read(void* buffer, unsigned int length, unsigned int offset)
{
    if (m_position >= m_end)
        return -1;
    if (!buffer)
        return 0;
    unsigned int left = m_end - m_position;
    unsigned int count = length < left ? length : left;
    std::memcpy(static_cast<unsigned char*>(buffer) + offset, m_array->getData() + m_position, count);
    m_position += count;
    return static_cast<int>(count);
}

unsigned int HvByteArrayInputStream::skip(unsigned int count)
{
    if (m_position >= m_end)
        return 0;
    unsigned int left = m_end - m_position;
    unsigned int skipped = count < left ? count : left;
    m_position += skipped;
    return skipped;
}

unsigned int HvByteArrayInputStream::available()
{
    return m_position >= m_end ? 0 : m_end - m_position;
}

bool HvByteArrayInputStream::markSupported()
{
    return true;
}

void HvByteArrayInputStream::mark(unsigned int)
{
    m_mark = m_position;
}

void HvByteArrayInputStream::reset()
{
    m_position = m_mark;
}
