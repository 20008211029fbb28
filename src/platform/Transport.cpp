#include "platform/Transport.h"

#include <cstdint>

namespace parlavox::platform {

std::size_t PeerAddressHash::operator()(const PeerAddress& address) const noexcept {
  const std::uint64_t h = HostAddressHash{}(address.host) ^ (address.slot * 0xD6E8FEB86659FD93ULL) ^
                          reinterpret_cast<std::uintptr_t>(address.transport);
  return static_cast<std::size_t>(h * 0xBF58476D1CE4E5B9ULL);
}

}  // namespace parlavox::platform
