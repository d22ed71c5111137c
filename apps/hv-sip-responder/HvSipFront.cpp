#include "HvSipFront.h"

#include "HvSipResponderStats.h"

#include <HvUtil/HvSocketFactory.h>
#include <HvUtil/HvSocketImpl.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <thread>

HvSipFront::HvSipFront(HvSipResponderStats& stats)
    : m_stats(stats), m_boundPort(0), m_inFlight(0), m_stopping(false)
{
}

bool HvSipFront::stop(std::chrono::milliseconds limit)
{
    m_stopping.store(true);
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (m_inFlight.load() != 0) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

void HvSipFront::rememberBoundPort(const HvSocketImpl& socket)
{
    sockaddr_in address{};
    socklen_t length = sizeof address;
    const int descriptor = socket.getDescriptor();
    if (descriptor >= 0 && getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) == 0)
        m_boundPort = ntohs(address.sin_port);
}

HvSipResponderCore::Result HvSipFront::handle(const HvByteArray* data, unsigned int offset, unsigned int length,
                                              HvInetAddress address, unsigned int port, bool udp)
{
    HvSipSource source;
    source.address = address;
    source.port = port;
    source.udp = udp;
    HvSipResponderCore::Result result = HvSipResponderCore::sHandle(data, offset, length, source);
    m_stats.record(result);
    return result;
}

void HvSipFront::sRelease(HvSocketImpl& socket)
{
    const int descriptor = socket.getDescriptor();
    if (descriptor != -1 && HvSocketFactory::sFromHandle(descriptor).get() == &socket)
        HvSocketFactory::sRemoveHandle(descriptor);
    socket.close();
}
