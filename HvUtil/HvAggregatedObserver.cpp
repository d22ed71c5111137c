#include <HvUtil/HvAggregatedObserver.h>
#include <HvUtil/HvObservable.h>

HvAggregatedObserver::~HvAggregatedObserver()
{
    // Detach while the forwarding AddRef/Release are still in effect.
    detachWhileDestroying();
}

void HvAggregatedObserver::onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object)
{
    m_pOwner->onNotification(source, object);
}
