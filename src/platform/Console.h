#pragma once

#include <string_view>

namespace parlavox::platform {

// Where the system's messages go. Each message is written whole, by one call, so lines from the
// server loop and the announcer thread never mix.
class Console {
 public:
  virtual ~Console() = default;
  // Any thread. Writes the message followed by a line feed.
  virtual void print(std::string_view message) = 0;
};

// Standard output, line-buffered from the first call of makeLineBuffered(). Under systemd,
// standard output is the journal: there each line is an entry, and a message that starts with ❌
// or ⚠️ goes in as an error or a warning, so that `journalctl -p warning` shows what went
// wrong.
class StdoutConsole final : public Console {
 public:
  // Any thread.
  StdoutConsole();
  // Main thread, before anything else prints.
  static void makeLineBuffered();
  void print(std::string_view message) override;

 private:
  bool journal_ = false;
};

}  // namespace parlavox::platform
