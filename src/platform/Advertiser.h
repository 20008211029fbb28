#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <string>

namespace parlavox::platform {

// DNS-SD advertisement of a service on the local network. Problems (no daemon, a name collision)
// are worked around and reported on the console by the implementation itself.
class Advertiser {
 public:
  virtual ~Advertiser() = default;
  // Main thread or loop thread, once. Keeps the service advertised for the life of the object,
  // re-registering when the daemon comes back after a restart.
  virtual void advertise(const std::string& name, const std::string& type, std::uint16_t port) = 0;
};

// The line that tells the operator the intercom is listening and advertised: printed once the
// port is open, and again when the service is advertised anew after the daemon went away.
inline std::string advertisedLine(std::uint16_t port) {
  return fmt::format("✅ Listening on UDP port {} and advertising on Bonjour", port);
}

}  // namespace parlavox::platform
