#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace parlavox::platform {

using Digest = std::array<std::uint8_t, 32>;

// Any thread; pure. HMAC-SHA-256 of `message` under `key`.
Digest hmacSha256(std::string_view key, std::string_view message);

// Any thread; pure. Whether `a` and `b` hold the same bytes, in a time that does not depend on
// where they differ: what a forger could otherwise measure byte by byte.
bool sameBytes(std::string_view a, std::string_view b);

}  // namespace parlavox::platform
