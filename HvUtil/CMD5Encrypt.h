// The MD5 message digest of RFC 1321, laid out as the RFC's reference code:
// a context record and the init, update and final steps over 64-byte blocks.
#ifndef HVUTIL_CMD5ENCRYPT_H
#define HVUTIL_CMD5ENCRYPT_H

#include <cstdint>

class CMD5Encrypt {
public:
    typedef std::uint32_t UINT4;

    // The running state of one digest: four 32-bit words, the bit count
    // modulo 2^64 (low word first) and the input not yet transformed.
    struct MD5_CTX {
        UINT4 state[4];
        UINT4 count[2];
        unsigned char buffer[64];
    };

    // Starts a new digest in the context.
    static void MD5Init(MD5_CTX* context);
    // Adds inputLen bytes; whole 64-byte blocks are transformed at once.
    static void MD5Update(MD5_CTX* context, const unsigned char* input, unsigned int inputLen);
    // Pads, writes the 16-byte digest and clears the context.
    static void MD5Final(unsigned char digest[16], MD5_CTX* context);

private:
    // One 64-byte block into the state.
    static void MD5Transform(UINT4 state[4], const unsigned char block[64]);
    // Words to bytes and back, least significant byte first.
    static void Encode(unsigned char* output, const UINT4* input, unsigned int len);
    static void Decode(UINT4* output, const unsigned char* input, unsigned int len);
    static void MD5_memcpy(unsigned char* output, const unsigned char* input, unsigned int len);
    static void MD5_memset(unsigned char* output, int value, unsigned int len);
};

#endif
