// Recursive lock built from a guard mutex, a condition variable, a depth
// counter and an owner. Lock and unlock are const so that const members of a
// guarded class can take it.
#ifndef HVUTIL_HVRECURSIVEMUTEX_H
#define HVUTIL_HVRECURSIVEMUTEX_H

#include <pthread.h>

#include <cstddef>

class HvRecursiveMutex {
public:
    // Throws HvSystemError "pthread_mutex_unlock" if the guard or the
    // condition variable cannot be created (that name, whichever failed).
    HvRecursiveMutex();
    ~HvRecursiveMutex();

    HvRecursiveMutex(const HvRecursiveMutex&) = delete;
    HvRecursiveMutex& operator=(const HvRecursiveMutex&) = delete;

    // Adds one level of ownership, waiting while another thread owns the lock.
    void lock() const { lockI(1); }
    // Adds n levels at once; they are given back by n calls of unlock().
    void lock(int n) const { lockI(n); }
    // Removes exactly one level. Throws HvSystemError
    // "unlockI - not owner or not locked" when the caller does not own the lock.
    void unlock() const { unlockI(); }

    void lockI(int n) const;
    void unlockI() const;

    // Current depth and owner, for diagnostics; read without the guard.
    int getDepth() const { return m_depth; }
    pthread_t getOwner() const { return m_owner; }

    // Allocation through the tagged allocator ("HvRecursiveMutex").
    static void* operator new(std::size_t size);
    static void operator delete(void* p, std::size_t size);

private:
    void takeGuard() const;
    void releaseGuard() const;

    mutable pthread_mutex_t m_guard;
    mutable pthread_cond_t m_released;
    mutable int m_depth;
    mutable pthread_t m_owner;
};

#endif
