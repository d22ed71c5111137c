// A failed host-name look-up, with the resolver's status.
#ifndef HVUTIL_HVGHBNERROR_H
#define HVUTIL_HVGHBNERROR_H

#include <HvUtil/HvSocketError.h>

#include <Velmora/Hostent.h>

class HvGhbnError : public HvSocketError {
public:
    HvGhbnError(const char* message, int errorNumber, Velmora::Hostent::GetHostByNameStatus status);

    Velmora::Hostent::GetHostByNameStatus getStatus() const { return m_status; }

    // ": ", the message, " (", the status text, ")". Unlike its base it does
    // not lead with the message; readers of existing logs expect that.
    void display(HvOutputStream& out) const override;
    using HvObject::display;

private:
    Velmora::Hostent::GetHostByNameStatus m_status;
};

#endif
