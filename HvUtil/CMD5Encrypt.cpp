#include <HvUtil/CMD5Encrypt.h>

#include <cstring>

namespace {

// Rotation amounts of the four rounds.
const int S11 = 7;
const int S12 = 12;
const int S13 = 17;
const int S14 = 22;
const int S21 = 5;
const int S22 = 9;
const int S23 = 14;
const int S24 = 20;
const int S31 = 4;
const int S32 = 11;
const int S33 = 16;
const int S34 = 23;
const int S41 = 6;
const int S42 = 10;
const int S43 = 15;
const int S44 = 21;

// The end of every message: 0x80 and zeros.
const unsigned char PADDING[64] = {0x80};

typedef CMD5Encrypt::UINT4 UINT4;

// The basic functions F, H and I; F in a form that needs one operation less
// than the RFC's text (same results). G is taken apart inside GG.
inline UINT4 F(UINT4 x, UINT4 y, UINT4 z)
{
    return z ^ (x & (y ^ z));
}

inline UINT4 H(UINT4 x, UINT4 y, UINT4 z)
{
    return x ^ y ^ z;
}

inline UINT4 I(UINT4 x, UINT4 y, UINT4 z)
{
    return y ^ (x | ~z);
}

inline UINT4 ROTATE_LEFT(UINT4 x, int n)
{
    return (x << n) | (x >> (32 - n));
}

// The steps of rounds 1 to 4.
inline void FF(UINT4& a, UINT4 b, UINT4 c, UINT4 d, UINT4 x, int s, UINT4 ac)
{
    a = ROTATE_LEFT(a + F(b, c, d) + x + ac, s) + b;
}

inline void GG(UINT4& a, UINT4 b, UINT4 c, UINT4 d, UINT4 x, int s, UINT4 ac)
{
    // G(b, c, d) = (b & d) | (c & ~d): the two terms share no bits, so they
    // may be added one by one, and the one without b does not wait for the
    // previous step.
    a += x + ac + (c & ~d);
    a += b & d;
    a = ROTATE_LEFT(a, s) + b;
}

inline void HH(UINT4& a, UINT4 b, UINT4 c, UINT4 d, UINT4 x, int s, UINT4 ac)
{
    a = ROTATE_LEFT(a + H(b, c, d) + x + ac, s) + b;
}

inline void II(UINT4& a, UINT4 b, UINT4 c, UINT4 d, UINT4 x, int s, UINT4 ac)
{
    a = ROTATE_LEFT(a + I(b, c, d) + x + ac, s) + b;
}

} // namespace

void CMD5Encrypt::MD5Init(MD5_CTX* context)
{
    context->count[0] = context->count[1] = 0;
    context->state[0] = 0x67452301;
    context->state[1] = 0xefcdab89;
    context->state[2] = 0x98badcfe;
    context->state[3] = 0x10325476;
}

void CMD5Encrypt::MD5Update(MD5_CTX* context, const unsigned char* input, unsigned int inputLen)
{
    // Bytes already waiting in the buffer.
    unsigned int index = (context->count[0] >> 3) & 0x3F;

    // The bit count, carried into the high word.
    if ((context->count[0] += (static_cast<UINT4>(inputLen) << 3)) < (static_cast<UINT4>(inputLen) << 3))
        context->count[1]++;
    context->count[1] += (static_cast<UINT4>(inputLen) >> 29);

    unsigned int partLen = 64 - index;
    unsigned int i;
    if (inputLen >= partLen) {
        MD5_memcpy(&context->buffer[index], input, partLen);
        MD5Transform(context->state, context->buffer);
        // Whole blocks straight from the input, without copying.
        for (i = partLen; i + 63 < inputLen; i += 64)
            MD5Transform(context->state, &input[i]);
        index = 0;
    } else {
        i = 0;
    }
    MD5_memcpy(&context->buffer[index], &input[i], inputLen - i);
}

void CMD5Encrypt::MD5Final(unsigned char digest[16], MD5_CTX* context)
{
    unsigned char bits[8];
    Encode(bits, context->count, 8);

    // Pads to 56 bytes modulo 64, then adds the length before padding.
    unsigned int index = (context->count[0] >> 3) & 0x3F;
    unsigned int padLen = (index < 56) ? (56 - index) : (120 - index);
    MD5Update(context, PADDING, padLen);
    MD5Update(context, bits, 8);

    Encode(digest, context->state, 16);

    // Nothing of the message stays behind in the context.
    MD5_memset(reinterpret_cast<unsigned char*>(context), 0, sizeof(*context));
}

void CMD5Encrypt::MD5Transform(UINT4 state[4], const unsigned char block[64])
{
    UINT4 a = state[0];
    UINT4 b = state[1];
    UINT4 c = state[2];
    UINT4 d = state[3];
    UINT4 x[16];

    Decode(x, block, 64);

    // Round 1
    FF(a, b, c, d, x[0], S11, 0xd76aa478); /* 1 */
    FF(d, a, b, c, x[1], S12, 0xe8c7b756); /* 2 */
    FF(c, d, a, b, x[2], S13, 0x242070db); /* 3 */
    FF(b, c, d, a, x[3], S14, 0xc1bdceee); /* 4 */
    FF(a, b, c, d, x[4], S11, 0xf57c0faf); /* 5 */
    FF(d, a, b, c, x[5], S12, 0x4787c62a); /* 6 */
    FF(c, d, a, b, x[6], S13, 0xa8304613); /* 7 */
    FF(b, c, d, a, x[7], S14, 0xfd469501); /* 8 */
    FF(a, b, c, d, x[8], S11, 0x698098d8); /* 9 */
    FF(d, a, b, c, x[9], S12, 0x8b44f7af); /* 10 */
    FF(c, d, a, b, x[10], S13, 0xffff5bb1); /* 11 */
    FF(b, c, d, a, x[11], S14, 0x895cd7be); /* 12 */
    FF(a, b, c, d, x[12], S11, 0x6b901122); /* 13 */
    FF(d, a, b, c, x[13], S12, 0xfd987193); /* 14 */
    FF(c, d, a, b, x[14], S13, 0xa679438e); /* 15 */
    FF(b, c, d, a, x[15], S14, 0x49b40821); /* 16 */

    // Round 2
    GG(a, b, c, d, x[1], S21, 0xf61e2562); /* 17 */
    GG(d, a, b, c, x[6], S22, 0xc040b340); /* 18 */
    GG(c, d, a, b, x[11], S23, 0x265e5a51); /* 19 */
    GG(b, c, d, a, x[0], S24, 0xe9b6c7aa); /* 20 */
    GG(a, b, c, d, x[5], S21, 0xd62f105d); /* 21 */
    GG(d, a, b, c, x[10], S22, 0x02441453); /* 22 */
    GG(c, d, a, b, x[15], S23, 0xd8a1e681); /* 23 */
    GG(b, c, d, a, x[4], S24, 0xe7d3fbc8); /* 24 */
    GG(a, b, c, d, x[9], S21, 0x21e1cde6); /* 25 */
    GG(d, a, b, c, x[14], S22, 0xc33707d6); /* 26 */
    GG(c, d, a, b, x[3], S23, 0xf4d50d87); /* 27 */
    GG(b, c, d, a, x[8], S24, 0x455a14ed); /* 28 */
    GG(a, b, c, d, x[13], S21, 0xa9e3e905); /* 29 */
    GG(d, a, b, c, x[2], S22, 0xfcefa3f8); /* 30 */
    GG(c, d, a, b, x[7], S23, 0x676f02d9); /* 31 */
    GG(b, c, d, a, x[12], S24, 0x8d2a4c8a); /* 32 */

    // Round 3
    HH(a, b, c, d, x[5], S31, 0xfffa3942); /* 33 */
    HH(d, a, b, c, x[8], S32, 0x8771f681); /* 34 */
    HH(c, d, a, b, x[11], S33, 0x6d9d6122); /* 35 */
    HH(b, c, d, a, x[14], S34, 0xfde5380c); /* 36 */
    HH(a, b, c, d, x[1], S31, 0xa4beea44); /* 37 */
    HH(d, a, b, c, x[4], S32, 0x4bdecfa9); /* 38 */
    HH(c, d, a, b, x[7], S33, 0xf6bb4b60); /* 39 */
    HH(b, c, d, a, x[10], S34, 0xbebfbc70); /* 40 */
    HH(a, b, c, d, x[13], S31, 0x289b7ec6); /* 41 */
    HH(d, a, b, c, x[0], S32, 0xeaa127fa); /* 42 */
    HH(c, d, a, b, x[3], S33, 0xd4ef3085); /* 43 */
    HH(b, c, d, a, x[6], S34, 0x04881d05); /* 44 */
    HH(a, b, c, d, x[9], S31, 0xd9d4d039); /* 45 */
    HH(d, a, b, c, x[12], S32, 0xe6db99e5); /* 46 */
    HH(c, d, a, b, x[15], S33, 0x1fa27cf8); /* 47 */
    HH(b, c, d, a, x[2], S34, 0xc4ac5665); /* 48 */

    // Round 4
    II(a, b, c, d, x[0], S41, 0xf4292244); /* 49 */
    II(d, a, b, c, x[7], S42, 0x432aff97); /* 50 */
    II(c, d, a, b, x[14], S43, 0xab9423a7); /* 51 */
    II(b, c, d, a, x[5], S44, 0xfc93a039); /* 52 */
    II(a, b, c, d, x[12], S41, 0x655b59c3); /* 53 */
    II(d, a, b, c, x[3], S42, 0x8f0ccc92); /* 54 */
    II(c, d, a, b, x[10], S43, 0xffeff47d); /* 55 */
    II(b, c, d, a, x[1], S44, 0x85845dd1); /* 56 */
    II(a, b, c, d, x[8], S41, 0x6fa87e4f); /* 57 */
    II(d, a, b, c, x[15], S42, 0xfe2ce6e0); /* 58 */
    II(c, d, a, b, x[6], S43, 0xa3014314); /* 59 */
    II(b, c, d, a, x[13], S44, 0x4e0811a1); /* 60 */
    II(a, b, c, d, x[4], S41, 0xf7537e82); /* 61 */
    II(d, a, b, c, x[11], S42, 0xbd3af235); /* 62 */
    II(c, d, a, b, x[2], S43, 0x2ad7d2bb); /* 63 */
    II(b, c, d, a, x[9], S44, 0xeb86d391); /* 64 */

    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;

    // The block's words are not left on the stack.
    MD5_memset(reinterpret_cast<unsigned char*>(x), 0, sizeof(x));
}

void CMD5Encrypt::Encode(unsigned char* output, const UINT4* input, unsigned int len)
{
    for (unsigned int i = 0, j = 0; j < len; i++, j += 4) {
        output[j] = static_cast<unsigned char>(input[i] & 0xff);
        output[j + 1] = static_cast<unsigned char>((input[i] >> 8) & 0xff);
        output[j + 2] = static_cast<unsigned char>((input[i] >> 16) & 0xff);
        output[j + 3] = static_cast<unsigned char>((input[i] >> 24) & 0xff);
    }
}

void CMD5Encrypt::Decode(UINT4* output, const unsigned char* input, unsigned int len)
{
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    // The words are stored least significant byte first already.
    std::memcpy(output, input, len);
#else
    for (unsigned int i = 0, j = 0; j < len; i++, j += 4)
        output[i] = static_cast<UINT4>(input[j]) | (static_cast<UINT4>(input[j + 1]) << 8) |
                    (static_cast<UINT4>(input[j + 2]) << 16) | (static_cast<UINT4>(input[j + 3]) << 24);
#endif
}

void CMD5Encrypt::MD5_memcpy(unsigned char* output, const unsigned char* input, unsigned int len)
{
    if (len != 0)
        std::memcpy(output, input, len);
}

void CMD5Encrypt::MD5_memset(unsigned char* output, int value, unsigned int len)
{
    std::memset(output, value, len);
}
