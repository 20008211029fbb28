#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/Console.h"

namespace parlavox {

// The channel mask of `names`: bit i for the first channel equal to a name, for i below 32.
// Each name that is no channel prints a warning, every time it is met.
std::uint32_t maskFor(const std::vector<std::string>& names,
                      const std::vector<std::string>& channels, platform::Console& console);

}  // namespace parlavox
