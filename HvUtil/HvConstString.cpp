#include <HvUtil/HvConstString.h>

#include <Velmora/MemAllocator.h>

#include <cstring>

namespace {

const char kTag[] = "HvConstString";
char fs_EmptyText[1] = {'\0'};

} // namespace

char* HvConstString::copyOf(const char* text, unsigned int length)
{
    char* copy = static_cast<char*>(Velmora::DefaultStaticMemAllocator::allocate(length + 1, kTag));
    std::memcpy(copy, text, length);
    copy[length] = '\0';
    return copy;
}

void HvConstString::sFreeCopy(char* copy, unsigned int length)
{
    if (copy)
        Velmora::DefaultStaticMemAllocator::deallocate(copy, length + 1, kTag);
}

HvConstString::HvConstString(const char* text, unsigned int length)
    : m_length(0), m_pData(nullptr)
{
    if (!text)
        return;
    if (length == 0) {
        m_pData = fs_EmptyText;
        return;
    }
    m_pData = copyOf(text, length);
    m_length = length;
}

void HvConstString::releaseBuffer()
{
    if (m_length != 0) {
        sFreeCopy(m_pData, m_length);
        m_length = 0;
    }
    m_pData = nullptr;
}

char* HvConstString::assign(const char* text)
{
    releaseBuffer();
    if (!text) {
        m_length = 0;
        return nullptr;
    }
    m_length = static_cast<unsigned int>(std::strlen(text));
    if (m_length == 0)
        return nullptr;
    // The object keeps the length but no data, so releaseBuffer() never
    // frees the caller's copy.
    return copyOf(text, m_length);
}

void HvConstString::changeCase(char from, char to)
{
    if (!m_pData)
        return;
    for (unsigned int i = m_length; i-- > 0;) {
        char c = m_pData[i];
        if (c >= from && c <= from + 25)
            m_pData[i] = static_cast<char>(c - from + to);
    }
}

void HvConstString::toUpper()
{
    changeCase('a', 'A');
}

void HvConstString::toLower()
{
    changeCase('A', 'a');
}

int HvConstString::indexOf(const char* needle, int from) const
{
    if (!m_pData || !needle || from < 0 || static_cast<unsigned int>(from) >= m_length)
        return -1;
    const char* found = std::strstr(m_pData + from, needle);
    return found ? static_cast<int>(found - m_pData) : -1;
}

int HvConstString::compare(const char* text) const
{
    if (!m_pData)
        return (!text || !*text) ? 1 : 0;
    if (!text)
        return 0;
    return std::strcmp(m_pData, text) == 0 ? 1 : 0;
}
