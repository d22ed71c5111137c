#include <Velmora/Assertion.h>
#include <Velmora/Logger.h>

#include <atomic>
#include <string>

namespace Velmora {

namespace {

void defaultHandler(const char*, const char*, int) {}

std::atomic<Assertion::Handler> fs_handler{&defaultHandler};
std::atomic<unsigned long> fs_failures{0};

} // namespace

Assertion::Assertion(bool condition, const char* text, const char* file, int line)
{
    if (condition)
        return;
    fs_failures.fetch_add(1, std::memory_order_relaxed);
    const Logger& logger = infrastructureLogger("Assertion");
    if (logger.isEnabledFor(Logger::ERROR)) {
        logger.log(Logger::ERROR,
                   std::string("Assertion failed: ") + (text ? text : "") + " at " +
                       (file ? file : "") + ":" + std::to_string(line),
                   file ? file : "", line);
    }
    fs_handler.load()(text, file, line);
}

Assertion::Handler Assertion::sSetHandler(Handler handler)
{
    return fs_handler.exchange(handler ? handler : &defaultHandler);
}

unsigned long Assertion::sGetFailureCount()
{
    return fs_failures.load(std::memory_order_relaxed);
}

} // namespace Velmora
