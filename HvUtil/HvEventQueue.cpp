#include <HvUtil/HvEventQueue.h>
#include <HvUtil/HvBaseEvent.h>
#include <HvUtil/HvMutex.h>
#include <HvUtil/HvThread.h>

#include <errno.h>
#include <sched.h>

namespace {

const unsigned int kSpinAttempts = 5;
const unsigned int kIndexMask = HvEventQueue::kCapacity - 1;
// sPlaceOf() is a permutation of the 12-bit indexes.
static_assert(HvEventQueue::kCapacity == 4096, "sPlaceOf() maps a ring of 4096 places");

// The library's spin-then-block rule for semaphores: five non-blocking
// attempts, then the blocking wait (a signal interrupting it does not count
// as acquiring). The processor is offered to other threads between attempts:
// the other side of the queue is often runnable on the same processor, and
// letting it post is far cheaper than sleeping in the kernel and being woken.
void acquire(sem_t* semaphore)
{
    for (unsigned int attempt = 1;; ++attempt) {
        if (sem_trywait(semaphore) == 0)
            return;
        if (attempt == kSpinAttempts)
            break;
        sched_yield();
    }
    while (sem_wait(semaphore) != 0 && errno == EINTR) {
    }
}

// True when the caller is a registered thread that is being terminated.
bool callerIsExiting()
{
    HvThread* self = HvThread::sGetCurrentRegistered();
    return self && self->getState() == HvThread::EXITING;
}

} // namespace

HvEventQueue::HvEventQueue(Policy policy)
    : m_writeIndex(0), m_added(0), m_policy(policy), m_pWriteLock(nullptr), m_readIndex(0), m_taken(0)
{
    for (unsigned int index = 0; index < kCapacity; ++index)
        m_ring[index].store(nullptr, std::memory_order_relaxed);
    // Process-private semaphores; the results are not checked.
    sem_init(&m_freeSlots, 0, kCapacity);
    sem_init(&m_usedSlots, 0, 0);
    if (m_policy == LOCKED) {
        try {
            m_pWriteLock = HvMutex::sCreate();
        } catch (...) {
            sem_destroy(&m_usedSlots);
            sem_destroy(&m_freeSlots);
            throw;
        }
    }
}

HvEventQueue::~HvEventQueue()
{
    sem_destroy(&m_freeSlots);
    sem_destroy(&m_usedSlots);
    if (m_pWriteLock)
        HvMutex::sDestroy(m_pWriteLock);
    // By place in the ring, not by position in the array (sPlaceOf()
    // spreads neighbouring places over the array).
    for (unsigned int index = kCapacity; index-- > 0;)
        delete m_ring[sPlaceOf(index)].exchange(nullptr, std::memory_order_acquire);
}

void HvEventQueue::addItem(HvBaseEvent* event)
{
    if (!event)
        return;
    acquire(&m_freeSlots);
    // The free place is not given back: the queue is being torn down.
    if (callerIsExiting()) {
        delete event;
        return;
    }
    if (m_pWriteLock)
        m_pWriteLock->lock();
    HvBaseEvent* overwritten = m_ring[sPlaceOf(m_writeIndex)].exchange(event, std::memory_order_acq_rel);
    m_writeIndex = (m_writeIndex + 1) & kIndexMask;
    // Single writer (the one producer, or the holder of the writer lock).
    m_added.store(m_added.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    if (m_pWriteLock)
        m_pWriteLock->unlock();
    // Only possible when a wake-up put the semaphores out of balance.
    delete overwritten;
    sem_post(&m_usedSlots);
}

HvBaseEvent* HvEventQueue::getItem()
{
    acquire(&m_usedSlots);
    if (callerIsExiting())
        return nullptr;
    HvBaseEvent* event = m_ring[sPlaceOf(m_readIndex)].exchange(nullptr, std::memory_order_acq_rel);
    // A WakeUpAll() that met a consumer which is not being terminated: there
    // is no event, and the ring stays as it is.
    if (!event)
        return nullptr;
    m_readIndex = (m_readIndex + 1) & kIndexMask;
    m_taken.store(m_taken.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    sem_post(&m_freeSlots);
    return event;
}

void HvEventQueue::WakeUpAll()
{
    sem_post(&m_freeSlots);
    sem_post(&m_usedSlots);
}
