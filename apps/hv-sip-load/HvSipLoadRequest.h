// The OPTIONS request hv-sip-load sends (RFC 3261 section 11, with the
// mandatory headers of section 8.1.1 and rport of RFC 3581) and the check of
// a reply against the request it answers. Pure text work: no socket, no
// thread, so it is tested on its own.
#ifndef HVSIPLOAD_HVSIPLOADREQUEST_H
#define HVSIPLOAD_HVSIPLOADREQUEST_H

#include <HvSipMessage.h>

#include <cstdint>
#include <string>

class HvSipLoadRequest {
public:
    // Every request begins its branch with the RFC 3261 magic cookie.
    static const char* const kMagicCookie;

    // What one request carries.
    struct Fields {
        std::string transport = "UDP";  // Via transport: "UDP" or "TCP"
        std::string localHost;          // Via sent-by host and Contact host (a dotted quad)
        unsigned int localPort = 0;     // Via sent-by port and Contact port
        std::string targetHost;         // Request-URI and To host
        unsigned int targetPort = 5060; // Request-URI and To port
        std::string branch;             // the whole Via branch, kMagicCookie first
        std::string callId;             // the whole Call-ID
        unsigned int cseq = 1;          // CSeq number
        std::string fromTag;            // From tag
    };

    // The request text, Content-Length 0, CRLF line ends.
    static std::string sBuild(const Fields& fields);

    // A branch unique within the run and across runs: the cookie, the run's
    // identity and the transaction's number.
    static std::string sMakeBranch(const std::string& runId, std::uint64_t number);

    // How a reply to a request with `callId` and CSeq `cseq` OPTIONS ends
    // the transaction.
    enum class Verdict {
        Provisional,  // 1xx: not final, the transaction goes on
        Success,      // 200 with matching Call-ID and CSeq
        WrongStatus,  // a final status other than 200, Call-ID and CSeq matching
        Malformed     // unreadable, or Call-ID or CSeq not those of the request
    };
    static Verdict sCheck(const HvSipMessage& reply, HvSipMessage::Error error, const std::string& callId,
                          unsigned int cseq);

    // The branch parameter of the reply's top Via; empty when there is no
    // Via or no branch.
    static std::string sTopBranch(const HvSipMessage& reply);
};

#endif
