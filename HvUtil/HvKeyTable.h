// Table from text keys to reference-counted objects. It holds one reference
// on every key buffer and every non-null value it stores.
#ifndef HVUTIL_HVKEYTABLE_H
#define HVUTIL_HVKEYTABLE_H

#include <HvUtil/HvHashTableBase.h>
#include <HvUtil/HvHandle.h>
#include <HvUtil/HvString.h>

class HvKeyTable : public HvHashTableBase {
public:
    // 101 buckets, one lock.
    HvKeyTable();
    HvKeyTable(unsigned int buckets, unsigned int locks);
    // Copies the entries and takes a reference on each key and value.
    HvKeyTable(const HvKeyTable& other);
    ~HvKeyTable() override;

    // Stores value under key; returns the value it replaces (empty if none).
    // The caller's key buffer replaces a stored equal one. Throws HvException
    // "NULL key value (HvStringBuffer*)" for an empty key.
    HvHandle<HvObject> put(const HvString& key, HvObject* value);
    // The value under key; empty for an absent or empty key.
    HvHandle<HvObject> get(const HvString& key) const;
    // As get, without the lock: for holders of the lock or racy readers.
    HvHandle<HvObject> asynGet(const HvString& key) const;
    bool containsKey(const HvString& key) const;
    // Not provided: throws HvException "Not implemented!".
    bool contains(HvObject* value) const;
    // Removes the entry and releases its value and key; false if absent.
    bool remove(const HvString& key);
    // Does nothing: the table has a fixed size.
    void rehash() {}

    // Class name, then "\n <key>\t" and the key's display per entry, a line end.
    virtual void display(HvOutputStream& out) const;
    using HvObject::display;
    HvObject* clone() const override;

    class Iterator : public HvHashTableBase::Iterator {
    public:
        explicit Iterator(HvKeyTable& table) : HvHashTableBase::Iterator(table) {}
        // Key and value of the entry next() returned last.
        HvString getKey() const;
        HvHandle<HvObject> getValue() const;
    };

    Iterator keys() { return Iterator(*this); }
    Iterator elements() { return Iterator(*this); }

protected:
    void mClear() override;
};

#endif
