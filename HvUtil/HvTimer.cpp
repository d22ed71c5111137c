#include <HvUtil/HvTimer.h>

HvTimer::HvTimer(HvTime time)
    : m_time(time)
{
}

HvTimer::~HvTimer()
{
}
