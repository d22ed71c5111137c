// Root for classes that must offer the reference protocol without being
// counted: both operations do nothing.
#ifndef HVUTIL_HVINTERFACE_H
#define HVUTIL_HVINTERFACE_H

class HvInterface {
public:
    virtual int AddRef() { return 0; }
    virtual int Release() { return 0; }
};

#endif
