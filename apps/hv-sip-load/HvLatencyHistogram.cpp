#include "HvLatencyHistogram.h"

#include <cmath>

namespace {

unsigned int highestBit(std::uint64_t value)
{
    return 63u - static_cast<unsigned int>(__builtin_clzll(value));
}

} // namespace

HvLatencyHistogram::HvLatencyHistogram() : m_count(0), m_max(0)
{
    for (std::atomic<std::uint64_t>& bucket : m_buckets)
        bucket.store(0, std::memory_order_relaxed);
}

unsigned int HvLatencyHistogram::sBucketOf(std::uint64_t value)
{
    if (value < kExactLimit)
        return static_cast<unsigned int>(value);
    // value >= 256, so the highest bit is at least 8 and the top 8 bits lie
    // in [128, 255].
    unsigned int exponent = highestBit(value);
    unsigned int shift = exponent - 7;
    unsigned int top = static_cast<unsigned int>(value >> shift);
    return static_cast<unsigned int>(kExactLimit) + (exponent - 8) * kSubBuckets + (top - kSubBuckets);
}

std::uint64_t HvLatencyHistogram::sBucketLow(unsigned int bucket)
{
    if (bucket < kExactLimit)
        return bucket;
    unsigned int index = bucket - static_cast<unsigned int>(kExactLimit);
    unsigned int exponent = 8 + index / kSubBuckets;
    std::uint64_t top = kSubBuckets + index % kSubBuckets;
    return top << (exponent - 7);
}

std::uint64_t HvLatencyHistogram::sBucketWidth(unsigned int bucket)
{
    if (bucket < kExactLimit)
        return 1;
    unsigned int exponent = 8 + (bucket - static_cast<unsigned int>(kExactLimit)) / kSubBuckets;
    return std::uint64_t(1) << (exponent - 7);
}

void HvLatencyHistogram::record(std::uint64_t microseconds)
{
    m_buckets[sBucketOf(microseconds)].fetch_add(1, std::memory_order_relaxed);
    m_count.fetch_add(1, std::memory_order_relaxed);
    std::uint64_t seen = m_max.load(std::memory_order_relaxed);
    while (microseconds > seen && !m_max.compare_exchange_weak(seen, microseconds, std::memory_order_relaxed)) {
    }
}

std::uint64_t HvLatencyHistogram::getPercentile(double percent) const
{
    std::uint64_t total = 0;
    for (const std::atomic<std::uint64_t>& bucket : m_buckets)
        total += bucket.load(std::memory_order_relaxed);
    if (total == 0)
        return 0;
    if (percent < 0.0)
        percent = 0.0;
    if (percent > 100.0)
        percent = 100.0;
    // The small epsilon keeps 99.9% of 1000 at rank 999 despite rounding.
    std::uint64_t rank = static_cast<std::uint64_t>(std::ceil(percent / 100.0 * static_cast<double>(total) - 1e-9));
    if (rank < 1)
        rank = 1;
    if (rank > total)
        rank = total;

    const std::uint64_t max = getMax();
    std::uint64_t seen = 0;
    for (unsigned int bucket = 0; bucket < kBucketCount; ++bucket) {
        seen += m_buckets[bucket].load(std::memory_order_relaxed);
        if (seen >= rank) {
            std::uint64_t value = sBucketLow(bucket) + (sBucketWidth(bucket) - 1) / 2;
            return value > max ? max : value;
        }
    }
    return max;
}
