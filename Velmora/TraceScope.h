// Logs entry to and exit from a named scope at trace level.
#ifndef VELMORA_TRACESCOPE_H
#define VELMORA_TRACESCOPE_H

#include <Velmora/Logger.h>

namespace Velmora {

class TraceScope {
public:
    // Logs "ENTER: " + name when trace is enabled on the logger.
    TraceScope(const Logger& logger, const char* name, const char* file = "", int line = 0);
    // Logs "EXIT:  " + name, if the entry was logged.
    ~TraceScope();

    TraceScope(const TraceScope&) = delete;
    TraceScope& operator=(const TraceScope&) = delete;

private:
    const Logger& m_logger;
    const char* m_name;
    const char* m_file;
    int m_line;
    bool m_logged;
};

} // namespace Velmora

#endif
