#include "Pacing.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace parlavox::bench {
namespace {

constexpr std::int64_t kFrameNs = 20'000'000;

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.empty() ? 0 : values[values.size() / 2];
}

}  // namespace

Pacing measurePacing(const std::vector<Frame>& frames) {
  Pacing result;
  result.frames = frames.size();
  if (frames.size() < 2) {
    return result;
  }
  // Each frame's arrival less its place in the schedule: the schedule's start plus its delay.
  std::vector<std::int64_t> starts;
  starts.reserve(frames.size());
  std::int64_t index = 0;
  for (const Frame& frame : frames) {
    index = static_cast<std::uint16_t>(frame.seq - frames.front().seq);
    starts.push_back(frame.arrivalNs - index * kFrameNs);
  }
  result.missing = static_cast<std::size_t>(index + 1) - frames.size();
  result.seconds = static_cast<double>(frames.back().arrivalNs - frames.front().arrivalNs) / 1e9;
  const std::int64_t start = *std::min_element(starts.begin(), starts.end());
  std::vector<double> lateness;
  lateness.reserve(starts.size());
  for (const std::int64_t at : starts) {
    lateness.push_back(static_cast<double>(at - start) / 1e6);
  }
  result.driftMs = lateness.back();
  const auto second = static_cast<std::ptrdiff_t>(std::min<std::size_t>(50, lateness.size() / 2));
  result.steadyDriftMs = median({lateness.end() - second, lateness.end()}) -
                         median({lateness.begin(), lateness.begin() + second});
  std::sort(lateness.begin(), lateness.end());
  const auto at = [&](double percent) {
    const auto rank =
        static_cast<std::size_t>(std::ceil(percent / 100 * static_cast<double>(lateness.size())));
    return lateness[std::clamp<std::size_t>(rank, 1, lateness.size()) - 1];
  };
  result.p50Ms = at(50);
  result.p99Ms = at(99);
  result.maxMs = lateness.back();
  return result;
}

}  // namespace parlavox::bench
