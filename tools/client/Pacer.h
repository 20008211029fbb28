#pragma once

#include <cstdint>

#include "platform/Clock.h"

namespace parlavox::client {

// The schedule of a real-time stream of frames: frame n is due `period` * n after the start, so
// the time spent sending never adds up into drift. A sender that falls more than `maxLag` behind
// (the process was stopped, the machine was busy) starts a fresh schedule from where it is, so
// receivers get the frames it missed at the normal pace rather than in one burst.
class Pacer {
 public:
  // Any thread; then one thread at a time.
  Pacer(platform::MonoTime start, platform::MonoClock::duration period,
        platform::MonoClock::duration maxLag);

  // When the next frame is due, given that it is `now`; each call is one more frame.
  platform::MonoTime next(platform::MonoTime now);

  std::uint64_t framesScheduled() const { return scheduled_; }
  // How often the schedule has started afresh after falling behind.
  std::uint64_t restarts() const { return restarts_; }

 private:
  platform::MonoTime anchor_;
  platform::MonoClock::duration period_;
  platform::MonoClock::duration maxLag_;
  std::int64_t sinceAnchor_ = 0;  // frames scheduled since anchor_
  std::uint64_t scheduled_ = 0;
  std::uint64_t restarts_ = 0;
};

}  // namespace parlavox::client
