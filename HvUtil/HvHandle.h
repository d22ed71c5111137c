// Handles: HvHandleBase owns one reference to an HvObject in one pointer;
// HvHandle<T> adds typed access and checked conversions between types.
#ifndef HVUTIL_HVHANDLE_H
#define HVUTIL_HVHANDLE_H

#include <HvUtil/HvObject.h>

#include <Velmora/Assertion.h>

#include <type_traits>
#include <utility>

class HvHandleBase {
public:
    HvHandleBase() : m_pObject(nullptr) {}
    // Takes a reference on a non-null object.
    HvHandleBase(const HvObject* object) : m_pObject(object)
    {
        if (m_pObject)
            m_pObject->AddRef();
    }
    HvHandleBase(const HvHandleBase& other) : m_pObject(other.m_pObject)
    {
        if (m_pObject)
            m_pObject->AddRef();
    }
    // Takes over the other handle's reference, which leaves it empty: no
    // reference count is touched (each touch takes the object's mutex).
    HvHandleBase(HvHandleBase&& other) noexcept : m_pObject(other.m_pObject) { other.m_pObject = nullptr; }
    // Conversion: `cast` is the dynamic cast of `source` to the handle's type.
    // Throws HvAssertionFailure "dynamic_cast failed on HvHandle construction"
    // when the source is not null but the cast is; the handle then holds null.
    HvHandleBase(const HvObject* source, const HvObject* cast);

    ~HvHandleBase()
    {
        if (m_pObject)
            m_pObject->Release(true);
    }

protected:
    // Assignment is typed: only HvHandle<T> and its subclasses assign, so a
    // handle can never be given an object of the wrong type unchecked.
    HvHandleBase& operator=(const HvHandleBase& other)
    {
        assign(other.m_pObject);
        return *this;
    }

    // Holds `object` instead. Stores and adds before releasing the old one,
    // so assigning an object that only the old one keeps alive is safe.
    void assign(const HvObject* object)
    {
        if (object == m_pObject)
            return;
        const HvObject* previous = m_pObject;
        m_pObject = object;
        if (m_pObject)
            m_pObject->AddRef();
        if (previous)
            previous->Release(true);
    }
    // Holds the other handle's object with its reference, leaving the other
    // empty; the old object is released last, as in assign().
    void take(HvHandleBase& other)
    {
        if (&other == this)
            return;
        const HvObject* previous = m_pObject;
        m_pObject = other.m_pObject;
        other.m_pObject = nullptr;
        if (previous)
            previous->Release(true);
    }
    // Conversion assignment; throws HvAssertionFailure
    // "dynamic_cast failed on HvHandle assignment" when the cast fails, also
    // into an empty handle. The handle is then empty and its old object released.
    void assign(const HvObject* source, const HvObject* cast);

    const HvObject* m_pObject;
};

template <class T>
class HvHandle : public HvHandleBase {
public:
    HvHandle() {}
    HvHandle(T* object) : HvHandleBase(object) {}
    HvHandle(const HvHandle& other) : HvHandleBase(other) {}
    HvHandle(HvHandle&& other) noexcept : HvHandleBase(std::move(other)) {}

    // From a pointer or handle of another type: an up-cast is taken as is, a
    // down-cast is checked; a wrong type throws HvAssertionFailure.
    template <class U>
    HvHandle(U* object) : HvHandleBase(object, castFrom(object)) {}
    template <class U>
    HvHandle(const HvHandle<U>& other) : HvHandleBase(other.get(), castFrom(other.get())) {}

    HvHandle& operator=(const HvHandle& other)
    {
        assign(other.m_pObject);
        return *this;
    }
    HvHandle& operator=(HvHandle&& other) noexcept
    {
        take(other);
        return *this;
    }
    HvHandle& operator=(T* object)
    {
        assign(object);
        return *this;
    }
    template <class U>
    HvHandle& operator=(U* object)
    {
        assign(object, castFrom(object));
        return *this;
    }
    template <class U>
    HvHandle& operator=(const HvHandle<U>& other)
    {
        assign(other.get(), castFrom(other.get()));
        return *this;
    }

    // Asserts "this != 0" through Velmora::Assertion on an empty handle
    // before the access is attempted.
    T* operator->() const
    {
        if (!m_pObject)
            Velmora::Assertion(false, "this != 0", HV_OBJECT_HEADER_PATH, HV_OBJECT_EMPTY_HANDLE_LINE);
        return get();
    }
    T& operator*() const { return *operator->(); }

    // The raw pointer, null when empty; no assertion.
    T* get() const { return static_cast<T*>(const_cast<HvObject*>(m_pObject)); }
    bool isNull() const { return m_pObject == nullptr; }

    template <class U>
    bool operator==(const HvHandle<U>& other) const { return m_pObject == other.getObject(); }
    template <class U>
    bool operator!=(const HvHandle<U>& other) const { return m_pObject != other.getObject(); }
    bool operator==(const HvObject* object) const { return m_pObject == object; }
    bool operator!=(const HvObject* object) const { return m_pObject != object; }

    // The held object as its root type.
    const HvObject* getObject() const { return m_pObject; }

private:
    template <class U>
    static const HvObject* castFrom(U* object)
    {
        if constexpr (std::is_convertible<U*, T*>::value)
            return static_cast<T*>(object);
        else
            return object ? dynamic_cast<const T*>(object) : nullptr;
    }
};

template <class T>
bool operator==(const HvObject* object, const HvHandle<T>& handle) { return handle == object; }
template <class T>
bool operator!=(const HvObject* object, const HvHandle<T>& handle) { return handle != object; }

#endif
