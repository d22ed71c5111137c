#include <HvUtil/HvUDPEvent.h>

#include <Velmora/MemAllocator.h>

namespace {

const char kTag[] = "HvUDPEvent";

} // namespace

void* HvUDPEvent::operator new(std::size_t size)
{
    return Velmora::DefaultStaticMemAllocator::allocate(size, kTag);
}

void HvUDPEvent::operator delete(void* p, std::size_t size)
{
    Velmora::DefaultStaticMemAllocator::deallocate(p, size, kTag);
}

HvUDPEvent::HvUDPEvent(HvObserver* observer, HvObject* object)
    : m_observer(observer), m_object(object)
{
}

HvUDPEvent::~HvUDPEvent()
{
}
