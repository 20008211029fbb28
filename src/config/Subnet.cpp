#include "config/Subnet.h"

#include <charconv>

namespace parlavox {
namespace {

constexpr unsigned kMappedPrefix = 96;  // ::ffff:0:0/96 holds the IPv4 hosts

bool isMappedV4(const platform::HostAddress& host) {
  for (std::size_t i = 0; i < 10; ++i) {
    if (host.bytes[i] != 0) {
      return false;
    }
  }
  return host.bytes[10] == 0xFF && host.bytes[11] == 0xFF;
}

bool contains(const platform::HostAddress& base, unsigned prefix,
              const platform::HostAddress& host) {
  const unsigned whole = prefix / 8;
  for (unsigned i = 0; i < whole; ++i) {
    if (host.bytes[i] != base.bytes[i]) {
      return false;
    }
  }
  if (const unsigned rest = prefix % 8; rest != 0) {
    const auto mask = static_cast<std::uint8_t>(0xFF << (8 - rest));
    return (host.bytes[whole] & mask) == base.bytes[whole];
  }
  return true;
}

const Subnet kLoopbackV4{*platform::parseHostAddress("127.0.0.0"), kMappedPrefix + 8,
                         "127.0.0.0/8"};
const Subnet kLoopbackV6{*platform::parseHostAddress("::1"), 128, "::1/128"};

}  // namespace

std::optional<Subnet> parseSubnet(std::string_view text) {
  const auto slash = text.find('/');
  const auto address = platform::parseHostAddress(text.substr(0, slash));
  if (!address) {
    return std::nullopt;
  }
  const bool v4 = isMappedV4(*address) && text.substr(0, slash).find(':') == std::string_view::npos;
  const unsigned width = v4 ? 32 : 128;
  unsigned prefix = width;
  if (slash != std::string_view::npos) {
    const std::string_view digits = text.substr(slash + 1);
    const auto [end, error] = std::from_chars(digits.begin(), digits.end(), prefix);
    if (digits.empty() || error != std::errc() || end != digits.end() || prefix > width ||
        digits.size() > 3) {
      return std::nullopt;
    }
  }
  Subnet subnet{*address, v4 ? prefix + kMappedPrefix : prefix, std::string(text)};
  for (unsigned bit = subnet.prefix; bit < 128; ++bit) {
    subnet.base.bytes[bit / 8] &= static_cast<std::uint8_t>(~(0x80U >> (bit % 8)));
  }
  return subnet;
}

bool crewMayComeFrom(const std::vector<Subnet>& networks, const platform::HostAddress& host) {
  if (networks.empty() || contains(kLoopbackV4.base, kLoopbackV4.prefix, host) ||
      contains(kLoopbackV6.base, kLoopbackV6.prefix, host)) {
    return true;
  }
  for (const Subnet& network : networks) {
    if (contains(network.base, network.prefix, host)) {
      return true;
    }
  }
  return false;
}

}  // namespace parlavox
