// Table from unsigned tokens to reference-counted objects. It holds one
// reference on every non-null value it stores.
#ifndef HVUTIL_HVTOKENTABLE_H
#define HVUTIL_HVTOKENTABLE_H

#include <HvUtil/HvHashTableBase.h>
#include <HvUtil/HvHandle.h>

class HvTokenTable : public HvHashTableBase {
public:
    // 101 buckets (or the given count), one lock.
    explicit HvTokenTable(unsigned int buckets = 101);
    ~HvTokenTable() override;
    // Not copyable: a copy would share the value references without holding them.
    HvTokenTable(const HvTokenTable&) = delete;
    HvTokenTable& operator=(const HvTokenTable&) = delete;

    // Stores value under token; returns the value it replaces (empty if none).
    HvHandle<HvObject> put(unsigned int token, HvObject* value);
    // The value under token, or empty.
    HvHandle<HvObject> get(unsigned int token) const;
    bool containsKey(unsigned int token) const;
    // Not provided: throws HvException "Not implemented!".
    bool contains(HvObject* value) const;
    // Removes the entry and releases its value; false if absent.
    bool remove(unsigned int token);
    // Does nothing: the table has a fixed size.
    void rehash() {}

    // The class name and a line end.
    virtual void display(HvOutputStream& out) const;
    using HvObject::display;

    class Iterator : public HvHashTableBase::Iterator {
    public:
        explicit Iterator(HvTokenTable& table) : HvHashTableBase::Iterator(table) {}
        // Key and value of the entry next() returned last.
        unsigned int getKey() const;
        HvHandle<HvObject> getValue() const;
    };

    Iterator keys() { return Iterator(*this); }
    Iterator elements() { return Iterator(*this); }

protected:
    void mClear() override;
};

#endif
