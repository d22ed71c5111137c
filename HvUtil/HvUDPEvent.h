// Event of the datagram dispatchers: an observer and the object to hand it.
// For input, the HvDatagramSocket that received (which relays to its own
// observer) and the received HvDatagramPacket, or the HvException that ended
// the receive; for output, the packet to send.
#ifndef HVUTIL_HVUDPEVENT_H
#define HVUTIL_HVUDPEVENT_H

#include <HvUtil/HvBaseEvent.h>
#include <HvUtil/HvObserver.h>

#include <cstddef>

class HvUDPEvent : public HvBaseEvent {
public:
    // Takes a reference on both (either may be null).
    HvUDPEvent(HvObserver* observer, HvObject* object);
    // Releases both references.
    ~HvUDPEvent() override;

    HvUDPEvent(const HvUDPEvent&) = delete;
    HvUDPEvent& operator=(const HvUDPEvent&) = delete;

    // Who is to be notified.
    HvObserver* getObserver() const { return m_observer.get(); }
    // What it is given.
    HvObject* getObject() const { return m_object.get(); }

    static void* operator new(std::size_t size);
    static void operator delete(void* p, std::size_t size);

private:
    HvHandle<HvObserver> m_observer;
    HvHandle<HvObject> m_object;
};

#endif
