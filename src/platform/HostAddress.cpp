#include "platform/HostAddress.h"

#include <cstring>

namespace parlavox::platform {

std::size_t HostAddressHash::operator()(const HostAddress& host) const noexcept {
  std::uint64_t words[2];
  std::memcpy(words, host.bytes.data(), sizeof words);
  const std::uint64_t h = (words[0] * 0x9E3779B97F4A7C15ULL ^ words[1]) * 0xBF58476D1CE4E5B9ULL;
  return static_cast<std::size_t>(h ^ (h >> 31));
}

}  // namespace parlavox::platform
