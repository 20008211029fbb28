#pragma once

#include <string>
#include <vector>

namespace parlavox::platform {

struct LocalAddress {
  std::string address;    // dotted IPv4
  std::string interface;  // eth0, wlan0, enp3s0, wlp2s0...
};

// Every IPv4 address of every non-loopback interface, in the order the system lists them. Linux
// names its interfaces freely, so no name rule is applied. Empty when the system cannot list them.
std::vector<LocalAddress> localIPv4Addresses();

// This computer's host name, or empty when it has none.
std::string hostName();

}  // namespace parlavox::platform
