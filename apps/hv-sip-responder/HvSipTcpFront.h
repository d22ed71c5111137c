// The TCP side of hv-sip-responder: a listening HvServerSocket served by an
// observer thread of its own; every accepted connection becomes an
// HvSipTcpConnection with its own observer thread. The front keeps the live
// connections so that they can be counted and taken apart at the end, and
// gates the work: once stop() has run no message is handled any more.
#ifndef HVSIP_RESPONDER_HVSIPTCPFRONT_H
#define HVSIP_RESPONDER_HVSIPTCPFRONT_H

#include "HvSipFront.h"

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvInetAddress.h>
#include <HvUtil/HvObserverThread.h>
#include <HvUtil/HvServerSocket.h>

#include <cstddef>
#include <map>
#include <mutex>

class HvClientSocket;
class HvDatagramPacket;
class HvSipResponderStats;
class HvSipTcpConnection;

class HvSipTcpFront : public HvSipFront {
public:
    // Pending connections the kernel keeps for the accepting thread.
    static constexpr int kBacklog = 128;
    // Largest message a connection takes (HvBufferedInputStream's guard):
    // a peer that sends endless headers or declares a huge body is dropped
    // instead of growing the buffer without end. 64 KB is more than any
    // request this responder answers.
    static constexpr unsigned int kMaxMessageSize = 65536;

    // Counts into `stats`, which must outlive this object.
    explicit HvSipTcpFront(HvSipResponderStats& stats);
    ~HvSipTcpFront() override;

    // Binds and listens on address:port (0: any free port). Throws the
    // library's HvException (HvSocketError "bind", "listen") when it cannot.
    void open(HvInetAddress address, unsigned int port);

    // Starts the accepting observer thread.
    void start();
    // After the library's shutdown: takes every remaining connection apart
    // and lets go of the server socket and its thread.
    void close();

    // An accepted HvClientSocket, or the HvException of a failed accept.
    // Runs on the accepting thread.
    void onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object) override;

    // A framed message that arrived on `socket` (the packet carries the
    // connection's endpoints): handled, counted, and the reply queued for
    // that socket.
    void handleMessage(HvClientSocket* socket, const HvDatagramPacket& message);

    // Takes `connection` out of the table (its finish() calls this).
    void remove(HvSipTcpConnection* connection);
    // Connections in the table now.
    std::size_t getConnectionCount() const;

private:
    HvHandle<HvServerSocket> m_server;
    HvHandle<HvObserverThread> m_thread;

    mutable std::mutex m_connectionsMutex;
    std::map<HvSipTcpConnection*, HvHandle<HvSipTcpConnection>> m_connections;

};

#endif
