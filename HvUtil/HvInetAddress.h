// An IPv4 host address, held in network byte order and copied by value. It
// turns host names and dotted quads into addresses (names through the
// resolver, with a time-out), gives them back as text or as a host name, and
// knows the local host. Zero means no address, or any address when binding.
#ifndef HVUTIL_HVINETADDRESS_H
#define HVUTIL_HVINETADDRESS_H

#include <HvUtil/HvString.h>

#include <cstddef>

struct hostent;

class HvInetAddress {
public:
    // The zero address.
    HvInetAddress() : m_Address(0) {}

    // Resolves `host`: "localhost" (and "127.0.0.1" when the environment
    // variable VELMORA_DISABLE_BUG588FIX is non-empty) is the host's own
    // address; a text that starts with a digit and parses as a dotted quad is
    // that address; anything else goes to the resolver, which may take up to
    // `timeoutMs` milliseconds. Throws HvGhbnError "getHostByName failed on
    // host <host>" when the resolver fails, and what sGetLocalHost() throws.
    HvInetAddress(const char* host, int timeoutMs);

    // Parses a dotted quad with inet_addr() and stores the result whatever it
    // is. Returns false when the result is 0xFFFFFFFF, which includes the
    // text 255.255.255.255: that return means "not an address".
    bool initFromAddress(const char* text);

    // The dotted-quad text of the address, in the system's static buffer:
    // valid until the next such call on any thread, so copy it at once.
    // Throws HvSocketError "getHostAddress" when no text can be produced.
    const char* getHostAddress() const;

    // The official host name of the address, by reverse look-up. Throws
    // HvSocketError "HvInetAddress::HvInetAddress() - gethostbyaddress_r"
    // when the look-up fails.
    HvString getHostName() const;

    // Not implemented: always throws HvException "Not yet implemented".
    bool isMulticastAddress() const;

    // The address of the local host: gethostname(), then the resolving
    // constructor with `timeoutMs`. Throws HvSocketError "gethostname" when
    // the host has no name to give.
    static HvInetAddress sGetLocalHost(int timeoutMs);

    unsigned int getAddress() const { return m_Address; }
    void setAddress(unsigned int address) { m_Address = address; }

    // Network byte order, as a socket address holds it.
    unsigned int m_Address;

    // Test only: the system calls behind sGetLocalHost() (gethostname) and
    // getHostName() (gethostbyaddr_r), with their signatures, so that tests
    // can give the host another name or make a reverse look-up fail, which a
    // test machine cannot be made to do on demand. Null means the system
    // call. Set them only while no other thread uses this class.
    using GetHostNameFunction = int (*)(char* name, std::size_t length);
    using GetHostByAddrFunction = int (*)(const void* address, unsigned int length, int type, struct hostent* result,
                                          char* buffer, std::size_t bufferLength, struct hostent** resultPointer,
                                          int* errorCode);
    static GetHostNameFunction sm_pfnGetHostName;
    static GetHostByAddrFunction sm_pfnGetHostByAddr;
};

#endif
