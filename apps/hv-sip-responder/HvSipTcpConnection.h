// One accepted TCP connection of hv-sip-responder: an observer thread of its
// own serves the connection's HvBufferedInputStream, which frames messages by
// their Content-Length; each message goes through HvSipResponderCore and the
// reply is queued to the TCP output dispatcher for this connection's socket.
// When the peer goes, the stream fails or a message is too large, the
// connection takes itself apart and leaves its front's table.
#ifndef HVSIP_RESPONDER_HVSIPTCPCONNECTION_H
#define HVSIP_RESPONDER_HVSIPTCPCONNECTION_H

#include <HvUtil/HvClientSocket.h>
#include <HvUtil/HvInputStream.h>
#include <HvUtil/HvObserver.h>
#include <HvUtil/HvObserverThread.h>

#include <atomic>
#include <mutex>

class HvSipTcpFront;

class HvSipTcpConnection : public HvObserver {
public:
    // A connection over `socket` (a reference is held) that reports its end
    // to `front`, which must outlive it.
    HvSipTcpConnection(HvSipTcpFront& front, HvClientSocket* socket);
    ~HvSipTcpConnection() override;

    // Attaches to the socket's input stream and starts the observer thread.
    // Throws what starting a thread throws.
    void start();
    // Takes the connection apart, once, whoever calls first: detaches from
    // the stream, closes the socket and takes it out of the socket registry,
    // terminates the observer thread and leaves the front's table. Safe on
    // the connection's own thread.
    void finish();

    // A framed message (an HvDatagramPacket) is answered; a nil tick (the
    // peer closed) or an HvException (a read failed or a message was too
    // large) ends the connection. Runs on the connection's observer thread.
    void onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object) override;

    HvClientSocket* getSocket() const { return m_socket.get(); }

private:
    HvSipTcpFront& m_front;
    HvHandle<HvClientSocket> m_socket;
    // Guards the stream and thread handles: finish() may run on the
    // connection's thread while start() is still handing the stream over.
    std::mutex m_mutex;
    HvHandle<HvInputStream> m_input;
    HvHandle<HvObserverThread> m_thread;
    std::atomic<bool> m_finished;
};

#endif
