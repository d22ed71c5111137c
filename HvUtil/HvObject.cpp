#include <HvUtil/HvObject.h>
#include <HvUtil/HvAssertionFailure.h>
#include <HvUtil/HvMutex.h>
#include <HvUtil/HvOutputStream.h>

#include <typeinfo>

HvObject::HvObject()
    : m_refCount(0), m_pMutex(HvMutex::sPoolMutexOfCurrentThread())
{
}

HvObject::HvObject(const HvObject&)
    : m_refCount(0), m_pMutex(HvMutex::sPoolMutexOfCurrentThread())
{
}

HvObject::~HvObject() noexcept(false)
{
    if (m_refCount != 0)
        HvAssertionFailure::sThrow("Destructing HvObject with live references", "HvObject.cpp", 52,
                                   HV_COMPILE_TIMESTAMP);
}

HvObject* HvObject::clone() const
{
    HvAssertionFailure::sThrow("cloning is not supported", "HvObject.cpp", 87, HV_COMPILE_TIMESTAMP);
}

int HvObject::compareWith(const HvObject* other) const
{
    // Identity ordering by address difference. Addresses are 64-bit here:
    // a difference that does not fit an int keeps only its sign, so distinct
    // objects never compare equal.
    std::intptr_t difference = reinterpret_cast<std::intptr_t>(this) - reinterpret_cast<std::intptr_t>(other);
    if (difference > INT32_MAX)
        return 1;
    if (difference < INT32_MIN)
        return -1;
    return static_cast<int>(difference);
}

unsigned int HvObject::hashCode() const
{
    return static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(this));
}

void HvObject::display(HvOutputStream& out, bool verbose) const
{
    out << m_refCount;
    if (verbose)
        out << " \t(" << static_cast<const void*>(this) << ")";
    out << "\t" << getClassName();
}

int HvObject::AddRef() const
{
    m_pMutex->lock();
    int count = ++m_refCount;
    m_pMutex->unlock();
    return count;
}

int HvObject::Release(bool destroy) const
{
    m_pMutex->lock();
    int count = --m_refCount;
    m_pMutex->unlock();
    // Only the thread whose decrement produced 0 sees 0, so exactly one deletes.
    if (count == 0 && destroy)
        delete this;
    return count;
}

const char* HvObject::getClassName() const
{
    // Debug output everywhere depends on this fixed two-character skip of the
    // mangled name, even where it eats the first letter of a short name.
    return typeid(*this).name() + 2;
}

bool HvObject::isSameClass(const HvObject* other) const
{
    return typeid(*this) == typeid(*other);
}

int HvObject::getRefCount() const
{
    m_pMutex->lock();
    int count = m_refCount;
    m_pMutex->unlock();
    return count;
}

HvOutputStream& operator<<(HvOutputStream& out, const HvObject* object)
{
    if (!object)
        return out << "Nil HvObject";
    object->display(out, true);
    return out;
}
