// Input streams for tests of the readers built on HvInputStream.
#ifndef HVUTIL_TESTS_HVTESTSTREAMS_H
#define HVUTIL_TESTS_HVTESTSTREAMS_H

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvByteArrayInputStream.h>
#include <HvUtil/HvHandle.h>
#include <HvUtil/HvInputStream.h>

#include <cstddef>
#include <string>

namespace hvtest {

// A memory stream (mark supported) over the bytes of `content`, NULs and
// 0xFF bytes included.
inline HvHandle<HvInputStream> streamOf(const std::string& content)
{
    HvHandle<HvByteArray> bytes = HvByteArray::sCreate(static_cast<unsigned int>(content.size()), content.data());
    return HvHandle<HvInputStream>(new HvByteArrayInputStream(bytes.get(), 0, 0));
}

// A stream over a text that cannot mark: reset() is the base class's
// assertion failure.
class UnmarkableStream : public HvInputStream {
public:
    explicit UnmarkableStream(const std::string& content) : m_content(content) {}
    int read() override
    {
        return m_position < m_content.size() ? static_cast<unsigned char>(m_content[m_position++]) : -1;
    }
    using HvInputStream::read;

private:
    std::string m_content;
    std::size_t m_position = 0;
};

// What is left in the stream, read byte by byte.
inline std::string rest(HvInputStream& in)
{
    std::string text;
    for (int c = in.read(); c != -1; c = in.read())
        text.push_back(static_cast<char>(c));
    return text;
}

} // namespace hvtest

#endif
