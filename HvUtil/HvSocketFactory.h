// Process-wide registry of open sockets by descriptor number: finds a socket
// from its descriptor and closes every socket at shutdown.
#ifndef HVUTIL_HVSOCKETFACTORY_H
#define HVUTIL_HVSOCKETFACTORY_H

#include <HvUtil/HvHandle.h>

#include <atomic>

class HvSocketImpl;
class HvTokenTable;

class HvSocketFactory {
public:
    // Registers `socket` under `descriptor` (the registry holds a reference),
    // replacing any earlier entry; makes the registry on first use.
    static void sAddHandle(int descriptor, HvSocketImpl* socket);
    // The socket registered under `descriptor`, or null when there is none
    // or no registry.
    static HvHandle<HvSocketImpl> sFromHandle(int descriptor);
    // Removes the entry, when the registry exists.
    static void sRemoveHandle(int descriptor);
    // Number of entries, counted by walking the registry; 0 without one.
    static unsigned int sSocketNum();
    // Sends each registered socket the "UNBLOCK" datagram, closes it and
    // empties the registry. Installed as the shutdown protocol's socket step.
    static void sCloseAll();

    // The registry, null until the first socket is registered. Created under
    // the library-wide critical section; entries are put, read and removed
    // without it.
    static std::atomic<HvTokenTable*> sm_pHandleTable;

    // One static instance per translation unit that uses the factory: the
    // last one destroyed at process exit releases the registry.
    class HvInitializer {
    public:
        HvInitializer();
        ~HvInitializer();
        HvInitializer(const HvInitializer&) = delete;
        HvInitializer& operator=(const HvInitializer&) = delete;

        // Live instances.
        static int sm_Counter;
    };
};

static HvSocketFactory::HvInitializer fs_socketFactoryInitializer;

#endif
