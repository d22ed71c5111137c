// Base64 and HvHexEncoding on arbitrary bytes.
//
// Invariants:
// - Base64::decode of any text ends without fault, with a result no longer
//   than the text (three bytes per four characters at most).
// - Base64::encode gives groups of four alphabet characters, '=' only as
//   padding, 4 * ceil(n / 3) characters in all, and decode gives the n bytes
//   back. encode takes a NUL-terminated text, so the round trip covers the
//   input up to its first NUL: that is all the interface can carry.
// - HvHexEncoding::toHex gives two lower-case digits per byte, NULs and all.
//   fromHex reads only upper-case letter digits correctly (lower-case text
//   does not read back, by its contract), so the round trip goes through the
//   upper-case form of the text and must give every byte back.
// - fromHex of arbitrary text ends without fault with half its length in
//   bytes, each the byte of its pair of characters; the one-text form gives
//   the first pair's byte.
#include <HvUtil/Base64.h>
#include <HvUtil/HvHexEncoding.h>

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvStringBuffer.h>

#include "HvFuzzCheck.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace {

// The digit rule of fromHex: the code minus '0' for '0'-'9', else minus '7'.
unsigned char pairValue(unsigned char high, unsigned char low)
{
    auto digit = [](unsigned char c) { return c >= '0' && c <= '9' ? c - '0' : c - '7'; };
    return static_cast<unsigned char>(digit(high) * 16 + digit(low));
}

void checkBase64(const std::string& text)
{
    // text has no NUL: it was cut at the first one.
    const HvString decoded = Base64::decode(text.c_str());
    HV_FUZZ_CHECK(std::strlen(decoded.c_str()) <= text.size() / 4 * 3 + 3, "decoded longer than the text allows");

    const HvString encoded = Base64::encode(text.c_str());
    const std::string code(encoded.c_str());
    const std::size_t n = text.size();
    HV_FUZZ_CHECK(code.size() == (n + 2) / 3 * 4, std::to_string(n) + " bytes encoded as " + hvfuzz::quoted(code));
    const std::size_t padding = n % 3 == 0 ? 0 : 3 - n % 3;
    for (std::size_t i = 0; i < code.size(); ++i) {
        if (i >= code.size() - padding)
            HV_FUZZ_CHECK(code[i] == '=', "missing padding in " + hvfuzz::quoted(code));
        else
            HV_FUZZ_CHECK(Base64::find(static_cast<unsigned char>(code[i])) >= 0,
                          "non-alphabet character in " + hvfuzz::quoted(code));
    }
    const HvString back = Base64::decode(code.c_str());
    HV_FUZZ_CHECK(std::string(back.c_str()) == text,
                  hvfuzz::quoted(text) + " encoded " + hvfuzz::quoted(code) + " decoded " +
                      hvfuzz::quoted(back.c_str()));
}

void checkHex(const uint8_t* data, std::size_t size)
{
    HvHandle<HvByteArray> bytes = HvByteArray::sCreate(static_cast<unsigned int>(size), data);
    HvString hex = HvHexEncoding::toHex(bytes);
    HV_FUZZ_CHECK(hex.length() == 2 * size && std::strlen(hex.c_str()) == 2 * size, "hex length");
    static const char kLower[] = "0123456789abcdef";
    for (std::size_t i = 0; i < size; ++i)
        HV_FUZZ_CHECK(hex.c_str()[2 * i] == kLower[data[i] >> 4] && hex.c_str()[2 * i + 1] == kLower[data[i] & 15],
                      "hex of byte " + std::to_string(i) + " in " + hvfuzz::quoted(hex.c_str()));
    HvString upper = hex;
    upper.toUpper();
    HvHandle<HvByteArray> back = HvHexEncoding::fromHex(upper);
    HV_FUZZ_CHECK(!back.isNull() && back->getSize() == size &&
                      (size == 0 || std::memcmp(back->getData(), data, size) == 0),
                  "upper-case hex " + hvfuzz::quoted(upper.c_str()) + " does not read back");

    // The input as text, NULs included: the string's length says where it ends.
    HvString text;
    if (size != 0)
        text = HvStringBuffer::sCreate(reinterpret_cast<const char*>(data), static_cast<unsigned int>(size), 0);
    HvHandle<HvByteArray> decoded = HvHexEncoding::fromHex(text);
    HV_FUZZ_CHECK(!decoded.isNull() && decoded->getSize() == text.length() / 2, "fromHex size");
    for (std::size_t i = 0; i < decoded->getSize(); ++i)
        HV_FUZZ_CHECK(decoded->getData()[i] == pairValue(data[2 * i], data[2 * i + 1]),
                      "fromHex byte " + std::to_string(i));

    std::string cut(reinterpret_cast<const char*>(data), strnlen(reinterpret_cast<const char*>(data), size));
    const unsigned char first = HvHexEncoding::fromHex(&cut[0]);
    const unsigned char high = cut.empty() ? 0 : static_cast<unsigned char>(cut[0]);
    const unsigned char low = cut.size() < 2 ? 0 : static_cast<unsigned char>(cut[1]);
    HV_FUZZ_CHECK(first == pairValue(high, low), "fromHex(char*) of " + hvfuzz::quoted(cut));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    checkBase64(std::string(reinterpret_cast<const char*>(data), strnlen(reinterpret_cast<const char*>(data), size)));
    checkHex(data, size);
    return 0;
}
