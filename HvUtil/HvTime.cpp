#include <HvUtil/HvTime.h>
#include <HvUtil/HvSystemError.h>

#include <sys/time.h>

HvTime HvTime::sGetCurrentTime()
{
    struct timeval now;
    if (gettimeofday(&now, nullptr) == -1)
        HvSystemError::sThrow("gettimeofday", 0);
    // Summed in extended precision so that the microseconds survive the
    // addition before the result is rounded once to a double.
    long double microseconds = static_cast<long double>(now.tv_sec) * 1000000.0L + static_cast<long double>(now.tv_usec);
    return HvTime(static_cast<double>(microseconds));
}
