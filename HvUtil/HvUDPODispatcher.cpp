#include <HvUtil/HvUDPODispatcher.h>
#include <HvUtil/HvDatagramPacket.h>
#include <HvUtil/HvUDPEvent.h>

#include <atomic>
#include <memory>

namespace {

const char kTag[] = "HvUDPODispatcher";

// The instance, set from creation until its thread ends. Published with
// release order: a thread that finds the pointer also sees the object built.
std::atomic<HvUDPODispatcher*> fsp_TheUDPODispatcher{nullptr};

// Orders taking a reference on the instance against the instance forgetting
// itself as its thread ends: whoever finds the pointer under it may hold the
// object. Never destroyed: threads end while the process exits.
std::mutex& instanceMutex()
{
    static std::mutex* mutex = new std::mutex;
    return *mutex;
}

// The instance with a reference held, made first when `create` is set.
HvHandle<HvUDPODispatcher> holdInstance(bool create)
{
    std::lock_guard<std::mutex> lock(instanceMutex());
    HvUDPODispatcher* instance = fsp_TheUDPODispatcher.load(std::memory_order_acquire);
    if (!instance && create)
        instance = HvUDPODispatcher::getInstance();
    return HvHandle<HvUDPODispatcher>(instance);
}

// Shutdown step: lets the dispatcher's thread, blocked on an empty queue,
// see its termination. Nothing when there is no instance.
void wakeQueue()
{
    HvHandle<HvUDPODispatcher> instance = holdInstance(false);
    if (!instance.isNull())
        instance->getEventQueue()->WakeUpAll();
}

// Installed at load, so that the shutdown finds it whether or not an
// instance is ever made.
struct HookInstaller {
    HookInstaller() { HvThread::sSetShutdownHook(HvThread::WAKE_UDP_OUTPUT_DISPATCHER_QUEUE, &wakeQueue); }
};
const HookInstaller fs_hookInstaller;

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

HvUDPODispatcher* HvUDPODispatcher::getInstance()
{
    HvUDPODispatcher* instance = fsp_TheUDPODispatcher.load(std::memory_order_acquire);
    if (instance)
        return instance;
    instance = new HvUDPODispatcher;
    fsp_TheUDPODispatcher.store(instance, std::memory_order_release);
    // From here on the thread owns the object: it is deleted when the thread
    // has ended and nobody holds it any more.
    try {
        instance->fork();
    } catch (...) {
        HvUDPODispatcher* self = instance;
        fsp_TheUDPODispatcher.compare_exchange_strong(self, nullptr);
        delete instance;
        throw;
    }
    return instance;
}

HvEventQueue* HvUDPODispatcher::getUDPEventQueue()
{
    HvUDPODispatcher* instance = fsp_TheUDPODispatcher.load(std::memory_order_acquire);
    return instance ? instance->getEventQueue() : nullptr;
}

void HvUDPODispatcher::sAddEvent(HvBaseEvent* event)
{
    std::unique_ptr<HvBaseEvent> owned(event);
    HvHandle<HvUDPODispatcher> instance = holdInstance(true);
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
    std::lock_guard<std::mutex> lock(instanceMutex());
    HvUDPODispatcher* self = this;
    fsp_TheUDPODispatcher.compare_exchange_strong(self, nullptr, std::memory_order_acq_rel);
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
