// A datagram socket that joins and leaves multicast groups and sets the
// time-to-live of the multicast datagrams it sends.
#ifndef HVUTIL_HVMULTICASTSOCKET_H
#define HVUTIL_HVMULTICASTSOCKET_H

#include <HvUtil/HvDatagramSocket.h>

class HvMulticastSocket : public HvDatagramSocket {
public:
    // As HvDatagramSocket.
    HvMulticastSocket(unsigned int port, HvInetAddress address, bool connect, unsigned int bufferSize);
    ~HvMulticastSocket() override;

    // Joins or leaves `group` on the interface the system chooses. Throws
    // HvException "error in setsockopt()" when the system refuses.
    void joinGroup(HvInetAddress group);
    void leaveGroup(HvInetAddress group);

    // Sets the multicast time-to-live (one byte); returns the setsockopt()
    // result (0, or -1 when it cannot be set), throws nothing.
    int setTimeToLive(unsigned char ttl);
    // The multicast time-to-live as the system reports it.
    unsigned char getTimeToLive();

    // setTimeToLive(ttl), then HvDatagramSocket::send(packet).
    int send(HvDatagramPacket* packet, unsigned char ttl);
    using HvDatagramSocket::send;
};

#endif
