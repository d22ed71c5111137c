// Hexadecimal text of byte arrays. Encoding writes lower case; decoding reads
// only decimal digits and upper-case 'A' to 'F' correctly, so lower-case
// text does not read back. Bad digits give wrong bytes, never an error.
#ifndef HVUTIL_HVHEXENCODING_H
#define HVUTIL_HVHEXENCODING_H

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvString.h>

class HvHexEncoding {
public:
    // Two lower-case digits per byte ("%02x"): a buffer of capacity 2n + 1
    // and length 2n. An empty handle gives the empty string. Throws
    // std::bad_alloc when the buffer cannot be had.
    static HvString toHex(HvHandle<HvByteArray> bytes);

    // An array of half the text's length; each pair of characters gives one
    // byte, high digit first. A digit is its code minus '0' for '0' to '9',
    // else its code minus '7' (right for 'A' to 'F' only). A last, odd
    // character is ignored.
    static HvHandle<HvByteArray> fromHex(HvString text);
    // The same for a constant text (a literal, for one), so that it is never
    // taken for the one-byte form below.
    static HvHandle<HvByteArray> fromHex(const char* text) { return fromHex(HvString(text)); }

    // The byte of the first two characters, by the same digit rule. A text
    // of one character pairs it with its NUL; "" gives the byte of two NULs;
    // null gives 0.
    static unsigned char fromHex(char* text);
};

#endif
