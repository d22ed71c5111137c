// A gettimeofday() that a test program defines in place of the system's, so
// that a failing wall clock can be simulated: the library reads the clock
// through it (HvTime, and the activity time that sockets stamp). Until a test
// stores an error number in fs_clockFailure it reads the real clock. Include
// it in one translation unit of a test program only.
#ifndef HVUTIL_TESTS_HVFAILINGCLOCK_H
#define HVUTIL_TESTS_HVFAILINGCLOCK_H

#include <sys/time.h>
#include <time.h>

#include <atomic>
#include <cerrno>

// The errno that gettimeofday() fails with; 0 reads the real clock.
static std::atomic<int> fs_clockFailure{0};

extern "C" int gettimeofday(struct timeval* __restrict now, void* __restrict) noexcept
{
    if (int error = fs_clockFailure.load()) {
        errno = error;
        return -1;
    }
    struct timespec precise;
    clock_gettime(CLOCK_REALTIME, &precise);
    now->tv_sec = precise.tv_sec;
    now->tv_usec = precise.tv_nsec / 1000;
    return 0;
}

#endif
