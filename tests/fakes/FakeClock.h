#pragma once

#include <chrono>
#include <mutex>
#include <vector>

#include "platform/Clock.h"

namespace parlavox::test {

// A monotonic clock that only moves when told to: sleepUntil() jumps to the deadline at once (if
// it lies ahead) and records every deadline asked for, so pacing can be checked without waiting.
class FakeClock final : public platform::Clock {
 public:
  // An arbitrary start far from the epoch, so arithmetic before it stays meaningful.
  static constexpr platform::MonoTime kStart{std::chrono::hours(1000)};

  platform::MonoTime now() const override {
    std::lock_guard lock(mutex_);
    return now_;
  }
  void sleepUntil(platform::MonoTime deadline) override {
    std::lock_guard lock(mutex_);
    deadlines_.push_back(deadline);
    if (deadline > now_) {
      now_ = deadline;
    }
  }
  // Moves time on, as work that takes `step` would.
  void advance(platform::MonoClock::duration step) {
    std::lock_guard lock(mutex_);
    now_ += step;
  }
  std::vector<platform::MonoTime> deadlines() const {
    std::lock_guard lock(mutex_);
    return deadlines_;
  }

 private:
  mutable std::mutex mutex_;
  platform::MonoTime now_{kStart};
  std::vector<platform::MonoTime> deadlines_;
};

}  // namespace parlavox::test
