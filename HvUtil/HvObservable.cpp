#include <HvUtil/HvObservable.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvMultiSourceObserver.h>

#include <Velmora/Logger.h>

#include <string>

namespace {

void logObserverFailure(const char* what)
{
    Velmora::Logger& logger = Velmora::fileScopeLogger("HvObservable");
    if (logger.isEnabledFor(Velmora::Logger::ERROR))
        logger.log(Velmora::Logger::ERROR,
                   std::string("HvObservable::~HvObservable(): observer failed on Disconnecting: ") + what, __FILE__,
                   __LINE__);
}

} // namespace

HvObservable::~HvObservable()
{
    if (!m_observer.isNull()) {
        HvHandle<HvObserver> former = m_observer;
        m_observer = HvHandle<HvObserver>();
        // Held while the handles to this object exist, so that dropping them
        // cannot start a second destruction.
        AddRef();
        try {
            HvHandle<HvObject> notice(new HvException(HvStringBuffer::sCreate("Disconnecting", 0, 0)));
            former->onNotification(HvHandle<HvObservable>(this), notice);
        } catch (HvHandle<HvException>& e) {
            // Nobody can be told from a destructor, and letting it escape
            // would leave this object half destroyed.
            logObserverFailure(e->getMessage().c_str());
        } catch (...) {
            logObserverFailure("unknown exception");
        }
        // The observer still names this object as its source; left alone that
        // link would hold a count on an object whose memory is about to go,
        // and the observer's own detach would later reach freed memory.
        if (former->m_source == this)
            former->m_source = HvHandle<HvObservable>();
        Release(false);
    }
}

void HvObservable::onNotification(HvHandle<HvObservable>, HvHandle<HvObject> object)
{
    notifyObservers(object);
}

void HvObservable::attachObserver(HvHandle<HvObserver> observer)
{
    if (!m_observer.isNull())
        HvException::sThrow("HvObservable::attachObserver() ... The current implementation only allows a single observer");
    // Nothing to link: a nil observer is ignored rather than dereferenced.
    if (observer.isNull())
        return;
    if (observer->m_source.isNull()) {
        linkObserver(observer);
        return;
    }
    HvMultiSourceObserver* group = dynamic_cast<HvMultiSourceObserver*>(observer->m_source.get());
    if (group) {
        group->addSource(this);
        return;
    }
    // The new object links itself in: the observer's source handle owns it.
    new HvMultiSourceObserver(observer.get(), this);
}

void HvObservable::detachObserver(HvHandle<HvObserver> observer)
{
    if (m_observer.isNull() || m_observer != observer)
        return;
    m_observer = HvHandle<HvObserver>();
    observer->m_source = HvHandle<HvObservable>();
}

int HvObservable::countObservers() const
{
    return m_observer.isNull() ? 0 : 1;
}

bool HvObservable::block()
{
    bool result = true;
    HvHandle<HvObservable> source = getSource();
    if (!source.isNull())
        result = source->block();
    notifyObservers(HvHandle<HvObject>());
    return result;
}

void HvObservable::notifyObservers(HvHandle<HvObject> object)
{
    // A local handle keeps the observer alive even if it detaches itself
    // while being notified.
    HvHandle<HvObserver> observer = m_observer;
    if (!observer.isNull())
        observer->onNotification(HvHandle<HvObservable>(this), object);
}

void HvObservable::linkObserver(HvHandle<HvObserver> observer)
{
    m_observer = observer;
    observer->m_source = HvHandle<HvObservable>(this);
}

void HvObservable::setSourceOf(HvObserver& observer, HvObservable* source)
{
    observer.m_source = HvHandle<HvObservable>(source);
}
