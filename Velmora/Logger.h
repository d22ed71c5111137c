// Thin logging layer over log4cplus: named loggers, level checks and
// formatted records carrying the source name and line of the caller.
#ifndef VELMORA_LOGGER_H
#define VELMORA_LOGGER_H

#include <log4cplus/logger.h>
#include <string>

namespace Velmora {

class Logger {
public:
    // The three levels the library uses, numerically those of log4cplus.
    static const int TRACE = 0;
    static const int DEBUG = 10000;
    static const int ERROR = 40000;

    // Logger with the full dotted name (for example "ferrowind.hv.HvThread").
    explicit Logger(const std::string& name);

    // True when a record at this level would be written.
    bool isEnabledFor(int level) const;

    // Writes one record; callers test isEnabledFor first when building the text costs.
    void log(int level, const std::string& message, const char* file, int line) const;

    const std::string& getName() const { return m_name; }
    log4cplus::Logger& native() { return m_logger; }

private:
    std::string m_name;
    mutable log4cplus::Logger m_logger;
};

// A module logger that lives until the process ends; made once per name.
class AceCleanupLogger : public Logger {
public:
    explicit AceCleanupLogger(const std::string& name) : Logger(name) {}
};

// The module logger of a library class: "ferrowind.hv." + className, made on
// first use and shared by every later caller with the same class name.
AceCleanupLogger& fileScopeLogger(const char* className);

// Logger of the infrastructure itself ("ferrowind.velmora." + component).
AceCleanupLogger& infrastructureLogger(const char* component);

} // namespace Velmora

#endif
