#pragma once

#include <string>
#include <vector>

namespace parlavox::platform {

// "{address}  ({interface})" for every IPv4 address of every non-loopback interface, in the order
// the system lists them. Linux names its interfaces eth0, wlan0, enp3s0, wlp2s0..., so no name
// rule is applied. Empty when the system cannot list them.
std::vector<std::string> localIPv4Addresses();

}  // namespace parlavox::platform
