// One SIP message (request or response) as the programs on the library need
// it: the start line and the headers a stateless responder or a load
// generator reads, taken from the bytes with the library's stream tokenizer
// and strings. Header names are matched without regard to case and the
// compact forms (v, f, t, i, l) are understood. The body is not interpreted.
#ifndef HVSIP_HVSIPMESSAGE_H
#define HVSIP_HVSIPMESSAGE_H

#include <HvUtil/HvString.h>

#include <vector>

class HvByteArray;

class HvSipMessage {
public:
    enum class Kind { Request, Response };

    // Why a message could not be read. Everything but None means the getters
    // describe only what was read before the fault.
    enum class Error {
        None,          // start line and every header line read
        Empty,         // no bytes, or only white space
        BadStartLine,  // neither "METHOD URI SIP/2.0" nor "SIP/2.0 NNN reason"
        BadHeader,     // a header line without a name and a colon, or a bad number
        Truncated      // no empty line after the headers, or fewer body bytes than Content-Length
    };

    HvSipMessage();

    // Reads bytes [offset, offset + length) of data. Never throws; a message
    // can be read again into the same object (all fields are reset first).
    // data must be held by a handle: the stream reading it takes and drops
    // a reference of its own.
    Error parse(const HvByteArray* data, unsigned int offset, unsigned int length);

    Kind getKind() const { return m_kind; }
    bool isRequest() const { return m_kind == Kind::Request; }

    // Request line: method as sent (case kept), Request-URI, SIP version.
    const HvString& getMethod() const { return m_method; }
    const HvString& getRequestUri() const { return m_requestUri; }
    const HvString& getVersion() const { return m_version; }

    // Status line: code (0 for a request) and reason phrase.
    unsigned int getStatusCode() const { return m_statusCode; }
    const HvString& getReason() const { return m_reason; }

    // Every Via value in message order, one entry per via-parm: a header
    // line listing several (comma separated) gives several entries.
    const std::vector<HvString>& getVias() const { return m_vias; }

    // Whole values, trimmed; empty when the header is absent.
    const HvString& getFrom() const { return m_from; }
    const HvString& getTo() const { return m_to; }
    const HvString& getCallId() const { return m_callId; }
    const HvString& getCSeq() const { return m_cseq; }

    // Presence of the headers whose value may legitimately be empty.
    bool hasFrom() const { return m_hasFrom; }
    bool hasTo() const { return m_hasTo; }
    bool hasCallId() const { return m_hasCallId; }
    bool hasCSeq() const { return m_hasCSeq; }
    bool hasMaxForwards() const { return m_maxForwards >= 0; }

    // CSeq split into its number and method (0 and empty when the CSeq is
    // absent or not "number method").
    unsigned int getCSeqNumber() const { return m_cseqNumber; }
    const HvString& getCSeqMethod() const { return m_cseqMethod; }

    // -1 when absent.
    int getMaxForwards() const { return m_maxForwards; }
    long getContentLength() const { return m_contentLength; }

    // Where the body starts, relative to the offset given to parse().
    unsigned int getBodyOffset() const { return m_bodyOffset; }

    // True when the Content-Length was not a number or promised more body
    // bytes than there were (the cause of that BadHeader or Truncated).
    bool hasBadContentLength() const { return m_badContentLength; }

    // The value of parameter `name` (matched without regard to case) in a
    // header value such as a Via or a To ("...;branch=z9hG4bK1"). Empty when
    // the parameter is absent or has no value; sHasParameter tells those apart.
    static HvString sGetParameter(const HvString& headerValue, const char* name);
    static bool sHasParameter(const HvString& headerValue, const char* name);
    // The same search over raw text: true when the parameter is there, with
    // where its value starts and how long it is (0 when it has none).
    // A parameter follows each ';' outside quotes and <...>; the search
    // stops at the first ',' outside them.
    static bool sFindParameter(const char* text, unsigned int length, const char* name, unsigned int& valueStart,
                               unsigned int& valueLength);

    // Via sent-by: host and port (0 when no port is given).
    static HvString sGetViaHost(const HvString& via);
    static unsigned int sGetViaPort(const HvString& via);
    // Via transport ("UDP", "TCP", ...), upper case; empty when unreadable.
    static HvString sGetViaTransport(const HvString& via);
    // True when the Via has a sent-protocol ("SIP/2.0/<transport>"), a
    // sent-by host and, if it names one, a port from 1 to 65535.
    static bool sIsViaReadable(const HvString& via);

private:
    Kind m_kind;
    HvString m_method;
    HvString m_requestUri;
    HvString m_version;
    unsigned int m_statusCode;
    HvString m_reason;
    std::vector<HvString> m_vias;
    HvString m_from;
    HvString m_to;
    HvString m_callId;
    HvString m_cseq;
    bool m_hasFrom;
    bool m_hasTo;
    bool m_hasCallId;
    bool m_hasCSeq;
    unsigned int m_cseqNumber;
    HvString m_cseqMethod;
    int m_maxForwards;
    long m_contentLength;
    unsigned int m_bodyOffset;
    bool m_badContentLength;

    void reset();
    Error readHeader(const char* line, unsigned int length);
};

#endif
