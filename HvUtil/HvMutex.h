// Plain, non-recursive, process-private mutex, and the library-wide pool of
// 256 of them from which every HvObject borrows its object mutex.
#ifndef HVUTIL_HVMUTEX_H
#define HVUTIL_HVMUTEX_H

#include <pthread.h>

#include <atomic>
#include <cstdint>

class HvMutex {
public:
    // Size of the shared pool; objects pick the entry sPoolIndex() gives for
    // the thread that creates them.
    static constexpr unsigned int kPoolSize = 256;

    // The pool entry of thread `id`; every object a thread makes shares it.
    static unsigned int sPoolIndex(pthread_t id)
    {
        // A 64-bit thread id is the address of an aligned thread descriptor:
        // its low 8 bits are equal for every thread, so taking them would put
        // every thread on one entry. Fibonacci hashing mixes all 64 bits into
        // the top 8, so ids that differ only in their higher bits spread too.
        std::uint64_t mixed = static_cast<std::uint64_t>(id) * 0x9E3779B97F4A7C15ULL;
        return static_cast<unsigned int>(mixed >> 56);
    }

    // The pool entry of the calling thread; builds the pool when needed.
    static HvMutex* sPoolMutexOfCurrentThread()
    {
        sInitialize();
        return sm_pMutex[sPoolIndex(pthread_self())];
    }

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
        m_tryLockCount.increment();
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

    // A statistics counter that every thread bumps without a lock. One word
    // shared by all threads would bounce its cache line between cores on
    // every lock() and undo the spreading of objects over the pool, so each
    // thread bumps the stripe of its own pool entry and load() sums them.
    // Like any unlocked counter it tolerates lost updates; the sum wraps
    // modulo 2^32 as a single word would.
    class StatisticsCounter {
    public:
        void increment()
        {
            // A plain load and store keeps the hot path free of a locked instruction.
            std::atomic<unsigned int>& value = m_stripes[sPoolIndex(pthread_self())].value;
            value.store(value.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        }
        unsigned int load() const
        {
            unsigned int sum = 0;
            for (const Stripe& stripe : m_stripes)
                sum += stripe.value.load(std::memory_order_relaxed);
            return sum;
        }

    private:
        struct alignas(64) Stripe {
            std::atomic<unsigned int> value{0};
        };
        Stripe m_stripes[kPoolSize];
    };

    // Statistics only, nothing reads them: lock() calls, and those that had to block.
    static StatisticsCounter m_tryLockCount;
    static StatisticsCounter m_lockCount;

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
