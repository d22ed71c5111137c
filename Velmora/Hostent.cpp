#include <Velmora/Hostent.h>

namespace Velmora {

const char* Hostent::getGetHostByNameStatusString(GetHostByNameStatus status)
{
    switch (status) {
    case GHBN_SUCCESS:
        return "success";
    case GHBN_HOST_NOT_FOUND:
        return "host not found";
    case GHBN_NO_DATA:
        return "no address for host";
    case GHBN_TRY_AGAIN:
        return "temporary failure, try again";
    case GHBN_TIMEOUT:
        return "look-up timed out";
    case GHBN_FAILURE:
        return "look-up failed";
    }
    return "unknown status";
}

} // namespace Velmora
