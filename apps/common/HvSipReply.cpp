#include "HvSipReply.h"

#include "HvSipMessage.h"

#include <HvUtil/HvByteArray.h>

#include <cstdint>
#include <cstring>

namespace {

const char kServer[] = "Server: hv-sip-responder\r\n";
const char kContentLengthZero[] = "Content-Length: 0\r\n\r\n";
const char kCrLf[] = "\r\n";

bool equalsNoCase(const char* text, std::size_t length, const char* literal)
{
    std::size_t i = 0;
    for (; i < length; ++i) {
        char a = text[i];
        char b = literal[i];
        if (b == '\0')
            return false;
        if (a >= 'A' && a <= 'Z')
            a = static_cast<char>(a - 'A' + 'a');
        if (b >= 'A' && b <= 'Z')
            b = static_cast<char>(b - 'A' + 'a');
        if (a != b)
            return false;
    }
    return literal[i] == '\0';
}

// Where each top-level ';' of a Via value is (quoted strings skipped).
std::size_t nextSemicolon(const std::string& via, std::size_t from)
{
    bool quoted = false;
    for (std::size_t i = from; i < via.size(); ++i) {
        char c = via[i];
        if (quoted) {
            if (c == '\\' && i + 1 < via.size())
                ++i;
            else if (c == '"')
                quoted = false;
        } else if (c == '"') {
            quoted = true;
        } else if (c == ';') {
            return i;
        }
    }
    return std::string::npos;
}

// Appends the bytes of a piece to the reply being written; never past the
// end of the array, whatever the sizes added up to.
struct Writer {
    unsigned char* at;
    unsigned char* end;
    void put(const char* text, std::size_t length)
    {
        std::size_t room = static_cast<std::size_t>(end - at);
        if (length > room)
            length = room;
        if (length != 0)
            std::memcpy(at, text, length);
        at += length;
    }
    void put(const char* text) { put(text, std::strlen(text)); }
    void put(const std::string& text) { put(text.data(), text.size()); }
    void put(const HvString& text) { put(text.c_str(), text.length()); }
};

} // namespace

std::string HvSipReply::sDottedQuad(unsigned int networkOrder)
{
    unsigned char bytes[4];
    std::memcpy(bytes, &networkOrder, sizeof bytes);
    std::string text;
    text.reserve(15);
    for (int i = 0; i < 4; ++i) {
        if (i != 0)
            text.push_back('.');
        unsigned int b = bytes[i];
        if (b >= 100)
            text.push_back(static_cast<char>('0' + b / 100));
        if (b >= 10)
            text.push_back(static_cast<char>('0' + b / 10 % 10));
        text.push_back(static_cast<char>('0' + b % 10));
    }
    return text;
}

const char* HvSipReply::sReasonPhrase(unsigned int status)
{
    switch (status) {
    case 200:
        return "OK";
    case 400:
        return "Bad Request";
    case 405:
        return "Method Not Allowed";
    case 501:
        return "Not Implemented";
    default:
        return "Unknown";
    }
}

std::string HvSipReply::sMakeToTag(const HvSipMessage& request)
{
    // FNV-1a over Call-ID, a separator no Call-ID holds, and the From tag.
    std::uint64_t hash = 14695981039346656037ULL;
    auto mix = [&hash](const char* text, unsigned int length) {
        for (unsigned int i = 0; i < length; ++i) {
            hash ^= static_cast<unsigned char>(text[i]);
            hash *= 1099511628211ULL;
        }
    };
    const HvString& callId = request.getCallId();
    mix(callId.c_str(), callId.length());
    mix("\0", 1);
    HvString fromTag = HvSipMessage::sGetParameter(request.getFrom(), "tag");
    mix(fromTag.c_str(), fromTag.length());
    static const char kHex[] = "0123456789abcdef";
    std::string text(16, '0');
    for (int i = 15; i >= 0; --i) {
        text[static_cast<std::size_t>(i)] = kHex[hash & 0xF];
        hash >>= 4;
    }
    return text;
}

std::string HvSipReply::sStampTopVia(const std::string& via, const HvSipSource& source)
{
    return stampTopVia(HvString(via.c_str()), via, source);
}

std::string HvSipReply::stampTopVia(const HvString& viaText, const std::string& via, const HvSipSource& source)
{
    std::string address = sDottedQuad(source.address.getAddress());
    HvString host = HvSipMessage::sGetViaHost(viaText);
    bool rport = HvSipMessage::sHasParameter(viaText, "rport");
    bool addReceived = rport || host.length() != address.size() || host.compareWith(address.c_str()) != 0;

    std::string stamped;
    stamped.reserve(via.size() + 40);
    std::size_t semicolon = nextSemicolon(via, 0);
    stamped.append(via, 0, semicolon);
    while (semicolon != std::string::npos) {
        std::size_t next = nextSemicolon(via, semicolon + 1);
        std::size_t end = next == std::string::npos ? via.size() : next;
        // The parameter's name, blanks around it ignored.
        std::size_t nameStart = semicolon + 1;
        while (nameStart < end && (via[nameStart] == ' ' || via[nameStart] == '\t'))
            ++nameStart;
        std::size_t nameEnd = nameStart;
        while (nameEnd < end && via[nameEnd] != '=' && via[nameEnd] != ' ' && via[nameEnd] != '\t')
            ++nameEnd;
        const char* name = via.data() + nameStart;
        std::size_t nameLength = nameEnd - nameStart;
        bool hasValue = via.find('=', nameEnd) < end;
        if (addReceived && equalsNoCase(name, nameLength, "received")) {
            // Replaced by the address the request really came from.
        } else if (equalsNoCase(name, nameLength, "rport") && !hasValue) {
            stamped.append(";rport=");
            stamped.append(std::to_string(source.port));
        } else {
            stamped.append(via, semicolon, end - semicolon);
        }
        semicolon = next;
    }
    if (addReceived) {
        stamped.append(";received=");
        stamped.append(address);
    }
    return stamped;
}

HvHandle<HvByteArray> HvSipReply::sBuild(const HvSipMessage& request, const HvSipSource& source, unsigned int status,
                                         const char* reason, const std::string& extraHeaders)
{
    if (!reason)
        reason = sReasonPhrase(status);
    char statusLine[] = "SIP/2.0 000 ";
    const int statusLength = static_cast<int>(sizeof statusLine - 1);
    statusLine[8] = static_cast<char>('0' + status / 100 % 10);
    statusLine[9] = static_cast<char>('0' + status / 10 % 10);
    statusLine[10] = static_cast<char>('0' + status % 10);
    const std::vector<HvString>& vias = request.getVias();
    std::string topVia;
    if (!vias.empty())
        topVia = stampTopVia(vias[0], std::string(vias[0].c_str(), vias[0].length()), source);
    std::string toTag;
    if (request.hasTo() && !HvSipMessage::sHasParameter(request.getTo(), "tag"))
        toTag = ";tag=" + sMakeToTag(request);

    static const char kVia[] = "Via: ";
    static const char kFrom[] = "From: ";
    static const char kTo[] = "To: ";
    static const char kCallId[] = "Call-ID: ";
    static const char kCSeq[] = "CSeq: ";
    std::size_t size = static_cast<std::size_t>(statusLength) + std::strlen(reason) + 2;
    for (std::size_t i = 0; i < vias.size(); ++i)
        size += sizeof kVia - 1 + (i == 0 ? topVia.size() : vias[i].length()) + 2;
    if (request.hasTo())
        size += sizeof kTo - 1 + request.getTo().length() + toTag.size() + 2;
    if (request.hasFrom())
        size += sizeof kFrom - 1 + request.getFrom().length() + 2;
    if (request.hasCallId())
        size += sizeof kCallId - 1 + request.getCallId().length() + 2;
    if (request.hasCSeq())
        size += sizeof kCSeq - 1 + request.getCSeq().length() + 2;
    size += extraHeaders.size() + sizeof kServer - 1 + sizeof kContentLengthZero - 1;

    HvHandle<HvByteArray> reply = HvByteArray::sCreate(static_cast<unsigned int>(size), nullptr);
    Writer out{reply->getData(), reply->getData() + reply->getSize()};
    out.put(statusLine, static_cast<std::size_t>(statusLength));
    out.put(reason);
    out.put(kCrLf);
    for (std::size_t i = 0; i < vias.size(); ++i) {
        out.put(kVia);
        if (i == 0)
            out.put(topVia);
        else
            out.put(vias[i]);
        out.put(kCrLf);
    }
    if (request.hasTo()) {
        out.put(kTo);
        out.put(request.getTo());
        out.put(toTag);
        out.put(kCrLf);
    }
    if (request.hasFrom()) {
        out.put(kFrom);
        out.put(request.getFrom());
        out.put(kCrLf);
    }
    if (request.hasCallId()) {
        out.put(kCallId);
        out.put(request.getCallId());
        out.put(kCrLf);
    }
    if (request.hasCSeq()) {
        out.put(kCSeq);
        out.put(request.getCSeq());
        out.put(kCrLf);
    }
    out.put(extraHeaders);
    out.put(kServer);
    out.put(kContentLengthZero);
    return reply;
}
