#include "announce/FramePacing.h"

#include <array>
#include <cmath>
#include <limits>

#include "wire/Audio.h"

namespace parlavox {

std::optional<std::uint32_t> convertedCapacity(double sourceRate, std::uint64_t sourceFrames) {
  // The ratio first, then the margin after the product: the order decides the last digit.
  const double ratio = static_cast<double>(wire::kSampleRate) / sourceRate;
  const double capacity = ratio * static_cast<double>(sourceFrames) + 32.0;
  if (!std::isfinite(capacity) || capacity < 0.0 ||
      capacity >= static_cast<double>(std::numeric_limits<std::uint32_t>::max()) + 1.0) {
    return std::nullopt;
  }
  return static_cast<std::uint32_t>(capacity);
}

std::optional<platform::MonoClock::duration> streamFrames(std::span<const std::int16_t> samples,
                                                          platform::Clock& clock,
                                                          const Speaker::FrameHandler& onFrame,
                                                          const std::function<bool()>& cutShort) {
  const platform::MonoTime start = clock.now();
  std::array<std::uint8_t, wire::kFrameBytes> frame{};
  const std::size_t count = samples.size() / wire::kFrameSamples;
  for (std::size_t i = 0; i < count; ++i) {
    if (cutShort && cutShort()) {
      return std::nullopt;
    }
    wire::writeSamples(samples.subspan(i * wire::kFrameSamples, wire::kFrameSamples), frame);
    onFrame(Bytes(frame));
    // Deadlines count from the fixed start, so a late wake-up is made up by the following frames
    // instead of pushing them all back.
    const platform::MonoTime deadline =
        start + wire::kFramePeriod * static_cast<std::int64_t>(i + 1);
    if (clock.now() < deadline) {
      clock.sleepUntil(deadline);
    }
  }
  return clock.now() - start;
}

}  // namespace parlavox
