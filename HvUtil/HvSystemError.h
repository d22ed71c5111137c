// A failed system call: the exception carries the errno value.
#ifndef HVUTIL_HVSYSTEMERROR_H
#define HVUTIL_HVSYSTEMERROR_H

#include <HvUtil/HvException.h>

class HvSystemError : public HvException {
public:
    HvSystemError(const HvString& message, int errorNumber);

    // Throws with the text and the error number; 0 takes the current errno.
    [[noreturn]] static void sThrow(const char* text, int errorNumber);

    // For pthread-style calls that return their error: does nothing for 0,
    // otherwise throws with the text and that error number.
    static void sCheck(int result, const char* text)
    {
        if (result != 0)
            sThrow(text, result);
    }

    int getErrorNumber() const { return m_errorNumber; }

    // The message, ": ", the system's text for the error, " (", the number, ")".
    void display(HvOutputStream& out) const override;
    using HvObject::display;

protected:
    // Writes the part after the message: ": <strerror> (<number>)".
    void displayError(HvOutputStream& out) const;

    int m_errorNumber;
};

#endif
