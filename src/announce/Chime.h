#pragma once

#include <cstdint>
#include <vector>

namespace parlavox {

// Any thread; pure. The call chime in the network audio format: two bell-like notes falling a
// major third (E5, then C5), half a second in all, a whole number of frames, starting and ending
// on silence so that it clicks nowhere.
std::vector<std::int16_t> renderChime();

}  // namespace parlavox
