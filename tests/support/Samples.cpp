#include "support/Samples.h"

#include <cmath>

namespace parlavox::test {

std::vector<std::int16_t> toInt16(std::span<const float> samples) {
  std::vector<std::int16_t> out;
  out.reserve(samples.size());
  for (const float value : samples) {
    out.push_back(static_cast<std::int16_t>(std::lround(value * 32768.0F)));
  }
  return out;
}

std::vector<std::int16_t> fromWire(std::span<const std::uint8_t> bytes) {
  std::vector<std::int16_t> out(bytes.size() / 2);
  for (std::size_t i = 0; i < out.size(); ++i) {
    out[i] = static_cast<std::int16_t>(bytes[2 * i] | bytes[2 * i + 1] << 8);
  }
  return out;
}

std::vector<std::uint8_t> toWire(std::span<const std::int16_t> samples) {
  std::vector<std::uint8_t> out;
  out.reserve(samples.size() * 2);
  for (const auto sample : samples) {
    const auto bits = static_cast<std::uint16_t>(sample);
    out.push_back(static_cast<std::uint8_t>(bits & 0xFF));
    out.push_back(static_cast<std::uint8_t>(bits >> 8));
  }
  return out;
}

}  // namespace parlavox::test
