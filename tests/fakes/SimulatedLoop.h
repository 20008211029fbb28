#pragma once

#include <algorithm>
#include <deque>
#include <mutex>
#include <vector>

#include "fakes/FakeClock.h"
#include "platform/EventLoop.h"

namespace parlavox::test {

// The server loop, simulated: posted tasks and timer ticks run on the test's thread, only when
// the test says, with time read from a FakeClock.
class SimulatedLoop final : public platform::EventLoop {
 public:
  explicit SimulatedLoop(FakeClock& clock) : clock_(clock) {}

  // Any thread, as on the real loop: the announcer's thread posts frames.
  void post(Task task) override {
    const std::lock_guard lock(mutex_);
    posted_.push_back(std::move(task));
  }
  void every(std::chrono::milliseconds period, Task tick) override {
    timers_.push_back({clock_.now() + period, period, std::move(tick)});
  }
  void after(std::chrono::milliseconds delay, Task task) override {
    timers_.push_back({clock_.now() + delay, std::chrono::milliseconds::zero(), std::move(task)});
  }

  // Runs what has been posted, and whatever that posts, until nothing is left.
  void runPosted() {
    for (;;) {
      Task task;
      {
        const std::lock_guard lock(mutex_);
        if (posted_.empty()) {
          return;
        }
        task = std::move(posted_.front());
        posted_.pop_front();
      }
      task();
    }
  }

  // Moves time on by `step`, running each timer tick when its time comes, in time order.
  void advance(platform::MonoClock::duration step) {
    const platform::MonoTime end = clock_.now() + step;
    for (;;) {
      runPosted();
      auto next = std::min_element(timers_.begin(), timers_.end(),
                                   [](const Timer& a, const Timer& b) { return a.due < b.due; });
      if (next == timers_.end() || next->due > end) {
        break;
      }
      clock_.advance(next->due - clock_.now());
      Task tick = next->tick;
      if (next->period == std::chrono::milliseconds::zero()) {
        timers_.erase(next);  // a one-shot
      } else {
        next->due += next->period;
      }
      tick();  // may add timers
    }
    clock_.advance(end - clock_.now());
  }

 private:
  struct Timer {
    platform::MonoTime due;
    std::chrono::milliseconds period;  // zero: runs once
    Task tick;
  };
  FakeClock& clock_;
  std::mutex mutex_;
  std::deque<Task> posted_;
  std::vector<Timer> timers_;
};

}  // namespace parlavox::test
