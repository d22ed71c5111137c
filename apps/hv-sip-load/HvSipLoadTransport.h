// The two sides between the load generator and a transport: the transport
// carries requests out on one of its connections, and hands every message
// that comes back to a sink, on whichever library thread received it.
#ifndef HVSIPLOAD_HVSIPLOADTRANSPORT_H
#define HVSIPLOAD_HVSIPLOADTRANSPORT_H

#include <string>

class HvByteArray;

// Receives what a transport brings in. Called on library threads, several
// at once; implementations are thread-safe.
class HvSipLoadSink {
public:
    virtual ~HvSipLoadSink();
    // One whole message: bytes [offset, offset + length) of data.
    virtual void onMessage(const HvByteArray* data, unsigned int offset, unsigned int length) = 0;
    // Connection `index` has ended; `why` says how, for the user.
    virtual void onConnectionLost(unsigned int index, const std::string& why) = 0;
};

class HvSipLoadTransport {
public:
    virtual ~HvSipLoadTransport();
    // "UDP" or "TCP", as the Via names it.
    virtual const char* getViaTransport() const = 0;
    // Connections requests can be spread over (1 for UDP).
    virtual unsigned int getConnectionCount() const = 0;
    // The local end of connection `index`: dotted quad and port, as the Via
    // and Contact of its requests give them.
    virtual const std::string& getLocalHost(unsigned int index) const = 0;
    virtual unsigned int getLocalPort(unsigned int index) const = 0;
    // Whether connection `index` can still carry requests.
    virtual bool isUp(unsigned int index) const = 0;
    // Queues the request on connection `index`; a connection that has gone
    // down drops it (the transaction then times out). Any thread.
    virtual void send(unsigned int index, HvByteArray* request) = 0;
    // Only datagram transports lose requests, so only they retransmit.
    virtual bool isReliable() const = 0;
};

#endif
