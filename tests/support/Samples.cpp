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

}  // namespace parlavox::test
