// The UDP side of hv-sip-responder: one datagram socket bound to the listen
// address, read by an observer thread of its own; every datagram reaches
// onNotification() on a worker of the UDP input dispatcher's pool, goes
// through HvSipResponderCore, and the reply leaves through the UDP output
// dispatcher, whose shared socket is this one, so that replies come from the
// port the requests went to.
#ifndef HVSIP_RESPONDER_HVSIPUDPFRONT_H
#define HVSIP_RESPONDER_HVSIPUDPFRONT_H

#include "HvSipFront.h"

#include <HvUtil/HvDatagramSocket.h>
#include <HvUtil/HvInetAddress.h>
#include <HvUtil/HvObserverThread.h>


class HvSipResponderStats;

class HvSipUdpFront : public HvSipFront {
public:
    // Receive buffer of the socket: the largest datagram UDP over IPv4 can
    // carry, so that no request is cut (an oversized one is dropped whole by
    // the request step, never read past its end).
    static constexpr unsigned int kDatagramBufferSize = 65535;

    // Counts into `stats`, which must outlive this object.
    explicit HvSipUdpFront(HvSipResponderStats& stats);
    ~HvSipUdpFront() override;

    // Binds the socket to address:port (0: any free port). Throws the
    // library's HvException (HvSocketError "bind", ...) when it cannot.
    void open(HvInetAddress address, unsigned int port);

    // Hands the socket to the UDP output dispatcher and starts the observer
    // thread that reads it. The dispatchers must exist already (main() makes
    // them before any thread of its own runs).
    void start();
    // After the library's shutdown: lets go of the socket and the thread so
    // that nothing of this front outlives it.
    void close();

    // One received datagram (an HvDatagramPacket), or the HvException that
    // ended the socket. Runs on the input dispatcher's pool workers.
    void onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object) override;

private:
    HvHandle<HvDatagramSocket> m_socket;
    HvHandle<HvObserverThread> m_thread;
};

#endif
