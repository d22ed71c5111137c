#include "HvSipUdpFront.h"

#include "HvSipResponderStats.h"

#include <HvSipResponderCore.h>

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvDatagramPacket.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvMonitorThread.h>
#include <HvUtil/HvSocketFactory.h>
#include <HvUtil/HvUDPEvent.h>
#include <HvUtil/HvUDPODispatcher.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>
#include <thread>

namespace {

// A received packet's length after a failed receive.
const unsigned int kFailedLength = static_cast<unsigned int>(-1);


} // namespace

HvSipUdpFront::HvSipUdpFront(HvSipResponderStats& stats)
    : HvSipFront(stats)
{
}

HvSipUdpFront::~HvSipUdpFront()
{
    close();
}

void HvSipUdpFront::open(HvInetAddress address, unsigned int port)
{
    m_socket = new HvDatagramSocket(port, address, false, kDatagramBufferSize);
    rememberBoundPort(*m_socket);
}

void HvSipUdpFront::start()
{
    m_socket->attachObserver(HvHandle<HvObserver>(this));
    HvUDPODispatcher::getInstance()->setDatagramSocket(m_socket.get());
    m_thread = HvMonitorThread::monitorObservable(m_socket.get());
}


void HvSipUdpFront::close()
{
    if (m_socket.isNull())
        return;
    m_socket->detachObserver(HvHandle<HvObserver>(this));
    sRelease(*m_socket);
    m_socket = HvHandle<HvDatagramSocket>();
    m_thread = HvHandle<HvObserverThread>();
}

void HvSipUdpFront::onNotification(HvHandle<HvObservable>, HvHandle<HvObject> object)
{
    InFlight counted(*this);
    HvDatagramPacket* packet = dynamic_cast<HvDatagramPacket*>(object.get());
    if (!packet) {
        // The receive failed and the library closed the socket: UDP is
        // gone for good, which the operator must hear about (shutdown ends
        // receives quietly, without this notification).
        if (HvException* failure = dynamic_cast<HvException*>(object.get()))
            std::fprintf(stderr, "hv-sip-responder: udp socket closed: %s\n", failure->getMessage().c_str());
        return;
    }
    if (packet->getLength() == kFailedLength || isStopping())
        return;
    HvHandle<HvByteArray> data = packet->getData();
    if (data.isNull())
        return;

    HvSipResponderCore::Result result =
        handle(data.get(), packet->getOffset(), packet->getLength(), packet->getAddress(), packet->getPort(), true);
    if (result.outcome != HvSipResponderCore::Outcome::Replied || result.reply.isNull() || result.replyPort == 0)
        return;

    HvHandle<HvDatagramPacket> reply(new HvDatagramPacket(result.reply.get(), 0, result.reply->getSize(),
                                                          result.replyAddress, result.replyPort));
    HvUDPODispatcher::sAddEvent(new HvUDPEvent(nullptr, reply.get()));
}
