#include <HvUtil/HvMutex.h>
#include <HvUtil/HvSystemError.h>

#include <Velmora/MemAllocator.h>

#include <sched.h>

#include <new>

HvMutex* HvMutex::sm_pMutex[HvMutex::kPoolSize];
HvMutex::StatisticsCounter HvMutex::m_tryLockCount;
HvMutex::StatisticsCounter HvMutex::m_lockCount;

static int fs_MutexInitializationCounter = 0;

HvMutex* HvMutex::sCreate()
{
    // The ceiling never changes for the process; asking the kernel once keeps
    // a system call off every object that makes a mutex.
    static const int s_ceiling = sched_get_priority_max(SCHED_RR);
    void* storage = Velmora::DefaultStaticMemAllocator::allocate(sizeof(HvMutex), "HvMutex");
    HvMutex* mutex = new (storage) HvMutex;
    try {
        pthread_mutexattr_t attr;
        HvSystemError::sCheck(pthread_mutexattr_init(&attr), "pthread_mutexattr_init");
        HvSystemError::sCheck(pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_PRIVATE),
                              "pthread_mutexattr_setpshared");
        HvSystemError::sCheck(pthread_mutexattr_setprotocol(&attr, PTHREAD_PRIO_NONE),
                              "pthread_mutexattr_setprotocol");
        HvSystemError::sCheck(pthread_mutexattr_setprioceiling(&attr, s_ceiling),
                              "pthread_mutexattr_setprioceiling");
        HvSystemError::sCheck(pthread_mutex_init(&mutex->m_mutex, &attr), "pthread_mutex_init");
        HvSystemError::sCheck(pthread_mutexattr_destroy(&attr), "pthread_mutexattr_destroy");
    } catch (...) {
        Velmora::DefaultStaticMemAllocator::deallocate(storage, sizeof(HvMutex), "HvMutex");
        throw;
    }
    return mutex;
}

void HvMutex::sDestroy(HvMutex* mutex)
{
    if (!mutex)
        return;
    pthread_mutex_destroy(&mutex->m_mutex);
    mutex->~HvMutex();
    Velmora::DefaultStaticMemAllocator::deallocate(mutex, sizeof(HvMutex), "HvMutex");
}

void HvMutex::sInitialize()
{
    if (fs_MutexInitializationCounter != 0)
        return;
    // Set before building: a failure leaves the pool short and it is never retried.
    fs_MutexInitializationCounter = 1;
    for (unsigned int index = 0; index < kPoolSize; ++index)
        sm_pMutex[index] = sCreate();
}

int HvMutex::sSpinThenLock(pthread_mutex_t* mutex, bool* blocked, unsigned int attempts)
{
    // Sections guarded by these mutexes are short: a few tries usually win
    // without entering the kernel.
    for (unsigned int attempt = 0; attempt < attempts; ++attempt) {
        if (pthread_mutex_trylock(mutex) == 0) {
            if (blocked)
                *blocked = false;
            return 0;
        }
    }
    if (blocked)
        *blocked = true;
    return pthread_mutex_lock(mutex);
}

void HvMutex::lockContended()
{
    bool blocked = false;
    int result = sSpinThenLock(&m_mutex, &blocked, kSpinAttempts - 1);
    if (blocked)
        m_lockCount.increment();
    HvSystemError::sCheck(result, "pthread_mutex_lock");
}

void HvMutex::sThrowUnlockFailure(int result)
{
    HvSystemError::sThrow("pthread_mutex_unlock", result);
}
