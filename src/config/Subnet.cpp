#include "config/Subnet.h"

#include <charconv>
#include <cstring>

namespace parlavox {
namespace {

constexpr unsigned kMappedPrefix = 96;  // ::ffff:0:0/96 holds the IPv4 hosts

// Every datagram is checked: two words' compare, not sixteen bytes'.
bool contains(const Subnet& network, const platform::HostAddress& host) {
  std::uint64_t words[3][2];
  std::memcpy(words[0], host.bytes.data(), sizeof words[0]);
  std::memcpy(words[1], network.base.bytes.data(), sizeof words[1]);
  std::memcpy(words[2], network.mask.bytes.data(), sizeof words[2]);
  return ((words[0][0] ^ words[1][0]) & words[2][0]) == 0 &&
         ((words[0][1] ^ words[1][1]) & words[2][1]) == 0;
}

const Subnet kLoopbackV4 = *parseSubnet("127.0.0.0/8");
const Subnet kLoopbackV6 = *parseSubnet("::1");

}  // namespace

std::optional<Subnet> parseSubnet(std::string_view text) {
  const auto slash = text.find('/');
  const auto address = platform::parseHostAddress(text.substr(0, slash));
  if (!address) {
    return std::nullopt;
  }
  const bool v4 = text.substr(0, slash).find(':') == std::string_view::npos;  // a.b.c.d
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
  Subnet subnet{*address, {}, std::string(text)};
  for (unsigned bit = 0; bit < (v4 ? prefix + kMappedPrefix : prefix); ++bit) {
    subnet.mask.bytes[bit / 8] |= static_cast<std::uint8_t>(0x80U >> (bit % 8));
  }
  for (std::size_t i = 0; i < subnet.base.bytes.size(); ++i) {
    subnet.base.bytes[i] &= subnet.mask.bytes[i];
  }
  return subnet;
}

bool crewMayComeFrom(const std::vector<Subnet>& networks, const platform::HostAddress& host) {
  if (networks.empty() || contains(kLoopbackV4, host) || contains(kLoopbackV6, host)) {
    return true;
  }
  for (const Subnet& network : networks) {
    if (contains(network, host)) {
      return true;
    }
  }
  return false;
}

}  // namespace parlavox
