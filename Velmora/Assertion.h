// Infrastructure assertions: a false condition is logged at error level on
// "ferrowind.velmora.Assertion" and then handed to the installed handler.
#ifndef VELMORA_ASSERTION_H
#define VELMORA_ASSERTION_H

namespace Velmora {

class Assertion {
public:
    using Handler = void (*)(const char* text, const char* file, int line);

    // Checks the condition; when false, logs and calls the handler. The
    // default handler does nothing more, so the caller goes on.
    Assertion(bool condition, const char* text, const char* file, int line);

    // Installs a handler (null restores the default) and returns the previous one.
    static Handler sSetHandler(Handler handler);

    // Number of failed assertions since the process started.
    static unsigned long sGetFailureCount();
};

} // namespace Velmora

#endif
