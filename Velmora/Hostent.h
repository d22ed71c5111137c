// Result record of a host-name look-up and the status codes of the resolver.
#ifndef VELMORA_HOSTENT_H
#define VELMORA_HOSTENT_H

#include <string>
#include <vector>

namespace Velmora {

class Hostent {
public:
    enum GetHostByNameStatus {
        GHBN_SUCCESS = 0,
        GHBN_HOST_NOT_FOUND,
        GHBN_NO_DATA,
        GHBN_TRY_AGAIN,
        GHBN_TIMEOUT,
        GHBN_FAILURE
    };

    // Fixed text of a status; "unknown status" for a value outside the enumeration.
    static const char* getGetHostByNameStatusString(GetHostByNameStatus status);

    std::string officialName;
    // IPv4 addresses in network byte order.
    std::vector<unsigned int> addresses;
};

} // namespace Velmora

#endif
