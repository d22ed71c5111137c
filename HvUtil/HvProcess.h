// The one HvThread object that stands for the process's main thread. It is
// created on first demand (every other thread's constructor asks for it), is
// never in the thread table, and is the thread that waits for all others at
// shutdown. It is deleted at exit through the ACE object manager.
#ifndef HVUTIL_HVPROCESS_H
#define HVUTIL_HVPROCESS_H

#include <HvUtil/HvThread.h>

#include <atomic>
#include <cstddef>

class HvProcess : public HvThread {
public:
    // Throws HvAssertionFailure "There can only be one HvProcess object" when
    // the instance exists already. The caller's thread becomes its token; the
    // state is INITIALIZING.
    HvProcess();
    ~HvProcess() override;

    // The instance; the first call creates it, takes one reference on it and
    // registers the release of that reference with the ACE object manager's
    // at-exit list, so that it is deleted at exit (or when the last handle
    // still held then goes).
    static HvProcess* sGetCurrent();

    // The main thread's body: sleeps until the first signal().
    void run() override;

    // Storage through Velmora::NoSizeMemAllocator, tag "HvProcess".
    static void* operator new(std::size_t size);
    static void operator delete(void* p);

    // The instance, null until created.
    static std::atomic<HvProcess*> sm_pTheOneAndOnly;
};

#endif
