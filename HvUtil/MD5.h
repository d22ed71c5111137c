// MD5 digests of byte arrays. An MD5 object holds the context record the
// digest runs in, so one object must not be used by two threads at once.
#ifndef HVUTIL_MD5_H
#define HVUTIL_MD5_H

#include <HvUtil/CMD5Encrypt.h>
#include <HvUtil/HvByteArray.h>

class MD5 {
public:
    // Length of a digest in bytes.
    static constexpr unsigned int MD5_LENGTH = 16;

    MD5();

    // A new 16-byte array holding the RFC 1321 digest of every byte of the
    // input; an empty handle is digested as no bytes. Throws std::bad_alloc
    // when the array cannot be had.
    HvHandle<HvByteArray> digest(HvHandle<HvByteArray> bytes);

private:
    CMD5Encrypt::MD5_CTX m_context;
};

#endif
