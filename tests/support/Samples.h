#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace parlavox::test {

// 16-bit samples from what libsndfile reads back from a 16-bit file (exact multiples of 1/32768).
std::vector<std::int16_t> toInt16(std::span<const float> samples);

}  // namespace parlavox::test
