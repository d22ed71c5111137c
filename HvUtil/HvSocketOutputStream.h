// A connected HvClientSocket written as an HvOutputStream.
#ifndef HVUTIL_HVSOCKETOUTPUTSTREAM_H
#define HVUTIL_HVSOCKETOUTPUTSTREAM_H

#include <HvUtil/HvOutputStream.h>

#include <atomic>

class HvClientSocket;

class HvSocketOutputStream : public HvOutputStream {
public:
    // Writes to `socket`, which owns the stream; the stream does not own it.
    explicit HvSocketOutputStream(HvClientSocket* socket);
    ~HvSocketOutputStream() override;

    // Sends the low byte of `byte`.
    void write(int byte) override;
    // Sends `length` bytes from buffer + offset, resuming after partial
    // sends until all are gone. A failed send (the socket is then closed)
    // abandons the rest. A null buffer writes nothing.
    void write(const void* buffer, unsigned int length, unsigned int offset) override;
    using HvOutputStream::write;

    // Called by the socket's destructor: later writes are dropped.
    void detachSocket();

private:
    std::atomic<HvClientSocket*> m_pSocket;
};

#endif
