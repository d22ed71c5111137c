#include <HvUtil/HvTime.h>
#include <HvUtil/HvSystemError.h>

#include <time.h>

std::atomic<bool> HvTime::sm_bMonotonicClock{false};

static std::atomic<long long> fs_wallClockOffset{0};

int HvTime::sReadWallClock(struct timeval* now, long long* offset)
{
    struct timeval read;
    int result = gettimeofday(&read, nullptr);
    const long long applied = fs_wallClockOffset.load(std::memory_order_relaxed);
    if (offset)
        *offset = applied;
    if (result == -1)
        return result;
    if (applied != 0) {
        long long microseconds = static_cast<long long>(read.tv_sec) * 1000000LL + read.tv_usec + applied;
        long long seconds = microseconds / 1000000LL;
        long long rest = microseconds % 1000000LL;
        if (rest < 0) {
            rest += 1000000LL;
            seconds -= 1;
        }
        read.tv_sec = static_cast<time_t>(seconds);
        read.tv_usec = static_cast<suseconds_t>(rest);
    }
    *now = read;
    return result;
}

void HvTime::sSetWallClockOffsetForTesting(long long microseconds)
{
    fs_wallClockOffset.store(microseconds, std::memory_order_relaxed);
}

long long HvTime::sGetWallClockOffsetForTesting()
{
    return fs_wallClockOffset.load(std::memory_order_relaxed);
}

HvTime HvTime::sGetCurrentTime()
{
    if (sm_bMonotonicClock.load(std::memory_order_relaxed)) {
        struct timespec now;
        if (clock_gettime(CLOCK_MONOTONIC, &now) == -1)
            HvSystemError::sThrow("clock_gettime", 0);
        // Whole microseconds, as the wall clock gives them.
        long double microseconds =
            static_cast<long double>(now.tv_sec) * 1000000.0L + static_cast<long double>(now.tv_nsec / 1000);
        return HvTime(static_cast<double>(microseconds));
    }
    struct timeval now;
    if (sReadWallClock(&now) == -1)
        HvSystemError::sThrow("gettimeofday", 0);
    // Summed in extended precision so that the microseconds survive the
    // addition before the result is rounded once to a double.
    long double microseconds = static_cast<long double>(now.tv_sec) * 1000000.0L + static_cast<long double>(now.tv_usec);
    return HvTime(static_cast<double>(microseconds));
}
