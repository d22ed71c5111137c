#include <HvUtil/HvOutputSink.h>

void HvOutputSink::write(int)
{
}

void HvOutputSink::write(const void*, unsigned int, unsigned int)
{
}

HvOutputSink& HvOutputSink::sGetInstance()
{
    // Never destroyed: debug output may be written during static destruction.
    // Held by a reference so that handles given out can never free it.
    static HvOutputSink* sink = [] {
        HvOutputSink* instance = new HvOutputSink;
        instance->AddRef();
        return instance;
    }();
    return *sink;
}
