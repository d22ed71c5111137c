// Reading tokens from streams that support mark and reset.
#ifndef HVUTIL_HVSTREAMTOKENIZER_H
#define HVUTIL_HVSTREAMTOKENIZER_H

class HvInputStream;

class HvStreamTokenizer {
public:
    // Skips CR, blank, tab and LF; returns the next character (or -1 at the
    // end) without consuming it. Throws HvException "Can only tokenize
    // streams where mark supported" for a stream without mark.
    static int sDiscardWhite(HvInputStream& in);
    // Skips white space, then counts the characters before the first
    // delimiter or the end, without consuming them.
    static unsigned int sLookAhead(HvInputStream& in, const char* delimiters);
};

#endif
