#include <HvUtil/HvErrorStream.h>
#include <HvUtil/HvOutputSink.h>

#include <cstring>
#include <iostream>

static HvErrorStream* fs_pDefault = nullptr;
// True while fs_pDefault is the stream sGetDefault() made (and holds a reference on).
static bool fs_bDefaultIsOwn = false;

HvErrorStream::HvErrorStream(HvOutputStream* target)
    : m_level(kDefaultLevel), m_modes(new HvKeyTable), m_pTarget(target)
{
}

HvErrorStream::~HvErrorStream()
{
}

void HvErrorStream::write(int byte)
{
    if (m_pTarget)
        m_pTarget->write(byte);
    else
        std::cerr.put(static_cast<char>(byte));
}

void HvErrorStream::write(const void* buffer, unsigned int length, unsigned int offset)
{
    if (m_pTarget)
        m_pTarget->write(buffer, length, offset);
    else if (buffer)
        std::cerr.write(static_cast<const char*>(buffer) + offset, length);
}

void HvErrorStream::write(const char* text)
{
    if (text)
        write(text, static_cast<unsigned int>(std::strlen(text)) + 1, 0);
}

void HvErrorStream::flush()
{
    if (m_pTarget)
        m_pTarget->flush();
    else
        std::cerr.flush();
}

void HvErrorStream::setDebugMode(const HvString& mode)
{
    m_modes->put(mode, nullptr);
}

void HvErrorStream::clearDebugMode(const HvString& mode)
{
    m_modes->remove(mode);
}

bool HvErrorStream::checkDebugMode(const HvString& mode, unsigned int level) const
{
    if (level >= m_level)
        return false;
    return m_modes->containsKey(mode);
}

HvOutputStream* HvErrorStream::getDebugStream(const HvString& mode, unsigned int level)
{
    if (checkDebugMode(mode, level))
        return destination();
    return &HvOutputSink::sGetInstance();
}

HvOutputStream* HvErrorStream::getDebugStream(unsigned int level)
{
    if (level >= m_level)
        return &HvOutputSink::sGetInstance();
    return destination();
}

HvErrorStream* HvErrorStream::sGetDefault()
{
    if (!fs_pDefault) {
        fs_pDefault = new HvErrorStream;
        // While it is the default, handles made to it for a moment must
        // never free it.
        fs_pDefault->AddRef();
        fs_bDefaultIsOwn = true;
    }
    return fs_pDefault;
}

HvErrorStream* HvErrorStream::sSetDefault(HvErrorStream* stream)
{
    HvErrorStream* previous = fs_pDefault;
    // The caller owns what it gets back: a stream made here leaves with a
    // count of 0, as if freshly made.
    if (previous && fs_bDefaultIsOwn)
        previous->Release(false);
    fs_pDefault = stream;
    fs_bDefaultIsOwn = false;
    return previous;
}
