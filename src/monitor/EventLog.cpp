#include "monitor/EventLog.h"

#include <array>

namespace parlavox {
namespace {

// The lines an operator scans a show's log for, by their first character.
bool worthKeeping(std::string_view line) {
  static constexpr std::array<std::string_view, 6> kinds{"🎧", "👋", "⏱️", "📣", "⚠️", "❌"};
  for (const std::string_view kind : kinds) {
    if (line.starts_with(kind)) {
      return true;
    }
  }
  return false;
}

}  // namespace

void EventLog::print(std::string_view message) {
  next_.print(message);
  if (!worthKeeping(message)) {
    return;
  }
  Entry entry{clock_.now(), std::string(message)};
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
