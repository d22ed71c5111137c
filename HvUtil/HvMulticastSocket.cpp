#include <HvUtil/HvMulticastSocket.h>
#include <HvUtil/HvException.h>

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

namespace {

// Membership on the interface the system chooses for the group.
void changeMembership(int descriptor, int option, HvInetAddress group)
{
    ip_mreq request;
    std::memset(&request, 0, sizeof request);
    request.imr_multiaddr.s_addr = group.getAddress();
    request.imr_interface.s_addr = 0;
    if (::setsockopt(descriptor, IPPROTO_IP, option, &request, sizeof request) < 0)
        HvException::sThrow("error in setsockopt()");
}

} // namespace

HvMulticastSocket::HvMulticastSocket(unsigned int port, HvInetAddress address, bool connect, unsigned int bufferSize)
    : HvDatagramSocket(port, address, connect, bufferSize)
{
}

HvMulticastSocket::~HvMulticastSocket()
{
}

void HvMulticastSocket::joinGroup(HvInetAddress group)
{
    changeMembership(getDescriptor(), IP_ADD_MEMBERSHIP, group);
}

void HvMulticastSocket::leaveGroup(HvInetAddress group)
{
    changeMembership(getDescriptor(), IP_DROP_MEMBERSHIP, group);
}

int HvMulticastSocket::setTimeToLive(unsigned char ttl)
{
    return ::setsockopt(getDescriptor(), IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl);
}

unsigned char HvMulticastSocket::getTimeToLive()
{
    unsigned char ttl = 0;
    socklen_t length = sizeof ttl;
    (void)::getsockopt(getDescriptor(), IPPROTO_IP, IP_MULTICAST_TTL, &ttl, &length);
    return ttl;
}

int HvMulticastSocket::send(HvDatagramPacket* packet, unsigned char ttl)
{
    setTimeToLive(ttl);
    return HvDatagramSocket::send(packet);
}
