// Plain, non-recursive, process-private mutex, and the library-wide pool of
// 256 of them from which every HvObject borrows its object mutex.
#ifndef HVUTIL_HVMUTEX_H
#define HVUTIL_HVMUTEX_H

#include <pthread.h>

#include <atomic>

class HvMutex {
public:
    // Size of the shared pool; objects pick entry pthread_self() & (kPoolSize - 1).
    static constexpr unsigned int kPoolSize = 256;

    // Builds the pool on the first call; later calls return at once. The
    // first call must happen before a second thread exists.
    // Throws HvSystemError naming the failed pthread call.
    static void sInitialize();

    // A mutex outside the pool, with the pool's attributes, for a class that
    // owns one. Throws HvSystemError naming the failed pthread call.
    static HvMutex* sCreate();
    // Destroys and frees a mutex made by sCreate(); null is ignored.
    static void sDestroy(HvMutex* mutex);

    // Up to five non-blocking attempts, then a blocking wait.
    // Throws HvSystemError "pthread_mutex_lock".
    void lock()
    {
        // Statistics tolerate lost updates: a plain load and store keeps the
        // hot path free of a locked instruction on a word every thread shares.
        m_tryLockCount.store(m_tryLockCount.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        if (pthread_mutex_trylock(&m_mutex) != 0)
            lockContended();
    }

    // Throws HvSystemError "pthread_mutex_unlock".
    void unlock()
    {
        int result = pthread_mutex_unlock(&m_mutex);
        if (result != 0)
            sThrowUnlockFailure(result);
    }

    // Takes `mutex` with the library's spin-then-block rule: up to five
    // pthread_mutex_trylock calls, then pthread_mutex_lock. Returns the result
    // of the last call (0 on success); `blocked` tells whether it had to wait.
    static int sSpinThenLock(pthread_mutex_t* mutex, bool* blocked = nullptr,
                             unsigned int attempts = kSpinAttempts);

    // Non-blocking attempts before a lock waits in the kernel.
    static constexpr unsigned int kSpinAttempts = 5;

    // Holds a mutex for one scope.
    class Lock {
    public:
        explicit Lock(HvMutex* mutex) : m_pMutex(mutex) { m_pMutex->lock(); }
        ~Lock() { m_pMutex->unlock(); }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

    private:
        HvMutex* m_pMutex;
    };

    // The shared pool, filled once by sInitialize().
    static HvMutex* sm_pMutex[kPoolSize];

    // Statistics only, nothing reads them: lock() calls, and those that had to block.
    static std::atomic<unsigned int> m_tryLockCount;
    static std::atomic<unsigned int> m_lockCount;

private:
    // The rest of lock() after a first failed attempt.
    void lockContended();
    [[noreturn]] static void sThrowUnlockFailure(int result);

    HvMutex() = default;
    HvMutex(const HvMutex&) = delete;
    HvMutex& operator=(const HvMutex&) = delete;

    pthread_mutex_t m_mutex;
};

#endif
