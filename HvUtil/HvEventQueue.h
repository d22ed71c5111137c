// Bounded ring of 4096 events between producers and one consuming thread,
// counted by two POSIX semaphores (free places and waiting events). Each
// dispatcher thread owns one. The queue owns every event it holds.
#ifndef HVUTIL_HVEVENTQUEUE_H
#define HVUTIL_HVEVENTQUEUE_H

#include <semaphore.h>

#include <atomic>

class HvBaseEvent;
class HvMutex;

class HvEventQueue {
public:
    // Producer discipline, fixed at construction. The consumer side never
    // locks: a queue has exactly one consuming thread.
    enum Policy {
        // One producer, or producers serialised elsewhere.
        UNLOCKED = 0,
        // Several producers: addItem() takes the queue's writer lock.
        LOCKED = 1
    };

    // Places in the ring; a power of two, so that indexes wrap with a mask.
    static constexpr unsigned int kCapacity = 4096;

    // LOCKED builds the writer lock like a pool mutex and throws HvSystemError
    // naming the failed pthread call.
    explicit HvEventQueue(Policy policy);
    // Deletes every event still held, from the last place to the first.
    ~HvEventQueue();

    HvEventQueue(const HvEventQueue&) = delete;
    HvEventQueue& operator=(const HvEventQueue&) = delete;

    // Enqueues and takes ownership of the event; blocks while the ring is
    // full. Null is ignored. A producer thread that is being terminated
    // deletes the event instead.
    void addItem(HvBaseEvent* event);
    // Dequeues, blocking while the ring is empty. Null when the calling thread
    // is being terminated (after WakeUpAll()), or when it was woken without
    // an event. The caller owns the event returned.
    HvBaseEvent* getItem();
    // Number of events in the ring.
    unsigned int getSize() const
    {
        // Taken first: every event counted as taken was counted as added before.
        unsigned int taken = m_taken.load(std::memory_order_acquire);
        return m_added.load(std::memory_order_relaxed) - taken;
    }
    Policy getPolicy() const { return m_policy; }
    // Releases one waiting consumer and one waiting producer; used by the
    // shutdown protocol after the threads were terminated.
    void WakeUpAll();

private:
    // Place in the array of the index-th event: consecutive events go to
    // different cache lines, so that a producer filling one place does not
    // take the line from the consumer emptying the place before it.
    static unsigned int sPlaceOf(unsigned int index) { return ((index & 7u) << 9) | (index >> 3); }

    // Each side's state on cache lines of its own: the two sides run on
    // different threads. The size is the difference of two counters that
    // each have a single writer.
    alignas(64) sem_t m_freeSlots;
    alignas(64) sem_t m_usedSlots;
    alignas(64) unsigned int m_writeIndex;
    std::atomic<unsigned int> m_added;
    Policy m_policy;
    HvMutex* m_pWriteLock;
    alignas(64) unsigned int m_readIndex;
    std::atomic<unsigned int> m_taken;
    // Entries are exchanged atomically, so that an event is owned by exactly
    // one side even if the semaphores were put out of balance by WakeUpAll().
    alignas(64) std::atomic<HvBaseEvent*> m_ring[kCapacity];
};

#endif
