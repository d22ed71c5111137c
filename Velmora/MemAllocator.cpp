#include <Velmora/MemAllocator.h>
#include <Velmora/Assertion.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace Velmora {

namespace {

struct TagRecord {
    std::string name;
    std::atomic<long> liveCount{0};
    std::atomic<long> liveBytes{0};
};

// Each block starts with this header; 16 bytes keep the caller's part aligned
// like operator new's.
struct alignas(16) BlockHeader {
    TagRecord* record;
    std::size_t size;
};

// Tag records live as long as the process; they are found by text because
// equal tags in different translation units need not share an address. The
// map and its mutex are never destroyed, so that blocks released by static
// destructors at exit still find their records.
struct TagRegistry {
    std::mutex mutex;
    std::map<std::string, TagRecord*> records;
};

TagRegistry& tagRegistry()
{
    static TagRegistry* registry = new TagRegistry;
    return *registry;
}

TagRecord* findRecordSlow(const char* tag)
{
    TagRegistry& registry = tagRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    TagRecord*& record = registry.records[tag];
    if (!record) {
        record = new TagRecord;
        record->name = tag;
    }
    return record;
}

// Tags are almost always string literals: a small per-thread cache keyed by
// the literal's address keeps the map and its mutex off the hot path.
TagRecord* findRecord(const char* tag)
{
    struct CacheEntry {
        const char* tag;
        TagRecord* record;
    };
    static const unsigned kCacheSize = 16;
    thread_local CacheEntry cache[kCacheSize] = {};
    unsigned slot = static_cast<unsigned>((reinterpret_cast<std::size_t>(tag) >> 3) % kCacheSize);
    if (cache[slot].tag == tag)
        return cache[slot].record;
    TagRecord* record = findRecordSlow(tag);
    cache[slot] = CacheEntry{tag, record};
    return record;
}

void* allocateTagged(std::size_t size, const char* tag)
{
    void* raw = std::malloc(sizeof(BlockHeader) + size);
    if (!raw)
        throw std::bad_alloc();
    TagRecord* record = findRecord(tag);
    BlockHeader* header = new (raw) BlockHeader{record, size};
    record->liveCount.fetch_add(1, std::memory_order_relaxed);
    record->liveBytes.fetch_add(static_cast<long>(size), std::memory_order_relaxed);
    return header + 1;
}

// Returns the header of a block after checking that it is released under the
// tag it was allocated with.
BlockHeader* checkedHeader(void* p, const char* tag)
{
    BlockHeader* header = static_cast<BlockHeader*>(p) - 1;
    bool sameTag = findRecord(tag) == header->record;
    Assertion(sameTag, "deallocate: tag differs from the one allocated", "MemAllocator.cpp", __LINE__);
    return header;
}

void releaseTagged(BlockHeader* header)
{
    header->record->liveCount.fetch_sub(1, std::memory_order_relaxed);
    header->record->liveBytes.fetch_sub(static_cast<long>(header->size), std::memory_order_relaxed);
    header->~BlockHeader();
    std::free(header);
}

} // namespace

void* DefaultStaticMemAllocator::allocate(std::size_t size, const char* tag)
{
    return allocateTagged(size, tag);
}

void DefaultStaticMemAllocator::deallocate(void* p, std::size_t size, const char* tag)
{
    if (!p)
        return;
    BlockHeader* header = checkedHeader(p, tag);
    Assertion(header->size == size, "deallocate: size differs from the one allocated",
              "MemAllocator.cpp", __LINE__);
    releaseTagged(header);
}

void* NoSizeMemAllocator::allocate(std::size_t size, const char* tag)
{
    return allocateTagged(size, tag);
}

void NoSizeMemAllocator::deallocate(void* p, const char* tag)
{
    if (!p)
        return;
    releaseTagged(checkedHeader(p, tag));
}

AllocationStats allocationStats(const char* tag)
{
    TagRecord* record = findRecordSlow(tag);
    return AllocationStats{record->liveCount.load(std::memory_order_relaxed),
                           record->liveBytes.load(std::memory_order_relaxed)};
}

std::vector<std::pair<std::string, AllocationStats>> allAllocationStats()
{
    TagRegistry& registry = tagRegistry();
    std::vector<std::pair<std::string, AllocationStats>> all;
    std::lock_guard<std::mutex> lock(registry.mutex);
    all.reserve(registry.records.size());
    for (const auto& entry : registry.records) {
        const TagRecord* record = entry.second;
        all.emplace_back(entry.first, AllocationStats{record->liveCount.load(std::memory_order_relaxed),
                                                      record->liveBytes.load(std::memory_order_relaxed)});
    }
    return all;
}

} // namespace Velmora
