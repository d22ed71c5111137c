#include <HvUtil/HvStreamTokenizer.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvInputStream.h>
#include <HvUtil/HvStringBuffer.h>

#include <Velmora/Logger.h>


static const char fs_ErrorCanNotMark[] = "Can only tokenize streams where mark supported";
static const char fs_ErrorFloatExpected[] = "floating-point value expected";
static const char fs_ErrorUnsignedExpected[] = "unsigned number expected";
static const char fs_ErrorNoQuote[] = "quote ( \" ) expected";

static Velmora::Logger& fileLogger()
{
    static Velmora::Logger& logger = Velmora::fileScopeLogger("HvStreamTokenizer");
    return logger;
}

namespace {

// Peeking without a limit: the largest unsigned value.
const unsigned int kNoLimit = 0xFFFFFFFF;
const char kLineDelimiters[] = "\r\n";

bool isWhite(int c)
{
    return c == '\r' || c == ' ' || c == '\t' || c == '\n';
}

// A plain walk of the set rather than strchr: the sets are a few characters
// long and this runs once per byte read, where a library call costs more than
// the comparisons. Neither the end of stream nor a NUL data byte may match
// (strchr would match them against a 0xFF delimiter and the set's own
// terminator).
inline bool isDelimiter(int c, const char* delimiters)
{
    if (c <= 0 || !delimiters)
        return false;
    for (const char* d = delimiters; *d; ++d)
        if (static_cast<unsigned char>(*d) == static_cast<unsigned int>(c))
            return true;
    return false;
}

bool isDigit(int c)
{
    return c >= '0' && c <= '9';
}

// Only some loops stop at a value whose low byte is 255: the end of the
// stream (-1) and a 0xFF data byte alike. Callers rely on exactly those.
bool isLowByte255(int c)
{
    return (c & 0xFF) == 0xFF;
}

void requireMark(HvInputStream& in)
{
    if (!in.markSupported())
        HvException::sThrow(fs_ErrorCanNotMark);
}

// The end of a line whose text has been read: CR LF, LF or the end of the
// stream. The character after a lone CR is consumed all the same; readers
// of SIP messages have always lost it, so it stays that way.
void discardLineEnd(HvInputStream& in)
{
    int c = in.read();
    if (c != '\r')
        return;
    if (in.read() == '\n')
        return;
    Velmora::Logger& logger = fileLogger();
    if (logger.isEnabledFor(Velmora::Logger::DEBUG))
        logger.log(Velmora::Logger::DEBUG,
                   "HvStreamTokenizer::sGetLine: Missing newline character at the end of a line in SIP message, "
                   "ignoring",
                   "HvStreamTokenizer", __LINE__);
}

} // namespace

int HvStreamTokenizer::sDiscardLine(HvInputStream& in)
{
    int c;
    do {
        c = in.read();
    } while (c != '\n' && !isLowByte255(c));
    return c;
}

int HvStreamTokenizer::sDiscardWhite(HvInputStream& in)
{
    requireMark(in);
    for (;;) {
        in.mark(1);
        int c = in.read();
        if (!isWhite(c)) {
            in.reset();
            return c;
        }
    }
}

bool HvStreamTokenizer::sPeekToken(HvInputStream& in, const char* delimiters, char* buffer, unsigned int size)
{
    requireMark(in);
    in.mark(kNoLimit);
    int c = in.read();
    while (isWhite(c))
        c = in.read();
    bool ended = false;
    unsigned int count = 0;
    while (count < size) {
        if (isDelimiter(c, delimiters)) {
            buffer[count] = '\0';
            ended = true;
            break;
        }
        if (isLowByte255(c))
            break;
        buffer[count++] = static_cast<char>(c);
        c = in.read();
    }
    in.reset();
    return ended;
}

unsigned int HvStreamTokenizer::sLookAhead(HvInputStream& in, const char* delimiters)
{
    sDiscardWhite(in);
    in.mark(kNoLimit);
    unsigned int count = 0;
    for (int c = in.read(); c != -1 && !isDelimiter(c, delimiters); c = in.read())
        ++count;
    in.reset();
    return count;
}

bool HvStreamTokenizer::sGetToken(HvInputStream& in, const char* delimiters, char* buffer, unsigned int size)
{
    unsigned int n = sLookAhead(in, delimiters);
    if (size < n) {
        in.read(buffer, size, 0);
        return false;
    }
    if (n > 0) {
        int got = in.read(buffer, n, 0);
        unsigned int stored = got > 0 ? static_cast<unsigned int>(got) : 0;
        if (stored < size)
            buffer[stored] = '\0';
    } else if (size > 0) {
        // An empty token in a buffer of no room stores nothing at all.
        buffer[0] = '\0';
    }
    return true;
}

unsigned int HvStreamTokenizer::sGetUnsigned(HvInputStream& in)
{
    sDiscardWhite(in);
    unsigned int value = 0;
    bool digits = false;
    for (;;) {
        in.mark(1);
        int c = in.read();
        if (!isDigit(c))
            break;
        // Wraps modulo 2^32 without a check; callers bound their numbers.
        value = value * 10u + static_cast<unsigned int>(c - '0');
        digits = true;
    }
    in.reset();
    if (!digits)
        HvException::sThrow(fs_ErrorUnsignedExpected);
    return value;
}

double HvStreamTokenizer::sGetDouble(HvInputStream& in)
{
    sDiscardWhite(in);
    double integer = 0.0;
    double fraction = 0.0;
    double scale = 1.0;
    bool point = false;
    bool digits = false;
    for (;;) {
        in.mark(kNoLimit);
        int c = in.read();
        if (isDigit(c)) {
            digits = true;
            if (point) {
                scale *= 10.0;
                fraction += (c - '0') / scale;
            } else {
                integer = integer * 10.0 + (c - '0');
            }
        } else if (c == '.') {
            if (point)
                HvException::sThrow(fs_ErrorFloatExpected);
            point = true;
        } else {
            in.reset();
            break;
        }
    }
    if (!digits)
        HvException::sThrow(fs_ErrorFloatExpected);
    return integer + fraction;
}

HvString HvStreamTokenizer::sGetQuote(HvInputStream& in)
{
    sDiscardWhite(in);
    in.mark(kNoLimit);
    if (in.read() != '"')
        HvException::sThrow(fs_ErrorNoQuote);
    unsigned int count = 1;
    for (;;) {
        int c = in.read();
        if (c == -1)
            HvException::sThrow(fs_ErrorNoQuote);
        ++count;
        if (c == '"')
            break;
        if (c == '\\') {
            // The escaped character never ends the string, whatever it is.
            if (in.read() == -1)
                HvException::sThrow(fs_ErrorNoQuote);
            ++count;
        }
    }
    in.reset();
    return HvStringBuffer::sRead(nullptr, in, count);
}

bool HvStreamTokenizer::sIsEmptyLine(HvInputStream& in)
{
    requireMark(in);
    in.mark(kNoLimit);
    int c = in.read();
    while (c == ' ' || c == '\t' || c == '\r')
        c = in.read();
    in.reset();
    return c == '\n';
}

HvString HvStreamTokenizer::sGetLine(HvInputStream& in)
{
    HvString line(HvStringBuffer::sParse(nullptr, in, kLineDelimiters));
    discardLineEnd(in);
    return line;
}

bool HvStreamTokenizer::sGetLine(HvInputStream& in, char* buffer, unsigned int size)
{
    if (!sGetToken(in, kLineDelimiters, buffer, size))
        return false;
    discardLineEnd(in);
    return true;
}
