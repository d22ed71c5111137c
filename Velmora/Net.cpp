#include <Velmora/Net.h>
#include <Velmora/Logger.h>

#include <ares.h>

#include <mutex>
#include <string>

namespace Velmora {
namespace Net {

namespace {

std::mutex& netMutex()
{
    static std::mutex* mutex = new std::mutex;
    return *mutex;
}

int fs_count = 0;

} // namespace

bool initializeLibrary()
{
    std::lock_guard<std::mutex> lock(netMutex());
    if (fs_count == 0) {
        int status = ares_library_init(ARES_LIB_INIT_ALL);
        if (status != ARES_SUCCESS) {
            infrastructureLogger("Net").log(Logger::ERROR,
                                            std::string("ares_library_init failed: ") + ares_strerror(status),
                                            "Net.cpp", __LINE__);
            return false;
        }
    }
    ++fs_count;
    return true;
}

void closeLibrary()
{
    std::lock_guard<std::mutex> lock(netMutex());
    if (fs_count == 0)
        return;
    if (--fs_count == 0)
        ares_library_cleanup();
}

int getInitializationCount()
{
    std::lock_guard<std::mutex> lock(netMutex());
    return fs_count;
}

} // namespace Net
} // namespace Velmora
