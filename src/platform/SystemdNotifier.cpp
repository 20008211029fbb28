#include "platform/SystemdNotifier.h"

#include <systemd/sd-daemon.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>

namespace parlavox::platform {

SystemdNotifier::SystemdNotifier() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing here sets the environment
  active_ = std::getenv("NOTIFY_SOCKET") != nullptr;
  std::uint64_t timeout = 0;
  // Also checks WATCHDOG_PID, so a child that inherited the variables does not feed our watchdog.
  if (active_ && sd_watchdog_enabled(0, &timeout) > 0) {
    // At least 1 ms, as the loop's timers count in milliseconds.
    watchdogInterval_ = std::max(std::chrono::milliseconds(1),
                                 std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::microseconds(timeout / 2)));
  }
}

void SystemdNotifier::notify(const std::string& state) const {
  if (active_) {
    // Failure means systemd is gone or not listening: nothing the server could do about it.
    static_cast<void>(sd_notify(0, state.c_str()));
  }
}

}  // namespace parlavox::platform
