#include "HvSipTcpConnection.h"

#include "HvSipTcpFront.h"

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvDatagramPacket.h>
#include <HvUtil/HvMonitorThread.h>
#include <HvUtil/HvSocketFactory.h>

HvSipTcpConnection::HvSipTcpConnection(HvSipTcpFront& front, HvClientSocket* socket)
    : m_front(front), m_socket(socket), m_finished(false)
{
}

HvSipTcpConnection::~HvSipTcpConnection() = default;

void HvSipTcpConnection::start()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_input = m_socket->getInputStream();
    m_input->attachObserver(HvHandle<HvObserver>(this));
    m_thread = HvMonitorThread::monitorObservable(m_input.get());
}

void HvSipTcpConnection::finish()
{
    if (m_finished.exchange(true))
        return;
    // The front's table may hold the last handle on this object.
    HvHandle<HvSipTcpConnection> self(this);
    HvHandle<HvInputStream> input;
    HvHandle<HvObserverThread> thread;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        input = m_input;
        thread = m_thread;
        m_input = HvHandle<HvInputStream>();
        m_thread = HvHandle<HvObserverThread>();
    }
    if (!input.isNull())
        input->detachObserver(HvHandle<HvObserver>(this));

    // Out of the registry while the descriptor is still ours: once closed,
    // its number may be handed to the next accepted connection.
    HvSipFront::sRelease(*m_socket);

    if (!thread.isNull())
        thread->terminate();
    m_front.remove(this);
}

void HvSipTcpConnection::onNotification(HvHandle<HvObservable>, HvHandle<HvObject> object)
{
    if (HvDatagramPacket* packet = dynamic_cast<HvDatagramPacket*>(object.get())) {
        m_front.handleMessage(m_socket.get(), *packet);
        return;
    }
    finish();
}
