#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace parlavox::test {

// 16-bit samples from what libsndfile reads back from a 16-bit file (exact multiples of 1/32768).
std::vector<std::int16_t> toInt16(std::span<const float> samples);
// 16-bit samples from and to the little-endian bytes of an audio datagram; an odd byte at the end
// is dropped.
std::vector<std::int16_t> fromWire(std::span<const std::uint8_t> bytes);
std::vector<std::uint8_t> toWire(std::span<const std::int16_t> samples);

}  // namespace parlavox::test
