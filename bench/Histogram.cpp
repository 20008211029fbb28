#include "Histogram.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace parlavox::bench {

std::size_t Histogram::bucketOf(std::uint64_t value) {
  if (value < 128) {
    return static_cast<std::size_t>(value);
  }
  // value = (64 + r) << shift with 0 ≤ r < 64: one row of 64 buckets per shift.
  const int shift = static_cast<int>(std::bit_width(value)) - (kSubBits + 1);
  const std::uint64_t top = value >> shift;  // in [64, 128)
  return 128 + static_cast<std::size_t>(shift - 1) * 64 + static_cast<std::size_t>(top - 64);
}

std::uint64_t Histogram::highestIn(std::size_t bucket) {
  if (bucket < 128) {
    return bucket;
  }
  const std::size_t row = (bucket - 128) / 64;
  const std::uint64_t top = 64 + (bucket - 128) % 64;
  const int shift = static_cast<int>(row) + 1;
  return ((top + 1) << shift) - 1;
}

void Histogram::record(std::int64_t nanoseconds) {
  const std::uint64_t value = nanoseconds > 0 ? static_cast<std::uint64_t>(nanoseconds) : 0;
  ++buckets_[bucketOf(value)];
  ++count_;
  max_ = std::max(max_, static_cast<std::int64_t>(value));
}

void Histogram::merge(const Histogram& other) {
  for (std::size_t i = 0; i < kBuckets; ++i) {
    buckets_[i] += other.buckets_[i];
  }
  count_ += other.count_;
  max_ = std::max(max_, other.max_);
}

std::int64_t Histogram::percentile(double percent) const {
  if (count_ == 0) {
    return 0;
  }
  const double exact = std::ceil(percent / 100.0 * static_cast<double>(count_));
  const std::uint64_t rank =
      std::clamp<std::uint64_t>(static_cast<std::uint64_t>(exact), 1, count_);
  std::uint64_t seen = 0;
  for (std::size_t i = 0; i < kBuckets; ++i) {
    seen += buckets_[i];
    if (seen >= rank) {
      return std::min(static_cast<std::int64_t>(highestIn(i)), max_);
    }
  }
  return max_;
}

}  // namespace parlavox::bench
