#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace parlavox::platform {

// A thread of its own that runs submitted tasks one at a time, in the order submitted. Tasks may
// block; they hold up only the tasks behind them.
class SerialQueue {
 public:
  using Task = std::function<void()>;

  // Any thread. `label` names the thread (cut to the 15 characters Linux keeps). A non-zero
  // `timerSlack` bounds how late the kernel may end the thread's sleeps, instead of the slack
  // inherited from the creating thread (a service manager may have set it much larger).
  explicit SerialQueue(const std::string& label,
                       std::chrono::nanoseconds timerSlack = std::chrono::nanoseconds{0});
  // Any thread but the queue's own. Runs the tasks already submitted, then ends the thread.
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  // Any thread. Queues `task` and returns at once.
  void submit(Task task);

 private:
  void run(const std::string& label, std::chrono::nanoseconds timerSlack);

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Task> tasks_;
  bool stopping_ = false;
  std::thread thread_;  // last: starts after the members it uses exist
};

}  // namespace parlavox::platform
