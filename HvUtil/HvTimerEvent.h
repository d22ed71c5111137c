// The event that carries one due timer request from the monitor thread to
// the timer dispatcher: the observer to notify and what to give it.
#ifndef HVUTIL_HVTIMEREVENT_H
#define HVUTIL_HVTIMEREVENT_H

#include <HvUtil/HvBaseEvent.h>
#include <HvUtil/HvObserver.h>

class HvTimerEvent : public HvBaseEvent {
public:
    // Takes a reference on both (either may be null).
    HvTimerEvent(HvObserver* observer, HvObject* argument);
    // Releases the argument first, then the observer.
    ~HvTimerEvent() override;

    HvTimerEvent(const HvTimerEvent&) = delete;
    HvTimerEvent& operator=(const HvTimerEvent&) = delete;

    // Who is to be notified.
    HvObserver* getObserver() const { return m_observer.get(); }
    // What it is given.
    HvObject* getArgument() const { return m_argument.get(); }

private:
    // Declared in this order so that the argument goes first.
    HvHandle<HvObserver> m_observer;
    HvHandle<HvObject> m_argument;
};

#endif
