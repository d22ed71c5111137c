// Root of every shared class: an intrusive reference count guarded by a
// mutex borrowed from the library-wide pool, plus overridable defaults for
// cloning, comparison, hashing and display.
#ifndef HVUTIL_HVOBJECT_H
#define HVUTIL_HVOBJECT_H

class HvMutex;
class HvOutputStream;

// Compilation date and time of the including source file, as the library
// passes it with every assertion failure.
#define HV_COMPILE_TIMESTAMP __DATE__ " " __TIME__

// Path and line reported when a member is reached through an empty handle.
#define HV_OBJECT_HEADER_PATH "HvUtil/HvObject.h"
#define HV_OBJECT_EMPTY_HANDLE_LINE 87

class HvObject {
public:
    // Count 0: a bare new holds no reference; the first handle makes it 1.
    HvObject();
    // A copy is a new object: count 0 and a mutex chosen by the copying thread.
    HvObject(const HvObject& other);
    // Assignment never touches the count or the mutex.
    HvObject& operator=(const HvObject&) { return *this; }

    // Throws HvAssertionFailure "Destructing HvObject with live references"
    // when the count is not 0.
    virtual ~HvObject() noexcept(false);

    // The default throws HvAssertionFailure "cloning is not supported";
    // copyable classes return a new object with count 0.
    virtual HvObject* clone() const;
    // Identity ordering: difference of the two addresses.
    virtual int compareWith(const HvObject* other) const;
    // The object's address.
    virtual unsigned int hashCode() const;
    // Count; with verbose, " \t(" address ")"; then "\t" and the class name.
    virtual void display(HvOutputStream& out, bool verbose) const;

    // Adds one reference; returns the new count.
    virtual int AddRef() const;
    // Drops one reference; returns the new count. When it reaches 0 and
    // `destroy` is true, the object is deleted.
    virtual int Release(bool destroy) const;

    // The dynamic type's mangled name with two characters skipped
    // ("14HvStringBuffer" gives "HvStringBuffer", "8HvObject" gives "vObject").
    const char* getClassName() const;
    // True when both objects have the same dynamic type; null throws std::bad_typeid.
    bool isSameClass(const HvObject* other) const;

    int getRefCount() const;

protected:
    // The borrowed object mutex; subclasses guard their own state with it.
    // It is not recursive and is shared with other objects: never call
    // AddRef/Release on an object while holding its mutex.
    HvMutex* getObjectMutex() const { return m_pMutex; }

private:
    mutable int m_refCount;
    HvMutex* m_pMutex;
};

// "Nil HvObject" for null, else the object's verbose display.
HvOutputStream& operator<<(HvOutputStream& out, const HvObject* object);

#endif
