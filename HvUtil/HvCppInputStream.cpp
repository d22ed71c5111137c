#include <HvUtil/HvCppInputStream.h>

HvCppInputStream::~HvCppInputStream()
{
}

bool HvCppInputStream::block()
{
    bool result = true;
    if (available() == 0) {
        int c = m_pIn->get();
        if (c == std::char_traits<char>::eof())
            result = false;
        else
            m_pIn->putback(static_cast<char>(c));
    }
    notifyObservers(HvHandle<HvObject>());
    return result;
}

int HvCppInputStream::read()
{
    int c = m_pIn->get();
    return c == std::char_traits<char>::eof() ? -1 : c;
}

unsigned int HvCppInputStream::available()
{
    std::streambuf* buffer = m_pIn->rdbuf();
    if (!buffer)
        return 0;
    std::streamsize buffered = buffer->in_avail();
    return buffered > 0 ? static_cast<unsigned int>(buffered) : 0;
}

int HvCppInputStream::read(void* buffer, unsigned int length, unsigned int offset)
{
    if (length == 0 || !buffer)
        return 0;
    char* target = static_cast<char*>(buffer) + offset;
    unsigned int first = 0;
    if (available() == 0) {
        int c = read();
        if (c == -1)
            return -1;
        target[0] = static_cast<char>(c);
        if (length == 1)
            return 1;
        first = 1;
    }
    unsigned int buffered = available();
    unsigned int wanted = length - first;
    unsigned int count = buffered < wanted ? buffered : wanted;
    m_pIn->read(target + first, count);
    return static_cast<int>(static_cast<unsigned int>(m_pIn->gcount()) + first);
}
