#include "announce/FramePacing.h"

#include <array>
#include <cmath>
#include <limits>

namespace parlavox {

namespace {
constexpr std::chrono::milliseconds kFramePeriod{20};
}  // namespace

std::optional<std::uint32_t> convertedCapacity(double sourceRate, std::uint64_t sourceFrames) {
  // The ratio first, then the margin after the product: the order decides the last digit.
  const double ratio = static_cast<double>(Announcer::kNetworkRate) / sourceRate;
  const double capacity = ratio * static_cast<double>(sourceFrames) + 32.0;
  if (!std::isfinite(capacity) || capacity < 0.0 ||
      capacity >= static_cast<double>(std::numeric_limits<std::uint32_t>::max()) + 1.0) {
    return std::nullopt;
  }
  return static_cast<std::uint32_t>(capacity);
}

platform::MonoClock::duration streamFrames(std::span<const std::int16_t> samples,
                                           platform::Clock& clock,
                                           const Announcer::FrameHandler& onFrame) {
  const platform::MonoTime start = clock.now();
  std::array<std::uint8_t, Announcer::kFrameBytes> frame{};
  const std::size_t count = samples.size() / Announcer::kFrameSamples;
  for (std::size_t i = 0; i < count; ++i) {
    const auto source = samples.subspan(i * Announcer::kFrameSamples, Announcer::kFrameSamples);
    for (std::size_t s = 0; s < Announcer::kFrameSamples; ++s) {
      const auto bits = static_cast<std::uint16_t>(source[s]);
      frame[2 * s] = static_cast<std::uint8_t>(bits & 0xFFU);
      frame[2 * s + 1] = static_cast<std::uint8_t>(bits >> 8U);
    }
    onFrame(Bytes(frame));
    // Deadlines count from the fixed start, so a late wake-up is made up by the following frames
    // instead of pushing them all back.
    const platform::MonoTime deadline = start + kFramePeriod * static_cast<std::int64_t>(i + 1);
    if (clock.now() < deadline) {
      clock.sleepUntil(deadline);
    }
  }
  return clock.now() - start;
}

}  // namespace parlavox
