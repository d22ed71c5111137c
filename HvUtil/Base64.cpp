#include <HvUtil/Base64.h>

#include <cstdint>
#include <cstring>
#include <new>

namespace {

// The alphabet as a constant expression: the tables below are built at
// compile time, and only GCC lets a constant expression read the exported
// array itself (clang refuses, so the library would not build with it).
constexpr char kAlphabet[65] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

} // namespace

const char Base64::cvt[65] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

namespace {

// Position of every byte value in the alphabet, -1 for the others.
struct ReverseAlphabet {
    signed char position[256];

    constexpr ReverseAlphabet() : position()
    {
        for (int c = 0; c < 256; ++c)
            position[c] = -1;
        for (int i = 0; i < 64; ++i)
            position[static_cast<unsigned char>(kAlphabet[i])] = static_cast<signed char>(i);
    }
};

constexpr ReverseAlphabet fs_reverse;

// The two characters of every 12-bit half of a three-byte group, so that a
// group takes two lookups instead of four.
struct CharacterPairs {
    char pair[4096][2];

    constexpr CharacterPairs() : pair()
    {
        for (int v = 0; v < 4096; ++v) {
            pair[v][0] = kAlphabet[v >> 6];
            pair[v][1] = kAlphabet[v & 0x3F];
        }
    }
};

constexpr CharacterPairs fs_pairs;

// Each character's six bits already in their place in a 24-bit group, one
// table per place; a foreign character sets bit 24, so one test of the
// merged group finds any of them.
struct PlacedBits {
    std::uint32_t place[4][256];

    constexpr PlacedBits() : place()
    {
        for (int c = 0; c < 256; ++c) {
            int v = fs_reverse.position[c];
            for (int k = 0; k < 4; ++k)
                place[k][c] = v < 0 ? 0x1000000u : static_cast<std::uint32_t>(v) << (18 - 6 * k);
        }
    }
};

constexpr PlacedBits fs_placed;

// A lookup as the bits merged into the output: -1 becomes all ones.
inline std::uint32_t bitsOf(unsigned char c)
{
    return static_cast<std::uint32_t>(static_cast<std::int32_t>(fs_reverse.position[c]));
}

// A word as its bytes stand in memory on a big-endian machine.
inline std::uint64_t bigEndian(std::uint64_t word)
{
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    return __builtin_bswap64(word);
#else
    return word;
#endif
}

inline std::uint32_t bigEndian32(std::uint32_t word)
{
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    return __builtin_bswap32(word);
#else
    return word;
#endif
}

// The largest n for which the length fields and capacities below stay
// representable.
const std::size_t kLargestInput = 0x7FFFFFFEu;

} // namespace

int Base64::find(unsigned char c)
{
    return fs_reverse.position[c];
}

HvString Base64::encode(const char* text)
{
    if (!text)
        return HvString();
    std::size_t n = std::strlen(text);
    if (n == 0)
        return HvString();
    if (n > kLargestInput)
        throw std::bad_alloc();
    unsigned int length = static_cast<unsigned int>(2 * n);
    unsigned int encoded = static_cast<unsigned int>(4 * ((n + 2) / 3));
    // The length field stays 2n as callers expect; the capacity also covers
    // the four characters and NUL that one or two input bytes encode to.
    unsigned int capacity = (encoded > length ? encoded : length) + 1;
    HvStringBuffer* buffer = HvStringBuffer::sCreate(nullptr, length, capacity);
    char* out = HvStringBuffer::sLockBuffer(buffer, capacity);

    const unsigned char* in = reinterpret_cast<const unsigned char*>(text);
    const unsigned char* end = in + n;
    // Two groups at a time from one eight-byte load (of which six bytes are
    // used), while eight bytes remain.
    while (end - in >= 8) {
        std::uint64_t word;
        std::memcpy(&word, in, 8);
        word = bigEndian(word);
        std::memcpy(out, fs_pairs.pair[(word >> 52) & 0xFFF], 2);
        std::memcpy(out + 2, fs_pairs.pair[(word >> 40) & 0xFFF], 2);
        std::memcpy(out + 4, fs_pairs.pair[(word >> 28) & 0xFFF], 2);
        std::memcpy(out + 6, fs_pairs.pair[(word >> 16) & 0xFFF], 2);
        in += 6;
        out += 8;
    }
    while (end - in >= 3) {
        std::uint32_t v = (static_cast<std::uint32_t>(in[0]) << 16) | (static_cast<std::uint32_t>(in[1]) << 8) | in[2];
        std::memcpy(out, fs_pairs.pair[v >> 12], 2);
        std::memcpy(out + 2, fs_pairs.pair[v & 0xFFF], 2);
        in += 3;
        out += 4;
    }
    if (end - in == 2) {
        std::uint32_t v = (static_cast<std::uint32_t>(in[0]) << 16) | (static_cast<std::uint32_t>(in[1]) << 8);
        out[0] = cvt[v >> 18];
        out[1] = cvt[(v >> 12) & 0x3F];
        out[2] = cvt[(v >> 6) & 0x3F];
        out[3] = '=';
        out += 4;
    } else if (end - in == 1) {
        std::uint32_t v = static_cast<std::uint32_t>(in[0]) << 16;
        out[0] = cvt[v >> 18];
        out[1] = cvt[(v >> 12) & 0x3F];
        out[2] = '=';
        out[3] = '=';
        out += 4;
    }
    // The NUL ends the text; the rest up to the length field is zeroed so
    // that a reader going by the length sees no stale bytes.
    std::memset(out, 0, (length > encoded ? length - encoded : 0) + 1);
    buffer->releaseBuffer(length);
    return buffer;
}

HvString Base64::decode(const char* text)
{
    if (!text)
        text = "";
    std::size_t n = std::strlen(text);
    if (n > kLargestInput)
        throw std::bad_alloc();
    unsigned int length = static_cast<unsigned int>(n);
    HvStringBuffer* buffer = HvStringBuffer::sCreate(nullptr, length, length + 1);
    unsigned char* out = reinterpret_cast<unsigned char*>(HvStringBuffer::sLockBuffer(buffer, length + 1));

    const unsigned char* in = reinterpret_cast<const unsigned char*>(text);
    std::size_t i = 0;
    std::size_t j = 0;
    // Whole groups of alphabet characters, the common case.
    while (i + 4 <= n) {
        std::uint32_t v = fs_placed.place[0][in[i]] | fs_placed.place[1][in[i + 1]] | fs_placed.place[2][in[i + 2]] |
                          fs_placed.place[3][in[i + 3]];
        if (v >> 24)
            break;
        // One four-byte store of which three count; the fourth (a zero) is
        // overwritten by the next group or the closing NULs.
        std::uint32_t word = bigEndian32(v << 8);
        std::memcpy(out + j, &word, 4);
        i += 4;
        j += 3;
    }
    // From the first group with padding or a foreign character on. A short
    // final group reads the text's NUL as one more foreign character and
    // stops there, so nothing past the text is read and at most one byte is
    // written per character read: the n + 1 bytes always suffice.
    while (i < n) {
        std::uint32_t c1 = bitsOf(in[i]);
        std::uint32_t c2 = bitsOf(in[i + 1]);
        out[j++] = static_cast<unsigned char>((c1 << 2) | (c2 >> 4));
        if (i + 1 >= n || in[i + 2] == '=')
            break;
        std::uint32_t c3 = bitsOf(in[i + 2]);
        out[j++] = static_cast<unsigned char>((c2 << 4) | (c3 >> 2));
        if (i + 2 >= n || in[i + 3] == '=')
            break;
        std::uint32_t c4 = bitsOf(in[i + 3]);
        out[j++] = static_cast<unsigned char>((c3 << 6) | c4);
        i += 4;
    }
    // NUL after the bytes, and zeros up to the length field's NUL.
    std::memset(out + j, 0, n - j + 1);
    buffer->releaseBuffer(length);
    return buffer;
}
