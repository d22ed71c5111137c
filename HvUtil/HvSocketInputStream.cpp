#include <HvUtil/HvSocketInputStream.h>
#include <HvUtil/HvClientSocket.h>
#include <HvUtil/HvErrorStream.h>
#include <HvUtil/HvException.h>

namespace {

// Level of the debug line written when the socket throws under a read.
const unsigned int kFailureLevel = 2;

} // namespace

HvSocketInputStream::HvSocketInputStream(HvClientSocket* socket)
    : m_pSocket(socket), m_state(kEmpty), m_lookAhead(0)
{
}

HvSocketInputStream::~HvSocketInputStream()
{
}

void HvSocketInputStream::detachSocket()
{
    m_pSocket.store(nullptr, std::memory_order_relaxed);
    m_state.store(kClosed, std::memory_order_relaxed);
}

void HvSocketInputStream::onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object)
{
    HvObservable::onNotification(source, object);
}

int HvSocketInputStream::read()
{
    unsigned int state = m_state.load(std::memory_order_relaxed);
    if (state == kHolding) {
        m_state.store(kEmpty, std::memory_order_relaxed);
        return static_cast<int>(m_lookAhead);
    }
    if (state == kClosed)
        return -1;
    // Through the virtual read, so that a subclass sees every byte taken.
    read(&m_lookAhead, 1, 0);
    if (m_state.load(std::memory_order_relaxed) == kClosed)
        return -1;
    return static_cast<int>(m_lookAhead);
}

int HvSocketInputStream::read(void* buffer, unsigned int length, unsigned int offset)
{
    if (m_state.load(std::memory_order_relaxed) == kClosed)
        return -1;
    unsigned char* bytes = static_cast<unsigned char*>(buffer);
    int count = 0;
    if (m_state.load(std::memory_order_relaxed) == kHolding && length > 0) {
        bytes[offset] = static_cast<unsigned char>(m_lookAhead);
        ++offset;
        --length;
        count = 1;
        m_state.store(kEmpty, std::memory_order_relaxed);
    }
    int received = 0;
    if (length > 0) {
        HvClientSocket* socket = m_pSocket.load(std::memory_order_relaxed);
        if (!socket) {
            m_state.store(kClosed, std::memory_order_relaxed);
        } else {
            try {
                received = socket->receive(bytes, length, offset);
            } catch (HvHandle<HvException>& failure) {
                *HvErrorStream::sGetDefault()->getDebugStream(kFailureLevel)
                    << "catch exception in HvSocketInputStream::read(): " << failure->getMessage().c_str() << endl;
                socket->close();
                m_state.store(kClosed, std::memory_order_relaxed);
                throw;
            }
            // 0 is the peer's orderly close, -1 a failure: either ends the stream.
            if (received == 0 || received == -1) {
                m_state.store(kClosed, std::memory_order_relaxed);
                socket->close();
            }
        }
    }
    if (m_state.load(std::memory_order_relaxed) == kClosed)
        return count == 1 ? 1 : -1;
    return count + received;
}

unsigned int HvSocketInputStream::available()
{
    unsigned int state = m_state.load(std::memory_order_relaxed);
    if (state == kClosed)
        return 0;
    HvClientSocket* socket = m_pSocket.load(std::memory_order_relaxed);
    unsigned int waiting = socket ? static_cast<unsigned int>(socket->available()) : 0;
    return state == kHolding ? waiting + 1 : waiting;
}

bool HvSocketInputStream::block()
{
    if (available() == 0) {
        // The byte that proves data has come is kept, not lost.
        if (read(&m_lookAhead, 1, 0) > 0)
            m_state.store(kHolding, std::memory_order_relaxed);
    }
    notifyObservers(HvHandle<HvObject>());
    return m_state.load(std::memory_order_relaxed) != kClosed;
}
