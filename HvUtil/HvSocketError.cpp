#include <HvUtil/HvSocketError.h>

#include <cerrno>

HvSocketError::HvSocketError(const HvString& message, int errorNumber)
    : HvSystemError(message, errorNumber)
{
}

void HvSocketError::sThrow(const char* text, int errorNumber)
{
    int number = errorNumber != 0 ? errorNumber : errno;
    HvException::sThrow(new HvSocketError(HvStringBuffer::sCreate(text, 0, 0), number));
}
