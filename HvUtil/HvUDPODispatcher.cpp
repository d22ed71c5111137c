#include <HvUtil/HvUDPODispatcher.h>
#include <HvUtil/HvDatagramPacket.h>
#include <HvUtil/HvUDPEvent.h>

#include <memory>

namespace {

const char kTag[] = "HvUDPODispatcher";

// The instance, set from creation until its thread ends, with the lock that
// orders holding it against its end. Never destroyed: threads end while the
// process exits.
HvDispatcherThread::StartedOnFirstUse& fsp_TheUDPODispatcher()
{
    static HvDispatcherThread::StartedOnFirstUse* instance = new HvDispatcherThread::StartedOnFirstUse;
    return *instance;
}

void wakeQueue()
{
    fsp_TheUDPODispatcher().wakeQueue();
}

const HvDispatcherThread::ShutdownHookInstaller fs_hookInstaller(HvThread::WAKE_UDP_OUTPUT_DISPATCHER_QUEUE, &wakeQueue);

} // namespace

void* HvUDPODispatcher::operator new(std::size_t size, std::align_val_t alignment)
{
    return sAllocate(size, alignment, kTag);
}

void HvUDPODispatcher::operator delete(void* p, std::size_t size, std::align_val_t alignment)
{
    sDeallocate(p, size, alignment, kTag);
}

HvUDPODispatcher::HvUDPODispatcher()
    : HvDispatcherThread(nullptr, 0, HvEventQueue::LOCKED)
{
}

HvUDPODispatcher::~HvUDPODispatcher()
{
    if (!m_socket.isNull())
        m_socket->close();
}

HvDispatcherThread* HvUDPODispatcher::sCreate()
{
    return new HvUDPODispatcher;
}

HvUDPODispatcher* HvUDPODispatcher::getInstance()
{
    return static_cast<HvUDPODispatcher*>(fsp_TheUDPODispatcher().get(&sCreate));
}

HvEventQueue* HvUDPODispatcher::getUDPEventQueue()
{
    HvDispatcherThread* instance = fsp_TheUDPODispatcher().find();
    return instance ? instance->getEventQueue() : nullptr;
}

void HvUDPODispatcher::sAddEvent(HvBaseEvent* event)
{
    std::unique_ptr<HvBaseEvent> owned(event);
    HvHandle<HvUDPODispatcher> instance = fsp_TheUDPODispatcher().hold(&sCreate);
    instance->getEventQueue()->addItem(owned.release());
}

void HvUDPODispatcher::process(HvBaseEvent* event)
{
    HvUDPEvent* udpEvent = dynamic_cast<HvUDPEvent*>(event);
    HvDatagramPacket* packet = udpEvent ? dynamic_cast<HvDatagramPacket*>(udpEvent->getObject()) : nullptr;
    HvHandle<HvDatagramSocket> socket;
    {
        std::lock_guard<std::mutex> lock(m_socketMutex);
        if (m_socket.isNull())
            m_socket = new HvDatagramSocket(0, HvInetAddress(), false, kSocketBufferSize);
        socket = m_socket;
    }
    // Sent outside the lock: a replacement may come in meanwhile, and this
    // packet then goes out through the socket it was taken with.
    if (packet)
        socket->send(packet);
}

void HvUDPODispatcher::atExit()
{
    fsp_TheUDPODispatcher().forget(this);
}

void HvUDPODispatcher::setDatagramSocket(HvDatagramSocket* socket)
{
    if (!socket)
        return;
    HvHandle<HvDatagramSocket> previous;
    {
        std::lock_guard<std::mutex> lock(m_socketMutex);
        previous = m_socket;
        m_socket = socket;
    }
    // Replacing the socket by itself must not leave a closed one behind.
    if (!previous.isNull() && previous.get() != socket)
        previous->close();
}

HvHandle<HvDatagramSocket> HvUDPODispatcher::getDatagramSocket() const
{
    std::lock_guard<std::mutex> lock(m_socketMutex);
    return m_socket;
}
