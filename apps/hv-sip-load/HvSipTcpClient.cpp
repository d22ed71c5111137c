#include "HvSipTcpClient.h"

#include <HvSipReply.h>

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvDatagramPacket.h>
#include <HvUtil/HvEventQueue.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvMonitorThread.h>
#include <HvUtil/HvTCPEvent.h>
#include <HvUtil/HvTCPODispatcher.h>

namespace {

// Hands each framed reply of one connection to the sink, on that
// connection's observer thread; the stream's closing tick (a nil object) or
// an exception ends the connection.
class ConnectionReader : public HvObserver {
public:
    ConnectionReader(HvSipTcpClient& client, unsigned int index, HvSipLoadSink& sink)
        : m_client(client), m_index(index), m_sink(sink)
    {
    }

    void onNotification(HvHandle<HvObservable>, HvHandle<HvObject> object) override
    {
        if (HvDatagramPacket* packet = dynamic_cast<HvDatagramPacket*>(object.get())) {
            if (!packet->getData().isNull())
                m_sink.onMessage(packet->getData().get(), packet->getOffset(), packet->getLength());
            return;
        }
        if (m_ended.exchange(true))
            return;
        std::string why = "closed by the peer";
        if (HvException* failure = dynamic_cast<HvException*>(object.get()))
            why = failure->getMessage().c_str();
        m_client.markDown(m_index);
        m_sink.onConnectionLost(m_index, why);
    }

private:
    HvSipTcpClient& m_client;
    unsigned int m_index;
    HvSipLoadSink& m_sink;
    std::atomic<bool> m_ended{false};
};

} // namespace

HvSipTcpClient::HvSipTcpClient(HvInetAddress target, unsigned int targetPort, unsigned int connections,
                               HvSipLoadSink& sink)
{
    if (connections == 0)
        connections = 1;
    try {
        // Every connection is made before any reader starts, so a refused
        // one leaves no thread behind.
        for (unsigned int index = 0; index < connections; ++index) {
            std::unique_ptr<Connection> connection(new Connection);
            connection->socket = new HvClientSocket(target, targetPort, HvInetAddress());
            connection->localHost = HvSipReply::sDottedQuad(connection->socket->getLocalAddress().getAddress());
            connection->localPort = connection->socket->getLocalPort();
            m_connections.push_back(std::move(connection));
        }
    } catch (...) {
        closeAll();
        throw;
    }
    HvTCPODispatcher::getInstance();
    for (unsigned int index = 0; index < m_connections.size(); ++index) {
        Connection& connection = *m_connections[index];
        connection.input = connection.socket->getInputStream();
        connection.reader = new ConnectionReader(*this, index, sink);
        connection.input->attachObserver(connection.reader);
        connection.thread = HvMonitorThread::monitorObservable(connection.input.get());
    }
}

HvSipTcpClient::~HvSipTcpClient()
{
    closeAll();
}

void HvSipTcpClient::closeAll()
{
    for (std::unique_ptr<Connection>& connection : m_connections) {
        connection->up.store(false, std::memory_order_relaxed);
        if (!connection->socket.isNull())
            connection->socket->close();
        if (!connection->input.isNull() && !connection->reader.isNull())
            connection->input->detachObserver(connection->reader);
    }
}

const std::string& HvSipTcpClient::getLocalHost(unsigned int index) const
{
    return m_connections[index % m_connections.size()]->localHost;
}

unsigned int HvSipTcpClient::getLocalPort(unsigned int index) const
{
    return m_connections[index % m_connections.size()]->localPort;
}

bool HvSipTcpClient::isUp(unsigned int index) const
{
    return index < m_connections.size() && m_connections[index]->up.load(std::memory_order_relaxed);
}

void HvSipTcpClient::markDown(unsigned int index)
{
    if (index < m_connections.size())
        m_connections[index]->up.store(false, std::memory_order_relaxed);
}

void HvSipTcpClient::send(unsigned int index, HvByteArray* request)
{
    if (!isUp(index))
        return;
    HvTCPODispatcher::getInstance()->getEventQueue()->addItem(
        new HvTCPEvent(m_connections[index]->socket.get(), request));
}
