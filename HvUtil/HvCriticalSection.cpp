#include <HvUtil/HvCriticalSection.h>
#include <HvUtil/HvRecursiveMutex.h>

#include <Velmora/MemAllocator.h>

#include <atomic>

HvCriticalSection* HvCriticalSection::sm_pCriticalSection = nullptr;

// Head of the free list; read once without the lock as a cheap first look,
// so it is atomic (relaxed) rather than a plain word.
static std::atomic<HvCriticalSection*> fs_pFirstAvailable{nullptr};
// Statistics and the pool limit; approximate under contention by design.
static std::atomic<unsigned int> allocCount{0};
static std::atomic<unsigned int> recycleCount{0};
static std::atomic<int> cSectionMutexCount{0};

static HvCriticalSection::Initializer fs_Initializer;

void fs_InitializePlatform()
{
}

HvCriticalSection::HvCriticalSection()
    : m_pNext(nullptr), m_depth(0), m_owner(0), m_pLock(new HvRecursiveMutex)
{
}

HvCriticalSection::~HvCriticalSection()
{
    delete m_pLock;
}

void* HvCriticalSection::operator new(std::size_t size)
{
    return Velmora::DefaultStaticMemAllocator::allocate(size, "HvCriticalSection");
}

void HvCriticalSection::operator delete(void* p, std::size_t size)
{
    Velmora::DefaultStaticMemAllocator::deallocate(p, size, "HvCriticalSection");
}

void HvCriticalSection::enter()
{
    m_pLock->lock();
    m_owner.store(pthread_self(), std::memory_order_relaxed);
    m_depth.fetch_add(1, std::memory_order_relaxed);
}

void HvCriticalSection::leave()
{
    // A caller that does not hold the section must not touch its state: the
    // recursive mutex reports the misuse, with depth and owner left as they are.
    if (m_depth.load(std::memory_order_relaxed) == 0 ||
        !pthread_equal(m_owner.load(std::memory_order_relaxed), pthread_self())) {
        m_pLock->unlock();
        return;
    }
    if (m_depth.fetch_sub(1, std::memory_order_relaxed) == 1)
        m_owner.store(0, std::memory_order_relaxed);
    m_pLock->unlock();
}

HvCriticalSection* HvCriticalSection::sAllocate()
{
    allocCount.fetch_add(1, std::memory_order_relaxed);
    if (fs_pFirstAvailable.load(std::memory_order_relaxed) != nullptr) {
        sm_pCriticalSection->enter();
        HvCriticalSection* head = fs_pFirstAvailable.load(std::memory_order_relaxed);
        if (head) {
            fs_pFirstAvailable.store(head->m_pNext, std::memory_order_relaxed);
            sm_pCriticalSection->leave();
            return head;
        }
        sm_pCriticalSection->leave();
    }
    cSectionMutexCount.fetch_add(1, std::memory_order_relaxed);
    try {
        return new HvCriticalSection;
    } catch (...) {
        cSectionMutexCount.fetch_sub(1, std::memory_order_relaxed);
        throw;
    }
}

void HvCriticalSection::sRecycle(HvCriticalSection* section)
{
    recycleCount.fetch_add(1, std::memory_order_relaxed);
    if (!section)
        return;
    if (cSectionMutexCount.load(std::memory_order_relaxed) < kPoolLimit) {
        // Pooled sections still count as existing.
        sm_pCriticalSection->enter();
        section->m_pNext = fs_pFirstAvailable.load(std::memory_order_relaxed);
        fs_pFirstAvailable.store(section, std::memory_order_relaxed);
        sm_pCriticalSection->leave();
        return;
    }
    cSectionMutexCount.fetch_sub(1, std::memory_order_relaxed);
    delete section;
}

int HvCriticalSection::sGetExistingCount()
{
    return cSectionMutexCount.load(std::memory_order_relaxed);
}

unsigned int HvCriticalSection::sGetAllocateCount()
{
    return allocCount.load(std::memory_order_relaxed);
}

unsigned int HvCriticalSection::sGetRecycleCount()
{
    return recycleCount.load(std::memory_order_relaxed);
}

HvCriticalSection::Initializer::Initializer()
{
    fs_InitializePlatform();
    if (!sm_pCriticalSection)
        sm_pCriticalSection = new HvCriticalSection;
}

HvCriticalSection::Initializer::~Initializer()
{
    // Static destruction is single-threaded: no lock is taken. The global
    // pointer is left as it was, so nothing may enter it after this point.
    HvCriticalSection* section = fs_pFirstAvailable.exchange(nullptr, std::memory_order_relaxed);
    while (section) {
        HvCriticalSection* next = section->m_pNext;
        delete section;
        section = next;
    }
    delete sm_pCriticalSection;
}
