// Reading lexical items (white space, delimited tokens, numbers, quoted
// strings, lines) from an HvInputStream. There is no state: to look ahead the
// functions mark the stream, read, and reset, so all but sDiscardLine need a
// stream whose markSupported() is true; on any other they throw HvException
// "Can only tokenize streams where mark supported".
#ifndef HVUTIL_HVSTREAMTOKENIZER_H
#define HVUTIL_HVSTREAMTOKENIZER_H

#include <HvUtil/HvString.h>

class HvInputStream;

class HvStreamTokenizer {
public:
    // Reads through the next LF, or until a value whose low byte is 255 (the
    // end of the stream, or a 0xFF data byte); returns the last value read.
    // Needs no mark support.
    static int sDiscardLine(HvInputStream& in);

    // Skips CR, blank, tab and LF; returns the next character (or -1 at the
    // end) without consuming it.
    static int sDiscardWhite(HvInputStream& in);

    // Copies the next token (leading white space dropped, up to a delimiter,
    // a value with low byte 255, or `size` characters) into buffer and NUL-
    // terminates it; consumes nothing, not even the white space. True only
    // when a delimiter ended the token with room left for the terminator.
    static bool sPeekToken(HvInputStream& in, const char* delimiters, char* buffer, unsigned int size);

    // Skips (consumes) white space, then counts the characters before the
    // first delimiter or the end, without consuming them.
    static unsigned int sLookAhead(HvInputStream& in, const char* delimiters);

    // Skips white space and consumes the next token into buffer; the
    // delimiter stays in the stream. A token longer than `size` is consumed
    // as its first `size` characters, unterminated, and gives false. A token
    // of exactly `size` characters is stored without a terminator (callers
    // size their buffers one larger).
    static bool sGetToken(HvInputStream& in, const char* delimiters, char* buffer, unsigned int size);

    // Skips white space and reads decimal digits (no sign; wraps modulo
    // 2^32); the first non-digit stays in the stream.
    // Throws HvException "unsigned number expected" when there is no digit.
    static unsigned int sGetUnsigned(HvInputStream& in);

    // Skips white space and reads digits with at most one '.' (no sign, no
    // exponent); the first other character stays in the stream.
    // Throws HvException "floating-point value expected" when there is no
    // digit or there is a second '.'.
    static double sGetDouble(HvInputStream& in);

    // Skips white space and reads a double-quoted string; a backslash takes
    // the next character with it. The result keeps both quotes and every
    // backslash. Throws HvException "quote ( \" ) expected" when the next
    // character is not a double quote or the stream ends inside the string.
    static HvString sGetQuote(HvInputStream& in);

    // True when the rest of the current line is only blanks, tabs and CRs
    // before an LF. Consumes nothing.
    static bool sIsEmptyLine(HvInputStream& in);

    // Reads a line (through HvStringBuffer::parse with "\r\n", so leading
    // white space is skipped) and its end: CR LF, LF, or the end of the
    // stream. A CR followed by anything but LF is logged at debug level and
    // the character after it is consumed.
    static HvString sGetLine(HvInputStream& in);

    // As sGetToken(in, "\r\n", buffer, size), then the line end as above.
    // False (and no line end consumed) when the line does not fit.
    static bool sGetLine(HvInputStream& in, char* buffer, unsigned int size);
};

#endif
