#include <HvUtil/HvHandle.h>
#include <HvUtil/HvAssertionFailure.h>

HvHandleBase::HvHandleBase(const HvObject* source, const HvObject* cast)
    : m_pObject(cast)
{
    if (m_pObject)
        m_pObject->AddRef();
    else if (source)
        HvAssertionFailure::sThrow("dynamic_cast failed on HvHandle construction", "HvHandle.cpp", 46,
                                   HV_COMPILE_TIMESTAMP);
}

void HvHandleBase::assign(const HvObject* source, const HvObject* cast)
{
    if (cast == m_pObject)
        return;
    const HvObject* previous = m_pObject;
    m_pObject = cast;
    if (m_pObject)
        m_pObject->AddRef();
    else if (source)
        HvAssertionFailure::sThrow("dynamic_cast failed on HvHandle assignment", "HvHandle.cpp", 81,
                                   HV_COMPILE_TIMESTAMP);
    if (previous)
        previous->Release(true);
}
