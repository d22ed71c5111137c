#include <HvUtil/HvTimerEvent.h>

HvTimerEvent::HvTimerEvent(HvObserver* observer, HvObject* argument)
    : m_observer(observer), m_argument(argument)
{
}

HvTimerEvent::~HvTimerEvent()
{
}
