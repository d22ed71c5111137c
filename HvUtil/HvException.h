// Base of all failures. Failures are thrown as HvHandle<HvException>, so the
// exception object is shared, not copied, while it propagates.
#ifndef HVUTIL_HVEXCEPTION_H
#define HVUTIL_HVEXCEPTION_H

#include <HvUtil/HvHandle.h>
#include <HvUtil/HvString.h>

class HvException : public HvObject {
public:
    explicit HvException(const HvString& message);

    // Wraps the object in a new handle and throws the handle.
    [[noreturn]] static void sThrow(HvException* exception);
    // Throws an HvException with the text, or "Unknown Exception" for null.
    [[noreturn]] static void sThrow(const char* text);

    HvString getMessage() const { return m_message; }

    // Writes the message; an empty message writes nothing.
    virtual void display(HvOutputStream& out) const;
    using HvObject::display;

    // Banner for the top-level handlers of programs: two line ends, the
    // text, two line ends. The library never prints it itself.
    static const char sUnhandledMessage[];
    // Debug mode under which the library writes the exceptions it catches.
    static const char sDebugToken[];

protected:
    HvString m_message;
};

#endif
