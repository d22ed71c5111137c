// Cost of the key table, the byte-array streams and observer chains next to
// the standard-library types a caller would otherwise use.
//
// Naming: BM_<Case>_Hv... measures this library, BM_<Case>_Std... the
// standard anchor for the same case; tools/run-benchmarks.sh pairs them by
// that name to print the ratio.
#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvByteArrayInputStream.h>
#include <HvUtil/HvByteArrayOutputStream.h>
#include <HvUtil/HvHandle.h>
#include <HvUtil/HvKeyTable.h>
#include <HvUtil/HvMutex.h>
#include <HvUtil/HvObservable.h>
#include <HvUtil/HvObserver.h>
#include <HvUtil/HvString.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

// ---------------------------------------------------------------------------
// Key table against std::unordered_map behind one std::mutex.
//
// Keys look like Call-IDs and are made once, outside every timed loop, as
// HvString and as std::string. The prepared HvString keys keep their hash
// once the table has hashed them; std::hash has no cache. BM_KeyTableGetFresh
// shows the other common case, a key just built from received text.

const unsigned int kKeyCount = 10000;
// Buckets and stripe locks of the striped variant: a prime bucket count a
// little above the key count, and enough locks that two threads rarely meet.
const unsigned int kStripedBuckets = 10007;
const unsigned int kStripedLocks = 16;

class Value : public HvObject {
public:
    explicit Value(unsigned int n) : number(n) {}
    unsigned int number;
};

struct StdValue {
    explicit StdValue(unsigned int n) : number(n) {}
    unsigned int number;
};

std::vector<std::string> fs_keyText;
std::vector<HvString> fs_hvKeys;
std::vector<HvHandle<Value>> fs_hvValues;
std::vector<std::shared_ptr<StdValue>> fs_stdValues;

void makeKeys()
{
    fs_keyText.reserve(kKeyCount);
    fs_hvKeys.reserve(kKeyCount);
    fs_hvValues.reserve(kKeyCount);
    fs_stdValues.reserve(kKeyCount);
    unsigned int mix = 2463534242u;
    for (unsigned int i = 0; i < kKeyCount; ++i) {
        // xorshift: distinct, evenly spread leading characters, as real Call-IDs have.
        mix ^= mix << 13;
        mix ^= mix >> 17;
        mix ^= mix << 5;
        char text[64];
        std::snprintf(text, sizeof text, "%08x%05u@host%u.example.net", mix, i, i % 97);
        fs_keyText.emplace_back(text);
        fs_hvKeys.emplace_back(text);
        fs_hvValues.emplace_back(new Value(i));
        fs_stdValues.push_back(std::make_shared<StdValue>(i));
    }
}

struct LockedMap {
    std::mutex mutex;
    std::unordered_map<std::string, std::shared_ptr<StdValue>> map;

    void put(const std::string& key, const std::shared_ptr<StdValue>& value)
    {
        std::lock_guard<std::mutex> lock(mutex);
        map[key] = value;
    }
    std::shared_ptr<StdValue> get(const std::string& key)
    {
        std::lock_guard<std::mutex> lock(mutex);
        auto found = map.find(key);
        return found == map.end() ? std::shared_ptr<StdValue>() : found->second;
    }
    bool remove(const std::string& key)
    {
        std::lock_guard<std::mutex> lock(mutex);
        return map.erase(key) != 0;
    }
};

enum class HvTableKind { Default, Striped };

HvKeyTable* newHvTable(HvTableKind kind)
{
    return kind == HvTableKind::Default ? new HvKeyTable : new HvKeyTable(kStripedBuckets, kStripedLocks);
}

// Tables shared by the threads of one run; thread 0 makes and drops them, the
// benchmark's start and stop barriers order that against the other thread.
HvHandle<HvKeyTable> fs_hvTable;
std::unique_ptr<LockedMap> fs_stdMap;

void fillHv(HvKeyTable& table)
{
    for (unsigned int i = 0; i < kKeyCount; ++i)
        table.put(fs_hvKeys[i], fs_hvValues[i].get());
}

void fillStd(LockedMap& map)
{
    for (unsigned int i = 0; i < kKeyCount; ++i)
        map.put(fs_keyText[i], fs_stdValues[i]);
}

// Each thread starts at its own place in the keys; with two threads they
// walk the keys in lock-step half the table apart.
unsigned int startIndex(const benchmark::State& state)
{
    return static_cast<unsigned int>(state.thread_index()) * (kKeyCount / 2) % kKeyCount;
}

void getHv(benchmark::State& state, HvTableKind kind)
{
    if (state.thread_index() == 0) {
        fs_hvTable = HvHandle<HvKeyTable>(newHvTable(kind));
        fillHv(*fs_hvTable);
    }
    unsigned int index = startIndex(state);
    unsigned int misses = 0;
    for (auto _ : state) {
        HvHandle<HvObject> value = fs_hvTable->get(fs_hvKeys[index]);
        if (value.get() != fs_hvValues[index].get())
            ++misses;
        if (++index == kKeyCount)
            index = 0;
    }
    state.SetItemsProcessed(state.iterations());
    if (misses != 0)
        state.SkipWithError("HvKeyTable::get returned a wrong value");
    if (state.thread_index() == 0)
        fs_hvTable = HvHandle<HvKeyTable>();
}

void BM_KeyTableGet_Hv(benchmark::State& state)
{
    getHv(state, HvTableKind::Default);
}
BENCHMARK(BM_KeyTableGet_Hv);
BENCHMARK(BM_KeyTableGet_Hv)->Threads(2)->UseRealTime();

void BM_KeyTableGet_HvStriped(benchmark::State& state)
{
    getHv(state, HvTableKind::Striped);
}
BENCHMARK(BM_KeyTableGet_HvStriped);
BENCHMARK(BM_KeyTableGet_HvStriped)->Threads(2)->UseRealTime();

void BM_KeyTableGet_StdMap(benchmark::State& state)
{
    if (state.thread_index() == 0) {
        fs_stdMap.reset(new LockedMap);
        fillStd(*fs_stdMap);
    }
    unsigned int index = startIndex(state);
    unsigned int misses = 0;
    for (auto _ : state) {
        std::shared_ptr<StdValue> value = fs_stdMap->get(fs_keyText[index]);
        if (value != fs_stdValues[index])
            ++misses;
        if (++index == kKeyCount)
            index = 0;
    }
    state.SetItemsProcessed(state.iterations());
    if (misses != 0)
        state.SkipWithError("map lookup returned a wrong value");
    if (state.thread_index() == 0)
        fs_stdMap.reset();
}
BENCHMARK(BM_KeyTableGet_StdMap);
BENCHMARK(BM_KeyTableGet_StdMap)->Threads(2)->UseRealTime();

// A lookup with a key made from text at that moment, as when the key comes
// from a message just parsed: includes making the key and, for HvString,
// hashing it for the first time.
void getFreshHv(benchmark::State& state, HvTableKind kind)
{
    HvHandle<HvKeyTable> table(newHvTable(kind));
    fillHv(*table);
    unsigned int index = 0;
    unsigned int misses = 0;
    for (auto _ : state) {
        HvString key(fs_keyText[index].c_str());
        HvHandle<HvObject> value = table->get(key);
        if (value.get() != fs_hvValues[index].get())
            ++misses;
        if (++index == kKeyCount)
            index = 0;
    }
    state.SetItemsProcessed(state.iterations());
    if (misses != 0)
        state.SkipWithError("HvKeyTable::get returned a wrong value");
}

void BM_KeyTableGetFresh_Hv(benchmark::State& state)
{
    getFreshHv(state, HvTableKind::Default);
}
BENCHMARK(BM_KeyTableGetFresh_Hv);

void BM_KeyTableGetFresh_HvStriped(benchmark::State& state)
{
    getFreshHv(state, HvTableKind::Striped);
}
BENCHMARK(BM_KeyTableGetFresh_HvStriped);

void BM_KeyTableGetFresh_StdMap(benchmark::State& state)
{
    LockedMap map;
    fillStd(map);
    unsigned int index = 0;
    unsigned int misses = 0;
    for (auto _ : state) {
        std::string key(fs_keyText[index].c_str());
        std::shared_ptr<StdValue> value = map.get(key);
        if (value != fs_stdValues[index])
            ++misses;
        if (++index == kKeyCount)
            index = 0;
    }
    state.SetItemsProcessed(state.iterations());
    if (misses != 0)
        state.SkipWithError("map lookup returned a wrong value");
}
BENCHMARK(BM_KeyTableGetFresh_StdMap);

// One remove and one put of the same key per iteration, so the table stays
// at 10 000 entries and every put is an insertion. With two threads each
// thread owns the keys of its own parity, so every remove finds its key.
unsigned int stepOf(const benchmark::State& state)
{
    return static_cast<unsigned int>(state.threads());
}

void putRemoveHv(benchmark::State& state, HvTableKind kind)
{
    if (state.thread_index() == 0) {
        fs_hvTable = HvHandle<HvKeyTable>(newHvTable(kind));
        fillHv(*fs_hvTable);
    }
    const unsigned int step = stepOf(state);
    unsigned int index = static_cast<unsigned int>(state.thread_index());
    unsigned int failures = 0;
    for (auto _ : state) {
        if (!fs_hvTable->remove(fs_hvKeys[index]))
            ++failures;
        if (!fs_hvTable->put(fs_hvKeys[index], fs_hvValues[index].get()).isNull())
            ++failures;
        index += step;
        if (index >= kKeyCount)
            index -= kKeyCount;
    }
    state.SetItemsProcessed(state.iterations() * 2);
    if (failures != 0)
        state.SkipWithError("HvKeyTable remove/put did not find the expected entries");
    if (state.thread_index() == 0) {
        if (fs_hvTable->getCount() != kKeyCount)
            state.SkipWithError("HvKeyTable lost or gained entries");
        fs_hvTable = HvHandle<HvKeyTable>();
    }
}

void BM_KeyTablePutRemove_Hv(benchmark::State& state)
{
    putRemoveHv(state, HvTableKind::Default);
}
BENCHMARK(BM_KeyTablePutRemove_Hv);
BENCHMARK(BM_KeyTablePutRemove_Hv)->Threads(2)->UseRealTime();

void BM_KeyTablePutRemove_HvStriped(benchmark::State& state)
{
    putRemoveHv(state, HvTableKind::Striped);
}
BENCHMARK(BM_KeyTablePutRemove_HvStriped);
BENCHMARK(BM_KeyTablePutRemove_HvStriped)->Threads(2)->UseRealTime();

void BM_KeyTablePutRemove_StdMap(benchmark::State& state)
{
    if (state.thread_index() == 0) {
        fs_stdMap.reset(new LockedMap);
        fillStd(*fs_stdMap);
    }
    const unsigned int step = stepOf(state);
    unsigned int index = static_cast<unsigned int>(state.thread_index());
    unsigned int failures = 0;
    for (auto _ : state) {
        if (!fs_stdMap->remove(fs_keyText[index]))
            ++failures;
        fs_stdMap->put(fs_keyText[index], fs_stdValues[index]);
        index += step;
        if (index >= kKeyCount)
            index -= kKeyCount;
    }
    state.SetItemsProcessed(state.iterations() * 2);
    if (failures != 0)
        state.SkipWithError("map remove did not find the expected entries");
    if (state.thread_index() == 0) {
        if (fs_stdMap->map.size() != kKeyCount)
            state.SkipWithError("map lost or gained entries");
        fs_stdMap.reset();
    }
}
BENCHMARK(BM_KeyTablePutRemove_StdMap);
BENCHMARK(BM_KeyTablePutRemove_StdMap)->Threads(2)->UseRealTime();

// Building a table of 10 000 entries from empty and dropping it: the map
// rehashes as it grows, the key table never does. Items are puts.
void fillFromEmptyHv(benchmark::State& state, HvTableKind kind)
{
    for (auto _ : state) {
        HvHandle<HvKeyTable> table(newHvTable(kind));
        fillHv(*table);
        if (table->getCount() != kKeyCount) {
            state.SkipWithError("HvKeyTable lost entries");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * kKeyCount);
}

void BM_KeyTableFill_Hv(benchmark::State& state)
{
    fillFromEmptyHv(state, HvTableKind::Default);
}
BENCHMARK(BM_KeyTableFill_Hv)->Unit(benchmark::kMicrosecond);

void BM_KeyTableFill_HvStriped(benchmark::State& state)
{
    fillFromEmptyHv(state, HvTableKind::Striped);
}
BENCHMARK(BM_KeyTableFill_HvStriped)->Unit(benchmark::kMicrosecond);

void BM_KeyTableFill_StdMap(benchmark::State& state)
{
    for (auto _ : state) {
        LockedMap map;
        fillStd(map);
        if (map.map.size() != kKeyCount) {
            state.SkipWithError("map lost entries");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * kKeyCount);
}
BENCHMARK(BM_KeyTableFill_StdMap)->Unit(benchmark::kMicrosecond);

// ---------------------------------------------------------------------------
// Byte-array streams: a 64 KiB message written and read in 100-byte pieces.

const unsigned int kMessageSize = 64 * 1024;
const unsigned int kPieceSize = 100;

std::vector<unsigned char> makePiece()
{
    std::vector<unsigned char> piece(kPieceSize);
    for (unsigned int i = 0; i < kPieceSize; ++i)
        piece[i] = static_cast<unsigned char>('A' + i % 26);
    return piece;
}

// Grows from nothing: the stream adds room for each write that does not fit.
void BM_ByteStreamWrite64K_Hv(benchmark::State& state)
{
    const std::vector<unsigned char> piece = makePiece();
    for (auto _ : state) {
        HvByteArrayOutputStream out(0);
        for (unsigned int written = 0; written < kMessageSize; written += kPieceSize) {
            unsigned int length = kMessageSize - written < kPieceSize ? kMessageSize - written : kPieceSize;
            out.write(piece.data(), length, 0);
        }
        benchmark::DoNotOptimize(out.getBuffer().get());
        if (out.getCount() != kMessageSize) {
            state.SkipWithError("HvByteArrayOutputStream count is wrong");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * kMessageSize);
}
BENCHMARK(BM_ByteStreamWrite64K_Hv);

void BM_ByteStreamWrite64K_StdOstringstream(benchmark::State& state)
{
    const std::vector<unsigned char> piece = makePiece();
    for (auto _ : state) {
        std::ostringstream out;
        for (unsigned int written = 0; written < kMessageSize; written += kPieceSize) {
            unsigned int length = kMessageSize - written < kPieceSize ? kMessageSize - written : kPieceSize;
            out.write(reinterpret_cast<const char*>(piece.data()), length);
        }
        if (static_cast<unsigned int>(out.tellp()) != kMessageSize) {
            state.SkipWithError("std::ostringstream size is wrong");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * kMessageSize);
}
BENCHMARK(BM_ByteStreamWrite64K_StdOstringstream);

// With the whole message's room asked for up front.
void BM_ByteStreamWrite64KPresized_Hv(benchmark::State& state)
{
    const std::vector<unsigned char> piece = makePiece();
    for (auto _ : state) {
        HvByteArrayOutputStream out(kMessageSize);
        for (unsigned int written = 0; written < kMessageSize; written += kPieceSize) {
            unsigned int length = kMessageSize - written < kPieceSize ? kMessageSize - written : kPieceSize;
            out.write(piece.data(), length, 0);
        }
        benchmark::DoNotOptimize(out.getBuffer().get());
        if (out.getCount() != kMessageSize) {
            state.SkipWithError("HvByteArrayOutputStream count is wrong");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * kMessageSize);
}
BENCHMARK(BM_ByteStreamWrite64KPresized_Hv);

void BM_ByteStreamWrite64KPresized_StdString(benchmark::State& state)
{
    const std::vector<unsigned char> piece = makePiece();
    for (auto _ : state) {
        std::string out;
        out.reserve(kMessageSize);
        for (unsigned int written = 0; written < kMessageSize; written += kPieceSize) {
            unsigned int length = kMessageSize - written < kPieceSize ? kMessageSize - written : kPieceSize;
            out.append(reinterpret_cast<const char*>(piece.data()), length);
        }
        benchmark::DoNotOptimize(out.data());
        if (out.size() != kMessageSize) {
            state.SkipWithError("std::string size is wrong");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * kMessageSize);
}
BENCHMARK(BM_ByteStreamWrite64KPresized_StdString);

HvHandle<HvByteArray> makeMessage()
{
    const std::vector<unsigned char> piece = makePiece();
    HvByteArrayOutputStream out(0);
    for (unsigned int written = 0; written < kMessageSize; written += kPieceSize) {
        unsigned int length = kMessageSize - written < kPieceSize ? kMessageSize - written : kPieceSize;
        out.write(piece.data(), length, 0);
    }
    return out.toByteArray();
}

void BM_ByteStreamRead64K_Hv(benchmark::State& state)
{
    HvHandle<HvByteArray> message = makeMessage();
    unsigned char piece[kPieceSize];
    for (auto _ : state) {
        HvByteArrayInputStream in(message.get(), 0, 0);
        unsigned int total = 0;
        int count;
        while ((count = in.read(piece, kPieceSize, 0)) > 0)
            total += static_cast<unsigned int>(count);
        benchmark::DoNotOptimize(piece);
        if (total != kMessageSize) {
            state.SkipWithError("HvByteArrayInputStream read the wrong byte count");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * kMessageSize);
}
BENCHMARK(BM_ByteStreamRead64K_Hv);

// The stream is made once (making it copies the message) and rewound each time.
void BM_ByteStreamRead64K_StdIstringstream(benchmark::State& state)
{
    HvHandle<HvByteArray> message = makeMessage();
    std::istringstream in(std::string(reinterpret_cast<const char*>(message->getData()), message->getSize()));
    char piece[kPieceSize];
    for (auto _ : state) {
        in.clear();
        in.seekg(0);
        unsigned int total = 0;
        while (in.read(piece, kPieceSize) || in.gcount() > 0)
            total += static_cast<unsigned int>(in.gcount());
        benchmark::DoNotOptimize(piece);
        if (total != kMessageSize) {
            state.SkipWithError("std::istringstream read the wrong byte count");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * kMessageSize);
}
BENCHMARK(BM_ByteStreamRead64K_StdIstringstream);

// ---------------------------------------------------------------------------
// Observer chains: a source, three observables relaying with their default
// onNotification, and a counting observer at the end. One item is one
// notification delivered at the end of the chain.

class CountingObserver : public HvObserver {
public:
    void onNotification(HvHandle<HvObservable>, HvHandle<HvObject> object) override
    {
        if (!object.isNull())
            ++count;
    }
    unsigned long long count = 0;
};

void BM_ObserverChain3_Hv(benchmark::State& state)
{
    HvHandle<HvObservable> source(new HvObservable);
    HvHandle<HvObservable> relays[3] = {new HvObservable, new HvObservable, new HvObservable};
    HvHandle<CountingObserver> counter(new CountingObserver);
    source->attachObserver(relays[0]);
    relays[0]->attachObserver(relays[1]);
    relays[1]->attachObserver(relays[2]);
    relays[2]->attachObserver(counter);
    HvHandle<HvObject> notice(new Value(1));

    for (auto _ : state)
        source->notifyObservers(notice);

    state.SetItemsProcessed(state.iterations());
    if (counter->count != static_cast<unsigned long long>(state.iterations()))
        state.SkipWithError("not every notification reached the end of the chain");
    // Each link is a pair of handles; undo them so that the objects go.
    counter->detach();
    for (HvHandle<HvObservable>& relay : relays)
        relay->detach();
}
BENCHMARK(BM_ObserverChain3_Hv);

// The same chain as std::function stages handing a shared_ptr on by value,
// as the handles are handed on above.
void BM_ObserverChain3_StdFunction(benchmark::State& state)
{
    using Stage = std::function<void(std::shared_ptr<const StdValue>)>;
    unsigned long long count = 0;
    Stage counter = [&count](std::shared_ptr<const StdValue> object) {
        if (object)
            ++count;
    };
    Stage relay3 = [&counter](std::shared_ptr<const StdValue> object) { counter(object); };
    Stage relay2 = [&relay3](std::shared_ptr<const StdValue> object) { relay3(object); };
    Stage relay1 = [&relay2](std::shared_ptr<const StdValue> object) { relay2(object); };
    Stage* first = &relay1;
    std::shared_ptr<const StdValue> notice = std::make_shared<StdValue>(1);

    for (auto _ : state) {
        benchmark::DoNotOptimize(first);
        (*first)(notice);
    }

    state.SetItemsProcessed(state.iterations());
    if (count != static_cast<unsigned long long>(state.iterations()))
        state.SkipWithError("not every call reached the end of the chain");
}
BENCHMARK(BM_ObserverChain3_StdFunction);

} // namespace

int main(int argc, char** argv)
{
    // The object-mutex pool must exist before the benchmark starts a second thread.
    HvMutex::sInitialize();
    makeKeys();

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    // Dropped here, while the allocator they return their memory to still exists.
    fs_hvValues.clear();
    fs_hvKeys.clear();
    fs_stdValues.clear();
    return 0;
}
