#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace parlavox {

// A read-only view of datagram bytes. Views never own; callers keep the bytes alive for the call.
using Bytes = std::span<const std::uint8_t>;

inline Bytes asBytes(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

}  // namespace parlavox
