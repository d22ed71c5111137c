// Owner-tracking section around one HvRecursiveMutex, handed out from a
// recycling pool; sm_pCriticalSection is the library's one global lock.
#ifndef HVUTIL_HVCRITICALSECTION_H
#define HVUTIL_HVCRITICALSECTION_H

#include <pthread.h>

#include <atomic>
#include <cstddef>

class HvRecursiveMutex;

class HvCriticalSection {
public:
    // Sections recycled while fewer than this many exist go back to the pool;
    // beyond it they are destroyed, which bounds what the pool keeps.
    static constexpr int kPoolLimit = 1024;

    // Enters the section (recursively for its owner).
    void enter();
    // Leaves one level; throws HvSystemError when the caller does not own it.
    void leave();

    // A section from the pool (last in, first out) or a new one. A pooled
    // section comes back with the depth and owner it had when recycled.
    static HvCriticalSection* sAllocate();
    // Gives a section back; a null pointer is ignored.
    static void sRecycle(HvCriticalSection* section);

    // The library-wide section, alive from library load to process exit.
    static HvCriticalSection* sm_pCriticalSection;

    // Number of sections made by sAllocate() that exist (in use or pooled).
    static int sGetExistingCount();
    // Number of sAllocate() and sRecycle() calls so far.
    static unsigned int sGetAllocateCount();
    static unsigned int sGetRecycleCount();

    unsigned int getDepth() const { return m_depth.load(std::memory_order_relaxed); }
    pthread_t getOwner() const { return m_owner.load(std::memory_order_relaxed); }

    static void* operator new(std::size_t size);
    static void operator delete(void* p, std::size_t size);

    // Creates the global section at library load and tears the pool down at exit.
    class Initializer {
    public:
        Initializer();
        ~Initializer();
    };

private:
    HvCriticalSection();
    ~HvCriticalSection();
    HvCriticalSection(const HvCriticalSection&) = delete;
    HvCriticalSection& operator=(const HvCriticalSection&) = delete;

    HvCriticalSection* m_pNext;
    // Written only by the holder; atomic because leave() checks them before
    // it knows whether the caller holds the section.
    std::atomic<unsigned int> m_depth;
    std::atomic<pthread_t> m_owner;
    HvRecursiveMutex* m_pLock;
};

// Platform set-up hook; nothing is needed on this platform.
void fs_InitializePlatform();

#endif
