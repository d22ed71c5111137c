#include "HvSipUdpClient.h"

#include <HvSipReply.h>

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvDatagramPacket.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvMonitorThread.h>
#include <HvUtil/HvSystemError.h>
#include <HvUtil/HvUDPEvent.h>
#include <HvUtil/HvUDPIDispatcher.h>
#include <HvUtil/HvUDPODispatcher.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// Hands each received datagram to the sink; runs on the input dispatcher's
// pool threads.
class DatagramReceiver : public HvObserver {
public:
    explicit DatagramReceiver(HvSipLoadSink& sink) : m_sink(sink) {}

    void onNotification(HvHandle<HvObservable>, HvHandle<HvObject> object) override
    {
        HvDatagramPacket* packet = dynamic_cast<HvDatagramPacket*>(object.get());
        // An HvException here only tells that the socket was closed, which
        // happens at shutdown: nothing is pending on it any more.
        if (packet == nullptr || packet->getData().isNull())
            return;
        m_sink.onMessage(packet->getData().get(), packet->getOffset(), packet->getLength());
    }

private:
    HvSipLoadSink& m_sink;
};

unsigned int boundPort(int descriptor)
{
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (descriptor < 0 || getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        HvSystemError::sThrow("getsockname", 0);
    return ntohs(address.sin_port);
}

} // namespace

HvInetAddress HvSipUdpClient::sLocalAddressFor(HvInetAddress target, unsigned int port)
{
    int descriptor = ::socket(AF_INET, SOCK_DGRAM, 0);
    if (descriptor < 0)
        HvSystemError::sThrow("socket", 0);
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(static_cast<unsigned short>(port));
    peer.sin_addr.s_addr = target.getAddress();
    sockaddr_in local{};
    socklen_t length = sizeof local;
    if (::connect(descriptor, reinterpret_cast<sockaddr*>(&peer), sizeof peer) != 0) {
        ::close(descriptor);
        HvSystemError::sThrow("connect", 0);
    }
    if (getsockname(descriptor, reinterpret_cast<sockaddr*>(&local), &length) != 0) {
        ::close(descriptor);
        HvSystemError::sThrow("getsockname", 0);
    }
    ::close(descriptor);
    HvInetAddress address;
    address.setAddress(local.sin_addr.s_addr);
    return address;
}

HvSipUdpClient::HvSipUdpClient(HvInetAddress target, unsigned int targetPort, HvSipLoadSink& sink)
    : m_target(target), m_targetPort(targetPort), m_localPort(0)
{
    HvInetAddress local = sLocalAddressFor(target, targetPort);
    m_socket = new HvDatagramSocket(0, local, false, kReceiveBufferSize);
    // The socket keeps the port it was asked for (0); the Via needs the real one.
    m_localPort = boundPort(m_socket->getDescriptor());
    m_localHost = HvSipReply::sDottedQuad(local.getAddress());

    m_receiver = new DatagramReceiver(sink);
    m_socket->attachObserver(m_receiver);
    // Both dispatchers are made here, on the main thread, because their
    // first use takes no lock.
    HvUDPIDispatcher::getInstance();
    HvUDPODispatcher::getInstance()->setDatagramSocket(m_socket.get());
    m_thread = HvMonitorThread::monitorObservable(m_socket.get());
}

HvSipUdpClient::~HvSipUdpClient()
{
    if (!m_socket.isNull()) {
        m_socket->close();
        m_socket->detachObserver(m_receiver);
    }
}

void HvSipUdpClient::send(unsigned int, HvByteArray* request)
{
    HvHandle<HvDatagramPacket> packet(
        new HvDatagramPacket(request, 0, request->getSize(), m_target, m_targetPort));
    HvUDPODispatcher::sAddEvent(new HvUDPEvent(nullptr, packet.get()));
}
