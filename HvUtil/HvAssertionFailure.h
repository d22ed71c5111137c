// A broken internal invariant, with the raising source file, line and the
// compile time stamp of that file.
#ifndef HVUTIL_HVASSERTIONFAILURE_H
#define HVUTIL_HVASSERTIONFAILURE_H

#include <HvUtil/HvException.h>

class HvAssertionFailure : public HvException {
public:
    // `file` and `timestamp` are not copied: pass string literals.
    HvAssertionFailure(const HvString& message, const char* file, unsigned int line,
                       const char* timestamp);

    // Reports through Velmora::Assertion, then throws the failure.
    // `timestamp` is HV_COMPILE_TIMESTAMP of the raising file.
    [[noreturn]] static void sThrow(const char* text, const char* file, unsigned int line,
                                    const char* timestamp);

    const char* getFile() const { return m_file; }
    unsigned int getLine() const { return m_line; }
    const char* getTimestamp() const { return m_timestamp; }

    // Message, newline, "<file> line <line>", "\nCompilation : <timestamp>",
    // a line end and a flush.
    void display(HvOutputStream& out) const override;
    using HvObject::display;

private:
    const char* m_file;
    unsigned int m_line;
    const char* m_timestamp;
};

#endif
