#pragma once

#include <chrono>
#include <cstdint>

namespace parlavox::platform {

using MonoClock = std::chrono::steady_clock;
using MonoTime = MonoClock::time_point;

// Monotonic time, so that a change of the wall clock neither drops nor keeps peers and never
// bends the pacing of announcements.
class Clock {
 public:
  virtual ~Clock() = default;
  // Any thread.
  virtual MonoTime now() const = 0;
  // Any thread. Blocks the caller until the clock reads at least `deadline`.
  virtual void sleepUntil(MonoTime deadline) = 0;
};

// Any thread. Seconds since 1970 by the wall clock: for what must outlast the process (a crew
// session's expiry), never for pacing or timeouts.
std::int64_t unixSeconds();

// A moment by the wall clock, with the local time zone's offset from UTC then: what a log kept
// for people is stamped with.
struct WallTime {
  std::int64_t unixSeconds = 0;
  std::int32_t utcOffsetSeconds = 0;  // east of Greenwich positive
};

// Any thread. Now, by the wall clock, in the local time zone (TZ, else /etc/localtime).
WallTime localWallTime();

class SteadyClock final : public Clock {
 public:
  MonoTime now() const override;
  void sleepUntil(MonoTime deadline) override;
};

}  // namespace parlavox::platform
