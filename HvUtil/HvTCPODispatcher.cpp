#include <HvUtil/HvTCPODispatcher.h>
#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvClientSocket.h>
#include <HvUtil/HvTCPEvent.h>

#include <Velmora/DynCastAssert.h>

namespace {

const char kTag[] = "HvTCPODispatcher";
// Registry name of the instance.
const char kName[] = "HvTCPODispatcher";

void wakeQueue()
{
    HvDispatcherThread::sWakeQueue(HvTCPODispatcher::sFind());
}

const HvDispatcherThread::ShutdownHookInstaller fs_hookInstaller(HvThread::WAKE_TCP_OUTPUT_DISPATCHER_QUEUE, &wakeQueue);

} // namespace

void* HvTCPODispatcher::operator new(std::size_t size, std::align_val_t alignment)
{
    return sAllocate(size, alignment, kTag);
}

void HvTCPODispatcher::operator delete(void* p, std::size_t size, std::align_val_t alignment)
{
    sDeallocate(p, size, alignment, kTag);
}

HvTCPODispatcher::HvTCPODispatcher()
    : HvDispatcherThread(nullptr, 0, HvEventQueue::LOCKED)
{
    forkHoldingSelf();
}

HvTCPODispatcher::~HvTCPODispatcher()
{
    if (getRefCount() > 0)
        Release(false);
}

HvDispatcherThread* HvTCPODispatcher::sCreate()
{
    return new HvTCPODispatcher;
}

HvTCPODispatcher* HvTCPODispatcher::getInstance()
{
    static InstanceCache* const cache = sCreateInstanceCache();
    return static_cast<HvTCPODispatcher*>(sGetOnDemandInstance(kName, *cache, &HvTCPODispatcher::sCreate));
}

HvTCPODispatcher* HvTCPODispatcher::sFind()
{
    return static_cast<HvTCPODispatcher*>(sFindOnDemandInstance(kName));
}

void HvTCPODispatcher::process(HvBaseEvent* pEvent)
{
    HvTCPEvent* event = Velmora::DynCastAssertNoT<HvTCPEvent>(pEvent, "HvTCPEvent", "pEvent", "HvTCPODispatcher", 70);
    // The assertion's handler may let the caller go on: nothing to write then.
    if (!event)
        return;
    HvClientSocket* socket = dynamic_cast<HvClientSocket*>(event->getObject());
    HvByteArray* array = dynamic_cast<HvByteArray*>(event->getArgument());
    if (!socket || !array)
        return;

    const unsigned char* data = array->getData();
    unsigned int remaining = array->getSize();
    unsigned int offset = 0;
    while (remaining != 0) {
        int sent = socket->send(data, remaining, offset);
        // -1: the send failed and closed the socket; the rest is dropped. A
        // stream send of at least one byte never gives 0, but if it did the
        // loop would never end.
        if (sent <= 0)
            break;
        const unsigned int count = static_cast<unsigned int>(sent) < remaining ? static_cast<unsigned int>(sent) : remaining;
        offset += count;
        remaining -= count;
    }
}
