// Base64 text encoding with the standard alphabet and '=' padding, on the
// library's strings. Decoding is lenient: bad characters give wrong bytes,
// never an error.
#ifndef HVUTIL_BASE64_H
#define HVUTIL_BASE64_H

#include <HvUtil/HvString.h>

class Base64 {
public:
    // The 64 characters of the alphabet, A-Z a-z 0-9 + /, NUL-terminated.
    static const char cvt[65];

    // Encodes the bytes of a NUL-terminated text of n bytes: groups of four
    // characters, '=' padding, no line breaks. The buffer's length field is
    // 2n whatever the encoded length; the encoded text ends at its NUL, and
    // readers take it up to there. Empty for "" or null. Throws
    // std::bad_alloc when the buffer cannot be had.
    static HvString encode(const char* text);

    // Decodes a text of n characters into a buffer whose length field is n;
    // the decoded bytes are followed by a NUL. A third or fourth character
    // '=' ends decoding; a character outside the alphabet (the text's own
    // terminating NUL included, where a final group is short) counts as -1,
    // all bits set, without error. Nothing past the NUL is read. Null
    // decodes as "". Throws std::bad_alloc when the buffer cannot be had.
    static HvString decode(const char* text);

    // The character's position in the alphabet, or -1.
    static int find(unsigned char c);
};

#endif
