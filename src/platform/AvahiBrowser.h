#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace parlavox::platform {

// One service found on the network by DNS-SD.
struct FoundService {
  std::string name;     // the instance name, e.g. the show's name
  std::string host;     // the host name it resolved to, e.g. "backstage.local"
  std::string address;  // numeric, ready for getaddrinfo(); IPv6 link-local with its "%interface"
  std::uint16_t port = 0;
};

struct BrowseResult {
  enum class Status {
    found,      // `service` holds the first service resolved
    noneFound,  // the daemon answered, but nothing of the type resolved in time
    noDaemon,   // no Avahi daemon (or no system bus) to ask
    failed,     // anything else; `error` says what
  };
  Status status = Status::failed;
  std::string error;  // the library's description, when not found
  FoundService service;
};

// DNS-SD browsing through the Avahi daemon (avahi-client over D-Bus).
class AvahiBrowser {
 public:
  // Any thread; blocks the caller. Browses `type` (e.g. "_intercom._udp") in the default domain on
  // every interface and protocol and resolves what it sees. Returns the first service that
  // resolves, or gives up after `timeout`, or earlier once the daemon says it knows of nothing
  // more and no lookup is still under way.
  static BrowseResult findFirst(const std::string& type, std::chrono::milliseconds timeout);
};

}  // namespace parlavox::platform
