#include <HvUtil/HvDatagramSocket.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvThread.h>
#include <HvUtil/HvUDPEvent.h>
#include <HvUtil/HvUDPIDispatcher.h>

#include <Velmora/Logger.h>
#include <Velmora/TraceScope.h>

#include <cstdio>
#include <string>

namespace {

const char kSource[] = "HvDatagramSocket";
const char kBlock[] = "HvDatagramSocket::block";

// Lines the block() records are reported from; log readers search for them.
const int kBlockLine = 86;
const int kReceiveFailureLine = 103;
const int kExceptionLine = 121;
const int kShutdownLine = 140;

// A length of -1 is what a failed receive leaves in a packet.
const unsigned int kFailedLength = static_cast<unsigned int>(-1);

Velmora::AceCleanupLogger& logger()
{
    static Velmora::AceCleanupLogger& instance = Velmora::fileScopeLogger("HvDatagramSocket");
    return instance;
}

// An address as the library prints pointers.
std::string hexOf(const void* pointer)
{
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%08lX", reinterpret_cast<unsigned long>(pointer));
    return buffer;
}

// The part of the packet's window that its buffer really holds.
unsigned int usableLength(const HvDatagramPacket& packet)
{
    const unsigned int room = packet.getRoom();
    const unsigned int length = packet.getLength();
    return length < room ? length : room;
}

unsigned char* windowOf(const HvDatagramPacket& packet)
{
    HvHandle<HvByteArray> data = packet.getData();
    return data.isNull() ? nullptr : data->getData() + packet.getOffset();
}

} // namespace

HvDatagramSocket::HvDatagramSocket(unsigned int port, HvInetAddress address, bool connect, unsigned int bufferSize)
    : HvSocketImpl(), m_connected(false), m_bufferSize(bufferSize),
      m_receivePacket(HvByteArray::sCreate(bufferSize, nullptr).get(), 0, 0)
{
    if (!connect)
        bind(port, address, false);
    else
        this->connect(address, port);
}

HvDatagramSocket::~HvDatagramSocket()
{
}

void HvDatagramSocket::connect(HvInetAddress address, unsigned int port)
{
    HvSocketImpl::connect(address, port, false);
    m_connected.store(true, std::memory_order_relaxed);
}

int HvDatagramSocket::send(HvDatagramPacket* packet)
{
    if (!packet)
        return -1;
    // A length left at -1 by a failed receive would otherwise send whatever
    // lies beyond the buffer.
    const unsigned int length = usableLength(*packet);
    const unsigned char* bytes = windowOf(*packet);
    // The remote endpoint is only looked at on a connected socket: asking an
    // unconnected one for its peer would make it forget its descriptor.
    if (isConnected() && packet->getPort() == getRemotePort() &&
        packet->getAddress().getAddress() == getRemoteAddress().getAddress())
        return HvSocketImpl::send(bytes, length);
    sendTo(bytes, length, packet->getAddress(), packet->getPort());
    return 0;
}

int HvDatagramSocket::receive(HvDatagramPacket* packet)
{
    if (!packet)
        return -1;
    // Never more than the buffer holds: a length of -1 left by an earlier
    // failure would let the system write past it.
    const unsigned int length = usableLength(*packet);
    HvInetAddress sender;
    unsigned int senderPort = 0;
    int result = receiveFrom(windowOf(*packet), length, sender, senderPort);
    if (result == -1) {
        packet->setReceivedLength(kFailedLength);
        return -1;
    }
    packet->setAddress(sender);
    packet->setPort(senderPort);
    packet->setReceivedLength(static_cast<unsigned int>(result));
    return result;
}

void HvDatagramSocket::onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object)
{
    HvObservable::onNotification(source, object);
}

bool HvDatagramSocket::block()
{
    Velmora::TraceScope trace(logger(), kBlock, kSource, __LINE__);
    if (logger().isEnabledFor(Velmora::Logger::DEBUG)) {
        // Copied at once: the dotted-quad text lives in a shared buffer.
        std::string local = getLocalAddress().getHostAddress();
        logger().log(Velmora::Logger::DEBUG,
                     std::string(kBlock) + " : " + "this=0x" + hexOf(this) + ", local_addr=" + local +
                         ", local_port=" + std::to_string(getLocalPort()),
                     kSource, kBlockLine);
    }

    HvHandle<HvObject> result;
    try {
        m_receivePacket.setLength(m_bufferSize);
        receive(&m_receivePacket);
        if (m_receivePacket.getLength() == kFailedLength) {
            logger().log(Velmora::Logger::DEBUG, std::string(kBlock) + " : " + "recvfrom failure", kSource,
                         kReceiveFailureLine);
            // A closed socket fails every receive at once: a caller that
            // blocks again while this returns true would spin for ever.
            return getDescriptor() != -1;
        }
        const unsigned int length = m_receivePacket.getLength();
        // The receive buffer is reused for the next datagram: observers get
        // bytes of their own.
        HvHandle<HvByteArray> bytes = HvByteArray::sCreate(length, windowOf(m_receivePacket));
        result = new HvDatagramPacket(bytes.get(), 0, length, m_receivePacket.getAddress(),
                                      m_receivePacket.getPort(), getLocalAddress(), getLocalPort());
    } catch (HvHandle<HvException>& e) {
        logger().log(Velmora::Logger::ERROR,
                     std::string(kBlock) + " : " + (e.isNull() ? "" : e->getMessage().c_str()), kSource,
                     kExceptionLine);
        close();
        result = e;
    }

    if (!HvThread::sShuttingDown())
        HvUDPIDispatcher::sAddEvent(new HvUDPEvent(this, result.get()));
    else
        logger().log(Velmora::Logger::DEBUG, "Not adding an event because shutting down", kSource, kShutdownLine);
    return true;
}
