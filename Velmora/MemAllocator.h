// Tagged allocators. Every block is counted under its tag (the class name of
// what lives in it), so a test can read how many blocks of a class are live
// and prove that an operation gave back everything it took.
#ifndef VELMORA_MEMALLOCATOR_H
#define VELMORA_MEMALLOCATOR_H

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace Velmora {

// Live blocks and bytes under one tag at the moment of the call.
struct AllocationStats {
    long liveCount;
    long liveBytes;
};

// Tags must be string literals (or other text that never changes for the life
// of the process): they are cached by address.

// Fixed-size allocation: the caller gives the size back on release, and a
// size that differs from the one allocated is reported as an assertion.
class DefaultStaticMemAllocator {
public:
    static void* allocate(std::size_t size, const char* tag);
    static void deallocate(void* p, std::size_t size, const char* tag);
};

// Variable-size allocation: the size is remembered by the allocator.
class NoSizeMemAllocator {
public:
    static void* allocate(std::size_t size, const char* tag);
    static void deallocate(void* p, const char* tag);
};

// Counters of both allocators, per tag (blocks of both kinds add up under one tag).
AllocationStats allocationStats(const char* tag);

// Every tag seen so far (allocated under, or asked about) with its counters,
// sorted by tag; tags whose blocks are all released are listed with zeros.
// Counters of different tags are read one after the other, not as one
// snapshot, while other threads allocate.
std::vector<std::pair<std::string, AllocationStats>> allAllocationStats();

} // namespace Velmora

#endif
