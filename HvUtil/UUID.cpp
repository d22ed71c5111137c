#include <HvUtil/UUID.h>
#include <HvUtil/CMD5Encrypt.h>

#include <pthread.h>
#include <sys/sysinfo.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

typedef std::uint64_t uuid_time_t;

// 100-nanosecond intervals from 15 October 1582 to 1 January 1970.
const uuid_time_t kGregorianOffset = 0x01B21DD213814000ULL;

// What one thread remembers of its last UUID.
struct UuidState {
    uuid_time_t timestamp; // 0 before the thread's first UUID
    unsigned char node[6];
    std::uint16_t clockSequence;
};
static_assert(sizeof(UuidState) == 16, "8 bytes of timestamp, 6 of node and 2 of clock sequence");

// The thread's state lives behind a key made once per process and is freed
// with the thread.
pthread_once_t fs_keyOnce = PTHREAD_ONCE_INIT;
pthread_key_t fs_stateKey;
bool fs_keyMade = false;

void makeStateKey()
{
    fs_keyMade = pthread_key_create(&fs_stateKey, std::free) == 0;
}

// The calling thread's state, made on first use; null when none can be had.
UuidState* threadState()
{
    pthread_once(&fs_keyOnce, makeStateKey);
    if (!fs_keyMade)
        return nullptr;
    void* state = pthread_getspecific(fs_stateKey);
    if (!state) {
        state = std::calloc(1, sizeof(UuidState));
        if (state && pthread_setspecific(fs_stateKey, state) != 0) {
            std::free(state);
            state = nullptr;
        }
    }
    return static_cast<UuidState*>(state);
}

std::uint64_t microsecondsNow()
{
    timeval now;
    gettimeofday(&now, nullptr);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000u + static_cast<std::uint64_t>(now.tv_usec);
}

uuid_time_t timestampOf(std::uint64_t microseconds)
{
    return microseconds * 10u + kGregorianOffset;
}

// The process-wide tick: the timestamp of the last UUID made, in 100 ns
// units. The clock moves in microseconds, 10 units at a time, while up to
// UUIDS_PER_TICK UUIDs may be counted on from one reading; counting on from
// the reading alone would give a later reading's timestamps a second time
// (the 10th UUID of one microsecond and the first of the next). Every
// timestamp is therefore taken above the last one made, so no two in the
// process are equal, and at most UUIDS_PER_TICK lie above one reading.
std::atomic<uuid_time_t> fs_lastTimestamp{0};
pthread_once_t fs_tickOnce = PTHREAD_ONCE_INIT;

// The first reading starts with its budget spent: the first UUID waits for
// the clock to move.
void startTick()
{
    fs_lastTimestamp.store(timestampOf(microsecondsNow()) + UUID::UUIDS_PER_TICK - 1, std::memory_order_relaxed);
}

// The clock in 100 ns units, counted on past the last UUID's timestamp when
// that is not older; waits for the clock when the reading's budget is spent.
uuid_time_t currentTime()
{
    pthread_once(&fs_tickOnce, startTick);
    for (;;) {
        uuid_time_t reading = timestampOf(microsecondsNow());
        uuid_time_t last = fs_lastTimestamp.load(std::memory_order_relaxed);
        uuid_time_t next = last < reading ? reading : last + 1;
        if (next - reading >= UUID::UUIDS_PER_TICK)
            continue; // too fast for the clock: read it again until it moves
        if (fs_lastTimestamp.compare_exchange_weak(last, next, std::memory_order_relaxed))
            return next;
    }
}

// rand(), seeded once per process from the clock.
pthread_once_t fs_seedOnce = PTHREAD_ONCE_INIT;

void seedRandom()
{
    uuid_time_t now = timestampOf(microsecondsNow()) >> 10;
    std::srand(static_cast<unsigned int>(((now >> 32) ^ now) & 0xFFFFFFFFu));
}

std::uint16_t trueRandom()
{
    pthread_once(&fs_seedOnce, seedRandom);
    return static_cast<std::uint16_t>(std::rand());
}

// What the node is made from: the system's figures and host name, read once
// per process, and the time of day, read on every call.
struct RandomInfo {
    struct sysinfo system;
    timeval time;
    char hostname[257];
};

RandomInfo fs_randomInfo; // zero-initialised, padding included
pthread_once_t fs_randomInfoOnce = PTHREAD_ONCE_INIT;

void readRandomInfo()
{
    sysinfo(&fs_randomInfo.system);
    gethostname(fs_randomInfo.hostname, 256);
}

// A random node: the top bit of the first byte marks it as not a hardware
// address.
void randomNode(unsigned char node[6])
{
    pthread_once(&fs_randomInfoOnce, readRandomInfo);
    RandomInfo info;
    // memcpy, not assignment: the padding is digested too and must be defined.
    std::memcpy(&info, &fs_randomInfo, sizeof info);
    gettimeofday(&info.time, nullptr);

    CMD5Encrypt::MD5_CTX context;
    unsigned char seed[16];
    CMD5Encrypt::MD5Init(&context);
    CMD5Encrypt::MD5Update(&context, reinterpret_cast<const unsigned char*>(&info), sizeof info);
    CMD5Encrypt::MD5Final(seed, &context);
    seed[0] |= 0x80;
    std::memcpy(node, seed, 6);
}

const char fs_hexDigits[] = "0123456789abcdef";

// Writes `count` bytes of `value`, most significant first, as 2 * count digits.
char* putHex(char* out, std::uint64_t value, int count)
{
    for (int i = 2 * count - 1; i >= 0; --i) {
        out[i] = fs_hexDigits[value & 0xF];
        value >>= 4;
    }
    return out + 2 * count;
}

} // namespace

void UUID::uuid_create_string(char* text)
{
    if (!text)
        return;
    uuid_time_t timestamp = currentTime();
    unsigned char node[6];
    randomNode(node);

    UuidState fallback = UuidState();
    UuidState* state = threadState();
    if (!state)
        state = &fallback;
    std::uint16_t clockSequence;
    if (state->timestamp == 0 || std::memcmp(node, state->node, sizeof node) != 0) {
        clockSequence = trueRandom();
    } else {
        clockSequence = state->clockSequence;
        // The clock went back: a new sequence keeps the UUIDs apart.
        if (timestamp < state->timestamp)
            ++clockSequence;
    }
    state->timestamp = timestamp;
    std::memcpy(state->node, node, sizeof node);
    state->clockSequence = clockSequence;

    char* out = text;
    out = putHex(out, timestamp & 0xFFFFFFFFu, 4);
    *out++ = '-';
    out = putHex(out, (timestamp >> 32) & 0xFFFFu, 2);
    *out++ = '-';
    out = putHex(out, ((timestamp >> 48) & 0x0FFFu) | 0x1000u, 2);
    *out++ = '-';
    out = putHex(out, ((clockSequence & 0x3F00u) >> 8) | 0x80u, 1);
    out = putHex(out, clockSequence & 0xFFu, 1);
    *out++ = '-';
    for (int i = 0; i < 6; ++i)
        out = putHex(out, node[i], 1);
    *out = '\0';
}
