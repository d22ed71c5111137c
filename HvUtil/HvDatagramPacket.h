// One datagram: its bytes as a window (offset, length) on an HvByteArray,
// the peer's endpoint (destination when sending, sender after receiving) and
// the local endpoint. Sockets fill and read it; observers of received
// datagrams get a packet of their own.
#ifndef HVUTIL_HVDATAGRAMPACKET_H
#define HVUTIL_HVDATAGRAMPACKET_H

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvInetAddress.h>

#include <cstddef>

class HvDatagramPacket : public HvObject {
public:
    // Stores the endpoints, then setData(data, offset, length).
    HvDatagramPacket(HvByteArray* data, unsigned int offset, unsigned int length,
                     HvInetAddress address = HvInetAddress(), unsigned int port = 0,
                     HvInetAddress localAddress = HvInetAddress(), unsigned int localPort = 0);

    // Holds `data` (null: no buffer); the offset becomes the smaller of
    // `offset` and the array's size (0 without an array); then setLength(length).
    void setData(HvByteArray* data, unsigned int offset, unsigned int length);
    // The length becomes the smaller of the room after the offset and
    // `length`, where a length of 0 means the whole array.
    void setLength(unsigned int length);

    // The buffer; empty when the packet has none.
    HvHandle<HvByteArray> getData() const { return m_data; }
    // Where the datagram starts in the buffer.
    unsigned int getOffset() const { return m_offset; }
    // Bytes of the datagram; 4294967295 (-1) after a failed receive.
    unsigned int getLength() const { return m_length; }
    // The peer: destination of a send, sender of a receive. Port in host order.
    HvInetAddress getAddress() const { return m_address; }
    unsigned int getPort() const { return m_port; }
    HvInetAddress getLocalAddress() const { return m_localAddress; }
    unsigned int getLocalPort() const { return m_localPort; }

    void setAddress(HvInetAddress address) { m_address = address; }
    void setPort(unsigned int port) { m_port = port; }
    void setLocalAddress(HvInetAddress address) { m_localAddress = address; }
    void setLocalPort(unsigned int port) { m_localPort = port; }

    // Bytes the buffer holds from the offset on (0 without a buffer): the
    // most that a transfer through this packet may touch, whatever the
    // length says.
    unsigned int getRoom() const;

    static void* operator new(std::size_t size);
    static void operator delete(void* p, std::size_t size);

private:
    friend class HvDatagramSocket;
    // A receive's result as it is, -1 included: setLength() would clip it.
    void setReceivedLength(unsigned int length) { m_length = length; }

    HvHandle<HvByteArray> m_data;
    HvInetAddress m_address;
    HvInetAddress m_localAddress;
    unsigned int m_port;
    unsigned int m_localPort;
    unsigned int m_offset;
    unsigned int m_length;
};

#endif
