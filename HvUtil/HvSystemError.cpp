#include <HvUtil/HvSystemError.h>
#include <HvUtil/HvOutputStream.h>

#include <ace/OS_NS_string.h>

#include <cerrno>

HvSystemError::HvSystemError(const HvString& message, int errorNumber)
    : HvException(message), m_errorNumber(errorNumber)
{
}

void HvSystemError::sThrow(const char* text, int errorNumber)
{
    // errno is read before anything else can change it.
    int number = errorNumber != 0 ? errorNumber : errno;
    HvException::sThrow(new HvSystemError(HvStringBuffer::sCreate(text, 0, 0), number));
}

void HvSystemError::display(HvOutputStream& out) const
{
    out << m_message;
    displayError(out);
}

void HvSystemError::displayError(HvOutputStream& out) const
{
    const char* text = ACE_OS::strerror(m_errorNumber);
    out << ": " << (text ? text : "") << " (" << m_errorNumber << ")";
}
