#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/HostAddress.h"

namespace parlavox {

// A network crew devices may come from, as the roles file's "crewNetworks" names it. IPv4
// networks are kept as the IPv4-mapped IPv6 networks the transports name their hosts by.
struct Subnet {
  platform::HostAddress base;  // the host bits cleared
  platform::HostAddress mask;  // the network bits set
  std::string text;            // as the file wrote it, for the operator's eyes
  bool operator==(const Subnet&) const = default;
};

// Any thread; pure. "10.20.0.0/24", "fd00:20::/64", or one address alone (a /32 or /128). Host
// bits set past the prefix are cleared, as routers read "10.20.0.7/24". Nothing when it is none.
std::optional<Subnet> parseSubnet(std::string_view text);

// Any thread; pure. Whether a crew device at `host` may be served: from one of `networks`, or from
// this machine itself (127.0.0.0/8, ::1), whose users can read the roles file anyway. No networks:
// from anywhere.
bool crewMayComeFrom(const std::vector<Subnet>& networks, const platform::HostAddress& host);

}  // namespace parlavox
