#include <HvUtil/HvByteArrayOutputStream.h>

#include <Velmora/Logger.h>
#include <Velmora/TraceScope.h>

#include <string>

static Velmora::Logger& fileLogger()
{
    static Velmora::Logger& logger = Velmora::fileScopeLogger("HvByteArrayOutputStream");
    return logger;
}

HvByteArrayOutputStream::HvByteArrayOutputStream(unsigned int initialCapacity)
    : m_count(0)
{
    if (initialCapacity != 0)
        m_buffer = HvByteArray::sCreate(initialCapacity, nullptr);
}

HvByteArrayOutputStream::~HvByteArrayOutputStream()
{
}

void HvByteArrayOutputStream::write(int byte)
{
    unsigned char b = static_cast<unsigned char>(byte);
    write(&b, 1, 0);
}

void HvByteArrayOutputStream::write(const void* buffer, unsigned int length, unsigned int offset)
{
    Velmora::TraceScope scope(fileLogger(), "HvByteArrayOutputStream::write", "HvByteArrayOutputStream", __LINE__);
    if (length == 0 || !buffer)
        return;
    Velmora::Logger& logger = fileLogger();
    bool debug = logger.isEnabledFor(Velmora::Logger::DEBUG);
    // A shared buffer is never written in place.
    unsigned int size = m_buffer.isNull() ? 0 : m_buffer->getSize();
    unsigned int left = (m_buffer.isNull() || m_buffer->getRefCount() > 1) ? 0 : size - m_count;
    if (debug)
        logger.log(Velmora::Logger::DEBUG,
                   "HvByteArrayOutputStream::write : : Capacity left in buffer = " + std::to_string(left),
                   "HvByteArrayOutputStream", __LINE__);
    HvHandle<HvByteArray> previous;
    if (left < length) {
        if (debug) {
            // Reports the increment, not the new size; log readers know it so.
            logger.log(Velmora::Logger::DEBUG,
                       "HvByteArrayOutputStream::write : : length to write (" + std::to_string(length) +
                           ") more than remaining capacity of current buffer. New capacity for buffer = " +
                           std::to_string(length + kGrowthReserve),
                       "HvByteArrayOutputStream", __LINE__);
            logger.log(Velmora::Logger::DEBUG,
                       "HvByteArrayOutputStream::write : : length of current buffer = " + std::to_string(size),
                       "HvByteArrayOutputStream", __LINE__);
        }
        // The bytes may come from the buffer being replaced (writeTo(this)):
        // keep it alive until they are copied.
        previous = m_buffer;
        m_buffer = HvByteArray::sCreate(previous.get(), size + length + kGrowthReserve, 0);
    }
    m_buffer->copy(m_count, buffer, length, offset);
    m_count += length;
}

void HvByteArrayOutputStream::writeTo(HvOutputStream* out) const
{
    if (m_count == 0 || !out)
        return;
    out->write(m_buffer.get(), 0, m_count);
}

HvHandle<HvByteArray> HvByteArrayOutputStream::toByteArray() const
{
    // A slice of length 0 would mean the whole buffer: nothing written is an empty array.
    if (m_count == 0)
        return HvByteArray::sCreate(0u, nullptr);
    return HvByteArray::sCreate(m_buffer.get(), m_count, 0);
}
