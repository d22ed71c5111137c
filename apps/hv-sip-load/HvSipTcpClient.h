// The TCP side of hv-sip-load: N HvClientSocket connections to the target,
// each read by an observer thread over its HvBufferedInputStream, which cuts
// the byte stream into whole replies for the sink. Requests go through the
// TCP output dispatcher: it writes each one whole, resuming partial sends,
// in queue order, so the threads that start transactions never block on a
// full socket and requests on one connection never interleave.
#ifndef HVSIPLOAD_HVSIPTCPCLIENT_H
#define HVSIPLOAD_HVSIPTCPCLIENT_H

#include "HvSipLoadTransport.h"

#include <HvUtil/HvClientSocket.h>
#include <HvUtil/HvHandle.h>
#include <HvUtil/HvInetAddress.h>
#include <HvUtil/HvInputStream.h>
#include <HvUtil/HvObserver.h>
#include <HvUtil/HvObserverThread.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

class HvSipTcpClient : public HvSipLoadTransport {
public:
    // Opens `connections` connections (at least one) and starts their
    // reading threads. Throws what HvClientSocket throws when a connection
    // cannot be made (a refused connection among them); the connections
    // already open are closed first.
    HvSipTcpClient(HvInetAddress target, unsigned int targetPort, unsigned int connections, HvSipLoadSink& sink);
    ~HvSipTcpClient() override;

    const char* getViaTransport() const override { return "TCP"; }
    unsigned int getConnectionCount() const override { return static_cast<unsigned int>(m_connections.size()); }
    const std::string& getLocalHost(unsigned int index) const override;
    unsigned int getLocalPort(unsigned int index) const override;
    bool isUp(unsigned int index) const override;
    void send(unsigned int index, HvByteArray* request) override;
    bool isReliable() const override { return true; }

    // Called by a connection's reader when its stream has ended.
    void markDown(unsigned int index);

private:
    struct Connection {
        HvHandle<HvClientSocket> socket;
        HvHandle<HvInputStream> input;
        HvHandle<HvObserver> reader;
        HvHandle<HvObserverThread> thread;
        std::string localHost;
        unsigned int localPort = 0;
        // Cleared by the reading thread, read by the sending threads.
        std::atomic<bool> up{true};
    };

    void closeAll();

    std::vector<std::unique_ptr<Connection>> m_connections;
};

#endif
