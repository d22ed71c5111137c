#include <HvUtil/HvTokenTable.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvMutex.h>
#include <HvUtil/HvOutputStream.h>

namespace {

struct Entry {
    unsigned int token;
    const HvObject* value;
};

const Entry* asEntry(const void* entry)
{
    return static_cast<const Entry*>(entry);
}

unsigned int hashEntry(const void* entry)
{
    return asEntry(entry)->token;
}

bool sameToken(const void* stored, const void* probe)
{
    return asEntry(stored)->token == asEntry(probe)->token;
}

HvHandle<HvObject> valueOf(const Entry* entry)
{
    return HvHandle<HvObject>(entry ? const_cast<HvObject*>(entry->value) : nullptr);
}

} // namespace

HvTokenTable::HvTokenTable(unsigned int buckets)
    : HvHashTableBase(sizeof(Entry), &hashEntry, &sameToken, nullptr, buckets, 1)
{
}

HvTokenTable::~HvTokenTable()
{
    mClear();
}

HvHandle<HvObject> HvTokenTable::put(unsigned int token, HvObject* value)
{
    Entry probe{token, value};
    if (value)
        value->AddRef();
    HvHandle<HvObject> previous;
    HvMutex::Lock lock(lockFor(&probe));
    Entry* stored = static_cast<Entry*>(mAdd(&probe));
    if (stored) {
        previous = valueOf(stored);
        if (stored->value)
            stored->value->Release(true);
        stored->value = value;
    }
    return previous;
}

HvHandle<HvObject> HvTokenTable::get(unsigned int token) const
{
    Entry probe{token, nullptr};
    HvMutex::Lock lock(lockFor(&probe));
    return valueOf(asEntry(mFind(&probe)));
}

bool HvTokenTable::containsKey(unsigned int token) const
{
    Entry probe{token, nullptr};
    return find(&probe) != nullptr;
}

bool HvTokenTable::contains(HvObject*) const
{
    HvException::sThrow("Not implemented!");
}

bool HvTokenTable::remove(unsigned int token)
{
    Entry probe{token, nullptr};
    const HvObject* value = nullptr;
    {
        HvMutex::Lock lock(lockFor(&probe));
        const Entry* stored = asEntry(mFind(&probe));
        if (!stored)
            return false;
        value = stored->value;
        mRemove(&probe);
    }
    // Released outside the lock: destroying it may take other locks.
    if (value)
        value->Release(true);
    return true;
}

void HvTokenTable::mClear()
{
    Iterator walk(*this);
    while (Entry* entry = static_cast<Entry*>(walk.next())) {
        const HvObject* value = entry->value;
        // The iterator has moved past this node, so removing it is safe.
        mRemove(entry);
        if (value)
            value->Release(true);
    }
}

void HvTokenTable::display(HvOutputStream& out) const
{
    out << getClassName() << endl;
}

unsigned int HvTokenTable::Iterator::getKey() const
{
    return last() ? asEntry(last())->token : 0;
}

HvHandle<HvObject> HvTokenTable::Iterator::getValue() const
{
    return valueOf(asEntry(last()));
}
