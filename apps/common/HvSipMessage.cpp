#include "HvSipMessage.h"

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvByteArrayInputStream.h>
#include <HvUtil/HvInputStream.h>
#include <HvUtil/HvStreamTokenizer.h>
#include <HvUtil/HvStringBuffer.h>

#include <climits>
#include <cstring>
#include <string>

namespace {

bool isBlank(char c)
{
    return c == ' ' || c == '\t';
}

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

char foldCase(char c)
{
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

// RFC 3261 token characters: what a method or a header name may contain.
// A table, as this runs for every byte of every header name.
struct TokenTable {
    bool allowed[256] = {};
    constexpr TokenTable()
    {
        for (int c = 'a'; c <= 'z'; ++c)
            allowed[c] = true;
        for (int c = 'A'; c <= 'Z'; ++c)
            allowed[c] = true;
        for (int c = '0'; c <= '9'; ++c)
            allowed[c] = true;
        const char others[] = "-.!%*_+`'~";
        for (unsigned int i = 0; others[i] != '\0'; ++i)
            allowed[static_cast<unsigned char>(others[i])] = true;
    }
};
constexpr TokenTable kTokenTable;

bool isTokenChar(char c)
{
    return kTokenTable.allowed[static_cast<unsigned char>(c)];
}

bool isToken(const char* text, unsigned int length)
{
    if (length == 0)
        return false;
    for (unsigned int i = 0; i < length; ++i)
        if (!isTokenChar(text[i]))
            return false;
    return true;
}

bool equalsNoCase(const char* text, unsigned int length, const char* literal)
{
    unsigned int i = 0;
    for (; i < length; ++i) {
        if (literal[i] == '\0' || foldCase(text[i]) != foldCase(literal[i]))
            return false;
    }
    return literal[i] == '\0';
}

void trim(const char*& text, unsigned int& length)
{
    while (length > 0 && (isBlank(*text) || *text == '\r' || *text == '\n')) {
        ++text;
        --length;
    }
    while (length > 0 && (isBlank(text[length - 1]) || text[length - 1] == '\r' || text[length - 1] == '\n'))
        --length;
}

// sCreate takes a zero length to mean "measure the text", so the empty
// value must not go through it.
HvString makeString(const char* text, unsigned int length)
{
    if (length == 0)
        return HvString();
    return HvString(HvStringBuffer::sCreate(text, length, 0));
}

// Decimal digits only, no sign; saturates at `limit` so that a hostile
// number cannot wrap into a small one.
bool readNumber(const char* text, unsigned int length, unsigned long limit, unsigned long& value)
{
    if (length == 0)
        return false;
    value = 0;
    for (unsigned int i = 0; i < length; ++i) {
        if (!isDigit(text[i]))
            return false;
        unsigned long digit = static_cast<unsigned long>(text[i] - '0');
        value = (value > (limit - digit) / 10) ? limit : value * 10 + digit;
    }
    return true;
}

// Follows a scan through quoted strings (with backslash escapes) and <...>,
// inside which commas and semicolons separate nothing.
class EnclosureTracker {
public:
    // True when text[i] belongs to a quoted string or <...>, its delimiters
    // included; an escaped character is stepped over by advancing i.
    bool enclosed(const char* text, unsigned int& i, unsigned int length)
    {
        const char c = text[i];
        if (m_quoted) {
            if (c == '\\' && i + 1 < length)
                ++i;
            else if (c == '"')
                m_quoted = false;
            return true;
        }
        if (c == '"') {
            m_quoted = true;
            return true;
        }
        if (m_angle) {
            if (c == '>')
                m_angle = false;
            return true;
        }
        if (c == '<') {
            m_angle = true;
            return true;
        }
        return false;
    }

private:
    bool m_quoted = false;
    bool m_angle = false;
};

// Calls f(start, length) for each comma-separated element of a header value;
// commas inside a quoted string or <...> do not separate.
template <class F>
void forEachElement(const char* text, unsigned int length, F f)
{
    EnclosureTracker tracker;
    unsigned int start = 0;
    for (unsigned int i = 0; i < length; ++i) {
        if (!tracker.enclosed(text, i, length) && text[i] == ',') {
            f(start, i - start);
            start = i + 1;
        }
    }
    f(start, length - start);
}

// The parts of a Via value "SIP/2.0/UDP host:port;params".
struct ViaParts {
    const char* transport = nullptr;
    unsigned int transportLength = 0;
    const char* host = nullptr;
    unsigned int hostLength = 0;
    const char* port = nullptr;
    unsigned int portLength = 0;
};

// False when the sent-protocol or the sent-by host cannot be found.
bool splitVia(const char* text, unsigned int length, ViaParts& parts)
{
    unsigned int i = 0;
    auto skipBlanks = [&]() {
        while (i < length && (isBlank(text[i]) || text[i] == '\r' || text[i] == '\n'))
            ++i;
    };
    auto takeToken = [&](const char*& start, unsigned int& count) {
        start = text + i;
        count = 0;
        while (i < length && isTokenChar(text[i])) {
            ++i;
            ++count;
        }
        return count > 0;
    };
    const char* name;
    unsigned int nameLength;
    const char* version;
    unsigned int versionLength;
    skipBlanks();
    if (!takeToken(name, nameLength) || !equalsNoCase(name, nameLength, "SIP"))
        return false;
    skipBlanks();
    if (i >= length || text[i] != '/')
        return false;
    ++i;
    skipBlanks();
    if (!takeToken(version, versionLength))
        return false;
    skipBlanks();
    if (i >= length || text[i] != '/')
        return false;
    ++i;
    skipBlanks();
    if (!takeToken(parts.transport, parts.transportLength))
        return false;
    unsigned int beforeBlanks = i;
    skipBlanks();
    if (i == beforeBlanks)
        return false;
    parts.host = text + i;
    if (i < length && text[i] == '[') {
        while (i < length && text[i] != ']')
            ++i;
        if (i >= length)
            return false;
        ++i;
    } else {
        while (i < length && isTokenChar(text[i]))
            ++i;
    }
    parts.hostLength = static_cast<unsigned int>(text + i - parts.host);
    if (parts.hostLength == 0)
        return false;
    skipBlanks();
    if (i < length && text[i] == ':') {
        ++i;
        skipBlanks();
        parts.port = text + i;
        while (i < length && !isBlank(text[i]) && text[i] != ';' && text[i] != ',')
            ++i;
        parts.portLength = static_cast<unsigned int>(text + i - parts.port);
    }
    skipBlanks();
    // What follows the sent-by is parameters or nothing.
    return i >= length || text[i] == ';';
}

// Lines read through the tokenizer's look-ahead: leading white space is
// skipped, the text runs up to CR or LF, then the line end is consumed. A
// line that fits is copied to a buffer of its own rather than a new string:
// this runs for every line of every request.
class LineReader {
public:
    explicit LineReader(HvInputStream& in) : m_in(in) {}

    void next()
    {
        unsigned int n = HvStreamTokenizer::sLookAhead(m_in, "\r\n");
        if (n < sizeof m_buffer) {
            int got = n == 0 ? 0 : m_in.read(m_buffer, n, 0);
            m_length = got > 0 ? static_cast<unsigned int>(got) : 0;
            m_text = m_buffer;
        } else {
            m_long = HvString(HvStringBuffer::sRead(nullptr, m_in, n));
            m_length = m_long.length();
            m_text = m_long.c_str();
        }
        // CR LF, LF, a lone CR, or the end of the bytes.
        if (m_in.read() == '\r') {
            m_in.mark(1);
            if (m_in.read() != '\n')
                m_in.reset();
        }
    }

    // Valid until the next call of next().
    const char* text() const { return m_text; }
    unsigned int length() const { return m_length; }

private:
    HvInputStream& m_in;
    char m_buffer[1024];
    HvString m_long;
    const char* m_text = m_buffer;
    unsigned int m_length = 0;
};

} // namespace

HvSipMessage::HvSipMessage()
{
    reset();
}

void HvSipMessage::reset()
{
    m_kind = Kind::Request;
    m_method = HvString();
    m_requestUri = HvString();
    m_version = HvString();
    m_statusCode = 0;
    m_reason = HvString();
    m_vias.clear();
    m_from = HvString();
    m_to = HvString();
    m_callId = HvString();
    m_cseq = HvString();
    m_hasFrom = false;
    m_hasTo = false;
    m_hasCallId = false;
    m_hasCSeq = false;
    m_cseqNumber = 0;
    m_cseqMethod = HvString();
    m_maxForwards = -1;
    m_contentLength = -1;
    m_bodyOffset = 0;
    m_badContentLength = false;
}

HvSipMessage::Error HvSipMessage::readHeader(const char* line, unsigned int length)
{
    const char* colon = static_cast<const char*>(std::memchr(line, ':', length));
    if (!colon)
        return Error::BadHeader;
    const char* name = line;
    unsigned int nameLength = static_cast<unsigned int>(colon - line);
    while (nameLength > 0 && isBlank(name[nameLength - 1]))
        --nameLength;
    if (!isToken(name, nameLength))
        return Error::BadHeader;
    const char* value = colon + 1;
    unsigned int valueLength = length - static_cast<unsigned int>(colon - line) - 1;
    trim(value, valueLength);
    // A NUL has no place in a header and would cut the value short wherever
    // it is read as text.
    if (std::memchr(value, '\0', valueLength))
        return Error::BadHeader;

    // Most header lines are none of these: the first letter rules them out
    // before any name is compared.
    switch (foldCase(name[0])) {
    case 'v':
    case 'f':
    case 't':
    case 'i':
    case 'c':
    case 'm':
    case 'l':
        break;
    default:
        return Error::None;
    }
    if (equalsNoCase(name, nameLength, "Via") || equalsNoCase(name, nameLength, "v")) {
        forEachElement(value, valueLength, [&](unsigned int start, unsigned int count) {
            const char* element = value + start;
            trim(element, count);
            if (count > 0)
                m_vias.push_back(makeString(element, count));
        });
    } else if (equalsNoCase(name, nameLength, "From") || equalsNoCase(name, nameLength, "f")) {
        if (!m_hasFrom) {
            m_hasFrom = true;
            m_from = makeString(value, valueLength);
        }
    } else if (equalsNoCase(name, nameLength, "To") || equalsNoCase(name, nameLength, "t")) {
        if (!m_hasTo) {
            m_hasTo = true;
            m_to = makeString(value, valueLength);
        }
    } else if (equalsNoCase(name, nameLength, "Call-ID") || equalsNoCase(name, nameLength, "i")) {
        if (!m_hasCallId) {
            m_hasCallId = true;
            m_callId = makeString(value, valueLength);
        }
    } else if (equalsNoCase(name, nameLength, "CSeq")) {
        if (!m_hasCSeq) {
            m_hasCSeq = true;
            m_cseq = makeString(value, valueLength);
            // "number LWS method"; anything else leaves 0 and empty.
            unsigned int digits = 0;
            while (digits < valueLength && isDigit(value[digits]))
                ++digits;
            unsigned int at = digits;
            while (at < valueLength && isBlank(value[at]))
                ++at;
            unsigned long number = 0;
            if (at > digits && readNumber(value, digits, 0x7FFFFFFFUL + 1, number) && number <= 0x7FFFFFFFUL &&
                isToken(value + at, valueLength - at)) {
                m_cseqNumber = static_cast<unsigned int>(number);
                m_cseqMethod = makeString(value + at, valueLength - at);
            }
        }
    } else if (equalsNoCase(name, nameLength, "Max-Forwards")) {
        unsigned long number = 0;
        if (!readNumber(value, valueLength, INT_MAX, number))
            return Error::BadHeader;
        if (m_maxForwards < 0)
            m_maxForwards = static_cast<int>(number);
    } else if (equalsNoCase(name, nameLength, "Content-Length") || equalsNoCase(name, nameLength, "l")) {
        unsigned long number = 0;
        if (!readNumber(value, valueLength, LONG_MAX, number)) {
            m_badContentLength = true;
            return Error::BadHeader;
        }
        if (m_contentLength < 0)
            m_contentLength = static_cast<long>(number);
    }
    return Error::None;
}

HvSipMessage::Error HvSipMessage::parse(const HvByteArray* data, unsigned int offset, unsigned int length)
{
    reset();
    if (!data || length == 0)
        return Error::Empty;
    data->clipWindow(offset, length);
    if (length == 0)
        return Error::Empty;
    try {
        HvByteArrayInputStream in(data, offset, length);
        if (HvStreamTokenizer::sDiscardWhite(in) == -1)
            return Error::Empty;

        // The start line (leading empty lines are skipped by the tokenizer,
        // as RFC 3261 section 7.5 asks of a stream reader).
        LineReader lines(in);
        lines.next();
        const char* text = lines.text();
        unsigned int textLength = lines.length();
        trim(text, textLength);
        if (textLength == 0 || std::memchr(text, '\0', textLength))
            return Error::BadStartLine;
        const char* firstSpace = static_cast<const char*>(std::memchr(text, ' ', textLength));
        if (!firstSpace)
            return Error::BadStartLine;
        unsigned int firstLength = static_cast<unsigned int>(firstSpace - text);
        if (firstLength == 7 && equalsNoCase(text, 4, "SIP/")) {
            // "SIP/2.0 NNN reason"
            if (!equalsNoCase(text, firstLength, "SIP/2.0"))
                return Error::BadStartLine;
            const char* code = firstSpace + 1;
            unsigned int rest = textLength - firstLength - 1;
            if (rest < 3 || !isDigit(code[0]) || !isDigit(code[1]) || !isDigit(code[2]) ||
                (rest > 3 && code[3] != ' '))
                return Error::BadStartLine;
            unsigned int status =
                static_cast<unsigned int>((code[0] - '0') * 100 + (code[1] - '0') * 10 + (code[2] - '0'));
            if (status < 100 || status > 699)
                return Error::BadStartLine;
            m_kind = Kind::Response;
            m_version = makeString(text, firstLength);
            m_statusCode = status;
            if (rest > 4)
                m_reason = makeString(code + 4, rest - 4);
        } else {
            // "METHOD SP Request-URI SP SIP/2.0", one space each.
            const char* uri = firstSpace + 1;
            const char* end = text + textLength;
            const char* secondSpace = static_cast<const char*>(std::memchr(uri, ' ', static_cast<size_t>(end - uri)));
            if (!secondSpace || secondSpace == uri)
                return Error::BadStartLine;
            const char* version = secondSpace + 1;
            unsigned int versionLength = static_cast<unsigned int>(end - version);
            if (!isToken(text, firstLength) || !equalsNoCase(version, versionLength, "SIP/2.0"))
                return Error::BadStartLine;
            for (const char* c = uri; c < secondSpace; ++c)
                if (static_cast<unsigned char>(*c) <= ' ')
                    return Error::BadStartLine;
            m_kind = Kind::Request;
            m_method = makeString(text, firstLength);
            m_requestUri = makeString(uri, static_cast<unsigned int>(secondSpace - uri));
            m_version = makeString(version, versionLength);
        }

        // Header lines up to the empty line.
        std::string folded;
        for (;;) {
            unsigned int before = in.available();
            if (before == 0)
                return Error::Truncated;
            if (HvStreamTokenizer::sIsEmptyLine(in)) {
                HvStreamTokenizer::sDiscardLine(in);
                break;
            }
            lines.next();
            const char* header = lines.text();
            unsigned int headerLength = lines.length();
            // A line that starts with a blank or a tab continues this one.
            bool isFolded = false;
            for (;;) {
                in.mark(1);
                int next = in.read();
                in.reset();
                if ((next != ' ' && next != '\t') || HvStreamTokenizer::sIsEmptyLine(in))
                    break;
                if (!isFolded)
                    folded.assign(header, headerLength);
                isFolded = true;
                lines.next();
                folded.push_back(' ');
                folded.append(lines.text(), lines.length());
            }
            if (isFolded) {
                header = folded.data();
                headerLength = static_cast<unsigned int>(folded.size());
            }
            if (in.available() >= before)
                return Error::BadHeader;
            Error error = readHeader(header, headerLength);
            if (error != Error::None)
                return error;
            // A last header line with no line end after it: the message
            // stops inside its headers.
            if (in.available() == 0)
                return Error::Truncated;
        }
        m_bodyOffset = length - in.available();
        if (m_contentLength >= 0 && static_cast<unsigned long>(m_contentLength) > in.available()) {
            m_badContentLength = true;
            return Error::Truncated;
        }
        return Error::None;
    } catch (...) {
        // The tokenizer throws on what it cannot read, and allocation may
        // fail on a huge line: either way the message is unreadable.
        return Error::BadHeader;
    }
}

bool HvSipMessage::sFindParameter(const char* text, unsigned int length, const char* name, unsigned int& valueStart,
                                  unsigned int& valueLength)
{
    valueStart = 0;
    valueLength = 0;
    if (!text || !name)
        return false;
    EnclosureTracker tracker;
    for (unsigned int i = 0; i < length; ++i) {
        if (tracker.enclosed(text, i, length))
            continue;
        const char c = text[i];
        if (c == ',') {
            return false;
        } else if (c == ';') {
            unsigned int start = i + 1;
            while (start < length && isBlank(text[start]))
                ++start;
            unsigned int end = start;
            while (end < length && isTokenChar(text[end]))
                ++end;
            unsigned int nameEnd = end;
            while (end < length && isBlank(text[end]))
                ++end;
            if (!equalsNoCase(text + start, nameEnd - start, name)) {
                i = end - 1;
                continue;
            }
            if (end < length && text[end] == '=') {
                unsigned int v = end + 1;
                while (v < length && isBlank(text[v]))
                    ++v;
                unsigned int e = v;
                if (e < length && text[e] == '"') {
                    // A quoted value is taken whole, quotes included.
                    ++e;
                    while (e < length && text[e] != '"') {
                        if (text[e] == '\\' && e + 1 < length)
                            ++e;
                        ++e;
                    }
                    if (e < length)
                        ++e;
                } else {
                    while (e < length && text[e] != ';' && text[e] != ',' && !isBlank(text[e]))
                        ++e;
                }
                valueStart = v;
                valueLength = e - v;
            }
            return true;
        }
    }
    return false;
}

HvString HvSipMessage::sGetParameter(const HvString& headerValue, const char* name)
{
    unsigned int start = 0;
    unsigned int count = 0;
    if (!sFindParameter(headerValue.c_str(), headerValue.length(), name, start, count))
        return HvString();
    return makeString(headerValue.c_str() + start, count);
}

bool HvSipMessage::sHasParameter(const HvString& headerValue, const char* name)
{
    unsigned int start = 0;
    unsigned int count = 0;
    return sFindParameter(headerValue.c_str(), headerValue.length(), name, start, count);
}

HvString HvSipMessage::sGetViaHost(const HvString& via)
{
    ViaParts parts;
    if (!splitVia(via.c_str(), via.length(), parts))
        return HvString();
    return makeString(parts.host, parts.hostLength);
}

unsigned int HvSipMessage::sGetViaPort(const HvString& via)
{
    ViaParts parts;
    unsigned long port = 0;
    if (!splitVia(via.c_str(), via.length(), parts) || !readNumber(parts.port, parts.portLength, 65536, port) ||
        port > 65535)
        return 0;
    return static_cast<unsigned int>(port);
}

HvString HvSipMessage::sGetViaTransport(const HvString& via)
{
    ViaParts parts;
    if (!splitVia(via.c_str(), via.length(), parts))
        return HvString();
    return makeString(parts.transport, parts.transportLength).toUpper();
}

bool HvSipMessage::sIsViaReadable(const HvString& via)
{
    ViaParts parts;
    if (!splitVia(via.c_str(), via.length(), parts))
        return false;
    if (parts.port == nullptr)
        return true;
    unsigned long port = 0;
    return readNumber(parts.port, parts.portLength, 65536, port) && port >= 1 && port <= 65535;
}
