#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace parlavox::bench {

// A program the bench runs and watches: its standard output read line by line, its standard
// error kept apart, its memory and CPU time read from /proc. Killed when destroyed.
class ChildProcess {
 public:
  // Throws std::runtime_error when the program cannot be started.
  ChildProcess(const std::string& program, const std::vector<std::string>& args,
               const std::filesystem::path& workingDir);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Any thread. Waits up to `timeout` for the `nth` (from 1) line that contains `text`.
  bool waitForLine(const std::string& text, std::size_t nth, std::chrono::milliseconds timeout);
  // Any thread. How many lines so far contain `text`.
  std::size_t count(const std::string& text) const;
  std::string standardError() const;
  bool running();
  // Blocks until the process ends; its exit status, or -1 when a signal ended it.
  int wait();

  // Resident set now and at its peak, in bytes (0 when the process is gone).
  std::uint64_t residentBytes() const;
  std::uint64_t peakResidentBytes() const;
  // The part of the resident set that is the process's own (heap, stacks), not mapped files.
  std::uint64_t anonymousResidentBytes() const;
  // CPU time used so far by all the process's threads.
  std::chrono::nanoseconds cpuTime() const;

  pid_t pid() const { return pid_; }
  void stop();

 private:
  void readOutput(int fd, bool isError);
  std::uint64_t statusField(const char* name) const;

  pid_t pid_ = -1;
  bool reaped_ = false;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> lines_;
  std::string partial_;
  std::string error_;
  std::thread outReader_;
  std::thread errReader_;
};

// The directory this program was started from, where parlavox and parlavox-say lie beside it.
std::filesystem::path ownDirectory();

}  // namespace parlavox::bench
