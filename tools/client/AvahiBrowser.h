#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "platform/Result.h"

namespace parlavox::client {

// One service found on the network by DNS-SD.
struct FoundService {
  std::string name;     // the instance name, e.g. the show's name
  std::string host;     // the host name it resolved to, e.g. "backstage.local"
  std::string address;  // numeric, ready for getaddrinfo(); IPv6 link-local with its "%interface"
  std::uint16_t port = 0;
};

// DNS-SD browsing through the Avahi daemon (avahi-client over D-Bus).
class AvahiBrowser {
 public:
  // Any thread; blocks the caller. Browses `type` (e.g. "_intercom._udp") in the default domain on
  // every interface and protocol and resolves what it sees. Returns the first service that
  // resolves, or gives up after `timeout`, or earlier once the daemon says it knows of nothing
  // more and no lookup is still under way. A failure says why nothing was found, as a phrase
  // ("there is no Avahi daemon to ask").
  static platform::Result<FoundService> findFirst(const std::string& type,
                                                  std::chrono::milliseconds timeout);
};

}  // namespace parlavox::client
