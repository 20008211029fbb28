#pragma once

#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Clock.h"
#include "platform/Console.h"

namespace parlavox {

// The console as the operator's monitor sees it: every message goes on to `next`, and the ones
// an operator scans a show's log for (those the show's log keeps: the crew's comings and goings,
// announcements, calls, links, the operator's actions, every warning and error) are kept, the
// latest kLimit of them, with when they were printed.
class EventLog final : public platform::Console {
 public:
  static constexpr std::size_t kLimit = 50;

  struct Entry {
    platform::MonoTime at;
    std::string line;
  };

  EventLog(platform::Console& next, platform::Clock& clock) : next_(next), clock_(clock) {}

  // Any thread, as every console.
  void print(const platform::ConsoleEvent& event) override;

  // Any thread. The entries kept, oldest first.
  std::vector<Entry> entries() const;

 private:
  platform::Console& next_;
  platform::Clock& clock_;
  // The announcer's thread prints too; this lock is held only to copy a line in or the entries out.
  mutable std::mutex mutex_;
  std::deque<Entry> entries_;
};

}  // namespace parlavox
