#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "platform/Result.h"

namespace parlavox::platform {

// Any thread. Converts `frames` interleaved frames of `channels` floating-point samples at
// `inputRate` to mono 16-bit samples at `outputRate`, in one pass over the whole input: channels
// are averaged into one, then resampled (high quality, linear phase) and rounded to 16 bits
// without dither, so 16-bit input at the output rate passes through unchanged. At most
// `capacity` samples are produced; fails with the library's description.
Result<std::vector<std::int16_t>> resampleToMono16(std::span<const float> interleaved, int channels,
                                                   std::size_t frames, double inputRate,
                                                   double outputRate, std::size_t capacity);

}  // namespace parlavox::platform
