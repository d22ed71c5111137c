#include <HvUtil/HvMultiSourceObserver.h>
#include <HvUtil/HvAggregatedObserver.h>
#include <HvUtil/HvMutex.h>

#include <algorithm>

HvMultiSourceObserver::HvMultiSourceObserver(HvObserver* observer, HvObservable* source)
    : m_pMutex(HvMutex::sCreate())
{
    // Handles to this object are made and dropped below, before anyone owns
    // it: hold a reference so that none of them can delete it.
    AddRef();
    HvHandle<HvObserver> client(observer);
    HvHandle<HvObservable> previous = observer->getSource();
    try {
        // The client leaves its old source and watches this object; the old
        // source is then fed through a stand-in like the new one.
        if (!previous.isNull())
            previous->detachObserver(client);
        linkObserver(client);
        if (!previous.isNull())
            addSource(previous.get());
        addSource(source);
    } catch (...) {
        detachAll();
        freeRetired();
        HvObservable::detachObserver(client);
        // A failed fan-in leaves the observer where it was.
        if (!previous.isNull())
            previous->attachObserver(client);
        HvMutex::sDestroy(m_pMutex);
        Release(false);
        throw;
    }
    Release(false);
}

HvMultiSourceObserver::~HvMultiSourceObserver()
{
    detachAll();
    freeRetired();
    HvMutex::sDestroy(m_pMutex);
}

void HvMultiSourceObserver::freeRetired()
{
    for (HvAggregatedObserver* standIn : m_retired)
        delete standIn;
    m_retired.clear();
}

void HvMultiSourceObserver::retire(HvAggregatedObserver* standIn)
{
    // A notification from that source may be under way (the client may be
    // removing the source from inside it), holding handles to the stand-in:
    // it is detached now and freed with this object, which those handles
    // keep alive.
    standIn->detach();
    m_retired.push_back(standIn);
}

void HvMultiSourceObserver::addSource(HvObservable* source)
{
    HvHandle<HvObservable> self(this);
    HvMutex::Lock lock(m_pMutex);
    HvAggregatedObserver* standIn = new HvAggregatedObserver(this);
    try {
        source->attachObserver(HvHandle<HvObserver>(standIn));
    } catch (...) {
        delete standIn;
        throw;
    }
    m_sources.push_back(standIn);
}

void HvMultiSourceObserver::removeSource(HvObservable* source)
{
    // Dropping the last stand-in may drop the last reference to this object.
    HvHandle<HvObservable> self(this);
    HvMutex::Lock lock(m_pMutex);
    auto found = std::find_if(m_sources.begin(), m_sources.end(), [source](HvAggregatedObserver* standIn) {
        return standIn->getSource().get() == source;
    });
    if (found == m_sources.end())
        return;
    HvAggregatedObserver* standIn = *found;
    m_sources.erase(found);
    retire(standIn);
}

void HvMultiSourceObserver::detachAll()
{
    HvMutex::Lock lock(m_pMutex);
    for (HvAggregatedObserver* standIn : m_sources)
        retire(standIn);
    m_sources.clear();
}

void HvMultiSourceObserver::detachObserver(HvHandle<HvObserver> observer)
{
    if (!observer.isNull() && observer == getObserver()) {
        HvHandle<HvObservable> self(this);
        detachAll();
        HvObservable::detachObserver(observer);
        return;
    }
    HvObservable::detachObserver(observer);
}

void HvMultiSourceObserver::onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object)
{
    HvHandle<HvObserver> client = getObserver();
    if (!client.isNull())
        client->onNotification(source, object);
}

unsigned int HvMultiSourceObserver::countSources() const
{
    HvMutex::Lock lock(m_pMutex);
    return static_cast<unsigned int>(m_sources.size());
}

HvHandle<HvObservable> HvMultiSourceObserver::getSourceAt(unsigned int index) const
{
    HvMutex::Lock lock(m_pMutex);
    if (index >= m_sources.size())
        return HvHandle<HvObservable>();
    return m_sources[index]->getSource();
}
