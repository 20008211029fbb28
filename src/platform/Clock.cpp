#include "platform/Clock.h"

#include <cerrno>
#include <ctime>

namespace parlavox::platform {

std::int64_t unixSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

WallTime localWallTime() {
  const std::int64_t now = unixSeconds();
  const auto seconds = static_cast<time_t>(now);
  tm local{};
  // localtime_r, unlike localtime, is safe from any thread; it reads the zone once per process.
  if (localtime_r(&seconds, &local) == nullptr) {
    return {now, 0};
  }
  return {now, static_cast<std::int32_t>(local.tm_gmtoff)};
}

MonoTime SteadyClock::now() const {
  return MonoClock::now();
}

void SteadyClock::sleepUntil(MonoTime deadline) {
  // An absolute sleep on CLOCK_MONOTONIC (steady_clock's clock on Linux): oversleeping one frame
  // never shifts the deadlines after it.
  const auto since = deadline.time_since_epoch();
  const auto secs = std::chrono::duration_cast<std::chrono::seconds>(since);
  timespec ts{};
  ts.tv_sec = static_cast<time_t>(secs.count());
  ts.tv_nsec = static_cast<long>(std::chrono::nanoseconds(since - secs).count());
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
  }
}

}  // namespace parlavox::platform
