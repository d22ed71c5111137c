// Event of the stream dispatchers: the object it is about and an argument.
// For input, the observable whose data is ready and what to notify with; for
// output, the HvClientSocket to write to and the HvByteArray to write.
#ifndef HVUTIL_HVTCPEVENT_H
#define HVUTIL_HVTCPEVENT_H

#include <HvUtil/HvBaseEvent.h>
#include <HvUtil/HvHandle.h>

class HvTCPEvent : public HvBaseEvent {
public:
    // Takes a reference on both (either may be null).
    HvTCPEvent(HvObject* object, HvObject* argument);
    // Releases both references.
    ~HvTCPEvent() override;

    HvTCPEvent(const HvTCPEvent&) = delete;
    HvTCPEvent& operator=(const HvTCPEvent&) = delete;

    // The socket or source the event is about.
    HvObject* getObject() const { return m_object.get(); }
    // What goes with it.
    HvObject* getArgument() const { return m_argument.get(); }

private:
    HvHandle<HvObject> m_object;
    HvHandle<HvObject> m_argument;
};

#endif
