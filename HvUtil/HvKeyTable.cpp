#include <HvUtil/HvKeyTable.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvMutex.h>
#include <HvUtil/HvOutputStream.h>

#include <cstring>

namespace {

struct Entry {
    HvStringBuffer* key;
    const HvObject* value;
};

const Entry* asEntry(const void* entry)
{
    return static_cast<const Entry*>(entry);
}

unsigned int hashEntry(const void* entry)
{
    return asEntry(entry)->key->hashCode();
}

// Keys are always string buffers, so their compareWith(const HvObject*)
// comes down to strcmp; calling it directly saves a dynamic_cast per node.
bool sameKey(const void* stored, const void* probe)
{
    const HvStringBuffer* a = asEntry(stored)->key;
    const HvStringBuffer* b = asEntry(probe)->key;
    return a == b || std::strcmp(a->getData(), b->getData()) == 0;
}

} // namespace

HvKeyTable::HvKeyTable()
    : HvHashTableBase(sizeof(Entry), &hashEntry, &sameKey, nullptr, 101, 1)
{
}

HvKeyTable::HvKeyTable(unsigned int buckets, unsigned int locks)
    : HvHashTableBase(sizeof(Entry), &hashEntry, &sameKey, nullptr, buckets, locks)
{
}

HvKeyTable::HvKeyTable(const HvKeyTable& other)
    : HvHashTableBase(other)
{
    Iterator walk(*this);
    while (Entry* entry = static_cast<Entry*>(walk.next())) {
        entry->key->AddRef();
        if (entry->value)
            entry->value->AddRef();
    }
}

HvKeyTable::~HvKeyTable()
{
    mClear();
}

HvHandle<HvObject> HvKeyTable::put(const HvString& key, HvObject* value)
{
    if (key.length() == 0)
        HvException::sThrow("NULL key value (HvStringBuffer*)");
    Entry probe{key.get(), value};
    probe.key->AddRef();
    if (value)
        value->AddRef();
    HvHandle<HvObject> previous;
    HvMutex::Lock lock(lockFor(&probe));
    Entry* stored = static_cast<Entry*>(mAdd(&probe));
    if (stored) {
        // The handle keeps the old value alive for the caller.
        previous = HvHandle<HvObject>(const_cast<HvObject*>(stored->value));
        if (stored->value)
            stored->value->Release(true);
        stored->key->Release(true);
        *stored = probe;
    }
    return previous;
}

HvHandle<HvObject> HvKeyTable::get(const HvString& key) const
{
    if (key.length() == 0)
        return HvHandle<HvObject>();
    Entry probe{key.get(), nullptr};
    HvMutex::Lock lock(lockFor(&probe));
    const Entry* stored = asEntry(mFind(&probe));
    return HvHandle<HvObject>(stored ? const_cast<HvObject*>(stored->value) : nullptr);
}

HvHandle<HvObject> HvKeyTable::asynGet(const HvString& key) const
{
    if (key.length() == 0)
        return HvHandle<HvObject>();
    Entry probe{key.get(), nullptr};
    const Entry* stored = asEntry(mFind(&probe));
    return HvHandle<HvObject>(stored ? const_cast<HvObject*>(stored->value) : nullptr);
}

bool HvKeyTable::containsKey(const HvString& key) const
{
    if (key.length() == 0)
        return false;
    Entry probe{key.get(), nullptr};
    return find(&probe) != nullptr;
}

bool HvKeyTable::contains(HvObject*) const
{
    HvException::sThrow("Not implemented!");
}

bool HvKeyTable::remove(const HvString& key)
{
    if (key.length() == 0)
        return false;
    Entry probe{key.get(), nullptr};
    Entry removed{nullptr, nullptr};
    {
        HvMutex::Lock lock(lockFor(&probe));
        const Entry* stored = asEntry(mFind(&probe));
        if (!stored)
            return false;
        removed = *stored;
        mRemove(&probe);
    }
    // Released outside the lock: destroying them may take other locks.
    if (removed.value)
        removed.value->Release(true);
    removed.key->Release(true);
    return true;
}

void HvKeyTable::mClear()
{
    Iterator walk(*this);
    while (Entry* entry = static_cast<Entry*>(walk.next())) {
        Entry removed = *entry;
        // The iterator has moved past this node, so removing it is safe.
        mRemove(entry);
        if (removed.value)
            removed.value->Release(true);
        removed.key->Release(true);
    }
}

void HvKeyTable::display(HvOutputStream& out) const
{
    // The key is printed twice and the value not at all; log readers expect
    // exactly this layout.
    out << getClassName();
    Iterator walk(const_cast<HvKeyTable&>(*this));
    while (const Entry* entry = asEntry(walk.next())) {
        out << "\n " << entry->key->getData() << "\t";
        entry->key->display(out);
    }
    out << endl;
}

HvObject* HvKeyTable::clone() const
{
    return new HvKeyTable(*this);
}

HvString HvKeyTable::Iterator::getKey() const
{
    return last() ? HvString(asEntry(last())->key) : HvString();
}

HvHandle<HvObject> HvKeyTable::Iterator::getValue() const
{
    return HvHandle<HvObject>(last() ? const_cast<HvObject*>(asEntry(last())->value) : nullptr);
}
