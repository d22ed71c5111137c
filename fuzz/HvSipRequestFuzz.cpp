// The stateless responder's request step on arbitrary bytes: what one UDP
// datagram (or one framed message of a connection) goes through, without
// sockets or threads.
//
// Invariant: HvSipResponderCore::sHandle gives either no reply (and status 0)
// or one well-formed SIP response: a status line "SIP/2.0 <status> <reason>"
// with the status it reports (200, 400, 405 or 501), header lines of a name,
// a colon and a value without bare CR or LF, each ended by CRLF, an empty
// line, and a body exactly as long as its single Content-Length says. The
// response carries the request's Via values in order, the top one as the
// request had it apart from the received and rport parameters the responder
// stamps (received naming the source address, an empty rport filled with the
// source port), and the request's Call-ID and CSeq, each present exactly when
// the request had it. A reply goes to the source address, to the source port
// when the top Via asks for rport, else to its sent-by port or 5060.
#include "HvSipResponderCore.h"

#include "HvSipMessage.h"
#include "HvSipReply.h"

#include <HvUtil/HvByteArray.h>

#include "HvFuzzCheck.h"

#include <arpa/inet.h>

#include <cctype>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace {

// Parameters of a Via, split at the semicolons outside quotes as the
// responder splits them; the first piece is the sent-protocol and sent-by.
std::vector<std::string> piecesOf(const std::string& via)
{
    std::vector<std::string> pieces(1);
    bool quoted = false;
    for (std::size_t i = 0; i < via.size(); ++i) {
        const char c = via[i];
        if (quoted) {
            pieces.back() += c;
            if (c == '\\' && i + 1 < via.size())
                pieces.back() += via[++i];
            else if (c == '"')
                quoted = false;
        } else if (c == ';') {
            pieces.emplace_back();
        } else {
            if (c == '"')
                quoted = true;
            pieces.back() += c;
        }
    }
    return pieces;
}

std::string lowerNameOf(const std::string& parameter)
{
    std::size_t start = parameter.find_first_not_of(" \t");
    if (start == std::string::npos)
        return std::string();
    std::size_t end = parameter.find_first_of("= \t", start);
    std::string name = parameter.substr(start, end == std::string::npos ? std::string::npos : end - start);
    for (char& c : name)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return name;
}

// The top Via with every rport without its value and, when the responder
// stamps its own received, every received parameter left out: what the
// responder may change.
std::string unstamped(const std::string& via, bool dropReceived)
{
    std::vector<std::string> pieces = piecesOf(via);
    std::string out = pieces[0];
    for (std::size_t i = 1; i < pieces.size(); ++i) {
        const std::string name = lowerNameOf(pieces[i]);
        if (dropReceived && name == "received")
            continue;
        out += ";";
        out += name == "rport" ? std::string("rport") : pieces[i];
    }
    return out;
}

std::string textOf(const HvString& s)
{
    return std::string(s.c_str(), s.length());
}

struct Response {
    unsigned int status = 0;
    std::vector<std::string> vias;
    int callIds = 0;
    std::string callId;
    int cseqs = 0;
    std::string cseq;
};

std::string trimmed(const std::string& s)
{
    const std::size_t start = s.find_first_not_of(" \t");
    if (start == std::string::npos)
        return std::string();
    return s.substr(start, s.find_last_not_of(" \t") - start + 1);
}

// Reads the response bytes on their own terms, not through HvSipMessage.
Response readResponse(const std::string& reply)
{
    Response r;
    HV_FUZZ_CHECK(reply.compare(0, 8, "SIP/2.0 ") == 0 && reply.size() > 12 && std::isdigit((unsigned char)reply[8]) &&
                      std::isdigit((unsigned char)reply[9]) && std::isdigit((unsigned char)reply[10]) &&
                      reply[11] == ' ',
                  "status line of " + hvfuzz::quoted(reply));
    r.status = static_cast<unsigned int>((reply[8] - '0') * 100 + (reply[9] - '0') * 10 + (reply[10] - '0'));
    std::size_t lineEnd = reply.find("\r\n");
    HV_FUZZ_CHECK(lineEnd != std::string::npos && lineEnd > 12, "reason phrase of " + hvfuzz::quoted(reply));
    HV_FUZZ_CHECK(reply.find_first_of("\r\n", 12) == lineEnd, "bare CR or LF in " + hvfuzz::quoted(reply));
    int contentLengths = 0;
    long contentLength = -1;
    std::size_t at = lineEnd + 2;
    for (;;) {
        lineEnd = reply.find("\r\n", at);
        HV_FUZZ_CHECK(lineEnd != std::string::npos, "headers without an end in " + hvfuzz::quoted(reply));
        if (lineEnd == at)
            break;
        const std::string line = reply.substr(at, lineEnd - at);
        HV_FUZZ_CHECK(line.find_first_of("\r\n") == std::string::npos, "bare CR or LF in " + hvfuzz::quoted(line));
        const std::size_t colon = line.find(':');
        HV_FUZZ_CHECK(colon != std::string::npos && colon > 0, "header line " + hvfuzz::quoted(line));
        std::string name = line.substr(0, colon);
        for (char c : name)
            HV_FUZZ_CHECK(std::isgraph(static_cast<unsigned char>(c)), "header name " + hvfuzz::quoted(name));
        const std::string value = trimmed(line.substr(colon + 1));
        if (name == "Via") {
            r.vias.push_back(value);
        } else if (name == "Call-ID") {
            ++r.callIds;
            r.callId = value;
        } else if (name == "CSeq") {
            ++r.cseqs;
            r.cseq = value;
        } else if (name == "Content-Length") {
            ++contentLengths;
            HV_FUZZ_CHECK(!value.empty() && value.find_first_not_of("0123456789") == std::string::npos &&
                              value.size() < 10,
                          "Content-Length " + hvfuzz::quoted(value));
            contentLength = std::stol(value);
        }
        at = lineEnd + 2;
    }
    const std::size_t body = reply.size() - (lineEnd + 2);
    HV_FUZZ_CHECK(contentLengths == 1 && static_cast<std::size_t>(contentLength) == body,
                  std::to_string(contentLengths) + " Content-Length headers, body " + std::to_string(body));
    return r;
}

void checkOne(const HvHandle<HvByteArray>& bytes, const HvSipSource& source)
{
    const HvSipResponderCore::Result result = HvSipResponderCore::sHandle(bytes.get(), 0, bytes->getSize(), source);
    if (result.outcome != HvSipResponderCore::Outcome::Replied) {
        HV_FUZZ_CHECK(result.reply.isNull() && result.status == 0, "a reply without the Replied outcome");
        return;
    }
    HV_FUZZ_CHECK(!result.reply.isNull(), "Replied without a reply");
    HV_FUZZ_CHECK(result.status == 200 || result.status == 400 || result.status == 405 || result.status == 501,
                  "status " + std::to_string(result.status));
    const std::string reply(reinterpret_cast<const char*>(result.reply->getData()), result.reply->getSize());
    const Response response = readResponse(reply);
    HV_FUZZ_CHECK(response.status == result.status, "status line says " + std::to_string(response.status));

    HvSipMessage request;
    request.parse(bytes.get(), 0, bytes->getSize());
    HV_FUZZ_CHECK(request.isRequest(), "a reply to a response");
    const std::vector<HvString>& vias = request.getVias();
    HV_FUZZ_CHECK(!vias.empty() && vias.size() == response.vias.size(),
                  std::to_string(vias.size()) + " request Vias, " + std::to_string(response.vias.size()) +
                      " response Vias in " + hvfuzz::quoted(reply));
    const std::string top = textOf(vias[0]);
    const std::string address = HvSipReply::sDottedQuad(source.address.getAddress());
    const bool rport = HvSipMessage::sHasParameter(vias[0], "rport");
    // received is stamped when asked for by rport or when the sent-by host
    // is not the address the request came from.
    const bool stampsReceived = rport || textOf(HvSipMessage::sGetViaHost(vias[0])) != address;
    // The stamped received goes last; taken off first, so that a Via whose
    // quote never closes (the stamp then lands inside it) compares too.
    std::string answered = response.vias[0];
    if (stampsReceived) {
        const std::string stamp = ";received=" + address;
        HV_FUZZ_CHECK(answered.size() >= stamp.size() &&
                          answered.compare(answered.size() - stamp.size(), stamp.size(), stamp) == 0,
                      "received in " + hvfuzz::quoted(response.vias[0]));
        answered.resize(answered.size() - stamp.size());
    }
    HV_FUZZ_CHECK(unstamped(answered, stampsReceived) == unstamped(top, stampsReceived),
                  "top Via " + hvfuzz::quoted(top) + " answered as " + hvfuzz::quoted(response.vias[0]));
    for (std::size_t i = 1; i < vias.size(); ++i)
        HV_FUZZ_CHECK(response.vias[i] == textOf(vias[i]),
                      "Via " + hvfuzz::quoted(textOf(vias[i])) + " answered as " + hvfuzz::quoted(response.vias[i]));

    // Every rport parameter without a value (a piece named exactly rport,
    // without '=') comes back as rport=<source port>. Pieces are named as the
    // responder names them when it stamps: up to '=' or a blank.
    std::size_t empty = 0;
    for (const std::string& piece : piecesOf(top))
        if (lowerNameOf(piece) == "rport" && piece.find('=') == std::string::npos)
            ++empty;
    std::size_t filled = 0;
    const std::string portText = std::to_string(source.port);
    for (const std::string& piece : piecesOf(answered)) {
        if (lowerNameOf(piece) != "rport")
            continue;
        HV_FUZZ_CHECK(piece.find('=') != std::string::npos, "rport left empty in " + hvfuzz::quoted(answered));
        if (piece == "rport=" + portText)
            ++filled;
    }
    HV_FUZZ_CHECK(filled >= empty, "rport in " + hvfuzz::quoted(response.vias[0]));

    HV_FUZZ_CHECK(response.callIds == (request.hasCallId() ? 1 : 0) &&
                      (!request.hasCallId() || response.callId == textOf(request.getCallId())),
                  "Call-ID " + hvfuzz::quoted(textOf(request.getCallId())) + " answered as " +
                      hvfuzz::quoted(response.callId));
    HV_FUZZ_CHECK(response.cseqs == (request.hasCSeq() ? 1 : 0) &&
                      (!request.hasCSeq() || response.cseq == textOf(request.getCSeq())),
                  "CSeq " + hvfuzz::quoted(textOf(request.getCSeq())) + " answered as " +
                      hvfuzz::quoted(response.cseq));

    HV_FUZZ_CHECK(result.replyAddress.getAddress() == source.address.getAddress(), "reply address");
    const unsigned int viaPort = HvSipMessage::sGetViaPort(vias[0]);
    const unsigned int port = rport ? source.port : (viaPort == 0 ? 5060 : viaPort);
    HV_FUZZ_CHECK(result.replyPort == port, "reply port " + std::to_string(result.replyPort) + ", expected " +
                                                std::to_string(port));
}

HvSipSource sourceAt(const char* dottedQuad, unsigned int port, bool udp)
{
    HvSipSource source;
    source.address.setAddress(::inet_addr(dottedQuad));
    source.port = port;
    source.udp = udp;
    return source;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    HvHandle<HvByteArray> bytes = HvByteArray::sCreate(static_cast<unsigned int>(size), data);
    // A source that the sent-by of most requests names, and one it does not.
    checkOne(bytes, sourceAt("127.0.0.1", 5070, true));
    checkOne(bytes, sourceAt("192.0.2.77", 41000, false));
    return 0;
}
