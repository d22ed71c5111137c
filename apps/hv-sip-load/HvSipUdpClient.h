// The UDP side of hv-sip-load, on the library's road: one HvDatagramSocket
// bound on the local address that routes to the target (port 0, any free
// one), read by an observer thread whose datagrams the UDP input dispatcher's
// pool hands to the sink; requests leave through the UDP output dispatcher,
// which is given this socket so that replies come back to it.
#ifndef HVSIPLOAD_HVSIPUDPCLIENT_H
#define HVSIPLOAD_HVSIPUDPCLIENT_H

#include "HvSipLoadTransport.h"

#include <HvUtil/HvDatagramSocket.h>
#include <HvUtil/HvHandle.h>
#include <HvUtil/HvInetAddress.h>
#include <HvUtil/HvObserver.h>
#include <HvUtil/HvObserverThread.h>

#include <string>

class HvSipUdpClient : public HvSipLoadTransport {
public:
    // Receive buffer of the socket: the largest UDP payload, so no reply is cut.
    static constexpr unsigned int kReceiveBufferSize = 65535;

    // Binds the socket, starts the dispatchers and the reading thread. Call
    // on the main thread before any other thread uses the dispatchers.
    // Throws HvException (as HvHandle<HvException>) when the socket cannot be
    // made or bound, or no local address routes to the target.
    HvSipUdpClient(HvInetAddress target, unsigned int targetPort, HvSipLoadSink& sink);
    ~HvSipUdpClient() override;

    const char* getViaTransport() const override { return "UDP"; }
    unsigned int getConnectionCount() const override { return 1; }
    const std::string& getLocalHost(unsigned int) const override { return m_localHost; }
    unsigned int getLocalPort(unsigned int) const override { return m_localPort; }
    bool isUp(unsigned int) const override { return true; }
    void send(unsigned int index, HvByteArray* request) override;
    bool isReliable() const override { return false; }

    // The local address that routes to `target` (network order), found by
    // connecting a scratch datagram socket, which sends nothing. Throws
    // HvSystemError naming the failed call.
    static HvInetAddress sLocalAddressFor(HvInetAddress target, unsigned int port);

private:
    HvInetAddress m_target;
    unsigned int m_targetPort;
    std::string m_localHost;
    unsigned int m_localPort;
    HvHandle<HvDatagramSocket> m_socket;
    HvHandle<HvObserver> m_receiver;
    HvHandle<HvObserverThread> m_thread;
};

#endif
