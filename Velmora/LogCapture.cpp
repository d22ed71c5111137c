#include <Velmora/LogCapture.h>
#include <Velmora/Logger.h>

#include <log4cplus/spi/loggingevent.h>

#include <algorithm>

namespace Velmora {

class LogCapture::Appender : public log4cplus::Appender {
public:
    ~Appender() override { destructorImpl(); }
    void close() override {}

    std::vector<LogRecord> snapshot() const
    {
        std::lock_guard<std::mutex> lock(m_recordsMutex);
        return m_records;
    }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override
    {
        std::lock_guard<std::mutex> lock(m_recordsMutex);
        m_records.push_back(LogRecord{event.getLogLevel(), event.getMessage(), event.getFile(),
                                      event.getLine()});
    }

private:
    mutable std::mutex m_recordsMutex;
    std::vector<LogRecord> m_records;
};

LogCapture::LogCapture(const std::string& loggerName)
{
    // Constructing a Velmora logger first makes sure log4cplus is initialised.
    Logger ensureInitialized(loggerName);
    m_logger = ensureInitialized.native();
    m_appender = log4cplus::SharedAppenderPtr(new Appender);
    m_oldLevel = m_logger.getLogLevel();
    m_oldAdditivity = m_logger.getAdditivity();
    m_logger.addAppender(m_appender);
    m_logger.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
    // Captured records are for the test only; they do not go on to standard error.
    m_logger.setAdditivity(false);
}

LogCapture::~LogCapture()
{
    m_logger.removeAppender(m_appender);
    m_logger.setLogLevel(m_oldLevel);
    m_logger.setAdditivity(m_oldAdditivity);
}

std::vector<LogRecord> LogCapture::records() const
{
    return static_cast<Appender*>(m_appender.get())->snapshot();
}

std::vector<std::string> LogCapture::messages() const
{
    std::vector<std::string> result;
    for (const LogRecord& record : records())
        result.push_back(record.message);
    return result;
}

bool LogCapture::contains(const std::string& text) const
{
    std::vector<std::string> all = messages();
    return std::find(all.begin(), all.end(), text) != all.end();
}

} // namespace Velmora
