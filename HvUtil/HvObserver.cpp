#include <HvUtil/HvObserver.h>
#include <HvUtil/HvObservable.h>

HvObserver::~HvObserver()
{
    detachWhileDestroying();
    m_source = HvHandle<HvObservable>();
}

void HvObserver::onNotification(HvHandle<HvObservable>, HvHandle<HvObject>)
{
}

void HvObserver::detach()
{
    if (!m_source.isNull())
        m_source->detachObserver(HvHandle<HvObserver>(this));
}

void HvObserver::detachWhileDestroying()
{
    if (m_source.isNull())
        return;
    // The count is 0 while destroying; the handle made by detach() would
    // otherwise bring it back to 0 and delete the object again.
    AddRef();
    detach();
    Release(false);
}
