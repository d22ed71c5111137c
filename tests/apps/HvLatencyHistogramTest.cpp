#include "HvLatencyHistogram.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <thread>
#include <vector>

namespace {

// The nearest-rank percentile of a sorted list: the ceil(p/100 * n)-th value.
std::uint64_t exactPercentile(const std::vector<std::uint64_t>& sorted, double percent)
{
    std::size_t rank = static_cast<std::size_t>(std::ceil(percent / 100.0 * static_cast<double>(sorted.size()) - 1e-9));
    rank = std::max<std::size_t>(rank, 1);
    return sorted[std::min(rank, sorted.size()) - 1];
}

void expectWithinOnePercent(std::uint64_t expected, std::uint64_t actual, double percent)
{
    const double error = std::fabs(static_cast<double>(actual) - static_cast<double>(expected));
    EXPECT_LE(error, static_cast<double>(expected) * 0.01)
        << "p" << percent << ": expected about " << expected << ", got " << actual;
}

} // namespace

TEST(HvLatencyHistogram, EmptyHistogramReportsZeroEverywhere)
{
    HvLatencyHistogram histogram;
    EXPECT_EQ(0u, histogram.getCount());
    EXPECT_EQ(0u, histogram.getMax());
    for (double percent : {0.0, 50.0, 90.0, 99.0, 99.9, 100.0})
        EXPECT_EQ(0u, histogram.getPercentile(percent));
}

TEST(HvLatencyHistogram, ValuesBelowTheExactLimitAreReportedExactly)
{
    HvLatencyHistogram histogram;
    for (std::uint64_t value = 0; value < HvLatencyHistogram::kExactLimit; ++value)
        histogram.record(value);
    EXPECT_EQ(HvLatencyHistogram::kExactLimit, histogram.getCount());
    // 256 values 0..255: rank 128 is 127, rank 231 (ceil 230.4) is 230.
    EXPECT_EQ(127u, histogram.getPercentile(50.0));
    EXPECT_EQ(230u, histogram.getPercentile(90.0));
    EXPECT_EQ(0u, histogram.getPercentile(0.0));
    EXPECT_EQ(255u, histogram.getPercentile(100.0));
    EXPECT_EQ(255u, histogram.getMax());
}

TEST(HvLatencyHistogram, EveryBucketIsNarrowerThanItsShareOfTheBound)
{
    std::mt19937_64 random(7);
    std::vector<std::uint64_t> values = {0, 1, 255, 256, 257, 383, 384, 511, 512, 1000000,
                                         std::numeric_limits<std::uint64_t>::max()};
    for (int i = 0; i < 20000; ++i)
        values.push_back(random() >> (random() % 64));
    for (std::uint64_t value : values) {
        const unsigned int bucket = HvLatencyHistogram::sBucketOf(value);
        ASSERT_LT(bucket, HvLatencyHistogram::kBucketCount) << value;
        const std::uint64_t low = HvLatencyHistogram::sBucketLow(bucket);
        const std::uint64_t width = HvLatencyHistogram::sBucketWidth(bucket);
        EXPECT_LE(low, value);
        EXPECT_LE(value - low, width - 1) << value;
        if (low >= HvLatencyHistogram::kExactLimit)
            EXPECT_LE(width * HvLatencyHistogram::kSubBuckets, low) << value;
        else
            EXPECT_EQ(1u, width);
    }
    // Buckets follow each other without gaps or overlaps.
    for (unsigned int bucket = 0; bucket + 1 < HvLatencyHistogram::kBucketCount; ++bucket)
        ASSERT_EQ(HvLatencyHistogram::sBucketLow(bucket) + HvLatencyHistogram::sBucketWidth(bucket),
                  HvLatencyHistogram::sBucketLow(bucket + 1))
            << bucket;
}

TEST(HvLatencyHistogram, PercentilesOfRandomDataStayWithinOnePercentOfTheExactOnes)
{
    std::mt19937_64 random(20261124);
    for (int round = 0; round < 5; ++round) {
        HvLatencyHistogram histogram;
        std::vector<std::uint64_t> values;
        // Spread over six decades, as latencies from microseconds to seconds are.
        std::uniform_real_distribution<double> exponent(0.0, 6.5);
        const int count = 5000 + round * 20011;
        for (int i = 0; i < count; ++i) {
            const std::uint64_t value = static_cast<std::uint64_t>(std::pow(10.0, exponent(random)));
            values.push_back(value);
            histogram.record(value);
        }
        std::sort(values.begin(), values.end());
        ASSERT_EQ(values.size(), histogram.getCount());
        EXPECT_EQ(values.back(), histogram.getMax());
        for (double percent : {1.0, 50.0, 90.0, 99.0, 99.9, 100.0})
            expectWithinOnePercent(exactPercentile(values, percent), histogram.getPercentile(percent), percent);
    }
}

TEST(HvLatencyHistogram, MaximumIsExactAndNoPercentileExceedsIt)
{
    HvLatencyHistogram histogram;
    histogram.record(1000);
    histogram.record(123457);
    EXPECT_EQ(123457u, histogram.getMax());
    // The bucket of 123457 is [123392, 123904): its midpoint lies above the
    // value, so the maximum caps it.
    EXPECT_EQ(123457u, histogram.getPercentile(100.0));
    // 1000 falls in [1000, 1004), reported as its midpoint.
    EXPECT_EQ(1001u, histogram.getPercentile(50.0));
}

TEST(HvLatencyHistogram, LargestValueIsCountedWithoutLeavingTheTable)
{
    HvLatencyHistogram histogram;
    const std::uint64_t largest = std::numeric_limits<std::uint64_t>::max();
    histogram.record(largest);
    EXPECT_EQ(1u, histogram.getCount());
    EXPECT_EQ(largest, histogram.getMax());
    EXPECT_EQ(HvLatencyHistogram::kBucketCount - 1, HvLatencyHistogram::sBucketOf(largest));
    EXPECT_LE(largest - histogram.getPercentile(50.0), largest / 128);
}

TEST(HvLatencyHistogram, ThreadsRecordingAtOnceLoseNoValue)
{
    HvLatencyHistogram histogram;
    constexpr int kThreads = 4;
    constexpr int kValues = 20000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&histogram, t] {
            for (int i = 0; i < kValues; ++i)
                histogram.record(static_cast<std::uint64_t>(t * kValues + i));
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(static_cast<std::uint64_t>(kThreads * kValues), histogram.getCount());
    EXPECT_EQ(static_cast<std::uint64_t>(kThreads * kValues - 1), histogram.getMax());
    expectWithinOnePercent(kThreads * kValues / 2 - 1, histogram.getPercentile(50.0), 50.0);
}
