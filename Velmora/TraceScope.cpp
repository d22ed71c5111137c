#include <Velmora/TraceScope.h>

namespace Velmora {

TraceScope::TraceScope(const Logger& logger, const char* name, const char* file, int line)
    : m_logger(logger), m_name(name), m_file(file), m_line(line),
      m_logged(logger.isEnabledFor(Logger::TRACE))
{
    if (m_logged)
        m_logger.log(Logger::TRACE, std::string("ENTER: ") + m_name, m_file, m_line);
}

TraceScope::~TraceScope()
{
    if (m_logged)
        m_logger.log(Logger::TRACE, std::string("EXIT:  ") + m_name, m_file, m_line);
}

} // namespace Velmora
