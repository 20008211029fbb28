#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace parlavox::bench {

// Latencies in nanoseconds, kept HdrHistogram-style: exact below 128 ns, then 64 buckets per
// power of two, so any percentile read back is at most 1/64 (1.6 %) above the true value.
// Recording is a few instructions and never allocates, so it can sit in the receive loop.
class Histogram {
 public:
  static constexpr int kSubBits = 6;  // 64 buckets per doubling
  static constexpr std::size_t kBuckets = (64 - kSubBits) * (std::size_t{1} << kSubBits) + 128;

  // Any thread that owns this histogram. Negative values count as 0.
  void record(std::int64_t nanoseconds);
  // Any thread that owns this histogram. Adds every value recorded in `other`.
  void merge(const Histogram& other);

  std::uint64_t count() const { return count_; }
  std::int64_t max() const { return max_; }
  // The value at `percent` (0 < percent ≤ 100): the highest value of the bucket holding that rank,
  // never more than max(). 0 when nothing was recorded.
  std::int64_t percentile(double percent) const;

  // Exposed for tests: the bucket of a value and the highest value that bucket holds.
  static std::size_t bucketOf(std::uint64_t value);
  static std::uint64_t highestIn(std::size_t bucket);

 private:
  std::array<std::uint64_t, kBuckets> buckets_{};
  std::uint64_t count_ = 0;
  std::int64_t max_ = 0;
};

}  // namespace parlavox::bench
