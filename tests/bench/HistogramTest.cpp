// The histogram's bucket arithmetic and percentiles: an error here skews every latency in the
// table without breaking any run, so only these tests can catch it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "Histogram.h"

namespace parlavox::bench {
namespace {

TEST(Histogram, BucketsAreContiguousAndWithinOneSixtyFourth) {
  for (std::size_t bucket = 1; bucket < 3000; ++bucket) {
    const std::uint64_t first = Histogram::highestIn(bucket - 1) + 1;
    ASSERT_EQ(Histogram::bucketOf(first), bucket);
    ASSERT_EQ(Histogram::bucketOf(Histogram::highestIn(bucket)), bucket);
  }
  for (const std::uint64_t value :
       {0ULL, 127ULL, 128ULL, 129ULL, 255ULL, 256ULL, 123'456ULL, (1ULL << 62) + 12345, ~0ULL}) {
    const std::size_t bucket = Histogram::bucketOf(value);
    ASSERT_LT(bucket, Histogram::kBuckets) << value;
    const std::uint64_t highest = Histogram::highestIn(bucket);
    EXPECT_GE(highest, value);
    EXPECT_LE(static_cast<double>(highest - value), static_cast<double>(value) / 64.0 + 1) << value;
  }
}

TEST(Histogram, PercentilesMatchSortedValuesWithinPrecision) {
  std::mt19937_64 random(7);
  std::lognormal_distribution<double> latency(10.0, 1.5);  // a long tail, as latencies have
  std::vector<std::int64_t> values;
  Histogram histogram;
  for (int i = 0; i < 100'000; ++i) {
    values.push_back(static_cast<std::int64_t>(latency(random)));
    histogram.record(values.back());
  }
  std::sort(values.begin(), values.end());
  for (const double percent : {1.0, 50.0, 99.0, 99.99, 100.0}) {
    const auto rank = static_cast<std::size_t>(std::ceil(percent / 100 * 100'000.0));
    const std::int64_t exact = values[rank - 1];
    const std::int64_t read = histogram.percentile(percent);
    EXPECT_GE(read, exact) << percent;
    EXPECT_LE(static_cast<double>(read), static_cast<double>(exact) * (1 + 1.0 / 64) + 1)
        << percent;
  }
  EXPECT_EQ(histogram.percentile(100), values.back());
  EXPECT_EQ(histogram.max(), values.back());
}

TEST(Histogram, MergeAddsCountsAndKeepsTheMaximum) {
  Histogram a;
  Histogram b;
  for (int i = 0; i < 99; ++i) {
    a.record(10);
  }
  b.record(5'000'000);
  b.record(-3);  // an early arrival counts as no delay
  a.merge(b);
  EXPECT_EQ(a.count(), 101U);
  EXPECT_EQ(a.percentile(50), 10);
  EXPECT_EQ(a.percentile(100), 5'000'000);
  EXPECT_EQ(Histogram().percentile(99), 0);
}

}  // namespace
}  // namespace parlavox::bench
