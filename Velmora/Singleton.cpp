#include <Velmora/Singleton.h>

#include <algorithm>
#include <memory>
#include <vector>

namespace Velmora {

SingletonRegistry& SingletonRegistry::instance()
{
    static SingletonRegistry registry;
    return registry;
}

void* SingletonRegistry::registerObject(const std::string& name, void* object, CleanupFunc cleanup)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto inserted = m_entries.emplace(name, Entry{object, cleanup, m_next});
    if (inserted.second)
        ++m_next;
    return inserted.first->second.object;
}

void* SingletonRegistry::find(const std::string& name)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_entries.find(name);
    return it == m_entries.end() ? nullptr : it->second.object;
}

void* SingletonRegistry::unregisterObject(const std::string& name)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_entries.find(name);
    if (it == m_entries.end())
        return nullptr;
    void* object = it->second.object;
    m_entries.erase(it);
    return object;
}

SingletonRegistry::~SingletonRegistry()
{
    std::vector<Entry> entries;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto& named : m_entries)
            entries.push_back(named.second);
        m_entries.clear();
    }
    std::sort(entries.begin(), entries.end(),
              [](const Entry& a, const Entry& b) { return a.order > b.order; });
    // Clean-up functions run without the registry lock: they may look names up.
    for (const Entry& entry : entries) {
        if (entry.cleanup)
            entry.cleanup(entry.object, nullptr);
    }
}

std::recursive_mutex& OnDemandSingletonNoT::sGetMutex(const std::string& name)
{
    // Never destroyed: a singleton may be created or torn down during static destruction.
    static std::mutex* guard = new std::mutex;
    static auto* mutexes = new std::map<std::string, std::unique_ptr<std::recursive_mutex>>;
    std::lock_guard<std::mutex> lock(*guard);
    std::unique_ptr<std::recursive_mutex>& slot = (*mutexes)[name];
    if (!slot)
        slot.reset(new std::recursive_mutex);
    return *slot;
}

} // namespace Velmora
