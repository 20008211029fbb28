#include "relay/ChannelMask.h"

#include "config/Names.h"

namespace parlavox {

std::uint32_t maskFor(const std::vector<std::string>& names,
                      const std::vector<std::string>& channels, platform::Console& console) {
  std::uint32_t mask = 0;
  for (const auto& name : names) {
    const auto index = findName(name, channels);
    if (!index) {
      console.print("⚠️  Role refers to unknown channel \"" + name + "\"");
    } else if (*index < 32) {
      mask |= std::uint32_t{1} << *index;
    }
  }
  return mask;
}

}  // namespace parlavox
