#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Result.h"

namespace parlavox::platform {

// A directory of log files the server writes: one file open at a time, appended to a line at a
// time (never synced: the page cache is enough for a log, and a sync per line would stall the
// loop), and old files listed and removed. The caller's own lock or thread only.
class LogDirectory {
 public:
  explicit LogDirectory(std::string path) : path_(std::move(path)) {}
  ~LogDirectory();
  LogDirectory(const LogDirectory&) = delete;
  LogDirectory& operator=(const LogDirectory&) = delete;

  // Opens the file `name` in the directory for appending, creating it (readable by the owner and
  // the group) if need be, never through a link nor blocking on a FIFO, in place of the one open
  // before. Its size.
  Result<std::uint64_t> open(const std::string& name);
  // Appends `bytes` to the open file in one write.
  Result<void> append(std::string_view bytes);
  // The names of the files in the directory.
  Result<std::vector<std::string>> names() const;
  Result<void> remove(const std::string& name);
  // Where `name` is, for messages.
  std::string pathOf(const std::string& name) const;

 private:
  void close();

  std::string path_;
  int fd_ = -1;
};

}  // namespace parlavox::platform
