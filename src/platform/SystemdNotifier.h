#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace parlavox::platform {

// systemd's notification socket (sd_notify), for a server run as a Type=notify service: readiness,
// a status line for `systemctl status`, and the watchdog. Outside such a service (no
// NOTIFY_SOCKET) it is inactive and sends nothing.
class SystemdNotifier {
 public:
  // Main thread. Reads the environment systemd set.
  SystemdNotifier();

  bool active() const { return active_; }
  // How often to feed the watchdog: half its timeout, or nothing when the service has none.
  std::optional<std::chrono::milliseconds> watchdogInterval() const { return watchdogInterval_; }

  // Loop thread. Sends `state`: newline-separated assignments such as "READY=1" or "STATUS=...".
  void notify(const std::string& state) const;

 private:
  bool active_ = false;
  std::optional<std::chrono::milliseconds> watchdogInterval_;
};

}  // namespace parlavox::platform
