// Receiver of notifications from at most one observable, its source.
#ifndef HVUTIL_HVOBSERVER_H
#define HVUTIL_HVOBSERVER_H

#include <HvUtil/HvHandle.h>

class HvObservable;

class HvObserver : public HvObject {
public:
    HvObserver() {}
    // Detaches from the source.
    ~HvObserver() override;

    // Called by the source. A nil object is the tick of block(); an
    // HvException reports a failure or the end of the source. Does nothing here.
    virtual void onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object);

    // Asks the source, if any, to detach this observer.
    void detach();

    // The observable this observer is attached to; nil when detached.
    HvHandle<HvObservable> getSource() const { return m_source; }

protected:
    // For destructors: detaches with a reference held on this object so that
    // the temporary handles of the detach cannot delete it a second time.
    void detachWhileDestroying();

private:
    friend class HvObservable;
    HvHandle<HvObservable> m_source;
};

#endif
