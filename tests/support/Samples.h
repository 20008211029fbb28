#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace parlavox::test {

// 16-bit samples from what libsndfile reads back from a 16-bit file (exact multiples of 1/32768).
std::vector<std::int16_t> toInt16(std::span<const float> samples);
// A 16-bit audio file at `path` made by sox: `rate` and `channels`, then what follows "synth"
// (lengths in samples count at `rate`). Returns `path`.
std::string makeAudio(const std::string& path, int rate, int channels,
                      const std::vector<std::string>& synth);

}  // namespace parlavox::test
