#include "platform/HostAddress.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace parlavox::platform {

std::size_t HostAddressHash::operator()(const HostAddress& host) const noexcept {
  std::uint64_t words[2];
  std::memcpy(words, host.bytes.data(), sizeof words);
  const std::uint64_t h = (words[0] * 0x9E3779B97F4A7C15ULL ^ words[1]) * 0xBF58476D1CE4E5B9ULL;
  return static_cast<std::size_t>(h ^ (h >> 31));
}

std::string toString(const HostAddress& host) {
  constexpr std::array<std::uint8_t, 12> kMappedPrefix{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
  const bool v4 = std::equal(kMappedPrefix.begin(), kMappedPrefix.end(), host.bytes.begin());
  std::array<char, INET6_ADDRSTRLEN> text{};
  const void* bytes = v4 ? host.bytes.data() + kMappedPrefix.size() : host.bytes.data();
  if (::inet_ntop(v4 ? AF_INET : AF_INET6, bytes, text.data(), text.size()) == nullptr) {
    return "?";
  }
  return text.data();
}

std::optional<HostAddress> parseHostAddress(std::string_view text) {
  const std::string copy(text);  // inet_pton wants it NUL-terminated
  HostAddress host;
  if (::inet_pton(AF_INET6, copy.c_str(), host.bytes.data()) == 1) {
    return host;
  }
  std::array<std::uint8_t, 4> v4{};
  if (::inet_pton(AF_INET, copy.c_str(), v4.data()) != 1) {
    return std::nullopt;
  }
  host.bytes[10] = 0xFF;
  host.bytes[11] = 0xFF;
  std::copy(v4.begin(), v4.end(), host.bytes.begin() + 12);
  return host;
}

}  // namespace parlavox::platform
