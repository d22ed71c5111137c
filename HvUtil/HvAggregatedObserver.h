// Inner observer that forwards notifications and reference counting to the
// object it observes for; its own count is never used.
#ifndef HVUTIL_HVAGGREGATEDOBSERVER_H
#define HVUTIL_HVAGGREGATEDOBSERVER_H

#include <HvUtil/HvObserver.h>

class HvAggregatedObserver : public HvObserver {
public:
    // `owner` is not counted: the owner holds this object, not the reverse.
    explicit HvAggregatedObserver(HvObserver* owner) : m_pOwner(owner) {}
    ~HvAggregatedObserver() override;

    int AddRef() const override { return m_pOwner->AddRef(); }
    int Release(bool destroy) const override { return m_pOwner->Release(destroy); }

    // Passes both handles on, so the owner learns which source sent.
    void onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object) override;

    HvObserver* getOwner() const { return m_pOwner; }

private:
    HvObserver* m_pOwner;
};

#endif
