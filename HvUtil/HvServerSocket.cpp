#include <HvUtil/HvServerSocket.h>
#include <HvUtil/HvClientSocket.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvThread.h>

#include <Velmora/MemAllocator.h>

namespace {

const char kTag[] = "HvServerSocket";

} // namespace

void* HvServerSocket::operator new(std::size_t size)
{
    return Velmora::DefaultStaticMemAllocator::allocate(size, kTag);
}

void HvServerSocket::operator delete(void* p, std::size_t size)
{
    Velmora::DefaultStaticMemAllocator::deallocate(p, size, kTag);
}

HvServerSocket::HvServerSocket(unsigned int port, HvInetAddress address, int backlog)
{
    bind(port, address, true);
    try {
        listen(backlog);
    } catch (...) {
        // Registered by bind(): the registry must not keep an object whose
        // construction failed.
        unregisterWhileConstructing();
        throw;
    }
}

HvServerSocket::~HvServerSocket()
{
}

void HvServerSocket::onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object)
{
    HvObservable::onNotification(source, object);
}

HvHandle<HvClientSocket> HvServerSocket::accept()
{
    return HvHandle<HvClientSocket>(new HvClientSocket(this));
}

bool HvServerSocket::block()
{
    HvHandle<HvObject> result;
    try {
        result = accept();
    } catch (HvHandle<HvException>& failure) {
        result = failure;
    }
    // During shutdown the accept was woken on purpose; nobody wants its result.
    if (!HvThread::sShuttingDown())
        notifyObservers(result);
    return true;
}
