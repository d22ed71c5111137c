// Output stream that discards everything; handed out by the error stream
// when a piece of debug output is not wanted.
#ifndef HVUTIL_HVOUTPUTSINK_H
#define HVUTIL_HVOUTPUTSINK_H

#include <HvUtil/HvOutputStream.h>

class HvOutputSink : public HvOutputStream {
public:
    void write(int byte) override;
    void write(const void* buffer, unsigned int length, unsigned int offset) override;
    using HvOutputStream::write;

    // The one sink of the process.
    static HvOutputSink& sGetInstance();
};

#endif
