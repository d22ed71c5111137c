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
    // Holding the same object already costs nothing. A failed cast into an
    // empty handle also gives null == null, but must still be reported.
    if (cast == m_pObject && (cast || !source))
        return;
    const HvObject* previous = m_pObject;
    m_pObject = cast;
    if (m_pObject)
        m_pObject->AddRef();
    // A failed cast leaves the handle empty; the reference it held is given
    // back before the failure is raised, or it would never be released.
    bool failed = !m_pObject && source;
    if (previous)
        previous->Release(true);
    if (failed)
        HvAssertionFailure::sThrow("dynamic_cast failed on HvHandle assignment", "HvHandle.cpp", 81,
                                   HV_COMPILE_TIMESTAMP);
}
