#include "platform/SerialQueue.h"

#include <pthread.h>
#include <sys/prctl.h>

#include <utility>

namespace parlavox::platform {

SerialQueue::SerialQueue(const std::string& label, std::chrono::nanoseconds timerSlack)
    : thread_([this, label, timerSlack] { run(label, timerSlack); }) {}

SerialQueue::~SerialQueue() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_one();
  thread_.join();
}

void SerialQueue::submit(Task task) {
  {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
  }
  wake_.notify_one();
}

void SerialQueue::run(const std::string& label, std::chrono::nanoseconds timerSlack) {
  // Both are cosmetic or tuning: a failure changes nothing about what the tasks do.
  pthread_setname_np(pthread_self(), label.substr(0, 15).c_str());
  if (timerSlack.count() > 0) {
    prctl(PR_SET_TIMERSLACK, static_cast<unsigned long>(timerSlack.count()), 0UL, 0UL, 0UL);
  }
  for (;;) {
    Task task;
    {
      std::unique_lock lock(mutex_);
      wake_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
      if (tasks_.empty()) {
        return;  // stopping, and nothing left to run
      }
      task = std::move(tasks_.front());
      tasks_.pop_front();
    }
    task();
  }
}

}  // namespace parlavox::platform
