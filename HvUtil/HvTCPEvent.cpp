#include <HvUtil/HvTCPEvent.h>

HvTCPEvent::HvTCPEvent(HvObject* object, HvObject* argument)
    : m_object(object), m_argument(argument)
{
}

HvTCPEvent::~HvTCPEvent()
{
}
