// Input stream over a standard input stream, which it does not own.
#ifndef HVUTIL_HVCPPINPUTSTREAM_H
#define HVUTIL_HVCPPINPUTSTREAM_H

#include <HvUtil/HvInputStream.h>

#include <istream>

class HvCppInputStream : public HvInputStream {
public:
    explicit HvCppInputStream(std::istream& in) : m_pIn(&in) {}
    ~HvCppInputStream() override;

    // Waits for one character if none is buffered; false at the end of the
    // stream. Notifies the observer with a nil tick in every case.
    bool block() override;
    int read() override;
    // Reads what is buffered (waiting for the first byte if nothing is).
    int read(void* buffer, unsigned int length, unsigned int offset) override;
    using HvInputStream::read;
    // Characters buffered in the stream, else the buffer's own estimate.
    unsigned int available() override;

private:
    std::istream* m_pIn;
};

#endif
