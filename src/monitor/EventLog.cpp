#include "monitor/EventLog.h"

#include "monitor/ShowLog.h"

namespace parlavox {

void EventLog::print(const platform::ConsoleEvent& event) {
  next_.print(event);
  if (!ShowLog::worthKeeping(event)) {
    return;
  }
  Entry entry{clock_.now(), std::string(event.text)};
  const std::lock_guard lock(mutex_);
  if (entries_.size() == kLimit) {
    entries_.pop_front();
  }
  entries_.push_back(std::move(entry));
}

std::vector<EventLog::Entry> EventLog::entries() const {
  const std::lock_guard lock(mutex_);
  return {entries_.begin(), entries_.end()};
}

}  // namespace parlavox
