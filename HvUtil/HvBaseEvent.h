// Polymorphic base of every event put into an HvEventQueue: its only virtual
// operation is the destructor, so a queue can delete any event it owns.
#ifndef HVUTIL_HVBASEEVENT_H
#define HVUTIL_HVBASEEVENT_H

class HvBaseEvent {
public:
    HvBaseEvent() {}
    virtual ~HvBaseEvent();
};

#endif
