#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>

#include "announce/Speaker.h"
#include "platform/Clock.h"

namespace parlavox {

// How many 16 kHz samples to make room for when converting `sourceFrames` frames at
// `sourceRate`: the exact share plus a margin of 32 for the resampler's rounding. Empty when the
// count is not a finite number or does not fit 32 bits (a file no spoken line comes near).
std::optional<std::uint32_t> convertedCapacity(double sourceRate, std::uint64_t sourceFrames);

// Hands `samples` to `onFrame` in whole frames of network audio (320 samples, 640 bytes), one every
// 20 ms measured from one start time on `clock`; a remainder shorter than a frame is dropped. A
// loop running late sends on without sleeping until it is back on schedule, and never skips a
// frame. `cutShort`, when given, is asked before each frame; once it says yes, no frame follows.
// Returns the time from start to the end of the last wait, or nothing when cut short.
std::optional<platform::MonoClock::duration> streamFrames(
    std::span<const std::int16_t> samples, platform::Clock& clock,
    const Speaker::FrameHandler& onFrame, const std::function<bool()>& cutShort = {});

}  // namespace parlavox
