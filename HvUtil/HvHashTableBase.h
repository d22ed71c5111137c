// Thread-safe chained hash table of fixed-size entries, parameterised by
// plain functions (hash, equality, copy). It never grows; stripe locks, one
// per group of buckets, let independent keys proceed in parallel.
#ifndef HVUTIL_HVHASHTABLEBASE_H
#define HVUTIL_HVHASHTABLEBASE_H

#include <HvUtil/HvObject.h>

#include <atomic>

class HvMutex;

class HvHashTableBase : public HvObject {
public:
    using HashFunc = unsigned int (*)(void const*);
    using CompareFunc = bool (*)(void const*, void const*);
    using CopyFunc = void (*)(void*, void const*);

    // A chain link followed by the entry bytes, in one block.
    struct Node;

    // A null copy function copies entries byte by byte. Throws HvSystemError
    // naming the failed pthread call when a stripe lock cannot be made.
    HvHashTableBase(unsigned int entrySize, HashFunc hash, CompareFunc compare, CopyFunc copy,
                    unsigned int bucketCount, unsigned int lockCount);
    // Copies the functions and the entries (not locked while copied) and
    // makes as many stripe locks as the source has.
    HvHashTableBase(const HvHashTableBase& other);
    // Frees the nodes and the locks; entry contents are the derived class's.
    ~HvHashTableBase() override;

    HvHashTableBase& operator=(const HvHashTableBase&) = delete;

    // Locked forms: take the key's stripe lock around the unlocked twin.
    void* find(void* key) const;
    void* add(void* entry);
    void remove(void* key);

    // Unlocked forms, for holders of the stripe lock or exclusive owners.
    // mAdd returns the stored equal entry (adding nothing) or null when added.
    void* mFind(const void* key) const;
    void* mAdd(const void* entry);
    void mRemove(const void* key);

    // The first 32-bit word of the entry.
    static unsigned int sDefaultHashFunc(void const* entry);

    unsigned int getCount() const { return m_count.load(); }
    unsigned int getBucketCount() const { return m_bucketCount; }

    // Walks the entries bucket by bucket, each chain in insertion order. Takes
    // no lock; the entry last returned may be removed by its holder.
    class Iterator {
    public:
        explicit Iterator(HvHashTableBase& table);
        bool hasNext();
        // The next entry, or null when none is left.
        void* next();
        void reset();

    protected:
        // The entry next() returned last, null before the first or after reset().
        void* last() const { return m_pLast; }

    private:
        void* m_pLast;
        unsigned int m_bucket;
        Node* m_pNode;
        HvHashTableBase* m_pTable;
    };

    // Removes every entry under all stripe locks, taken in index order.
    void clear();

protected:
    // Removes every entry; the caller holds all locks or owns the table.
    // Tables that hold references in their entries release them here.
    virtual void mClear();

    // Stripe lock of an entry or probe.
    HvMutex* lockFor(const void* key) const;
    // Takes or releases every stripe lock in index order.
    void lockAll() const;
    void unlockAll() const;

private:
    friend class Iterator;
    Node* newNode(const void* entry);
    void freeNode(Node* node);
    // The compare function, or a byte comparison when there is none.
    bool entriesEqual(const void* stored, const void* key) const;
    void createLocks(unsigned int lockCount);

    unsigned int m_entrySize;
    HashFunc m_hash;
    CompareFunc m_compare;
    CopyFunc m_copy;
    unsigned int m_bucketCount;
    // Shared by all stripes: each stripe lock guards only its own buckets,
    // so the count is atomic rather than guarded by any one lock.
    std::atomic<unsigned int> m_count;
    Node** m_pBuckets;
    HvMutex** m_pLocks;
    unsigned int m_lockCount;
};

#endif
