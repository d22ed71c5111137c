#include <HvUtil/HvException.h>
#include <HvUtil/HvOutputStream.h>

const char HvException::sUnhandledMessage[] = "\n\n!!! Unhandled Exception Intercepted !!!\n\n";
const char HvException::sDebugToken[] = "HvException";

HvException::HvException(const HvString& message)
    : m_message(message)
{
}

void HvException::sThrow(HvException* exception)
{
    throw HvHandle<HvException>(exception);
}

void HvException::sThrow(const char* text)
{
    sThrow(new HvException(HvStringBuffer::sCreate(text ? text : "Unknown Exception", 0, 0)));
}

void HvException::display(HvOutputStream& out) const
{
    out << m_message;
}
