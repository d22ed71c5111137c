#include <HvUtil/HvHashTableBase.h>
#include <HvUtil/HvMutex.h>

#include <cstdlib>
#include <cstring>
#include <new>

struct HvHashTableBase::Node {
    Node* next;
    unsigned char* entry() { return reinterpret_cast<unsigned char*>(this + 1); }
};

HvHashTableBase::HvHashTableBase(unsigned int entrySize, HashFunc hash, CompareFunc compare, CopyFunc copy,
                                 unsigned int bucketCount, unsigned int lockCount)
    : m_entrySize(entrySize), m_hash(hash), m_compare(compare), m_copy(copy),
      m_bucketCount(bucketCount ? bucketCount : 1), m_count(0),
      m_pBuckets(new Node*[m_bucketCount]()), m_pLocks(nullptr), m_lockCount(0)
{
    createLocks(lockCount);
}

HvHashTableBase::HvHashTableBase(const HvHashTableBase& other)
    : HvObject(other), m_entrySize(other.m_entrySize), m_hash(other.m_hash), m_compare(other.m_compare),
      m_copy(other.m_copy), m_bucketCount(other.m_bucketCount), m_count(0),
      m_pBuckets(new Node*[m_bucketCount]()), m_pLocks(nullptr), m_lockCount(0)
{
    Iterator walk(const_cast<HvHashTableBase&>(other));
    while (void* entry = walk.next())
        mAdd(entry);
    createLocks(other.m_lockCount);
}

void HvHashTableBase::createLocks(unsigned int lockCount)
{
    if (lockCount == 0)
        lockCount = 1;
    m_pLocks = new HvMutex*[lockCount]();
    try {
        for (; m_lockCount < lockCount; ++m_lockCount)
            m_pLocks[m_lockCount] = HvMutex::sCreate();
    } catch (...) {
        // The destructor does not run for a failed constructor.
        for (unsigned int i = 0; i < m_lockCount; ++i)
            HvMutex::sDestroy(m_pLocks[i]);
        delete[] m_pLocks;
        for (unsigned int bucket = m_bucketCount; bucket-- > 0;) {
            while (Node* node = m_pBuckets[bucket]) {
                m_pBuckets[bucket] = node->next;
                freeNode(node);
            }
        }
        delete[] m_pBuckets;
        throw;
    }
}

HvHashTableBase::~HvHashTableBase()
{
    for (unsigned int bucket = m_bucketCount; bucket-- > 0;) {
        Node* node = m_pBuckets[bucket];
        while (node) {
            Node* next = node->next;
            freeNode(node);
            node = next;
        }
    }
    for (unsigned int i = 0; i < m_lockCount; ++i)
        HvMutex::sDestroy(m_pLocks[i]);
    delete[] m_pLocks;
    delete[] m_pBuckets;
}

HvHashTableBase::Node* HvHashTableBase::newNode(const void* entry)
{
    Node* node = static_cast<Node*>(std::malloc(sizeof(Node) + m_entrySize));
    if (!node)
        throw std::bad_alloc();
    node->next = nullptr;
    if (m_copy)
        m_copy(node->entry(), entry);
    else
        std::memcpy(node->entry(), entry, m_entrySize);
    return node;
}

void HvHashTableBase::freeNode(Node* node)
{
    std::free(node);
}

HvMutex* HvHashTableBase::lockFor(const void* key) const
{
    if (m_lockCount == 1)
        return m_pLocks[0];
    return m_pLocks[(m_hash(key) % m_bucketCount) % m_lockCount];
}

void HvHashTableBase::lockAll() const
{
    for (unsigned int i = 0; i < m_lockCount; ++i)
        m_pLocks[i]->lock();
}

void HvHashTableBase::unlockAll() const
{
    for (unsigned int i = 0; i < m_lockCount; ++i)
        m_pLocks[i]->unlock();
}

void HvHashTableBase::clear()
{
    lockAll();
    try {
        mClear();
    } catch (...) {
        unlockAll();
        throw;
    }
    unlockAll();
}

void HvHashTableBase::mClear()
{
    Iterator walk(*this);
    while (void* entry = walk.next())
        mRemove(entry);
}

void* HvHashTableBase::find(void* key) const
{
    HvMutex::Lock lock(lockFor(key));
    return mFind(key);
}

void* HvHashTableBase::add(void* entry)
{
    HvMutex::Lock lock(lockFor(entry));
    return mAdd(entry);
}

void HvHashTableBase::remove(void* key)
{
    HvMutex::Lock lock(lockFor(key));
    mRemove(key);
}

void* HvHashTableBase::mFind(const void* key) const
{
    for (Node* node = m_pBuckets[m_hash(key) % m_bucketCount]; node; node = node->next) {
        if (entriesEqual(node->entry(), key))
            return node->entry();
    }
    return nullptr;
}

void* HvHashTableBase::mAdd(const void* entry)
{
    Node** link = &m_pBuckets[m_hash(entry) % m_bucketCount];
    for (; *link; link = &(*link)->next) {
        if (entriesEqual((*link)->entry(), entry))
            return (*link)->entry();
    }
    *link = newNode(entry);
    ++m_count;
    return nullptr;
}

void HvHashTableBase::mRemove(const void* key)
{
    for (Node** link = &m_pBuckets[m_hash(key) % m_bucketCount]; *link; link = &(*link)->next) {
        Node* node = *link;
        if (entriesEqual(node->entry(), key)) {
            *link = node->next;
            freeNode(node);
            --m_count;
            return;
        }
    }
}

bool HvHashTableBase::entriesEqual(const void* stored, const void* key) const
{
    return m_compare ? m_compare(stored, key) : std::memcmp(stored, key, m_entrySize) == 0;
}

unsigned int HvHashTableBase::sDefaultHashFunc(void const* entry)
{
    unsigned int word;
    std::memcpy(&word, entry, sizeof(word));
    return word;
}

HvHashTableBase::Iterator::Iterator(HvHashTableBase& table)
    : m_pLast(nullptr), m_bucket(0), m_pNode(table.m_pBuckets[0]), m_pTable(&table)
{
}

bool HvHashTableBase::Iterator::hasNext()
{
    while (!m_pNode) {
        if (m_bucket + 1 >= m_pTable->m_bucketCount)
            return false;
        m_pNode = m_pTable->m_pBuckets[++m_bucket];
    }
    return true;
}

void* HvHashTableBase::Iterator::next()
{
    if (!hasNext()) {
        m_pLast = nullptr;
        return nullptr;
    }
    Node* node = m_pNode;
    m_pNode = node->next;
    m_pLast = node->entry();
    return m_pLast;
}

void HvHashTableBase::Iterator::reset()
{
    m_pLast = nullptr;
    m_bucket = 0;
    m_pNode = m_pTable->m_pBuckets[0];
}
