#include <HvUtil/HvSocketOutputStream.h>
#include <HvUtil/HvClientSocket.h>

HvSocketOutputStream::HvSocketOutputStream(HvClientSocket* socket) : m_pSocket(socket)
{
}

HvSocketOutputStream::~HvSocketOutputStream()
{
}

void HvSocketOutputStream::detachSocket()
{
    m_pSocket.store(nullptr, std::memory_order_relaxed);
}

void HvSocketOutputStream::write(int byte)
{
    unsigned char low = static_cast<unsigned char>(byte);
    write(&low, 1, 0);
}

void HvSocketOutputStream::write(const void* buffer, unsigned int length, unsigned int offset)
{
    // A null buffer writes nothing, as for every output stream.
    if (length == 0 || !buffer)
        return;
    HvClientSocket* socket = m_pSocket.load(std::memory_order_relaxed);
    if (!socket)
        return;
    const unsigned char* position = static_cast<const unsigned char*>(buffer) + offset;
    unsigned int remaining = length;
    while (remaining != 0) {
        int sent = socket->send(position, remaining, 0);
        // A failed send has closed the socket, so every later one fails at
        // once: going on would only spin (counting -1 as progress walks back
        // through the buffer). The rest is abandoned, as the output
        // dispatcher does.
        if (sent < 0)
            return;
        position += sent;
        remaining -= static_cast<unsigned int>(sent);
    }
}
