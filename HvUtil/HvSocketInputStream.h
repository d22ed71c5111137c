// A connected HvClientSocket read as an HvInputStream. One byte of
// look-ahead lets block() wait for data without losing the byte that showed
// data had come.
#ifndef HVUTIL_HVSOCKETINPUTSTREAM_H
#define HVUTIL_HVSOCKETINPUTSTREAM_H

#include <HvUtil/HvInputStream.h>

#include <atomic>

class HvClientSocket;

class HvSocketInputStream : public HvInputStream {
public:
    // Stream states.
    static constexpr unsigned int kEmpty = 0;   // no byte held
    static constexpr unsigned int kClosed = 1;  // peer gone or reading failed; final
    static constexpr unsigned int kHolding = 2; // one byte held in the look-ahead

    // Reads from `socket`, which owns the stream; the stream does not own it.
    explicit HvSocketInputStream(HvClientSocket* socket);
    ~HvSocketInputStream() override;

    // Relays the notification as any observable does.
    void onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object) override;
    // Waits for one byte when none is available and keeps it; then notifies
    // the observer with a nil tick. False once the stream is closed.
    bool block() override;
    // The held byte, or one received byte (0 to 255); -1 once closed.
    int read() override;
    // The held byte, then one receive for the rest. A receive of 0 or -1
    // closes the socket and the stream. The count, or -1 when closed before
    // any byte. An HvException from the socket closes both, is written to the
    // error stream's debug stream and is thrown on.
    int read(void* buffer, unsigned int length, unsigned int offset) override;
    using HvInputStream::read;
    // The socket's answer (at most 4), plus 1 for a held byte; 0 when closed.
    unsigned int available() override;

    // The state: kEmpty, kClosed or kHolding.
    unsigned int getState() const { return m_state.load(std::memory_order_relaxed); }

    // The socket read from; null once the socket has gone.
    HvClientSocket* getSocket() const { return m_pSocket.load(std::memory_order_relaxed); }

    // Called by the socket's destructor: the stream forgets the socket and is
    // closed, so a stream that outlives its socket never reaches it.
    void detachSocket();

private:
    std::atomic<HvClientSocket*> m_pSocket;
    // Also read by threads that ask available() or block().
    std::atomic<unsigned int> m_state;
    unsigned int m_lookAhead;
};

#endif
