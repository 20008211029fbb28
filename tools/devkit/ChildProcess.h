#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace parlavox::devkit {

// A program under test (a path, or a name found on PATH), run without a shell in a working
// directory of the caller's choosing, with its standard output read line by line and its standard
// error kept apart (the programs of this project must leave it empty). Stopped with SIGTERM, then
// SIGKILL, when destroyed. The tests, the bench and parlavox-soak run the server this way.
class ChildProcess {
 public:
  // Starts `program` (a path) with `args`; `extraEnv` ("NAME=value") is added to our environment.
  // Throws std::runtime_error when it cannot be started.
  ChildProcess(const std::string& program, const std::vector<std::string>& args,
               const std::filesystem::path& workingDir,
               const std::vector<std::string>& extraEnv = {});
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Any thread. The first line, from the start of output, that contains `text`; waits up to
  // `timeout`, or less if the program closes its output first.
  std::optional<std::string> waitForLine(
      const std::string& text, std::chrono::milliseconds timeout = std::chrono::seconds(5));
  // Any thread. How many lines so far contain `text`.
  std::size_t count(const std::string& text) const;
  // Any thread. Every whole line so far, and the standard error so far.
  std::vector<std::string> lines() const;
  std::string standardError() const;
  // The owner's thread. Sends `signal` (SIGINT for Ctrl-C) unless the program has ended.
  void signal(int signal);
  // The owner's thread. The exit status if the program ends within `timeout` (-signal when a
  // signal ended it); all its output has been read by then.
  std::optional<int> waitForExit(std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // The owner's thread. Like waitForExit, without a limit and without polling, so that it returns
  // as the program ends: for timing a run. Throws std::runtime_error if the program cannot be
  // waited for (someone else reaped it).
  int wait();
  // The owner's thread. SIGTERM, and SIGKILL if that does not end it within 5 s.
  void stop();

  // Any thread. For reading /proc while the program runs; once it has been waited for, the id
  // may belong to another process.
  pid_t pid() const { return pid_; }
  // Any thread. The program's resident memory now, in KiB, as /proc tells (VmRSS); -1 once it is
  // gone.
  long residentKiB() const;

 private:
  void readOutput(int out, int err);
  // Records how the program ended and waits (briefly) for the readers to take its last output.
  void ended(int waitStatus);

  pid_t pid_ = -1;
  std::optional<int> status_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> lines_;
  std::string partial_;
  std::string error_;
  bool outputClosed_ = false;
  std::thread reader_;
};

// How a program run to its end ended, and what it printed.
struct ChildRun {
  std::optional<int> status;  // nothing if it was still running after the timeout
  std::vector<std::string> lines;
  std::string standardError;
};
// Any thread. Runs `program` until it ends or `timeout` passes (then stops it).
ChildRun runToEnd(const std::string& program, const std::vector<std::string>& args,
                  const std::filesystem::path& workingDir,
                  const std::vector<std::string>& extraEnv = {},
                  std::chrono::milliseconds timeout = std::chrono::seconds(15));

// Any thread. Runs a helper program (sox, oscsend, ...) to its end in the working directory: its
// exit status, or -1 if it did not end by itself within 15 s. Throws std::runtime_error if it
// cannot start.
int runProgram(const std::vector<std::string>& argv);

// Any thread. Waits up to `timeout` for the process `pid` to be gone, or dead and only waiting to
// be reaped by whoever inherited it; true if it is.
bool processEnds(pid_t pid, std::chrono::milliseconds timeout = std::chrono::seconds(5));

}  // namespace parlavox::devkit
