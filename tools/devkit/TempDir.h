#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

namespace parlavox::devkit {

// A fresh empty directory under the system's temporary directory, removed with everything in it
// when its owner is done with it. Any thread.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }
  // The names directly inside, in no particular order.
  std::vector<std::string> entries() const;

 private:
  std::string path_;
};

// Any thread. Whole-file helpers; writeFile throws std::runtime_error when the file cannot be
// written.
std::string readFile(const std::string& path);
void writeFile(const std::string& path, std::string_view content);
// Any thread. What `path` holds once it holds a whole line, waiting up to `timeout`; "" if none
// came.
std::string waitForLineIn(const std::string& path,
                          std::chrono::milliseconds timeout = std::chrono::seconds(10));
// Any thread. An executable /bin/sh script with `body` after the interpreter line; returns `path`.
std::string writeScript(const std::string& path, std::string_view body);

}  // namespace parlavox::devkit
