// Building a SIP response to a request (RFC 3261 section 8.2.6): every Via
// copied in order, with received/rport filled in for the source the request
// came from (RFC 3261 section 18.2.1, RFC 3581); From, Call-ID and CSeq
// echoed; To echoed with a tag added when it has none; the extra header
// lines given; Content-Length always present.
#ifndef HVSIP_HVSIPREPLY_H
#define HVSIP_HVSIPREPLY_H

#include <HvUtil/HvHandle.h>
#include <HvUtil/HvInetAddress.h>

#include <string>

class HvByteArray;
class HvSipMessage;

// Where a request came from.
struct HvSipSource {
    HvInetAddress address;   // the packet's or connection's source address
    unsigned int port = 0;   // its source port
    bool udp = true;         // false for a stream (TCP) connection
};

class HvSipReply {
public:
    // The reason phrase the responder uses for a status code
    // (200 "OK", 400 "Bad Request", 405 "Method Not Allowed",
    // 501 "Not Implemented"; others "Unknown").
    static const char* sReasonPhrase(unsigned int status);

    // "a.b.c.d" for an address in network byte order. Any thread may call
    // it: HvInetAddress::getHostAddress() shares one buffer among threads.
    static std::string sDottedQuad(unsigned int networkOrder);

    // The To tag a stateless responder adds: derived from the Call-ID and
    // the From tag only, so a retransmitted request gets the same tag.
    static std::string sMakeToTag(const HvSipMessage& request);

    // The top Via as it goes back in the response: `received` added when
    // the sent-by host is not the source address (or when rport is asked
    // for), an empty `rport` filled with the source port.
    static std::string sStampTopVia(const std::string& via, const HvSipSource& source);

    // The whole response. `reason` null: sReasonPhrase(status). `extraHeaders`
    // are complete header lines, each ending in CRLF (may be empty).
    static HvHandle<HvByteArray> sBuild(const HvSipMessage& request, const HvSipSource& source,
                                        unsigned int status, const char* reason,
                                        const std::string& extraHeaders);

private:
    // sStampTopVia for a Via already held both ways.
    static std::string stampTopVia(const HvString& viaText, const std::string& via, const HvSipSource& source);
};

#endif
