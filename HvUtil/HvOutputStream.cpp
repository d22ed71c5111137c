#include <HvUtil/HvOutputStream.h>
#include <HvUtil/HvBufferedOutputStream.h>
#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvFileOutputStream.h>

#include <cstdio>
#include <cstring>

static HvHandle<HvOutputStream> fs_hOutputStream;

void HvOutputStream::write(const void* buffer, unsigned int length, unsigned int offset)
{
    if (!buffer)
        return;
    const char* bytes = static_cast<const char*>(buffer) + offset;
    for (unsigned int i = 0; i < length; ++i)
        write(static_cast<int>(bytes[i]));
}

void HvOutputStream::flush()
{
}

void HvOutputStream::write(HvByteArray* array, unsigned int offset, unsigned int length)
{
    if (!array)
        return;
    array->clipWindow(offset, length);
    write(array->getData(), length, offset);
}

template <class T>
HvOutputStream& HvOutputStream::writeFormatted(const char* format, T value)
{
    // Large enough for "%f" of the largest double.
    char text[512];
    int n = std::snprintf(text, sizeof(text), format, value);
    if (n > 0)
        write(text, static_cast<unsigned int>(n < static_cast<int>(sizeof(text)) ? n : sizeof(text) - 1), 0);
    return *this;
}

HvOutputStream& HvOutputStream::operator<<(const char* text)
{
    if (text)
        write(text, static_cast<unsigned int>(std::strlen(text)), 0);
    return *this;
}

HvOutputStream& HvOutputStream::operator<<(unsigned char byte)
{
    write(static_cast<int>(byte));
    return *this;
}

HvOutputStream& HvOutputStream::operator<<(double value)
{
    return writeFormatted("%f", value);
}

HvOutputStream& HvOutputStream::operator<<(short value)
{
    return writeFormatted("%d", static_cast<int>(value));
}

HvOutputStream& HvOutputStream::operator<<(unsigned short value)
{
    return writeFormatted("%u", static_cast<unsigned int>(value));
}

HvOutputStream& HvOutputStream::operator<<(int value)
{
    return writeFormatted("%d", value);
}

HvOutputStream& HvOutputStream::operator<<(unsigned int value)
{
    return writeFormatted("%u", value);
}

// long is 64 bits here; the l-forms print the same digits the 32-bit
// "%d"/"%u" did for every value that fits.
HvOutputStream& HvOutputStream::operator<<(long value)
{
    return writeFormatted("%ld", value);
}

HvOutputStream& HvOutputStream::operator<<(unsigned long value)
{
    return writeFormatted("%lu", value);
}

HvOutputStream& HvOutputStream::operator<<(const void* pointer)
{
    return writeFormatted("%08lX", reinterpret_cast<unsigned long>(pointer));
}

HvHandle<HvOutputStream> HvOutputStream::sGetDefault()
{
    // Made without a lock: the first call is expected before threads share
    // the default. Buffered bytes reach descriptor 1 only when flushed.
    if (fs_hOutputStream.isNull()) {
        HvHandle<HvFileOutputStream> standardOutput(new HvFileOutputStream(1));
        fs_hOutputStream = new HvBufferedOutputStream(standardOutput.get(), kDefaultBufferSize);
    }
    return fs_hOutputStream;
}

HvHandle<HvOutputStream> HvOutputStream::sSetDefault(HvOutputStream& stream)
{
    HvHandle<HvOutputStream> previous = fs_hOutputStream;
    fs_hOutputStream = &stream;
    return previous;
}

HvOutputStream& endl(HvOutputStream& out)
{
    out << static_cast<unsigned char>(10);
    return flush(out);
}

HvOutputStream& flush(HvOutputStream& out)
{
    out.flush();
    return out;
}
