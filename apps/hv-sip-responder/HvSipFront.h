// What the UDP and TCP sides of hv-sip-responder share: the counters, the
// port really bound, and the gate that stop() closes. A handler counts
// itself in before it looks at the gate, so that stop() seeing no handler
// means none will queue a reply afterwards (a reply queued once an output
// dispatcher has ended would start a new one while the process shuts down).
#ifndef HVSIP_RESPONDER_HVSIPFRONT_H
#define HVSIP_RESPONDER_HVSIPFRONT_H

#include <HvSipResponderCore.h>

#include <HvUtil/HvInetAddress.h>
#include <HvUtil/HvObserver.h>

#include <atomic>
#include <chrono>

class HvByteArray;
class HvSipResponderStats;
class HvSocketImpl;

class HvSipFront : public HvObserver {
public:
    // The port really bound (host order), 0 before the socket is open.
    unsigned int getBoundPort() const { return m_boundPort; }

    // From now on nothing is handled; waits (at most `limit`) until no
    // handler is running. True when none is.
    bool stop(std::chrono::milliseconds limit);

    // Takes the socket out of the library's socket registry (so that the
    // shutdown does not close it a second time) and closes it.
    static void sRelease(HvSocketImpl& socket);

protected:
    // Counts into `stats`, which must outlive this object.
    explicit HvSipFront(HvSipResponderStats& stats);

    // Counts a handler in for its lifetime.
    class InFlight {
    public:
        explicit InFlight(HvSipFront& front) : m_count(front.m_inFlight) { m_count.fetch_add(1); }
        ~InFlight() { m_count.fetch_sub(1); }
        InFlight(const InFlight&) = delete;
        InFlight& operator=(const InFlight&) = delete;

    private:
        std::atomic<int>& m_count;
    };

    bool isStopping() const { return m_stopping.load(); }

    // Reads the port the kernel bound the socket to (the socket keeps the
    // port it was asked for, and port 0 needs the kernel's answer).
    void rememberBoundPort(const HvSocketImpl& socket);

    // Runs the request step on one message from address:port and counts
    // its outcome.
    HvSipResponderCore::Result handle(const HvByteArray* data, unsigned int offset, unsigned int length,
                                      HvInetAddress address, unsigned int port, bool udp);

private:
    HvSipResponderStats& m_stats;
    unsigned int m_boundPort;
    std::atomic<int> m_inFlight;
    std::atomic<bool> m_stopping;
};

#endif
