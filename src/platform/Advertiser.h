#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace parlavox::platform {

// DNS-SD advertisement of a service on the local network. Problems (no daemon, a name collision)
// are worked around and reported on the console by the implementation itself.
class Advertiser {
 public:
  // Any thread (the implementation's own): whether the service is on the network now. Called
  // when the daemon first answers for it, and again at each loss (an outage, a failure) and each
  // recovery; a rename after a name collision changes nothing.
  using StateHandler = std::function<void(bool advertised)>;

  virtual ~Advertiser() = default;
  // Main thread or loop thread, once. Keeps the service advertised for the life of the object,
  // re-registering when the daemon comes back after a restart.
  virtual void advertise(const std::string& name, const std::string& type, std::uint16_t port,
                         StateHandler onChange) = 0;
};

}  // namespace parlavox::platform
