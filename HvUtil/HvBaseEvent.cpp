#include <HvUtil/HvBaseEvent.h>

HvBaseEvent::~HvBaseEvent()
{
}
