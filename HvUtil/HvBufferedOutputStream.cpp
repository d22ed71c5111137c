#include <HvUtil/HvBufferedOutputStream.h>
#include <HvUtil/HvAssertionFailure.h>

#include <Velmora/MemAllocator.h>

namespace {

const char kTag[] = "HvBufferedOutputStream";

} // namespace

void* HvBufferedOutputStream::operator new(std::size_t size)
{
    return Velmora::DefaultStaticMemAllocator::allocate(size, kTag);
}

void HvBufferedOutputStream::operator delete(void* p, std::size_t size)
{
    Velmora::DefaultStaticMemAllocator::deallocate(p, size, kTag);
}

HvBufferedOutputStream::HvBufferedOutputStream(HvOutputStream* destination, unsigned int size)
    : m_count(0), m_destination(destination)
{
    // A buffer of 0 bytes is no buffer: write(int) would have nowhere to put
    // its byte, even right after a flush.
    if (size != 0)
        m_buffer = HvByteArray::sCreate(size, nullptr);
    if (m_buffer.isNull())
        HvAssertionFailure::sThrow("No buffer in HvBufferedOutputStream", "HvBufferedOutputStream", 37,
                                   HV_COMPILE_TIMESTAMP);
}

HvBufferedOutputStream::~HvBufferedOutputStream()
{
    // No flush here: writers that need their bytes delivered flush before
    // letting go, and a destination that is already gone must not be written.
}

void HvBufferedOutputStream::write(int byte)
{
    if (m_count == m_buffer->getSize())
        flush();
    m_buffer->getData()[m_count] = static_cast<unsigned char>(byte);
    ++m_count;
}

void HvBufferedOutputStream::write(const void* buffer, unsigned int length, unsigned int offset)
{
    if (!buffer)
        return;
    const unsigned int size = m_buffer->getSize();
    if (size - m_count < length)
        flush();
    if (size - m_count < length) {
        // Larger than the whole buffer: copying it through would only split it.
        m_destination->write(buffer, length, offset);
        return;
    }
    m_buffer->copy(m_count, buffer, length, offset);
    m_count += length;
}

void HvBufferedOutputStream::flush()
{
    m_destination->write(m_buffer->getData(), m_count, 0);
    m_count = 0;
}
