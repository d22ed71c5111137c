// A failed socket call; a type of its own so that callers can catch socket
// failures apart from other system failures.
#ifndef HVUTIL_HVSOCKETERROR_H
#define HVUTIL_HVSOCKETERROR_H

#include <HvUtil/HvSystemError.h>

class HvSocketError : public HvSystemError {
public:
    HvSocketError(const HvString& message, int errorNumber);

    // Throws with the text and the error number; 0 takes the current errno.
    [[noreturn]] static void sThrow(const char* text, int errorNumber);
};

#endif
