#include "platform/Transport.h"

#include <cstring>

namespace parlavox::platform {

std::size_t PeerAddressHash::operator()(const PeerAddress& address) const noexcept {
  std::uint64_t words[2];
  std::memcpy(words, address.host.data(), sizeof words);
  std::uint64_t h = words[0] * 0x9E3779B97F4A7C15ULL ^ words[1];
  h ^= (h >> 29) ^ (address.slot * 0xD6E8FEB86659FD93ULL) ^
       static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(address.transport));
  return static_cast<std::size_t>(h * 0xBF58476D1CE4E5B9ULL);
}

}  // namespace parlavox::platform
