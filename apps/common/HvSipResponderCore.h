// The request-handling step of a stateless SIP responder: bytes in, reply
// bytes (or nothing) out, with no socket, thread or state of its own, so the
// programs, their tests, benchmarks and fuzz targets all call the same code.
//
// OPTIONS is answered 200 with Allow, Accept and Supported; ACK gets nothing;
// another known method gets 405 with Allow; an unknown method gets 501. A
// request that misses a mandatory header (Via, From, To, Call-ID, CSeq,
// Max-Forwards), whose CSeq method differs from its method, or whose body is
// shorter than its Content-Length gets 400 when it can be answered at all
// (it has a readable request line and a Via); otherwise it is dropped.
// Responses are dropped.
#ifndef HVSIP_HVSIPRESPONDERCORE_H
#define HVSIP_HVSIPRESPONDERCORE_H

#include "HvSipReply.h"

#include <HvUtil/HvHandle.h>
#include <HvUtil/HvInetAddress.h>

class HvByteArray;

class HvSipResponderCore {
public:
    enum class Outcome {
        Replied,            // reply holds the response to send
        AckAbsorbed,        // an ACK: nothing is sent
        ResponseDropped,    // the message was a response
        MalformedDropped    // unreadable, or unanswerable (no request line or no Via)
    };

    struct Result {
        Outcome outcome = Outcome::MalformedDropped;
        unsigned int status = 0;           // status of the reply; 0 when none
        HvHandle<HvByteArray> reply;       // null unless Replied
        // Where a UDP reply goes (RFC 3261 section 18.2.2 with RFC 3581):
        // the source address, and the source port when the top Via asks for
        // rport, else the Via's sent-by port (5060 when it names none).
        // Stream replies go back on the connection the request came on.
        HvInetAddress replyAddress;
        unsigned int replyPort = 0;
        // Bytes of the window the message took: up to the end of the body
        // its Content-Length gives, or the whole window when it gives none
        // that fits. A connection's framing may hand over more than one
        // message at once (requests behind a CRLF keep-alive, behind a
        // Content-Length it does not know); the stream front hands the rest
        // to sHandle again. A datagram holds one message, the rest is ignored.
        unsigned int consumed = 0;
    };

    // The header lines of a 200 to OPTIONS and of a 405 ("Allow: ...").
    static const char* const kAllow;
    static const char* const kAccept;
    static const char* const kSupported;

    // Handles the one message in bytes [offset, offset + length) of data.
    // Never throws.
    static Result sHandle(const HvByteArray* data, unsigned int offset, unsigned int length,
                          const HvSipSource& source);
};

#endif
