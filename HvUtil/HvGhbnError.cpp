#include <HvUtil/HvGhbnError.h>
#include <HvUtil/HvOutputStream.h>

HvGhbnError::HvGhbnError(const char* message, int errorNumber,
                         Velmora::Hostent::GetHostByNameStatus status)
    : HvSocketError(HvStringBuffer::sCreate(message, 0, 0), errorNumber), m_status(status)
{
}

void HvGhbnError::display(HvOutputStream& out) const
{
    out << ": " << m_message << " (" << Velmora::Hostent::getGetHostByNameStatusString(m_status) << ")";
}
