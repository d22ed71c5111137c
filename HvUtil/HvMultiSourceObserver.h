// Lets one observer (the client) watch several observables: an aggregated
// observer stands in front of each source and forwards to the client,
// together with the source that sent.
#ifndef HVUTIL_HVMULTISOURCEOBSERVER_H
#define HVUTIL_HVMULTISOURCEOBSERVER_H

#include <HvUtil/HvObservable.h>

#include <vector>

class HvAggregatedObserver;
class HvMutex;

class HvMultiSourceObserver : public HvObservable {
public:
    // Takes the observer's place in front of its old source (if any) and of
    // `source`. Throws HvSystemError if the mutex cannot be made, and passes
    // on the failure of attaching to `source` (one that has an observer
    // already); the observer is then given back to its old source.
    HvMultiSourceObserver(HvObserver* observer, HvObservable* source);
    // Detaches all sources and destroys the mutex.
    ~HvMultiSourceObserver() override;

    // Attaches a new stand-in to `source`; throws as attachObserver does when
    // `source` has an observer already.
    void addSource(HvObservable* source);
    // Removes the first stand-in attached to `source`; unknown sources are ignored.
    void removeSource(HvObservable* source);
    // Detaches every stand-in from its source.
    void detachAll();

    // Detaching the client first detaches every source.
    void detachObserver(HvHandle<HvObserver> observer) override;
    // Forwards to the client with the real source.
    void onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object) override;

    // Number of sources.
    unsigned int countSources() const;
    // The source fed through the stand-in at `index` (in the order they were
    // added); nil past the end.
    HvHandle<HvObservable> getSourceAt(unsigned int index) const;

private:
    // Detaches a stand-in and keeps it until this object is destroyed.
    void retire(HvAggregatedObserver* standIn);
    // Frees the retired stand-ins; only when no notification can be under way.
    void freeRetired();

    std::vector<HvAggregatedObserver*> m_sources;
    // Detached stand-ins: one small object per removed source, freed with this one.
    std::vector<HvAggregatedObserver*> m_retired;
    HvMutex* m_pMutex;
};

#endif
