#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace parlavox::platform {

// A machine on the network, as every transport names it: an IPv6 address, IPv4 hosts mapped into
// it (::ffff:a.b.c.d). What per-host limits and the peers' addresses key on.
struct HostAddress {
  std::array<std::uint8_t, 16> bytes{};
  bool operator==(const HostAddress&) const = default;
};

struct HostAddressHash {
  std::size_t operator()(const HostAddress& host) const noexcept;
};

// Any thread. As people write it: a.b.c.d for an IPv4 host, else the IPv6 address.
std::string toString(const HostAddress& host);

// Any thread; pure. The address `text` names (a.b.c.d, mapped, or an IPv6 address without a
// scope), or nothing.
std::optional<HostAddress> parseHostAddress(std::string_view text);

}  // namespace parlavox::platform
