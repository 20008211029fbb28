#pragma once

#include <chrono>
#include <functional>

namespace parlavox::platform {

// The server's one serial loop: every task and timer tick runs on the loop's thread, one at a
// time, so the state they touch needs no lock.
class EventLoop {
 public:
  using Task = std::function<void()>;
  virtual ~EventLoop() = default;
  // Any thread. Runs `task` on the loop thread, after the tasks posted before it.
  virtual void post(Task task) = 0;
  // Any thread before run(), or the loop thread. Calls `tick` on the loop thread every `period`,
  // the first time one period from now, for as long as the loop runs.
  virtual void every(std::chrono::milliseconds period, Task tick) = 0;
  // Loop thread. Calls `task` once on the loop thread, `delay` from now.
  virtual void after(std::chrono::milliseconds delay, Task task) = 0;
};

}  // namespace parlavox::platform
