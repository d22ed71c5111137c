// Cost of the foundation classes (handles, strings, mutexes) next to the
// standard-library types a caller would otherwise use.
//
// Naming: BM_<Case>_Hv... measures this library, BM_<Case>_Std... the
// standard anchor for the same case; tools/run-benchmarks.sh pairs them by
// that name to print the ratio.
#include <HvUtil/HvHandle.h>
#include <HvUtil/HvMutex.h>
#include <HvUtil/HvObject.h>
#include <HvUtil/HvRecursiveMutex.h>
#include <HvUtil/HvString.h>
#include <HvUtil/HvStringBuffer.h>

#include <benchmark/benchmark.h>

#include <cctype>
#include <cstddef>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace {

// ---------------------------------------------------------------------------
// Handles

class Payload : public HvObject {
public:
    int value = 0;
};

struct StdPayload {
    int value = 0;
};

// Shared by the one-thread and two-thread runs; made and dropped by thread 0,
// the benchmark's start and stop barriers order that against the other thread.
HvHandle<Payload> fs_sharedPayload;
std::shared_ptr<StdPayload> fs_sharedStdPayload;

// One copy of a handle and its destruction: one AddRef and one Release.
void BM_HandleCopy_Hv(benchmark::State& state)
{
    if (state.thread_index() == 0)
        fs_sharedPayload = HvHandle<Payload>(new Payload);
    for (auto _ : state) {
        HvHandle<Payload> copy(fs_sharedPayload);
        benchmark::DoNotOptimize(copy);
    }
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0)
        fs_sharedPayload = HvHandle<Payload>();
}
BENCHMARK(BM_HandleCopy_Hv);
BENCHMARK(BM_HandleCopy_Hv)->Threads(2)->UseRealTime();

void BM_HandleCopy_StdSharedPtr(benchmark::State& state)
{
    if (state.thread_index() == 0)
        fs_sharedStdPayload = std::make_shared<StdPayload>();
    for (auto _ : state) {
        std::shared_ptr<StdPayload> copy(fs_sharedStdPayload);
        benchmark::DoNotOptimize(copy);
    }
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0)
        fs_sharedStdPayload.reset();
}
BENCHMARK(BM_HandleCopy_StdSharedPtr);
BENCHMARK(BM_HandleCopy_StdSharedPtr)->Threads(2)->UseRealTime();

// Each thread copies handles of an object it made itself, so the object
// borrows its creator's pool mutex: two threads only meet on a mutex when
// their pool entries collide.
void BM_HandleCopyOwnObject_Hv(benchmark::State& state)
{
    HvHandle<Payload> own(new Payload);
    for (auto _ : state) {
        HvHandle<Payload> copy(own);
        benchmark::DoNotOptimize(copy);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_HandleCopyOwnObject_Hv);
BENCHMARK(BM_HandleCopyOwnObject_Hv)->Threads(2)->UseRealTime();

void BM_HandleCopyOwnObject_StdSharedPtr(benchmark::State& state)
{
    std::shared_ptr<StdPayload> own = std::make_shared<StdPayload>();
    for (auto _ : state) {
        std::shared_ptr<StdPayload> copy(own);
        benchmark::DoNotOptimize(copy);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_HandleCopyOwnObject_StdSharedPtr);
BENCHMARK(BM_HandleCopyOwnObject_StdSharedPtr)->Threads(2)->UseRealTime();

// ---------------------------------------------------------------------------
// Strings

const unsigned int kPieceCount = 64;
const unsigned int kPieceLength = 8;
const char* const kPieces[8] = {"Via: SIP", "/2.0/UDP", " pc33.at", "lanta.co", "m;branch",
                                "=z9hG4bK", "776asdhd", "\r\nMax-Fo"};

// A 64-piece string built from empty with 8-character appends.
void BM_StringAppend64x8_Hv(benchmark::State& state)
{
    for (auto _ : state) {
        HvString text;
        for (unsigned int i = 0; i < kPieceCount; ++i)
            text.append(kPieces[i & 7]);
        benchmark::DoNotOptimize(text.c_str());
        if (text.length() != kPieceCount * kPieceLength) {
            state.SkipWithError("HvString::append produced the wrong length");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * kPieceCount);
}
BENCHMARK(BM_StringAppend64x8_Hv);

void BM_StringAppend64x8_StdString(benchmark::State& state)
{
    for (auto _ : state) {
        std::string text;
        for (unsigned int i = 0; i < kPieceCount; ++i)
            text.append(kPieces[i & 7]);
        benchmark::DoNotOptimize(text.data());
        if (text.length() != kPieceCount * kPieceLength) {
            state.SkipWithError("std::string::append produced the wrong length");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * kPieceCount);
}
BENCHMARK(BM_StringAppend64x8_StdString);

// Equal apart from case, so the whole text is walked.
const char* const kHeaderMixed = "Content-Type: Application/SDP; Charset=UTF-8";
const char* const kHeaderLower = "content-type: application/sdp; charset=utf-8";

// What a caller without compareNoCase writes: fold both sides with tolower.
int stdCompareNoCase(const std::string& mine, const char* text)
{
    const unsigned char* a = reinterpret_cast<const unsigned char*>(mine.c_str());
    const unsigned char* b = reinterpret_cast<const unsigned char*>(text);
    while (*a && *b && std::tolower(*a) == std::tolower(*b)) {
        ++a;
        ++b;
    }
    return std::tolower(*a) - std::tolower(*b);
}

void BM_StringCompareNoCase_Hv(benchmark::State& state)
{
    HvString text(kHeaderMixed);
    const char* other = kHeaderLower;
    for (auto _ : state) {
        benchmark::DoNotOptimize(other);
        int result = text.compareNoCase(other);
        benchmark::DoNotOptimize(result);
        if (result != 0) {
            state.SkipWithError("compareNoCase found a difference");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StringCompareNoCase_Hv);

void BM_StringCompareNoCase_StdString(benchmark::State& state)
{
    std::string text(kHeaderMixed);
    const char* other = kHeaderLower;
    for (auto _ : state) {
        benchmark::DoNotOptimize(other);
        int result = stdCompareNoCase(text, other);
        benchmark::DoNotOptimize(result);
        if (result != 0) {
            state.SkipWithError("tolower loop found a difference");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StringCompareNoCase_StdString);

// A Call-ID: long enough to live outside std::string's in-object storage,
// so both fresh-string cases pay one heap allocation.
const char* const kCallId = "a84b4c76e66710@pc33.atlanta.com";

// Cached: the same buffer hashed again and again; after the first call
// HvStringBuffer returns the stored value. std::string keeps no hash, so its
// anchor hashes the same text each time.
void BM_StringHashCached_Hv(benchmark::State& state)
{
    HvString text(kCallId);
    for (auto _ : state) {
        benchmark::DoNotOptimize(text);
        unsigned int hash = text.hashCode();
        benchmark::DoNotOptimize(hash);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StringHashCached_Hv);

void BM_StringHashCached_StdString(benchmark::State& state)
{
    std::string text(kCallId);
    std::hash<std::string> hasher;
    for (auto _ : state) {
        benchmark::DoNotOptimize(text);
        std::size_t hash = hasher(text);
        benchmark::DoNotOptimize(hash);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StringHashCached_StdString);

// Uncached, first way: a new string is made from the text and hashed once,
// so no cached value can exist. Includes making and freeing the string; the
// anchor does the same with std::string.
void BM_StringHashFresh_Hv(benchmark::State& state)
{
    const char* source = kCallId;
    for (auto _ : state) {
        benchmark::DoNotOptimize(source);
        HvString text(source);
        unsigned int hash = text.hashCode();
        benchmark::DoNotOptimize(hash);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StringHashFresh_Hv);

void BM_StringHashFresh_StdString(benchmark::State& state)
{
    const char* source = kCallId;
    std::hash<std::string> hasher;
    for (auto _ : state) {
        benchmark::DoNotOptimize(source);
        std::string text(source);
        std::size_t hash = hasher(text);
        benchmark::DoNotOptimize(hash);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StringHashFresh_StdString);

// Uncached, second way: an in-place edit between hashes. toLower() on the
// private, already lower-case buffer rewrites it without allocating and
// forgets the cached hash, so every hashCode() walks the text again. The
// anchor lower-cases its std::string in place and hashes it.
void BM_StringHashAfterEdit_Hv(benchmark::State& state)
{
    HvString text(kCallId);
    const HvStringBuffer* original = text.get();
    for (auto _ : state) {
        text.toLower();
        unsigned int hash = text.hashCode();
        benchmark::DoNotOptimize(hash);
    }
    // The edit must have stayed in place, or this measured allocation instead.
    if (text.get() != original)
        state.SkipWithError("toLower() replaced the buffer");
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StringHashAfterEdit_Hv);

void BM_StringHashAfterEdit_StdString(benchmark::State& state)
{
    std::string text(kCallId);
    std::hash<std::string> hasher;
    for (auto _ : state) {
        for (char& c : text)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        std::size_t hash = hasher(text);
        benchmark::DoNotOptimize(hash);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StringHashAfterEdit_StdString);

// ---------------------------------------------------------------------------
// Mutexes. The one-thread runs are uncontended; ->Threads(2) makes both
// threads take the same lock. Contended runs report wall time per lock/unlock
// pair over both threads.

HvMutex* fs_hvMutex = nullptr;
std::mutex fs_stdMutex;
HvRecursiveMutex* fs_hvRecursiveMutex = nullptr;
std::recursive_mutex fs_stdRecursiveMutex;

void BM_MutexLockUnlock_Hv(benchmark::State& state)
{
    HvMutex* mutex = fs_hvMutex;
    for (auto _ : state) {
        mutex->lock();
        mutex->unlock();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_MutexLockUnlock_Hv);
BENCHMARK(BM_MutexLockUnlock_Hv)->Threads(2)->UseRealTime();

void BM_MutexLockUnlock_StdMutex(benchmark::State& state)
{
    for (auto _ : state) {
        fs_stdMutex.lock();
        fs_stdMutex.unlock();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_MutexLockUnlock_StdMutex);
BENCHMARK(BM_MutexLockUnlock_StdMutex)->Threads(2)->UseRealTime();

void BM_RecursiveMutexLockUnlock_Hv(benchmark::State& state)
{
    const HvRecursiveMutex* mutex = fs_hvRecursiveMutex;
    for (auto _ : state) {
        mutex->lock();
        mutex->unlock();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RecursiveMutexLockUnlock_Hv);
BENCHMARK(BM_RecursiveMutexLockUnlock_Hv)->Threads(2)->UseRealTime();

void BM_RecursiveMutexLockUnlock_StdRecursiveMutex(benchmark::State& state)
{
    for (auto _ : state) {
        fs_stdRecursiveMutex.lock();
        fs_stdRecursiveMutex.unlock();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RecursiveMutexLockUnlock_StdRecursiveMutex);
BENCHMARK(BM_RecursiveMutexLockUnlock_StdRecursiveMutex)->Threads(2)->UseRealTime();

// Re-entry, the case a recursive mutex exists for: two levels taken and given back.
void BM_RecursiveMutexNested_Hv(benchmark::State& state)
{
    const HvRecursiveMutex* mutex = fs_hvRecursiveMutex;
    for (auto _ : state) {
        mutex->lock();
        mutex->lock();
        mutex->unlock();
        mutex->unlock();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RecursiveMutexNested_Hv);

void BM_RecursiveMutexNested_StdRecursiveMutex(benchmark::State& state)
{
    for (auto _ : state) {
        fs_stdRecursiveMutex.lock();
        fs_stdRecursiveMutex.lock();
        fs_stdRecursiveMutex.unlock();
        fs_stdRecursiveMutex.unlock();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RecursiveMutexNested_StdRecursiveMutex);

} // namespace

int main(int argc, char** argv)
{
    // The object-mutex pool must exist before the benchmark starts a second thread.
    HvMutex::sInitialize();
    fs_hvMutex = HvMutex::sCreate();
    fs_hvRecursiveMutex = new HvRecursiveMutex;

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    delete fs_hvRecursiveMutex;
    HvMutex::sDestroy(fs_hvMutex);
    return 0;
}
