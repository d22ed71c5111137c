#include <Velmora/Logger.h>

#include <log4cplus/consoleappender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>
#include <log4cplus/loglevel.h>

#include <map>
#include <memory>
#include <mutex>

namespace Velmora {

namespace {

// log4cplus 2 must be initialised before its first logger. Unless the
// program configured logging itself, errors go to standard error and
// everything below error level is off, so disabled debug lines cost one test.
void initializeLogging()
{
    static std::once_flag once;
    std::call_once(once, [] {
        log4cplus::initialize();
        log4cplus::Logger root = log4cplus::Logger::getRoot();
        if (root.getAllAppenders().empty()) {
            log4cplus::SharedAppenderPtr console(new log4cplus::ConsoleAppender(true, true));
            console->setLayout(std::unique_ptr<log4cplus::Layout>(
                new log4cplus::PatternLayout("%-5p %c - %m [%b:%L]%n")));
            root.addAppender(console);
            root.setLogLevel(log4cplus::ERROR_LOG_LEVEL);
        }
    });
}

AceCleanupLogger& namedLogger(const std::string& name)
{
    // Module loggers are used until the very end of the process (static
    // destructors log too), so they are never destroyed.
    static std::mutex* mutex = new std::mutex;
    static auto* loggers = new std::map<std::string, std::unique_ptr<AceCleanupLogger>>;
    std::lock_guard<std::mutex> lock(*mutex);
    std::unique_ptr<AceCleanupLogger>& slot = (*loggers)[name];
    if (!slot)
        slot.reset(new AceCleanupLogger(name));
    return *slot;
}

} // namespace

Logger::Logger(const std::string& name)
    : m_name(name)
{
    initializeLogging();
    m_logger = log4cplus::Logger::getInstance(name);
}

bool Logger::isEnabledFor(int level) const
{
    return m_logger.isEnabledFor(level);
}

void Logger::log(int level, const std::string& message, const char* file, int line) const
{
    if (m_logger.isEnabledFor(level))
        m_logger.forcedLog(level, message, file, line);
}

AceCleanupLogger& fileScopeLogger(const char* className)
{
    return namedLogger(std::string("ferrowind.hv.") + className);
}

AceCleanupLogger& infrastructureLogger(const char* component)
{
    return namedLogger(std::string("ferrowind.velmora.") + component);
}

} // namespace Velmora
