#include <HvUtil/HvDatagramPacket.h>

#include <Velmora/MemAllocator.h>

namespace {

const char kTag[] = "HvDatagramPacket";

} // namespace

void* HvDatagramPacket::operator new(std::size_t size)
{
    return Velmora::DefaultStaticMemAllocator::allocate(size, kTag);
}

void HvDatagramPacket::operator delete(void* p, std::size_t size)
{
    Velmora::DefaultStaticMemAllocator::deallocate(p, size, kTag);
}

HvDatagramPacket::HvDatagramPacket(HvByteArray* data, unsigned int offset, unsigned int length,
                                   HvInetAddress address, unsigned int port, HvInetAddress localAddress,
                                   unsigned int localPort)
    : m_address(address), m_localAddress(localAddress), m_port(port), m_localPort(localPort), m_offset(0),
      m_length(0)
{
    setData(data, offset, length);
}

void HvDatagramPacket::setData(HvByteArray* data, unsigned int offset, unsigned int length)
{
    m_data = data;
    const unsigned int size = data ? data->getSize() : 0;
    m_offset = offset < size ? offset : size;
    setLength(length);
}

void HvDatagramPacket::setLength(unsigned int length)
{
    const unsigned int size = m_data.isNull() ? 0 : m_data->getSize();
    const unsigned int wanted = length == 0 ? size : length;
    const unsigned int room = size - m_offset;
    m_length = wanted < room ? wanted : room;
}

unsigned int HvDatagramPacket::getRoom() const
{
    const unsigned int size = m_data.isNull() ? 0 : m_data->getSize();
    // The offset is kept within the size by setData().
    return size - m_offset;
}
