// Byte output interface of the library, with formatted output through
// operator<<. Streams are observables.
#ifndef HVUTIL_HVOUTPUTSTREAM_H
#define HVUTIL_HVOUTPUTSTREAM_H

#include <HvUtil/HvObservable.h>

class HvByteArray;

class HvOutputStream : public HvObservable {
public:
    // Writes one byte (the low 8 bits).
    virtual void write(int byte) = 0;
    // Writes `length` bytes from buffer + offset; nothing for a null buffer.
    // The default passes each byte to write(int) sign-extended from a char.
    virtual void write(const void* buffer, unsigned int length, unsigned int offset);
    // Does nothing by default.
    virtual void flush();

    // Writes the array's bytes from offset; a length of 0 or one beyond the
    // array means up to its end. A null array writes nothing.
    void write(HvByteArray* array, unsigned int offset, unsigned int length);

    // Formatted output; each returns the stream.
    HvOutputStream& operator<<(const char* text);
    HvOutputStream& operator<<(unsigned char byte);
    HvOutputStream& operator<<(double value);
    HvOutputStream& operator<<(short value);
    HvOutputStream& operator<<(unsigned short value);
    HvOutputStream& operator<<(int value);
    HvOutputStream& operator<<(unsigned int value);
    HvOutputStream& operator<<(long value);
    HvOutputStream& operator<<(unsigned long value);
    HvOutputStream& operator<<(const void* pointer);
    // Applies a manipulator such as endl or flush.
    HvOutputStream& operator<<(HvOutputStream& (*manipulator)(HvOutputStream&))
    {
        return manipulator(*this);
    }

    // Size of the default output stream's buffer.
    static const unsigned int kDefaultBufferSize = 512;
    // The process-wide default output stream. Unless one was installed, the
    // first call makes it: an HvBufferedOutputStream of kDefaultBufferSize
    // bytes over an HvFileOutputStream on descriptor 1, which writes only
    // when flushed (endl flushes) or full. Not locked: call it once before
    // threads share the default.
    static HvHandle<HvOutputStream> sGetDefault();
    // Installs a default and returns the previous one (possibly nil).
    static HvHandle<HvOutputStream> sSetDefault(HvOutputStream& stream);

protected:
    // Writes the characters that a printf format gives for one value.
    template <class T>
    HvOutputStream& writeFormatted(const char* format, T value);
};

// Writes a line end (byte 10) and flushes.
HvOutputStream& endl(HvOutputStream& out);
// Calls the stream's flush().
HvOutputStream& flush(HvOutputStream& out);

#endif
