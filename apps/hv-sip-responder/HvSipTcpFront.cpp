#include "HvSipTcpFront.h"

#include "HvSipResponderStats.h"
#include "HvSipTcpConnection.h"

#include <HvSipResponderCore.h>

#include <HvUtil/HvBufferedInputStream.h>
#include <HvUtil/HvClientSocket.h>
#include <HvUtil/HvDatagramPacket.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvMonitorThread.h>
#include <HvUtil/HvSocketFactory.h>
#include <HvUtil/HvTCPEvent.h>
#include <HvUtil/HvTCPODispatcher.h>
#include <HvUtil/HvThread.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <thread>
#include <vector>

namespace {

// Nothing but line ends and blanks: what a peer sends as a keep-alive.
bool isBlank(const unsigned char* bytes, unsigned int length)
{
    for (unsigned int i = 0; i < length; ++i) {
        if (bytes[i] != '\r' && bytes[i] != '\n' && bytes[i] != ' ' && bytes[i] != '\t')
            return false;
    }
    return true;
}

} // namespace

HvSipTcpFront::HvSipTcpFront(HvSipResponderStats& stats)
    : HvSipFront(stats)
{
}

HvSipTcpFront::~HvSipTcpFront()
{
    close();
}

void HvSipTcpFront::open(HvInetAddress address, unsigned int port)
{
    m_server = new HvServerSocket(port, address, kBacklog);
    rememberBoundPort(*m_server);
}

void HvSipTcpFront::start()
{
    HvBufferedInputStream::sm_maxMessageSize.store(kMaxMessageSize, std::memory_order_relaxed);
    m_server->attachObserver(HvHandle<HvObserver>(this));
    m_thread = HvMonitorThread::monitorObservable(m_server.get());
}


void HvSipTcpFront::close()
{
    // finish() takes each connection out of the table: work on a copy.
    std::vector<HvHandle<HvSipTcpConnection>> remaining;
    {
        std::lock_guard<std::mutex> lock(m_connectionsMutex);
        for (auto& entry : m_connections)
            remaining.push_back(entry.second);
    }
    for (HvHandle<HvSipTcpConnection>& connection : remaining)
        connection->finish();
    remaining.clear();
    {
        std::lock_guard<std::mutex> lock(m_connectionsMutex);
        m_connections.clear();
    }

    if (m_server.isNull())
        return;
    m_server->detachObserver(HvHandle<HvObserver>(this));
    sRelease(*m_server);
    m_server = HvHandle<HvServerSocket>();
    m_thread = HvHandle<HvObserverThread>();
}

void HvSipTcpFront::onNotification(HvHandle<HvObservable>, HvHandle<HvObject> object)
{
    // Counted like a message: once stop() has returned no connection (and
    // no thread for one) is made any more.
    InFlight counted(*this);
    HvClientSocket* accepted = dynamic_cast<HvClientSocket*>(object.get());
    if (!accepted || accepted->getDescriptor() == -1) {
        // A failed accept (out of descriptors, or the listening socket closed
        // at shutdown) comes back at once on the next block(): pause a little
        // so that the accepting thread does not spin while it lasts.
        if (!HvThread::sShuttingDown())
            poll(nullptr, 0, 10);
        return;
    }
    HvHandle<HvClientSocket> socket(accepted);
    if (isStopping() || HvThread::sShuttingDown()) {
        sRelease(*socket);
        return;
    }
    HvHandle<HvSipTcpConnection> connection(new HvSipTcpConnection(*this, socket.get()));
    {
        std::lock_guard<std::mutex> lock(m_connectionsMutex);
        m_connections[connection.get()] = connection;
    }
    try {
        connection->start();
    } catch (HvHandle<HvException>&) {
        // No thread for it (shutdown began meanwhile): the peer is closed.
        connection->finish();
    }
}

void HvSipTcpFront::handleMessage(HvClientSocket* socket, const HvDatagramPacket& message)
{
    InFlight counted(*this);
    HvHandle<HvByteArray> data = message.getData();
    if (data.isNull())
        return;
    // The framing may have cut out more than one message; each is answered,
    // in order. CRLFs left over between or after them are keep-alives.
    unsigned int offset = message.getOffset();
    unsigned int length = message.getLength();
    do {
        if (isStopping())
            return;
        HvSipResponderCore::Result result =
            handle(data.get(), offset, length, message.getAddress(), message.getPort(), false);
        if (result.outcome == HvSipResponderCore::Outcome::Replied && !result.reply.isNull())
            HvTCPODispatcher::getInstance()->getEventQueue()->addItem(new HvTCPEvent(socket, result.reply.get()));
        if (result.consumed == 0)
            return;
        offset += result.consumed;
        length -= result.consumed;
    } while (!isBlank(data->getData() + offset, length));
}

void HvSipTcpFront::remove(HvSipTcpConnection* connection)
{
    HvHandle<HvSipTcpConnection> last;
    std::lock_guard<std::mutex> lock(m_connectionsMutex);
    auto found = m_connections.find(connection);
    if (found == m_connections.end())
        return;
    // Released after the lock: the connection's destructor lets go of its
    // socket and thread, which must not happen under the table's mutex.
    last = found->second;
    m_connections.erase(found);
}

std::size_t HvSipTcpFront::getConnectionCount() const
{
    std::lock_guard<std::mutex> lock(m_connectionsMutex);
    return m_connections.size();
}
