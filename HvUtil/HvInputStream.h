// Byte input interface of the library. read() gives 0 to 255, or -1 at the
// end; block reads take (buffer, length, offset). Streams are observables.
#ifndef HVUTIL_HVINPUTSTREAM_H
#define HVUTIL_HVINPUTSTREAM_H

#include <HvUtil/HvObservable.h>

class HvByteArray;

class HvInputStream : public HvObservable {
public:
    // The next byte as 0 to 255, or -1 at the end of the stream.
    virtual int read() = 0;
    // Reads up to `length` bytes to buffer + offset; returns the count, or -1
    // when the stream ended before the first byte. The default reads byte by
    // byte; an HvException after some bytes is logged and the count returned.
    virtual int read(void* buffer, unsigned int length, unsigned int offset);
    // Reads and discards up to `count` bytes in 64-byte steps; returns how
    // many were skipped. Stops early at the end or when a read gives nothing.
    virtual unsigned int skip(unsigned int count);
    // Bytes that can be read without blocking; 0 by default.
    virtual unsigned int available();
    // False by default.
    virtual bool markSupported();
    // Remembers the position (no-op by default).
    virtual void mark(unsigned int readLimit);
    // Returns to the mark. The default throws HvAssertionFailure "HvInputStream::reset()".
    virtual void reset();

    // Reads into the array's bytes from offset; a length of 0 or one beyond
    // the array means up to its end. A nil array reads nothing and gives 0.
    int read(HvHandle<HvByteArray> array, unsigned int offset, unsigned int length);

    // The process-wide default input stream. Unless one was installed, the
    // first call makes it: an HvBufferedInputStream (buffer made on the
    // first fill) over an HvFileInputStream on descriptor 0. Not locked:
    // call it once before threads share the default.
    static HvHandle<HvInputStream> sGetDefault();
    // Installs a default and returns the previous one (possibly nil).
    static HvHandle<HvInputStream> sSetDefault(HvInputStream& stream);
};

#endif
