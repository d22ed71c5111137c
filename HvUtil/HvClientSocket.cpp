#include <HvUtil/HvClientSocket.h>
#include <HvUtil/HvBufferedInputStream.h>
#include <HvUtil/HvBufferedOutputStream.h>
#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvMutex.h>
#include <HvUtil/HvServerSocket.h>
#include <HvUtil/HvSocketInputStream.h>
#include <HvUtil/HvSocketOutputStream.h>

#include <Velmora/MemAllocator.h>

namespace {

const char kTag[] = "HvClientSocket";

// Buffer of the socket's output stream.
const unsigned int kOutputBufferSize = 512;

} // namespace

void* HvClientSocket::operator new(std::size_t size)
{
    return Velmora::DefaultStaticMemAllocator::allocate(size, kTag);
}

void HvClientSocket::operator delete(void* p, std::size_t size)
{
    Velmora::DefaultStaticMemAllocator::deallocate(p, size, kTag);
}

HvClientSocket::HvClientSocket(HvServerSocket* server) : m_lastActivity(0.0)
{
    HvSocketImpl::accept(server);
    try {
        stampActivity();
    } catch (...) {
        unregisterWhileConstructing();
        throw;
    }
}

HvClientSocket::HvClientSocket(HvInetAddress remote, unsigned int port, HvInetAddress local) : m_lastActivity(0.0)
{
    try {
        if (local.getAddress() != 0)
            bind(0, local, true);
        connect(remote, port);
        stampActivity();
    } catch (...) {
        // bind() registered the descriptor: a refused connect must not leave
        // the registry holding an object that never finished construction.
        unregisterWhileConstructing();
        throw;
    }
}

HvClientSocket::~HvClientSocket()
{
    close();
    // The socket streams under the buffered ones hold plain pointers to this
    // socket; one that outlives it (a caller may keep its handle) must never
    // reach it again.
    if (HvBufferedInputStream* buffered = dynamic_cast<HvBufferedInputStream*>(m_inputStream.get())) {
        if (HvSocketInputStream* input = dynamic_cast<HvSocketInputStream*>(buffered->getSourceStream().get()))
            input->detachSocket();
    }
    if (HvBufferedOutputStream* buffered = dynamic_cast<HvBufferedOutputStream*>(m_outputStream.get())) {
        if (HvSocketOutputStream* output = dynamic_cast<HvSocketOutputStream*>(buffered->getDestination().get()))
            output->detachSocket();
    }
    m_inputStream = HvHandle<HvInputStream>();
    m_outputStream = HvHandle<HvOutputStream>();
}

void HvClientSocket::stampActivity()
{
    m_lastActivity.store(HvTime::sGetCurrentTime(), std::memory_order_relaxed);
}

void HvClientSocket::connect(HvInetAddress address, unsigned int port)
{
    HvSocketImpl::connect(address, port, true);
}

int HvClientSocket::send(const void* buffer, unsigned int length, unsigned int offset)
{
    int result = HvSocketImpl::send(static_cast<const unsigned char*>(buffer) + offset, length);
    stampActivity();
    return result;
}

int HvClientSocket::receive(void* buffer, unsigned int length, unsigned int offset)
{
    int result = HvSocketImpl::receive(static_cast<unsigned char*>(buffer) + offset, length);
    stampActivity();
    return result;
}

int HvClientSocket::send(HvByteArray* array, unsigned int offset, unsigned int length)
{
    if (!array)
        return 0;
    // An offset past the end is pulled back to the end, so a hostile offset
    // sends nothing instead of reading beyond the array.
    array->clipWindow(offset, length);
    return send(array->getData(), length, offset);
}

int HvClientSocket::receive(HvHandle<HvByteArray> array, unsigned int offset, unsigned int length)
{
    if (array.isNull())
        return 0;
    // As for send: never a window outside the array.
    array->clipWindow(offset, length);
    return receive(array->getData(), length, offset);
}

HvHandle<HvInputStream> HvClientSocket::getInputStream()
{
    HvMutex::Lock lock(getMutex());
    // Buffer size 0: the buffered stream sizes its buffer on the first fill.
    if (m_inputStream.isNull())
        m_inputStream = new HvBufferedInputStream(new HvSocketInputStream(this), 0);
    return m_inputStream;
}

HvHandle<HvOutputStream> HvClientSocket::getOutputStream()
{
    HvMutex::Lock lock(getMutex());
    // Small writes (header lines) are gathered into one send of up to 512
    // bytes; writers flush at the end of each message.
    if (m_outputStream.isNull())
        m_outputStream = new HvBufferedOutputStream(new HvSocketOutputStream(this), kOutputBufferSize);
    return m_outputStream;
}

void HvClientSocket::onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object)
{
    HvObservable::onNotification(source, object);
}

bool HvClientSocket::block()
{
    HvHandle<HvInputStream> input = getInputStream();
    bool result = input->block();
    notifyObservers(HvHandle<HvObject>());
    return result;
}
