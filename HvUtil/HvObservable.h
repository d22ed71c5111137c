// Source of notifications for at most one observer. An observable is also an
// observer, so observables chain: by default a notification received from
// below is relayed to the observer above, with this observable as sender.
#ifndef HVUTIL_HVOBSERVABLE_H
#define HVUTIL_HVOBSERVABLE_H

#include <HvUtil/HvObserver.h>

class HvObservable : public HvObserver {
public:
    HvObservable() {}
    // Tells an attached observer "Disconnecting" (an HvException; whatever
    // the observer throws is logged, not passed on), clears that observer's
    // link back to this object, then detaches from its own source.
    ~HvObservable() override;

    // Relay: notifies this observable's observer with the same object.
    void onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object) override;

    // Attaches the observer. Throws HvException "HvObservable::attachObserver()
    // ... The current implementation only allows a single observer" when one
    // is attached already. An observer that watches another observable is
    // fed from both through an HvMultiSourceObserver. A nil observer is ignored.
    virtual void attachObserver(HvHandle<HvObserver> observer);
    // Detaches the observer if it is the one attached; others are ignored.
    virtual void detachObserver(HvHandle<HvObserver> observer);
    // 1 when an observer is attached, else 0.
    virtual int countObservers() const;
    // Blocks in the source below (if any) and then sends a nil tick to the
    // observer; returns what the source returned, true without one.
    virtual bool block();

    // Calls the observer's onNotification with this observable as sender.
    void notifyObservers(HvHandle<HvObject> object);

    HvHandle<HvObserver> getObserver() const { return m_observer; }

protected:
    // Links both ends: observer above, this observable as its source.
    void linkObserver(HvHandle<HvObserver> observer);
    // Sets an observer's source field (nil to clear).
    static void setSourceOf(HvObserver& observer, HvObservable* source);

private:
    HvHandle<HvObserver> m_observer;
};

#endif
