// Named process-wide singletons: a recursive mutex per name, and a registry
// from name to object with the clean-up function that destroys it at exit.
#ifndef VELMORA_SINGLETON_H
#define VELMORA_SINGLETON_H

#include <map>
#include <mutex>
#include <string>

namespace Velmora {

// Clean-up function type shared with ACE's at-exit list.
using CleanupFunc = void (*)(void* object, void* param);

// Deletes an object of type T; usable as an ACE or registry clean-up function.
template <class T>
void deleteCleanupFunc(void* object, void* /*param*/)
{
    delete static_cast<T*>(object);
}

class SingletonRegistry {
public:
    // The process-wide registry; its destructor runs the clean-up functions
    // of everything still registered, newest first.
    static SingletonRegistry& instance();

    // Registers object under name unless something is registered there
    // already; returns whatever is registered under the name after the call.
    void* registerObject(const std::string& name, void* object, CleanupFunc cleanup);

    // The object registered under name, or null.
    void* find(const std::string& name);

    // Forgets the entry without cleaning it up; returns the object or null.
    void* unregisterObject(const std::string& name);

    ~SingletonRegistry();

private:
    SingletonRegistry() = default;
    struct Entry {
        void* object;
        CleanupFunc cleanup;
        unsigned long order;
    };
    std::mutex m_mutex;
    std::map<std::string, Entry> m_entries;
    unsigned long m_next = 0;
};

class OnDemandSingletonNoT {
public:
    // The recursive mutex that serialises creation of the singleton named
    // `name`; the same object for every call with that name.
    static std::recursive_mutex& sGetMutex(const std::string& name);
};

} // namespace Velmora

#endif
