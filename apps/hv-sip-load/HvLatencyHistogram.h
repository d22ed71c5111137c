// Latencies in microseconds, counted in log-linear buckets: every value below
// 256 has a bucket of its own, and each power of two above is split into 128
// equal buckets, so a bucket is never wider than 1/128 of its lower bound and
// the value reported for it (its midpoint) is within 0.4% of any value it
// holds. The memory is fixed whatever is recorded; recording is lock-free,
// so the threads that complete transactions record directly.
#ifndef HVSIPLOAD_HVLATENCYHISTOGRAM_H
#define HVSIPLOAD_HVLATENCYHISTOGRAM_H

#include <array>
#include <atomic>
#include <cstdint>

class HvLatencyHistogram {
public:
    // Sub-buckets per power of two; sets the bound on the relative error.
    static constexpr unsigned int kSubBuckets = 128;
    // Values below this are counted exactly.
    static constexpr std::uint64_t kExactLimit = 2 * kSubBuckets;
    // Buckets for the whole 64-bit range.
    static constexpr unsigned int kBucketCount = kExactLimit + (64 - 8) * kSubBuckets;

    HvLatencyHistogram();

    HvLatencyHistogram(const HvLatencyHistogram&) = delete;
    HvLatencyHistogram& operator=(const HvLatencyHistogram&) = delete;

    // Counts one value. Any thread.
    void record(std::uint64_t microseconds);

    // Values recorded.
    std::uint64_t getCount() const { return m_count.load(std::memory_order_relaxed); }
    // The largest value recorded, exactly; 0 when empty.
    std::uint64_t getMax() const { return m_max.load(std::memory_order_relaxed); }
    // The value at `percent` (0 to 100) by the nearest-rank rule: the
    // ceil(percent/100 * count)-th smallest value (at least the first),
    // given as its bucket's midpoint, never above getMax(). 0 when empty.
    // Read once recording has stopped for an exact answer.
    std::uint64_t getPercentile(double percent) const;

    // The bucket a value falls in, and the lowest value and width of a bucket.
    static unsigned int sBucketOf(std::uint64_t value);
    static std::uint64_t sBucketLow(unsigned int bucket);
    static std::uint64_t sBucketWidth(unsigned int bucket);

private:
    std::array<std::atomic<std::uint64_t>, kBucketCount> m_buckets;
    std::atomic<std::uint64_t> m_count;
    std::atomic<std::uint64_t> m_max;
};

#endif
