// Collects the records written to one logger while it exists, at every level:
// lets a program check what a module logged. Installs itself on construction
// (raising the logger to trace) and restores the logger on destruction.
#ifndef VELMORA_LOGCAPTURE_H
#define VELMORA_LOGCAPTURE_H

#include <log4cplus/appender.h>
#include <log4cplus/logger.h>

#include <mutex>
#include <string>
#include <vector>

namespace Velmora {

struct LogRecord {
    int level;
    std::string message;
    std::string file;
    int line;
};

class LogCapture {
public:
    explicit LogCapture(const std::string& loggerName);
    ~LogCapture();

    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Copies of the records captured so far, oldest first.
    std::vector<LogRecord> records() const;
    // Messages only, oldest first.
    std::vector<std::string> messages() const;
    // True if some captured message equals text exactly.
    bool contains(const std::string& text) const;

private:
    class Appender;
    log4cplus::Logger m_logger;
    log4cplus::SharedAppenderPtr m_appender;
    log4cplus::LogLevel m_oldLevel;
    bool m_oldAdditivity;
};

} // namespace Velmora

#endif
