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

namespace parlavox::test {

// The real parlavox-client binary, run with the given arguments in a working directory of the
// test's choosing; its standard output is collected line by line, its standard error apart.
class ClientProcess {
 public:
  ClientProcess(const std::filesystem::path& workingDir, const std::vector<std::string>& args,
                const std::vector<std::string>& extraEnv = {});
  // Kills the process if it still runs.
  ~ClientProcess();
  ClientProcess(const ClientProcess&) = delete;
  ClientProcess& operator=(const ClientProcess&) = delete;

  // The first line, from the start of output, that contains `text`; waits up to `timeout`.
  std::optional<std::string> waitForLine(
      const std::string& text, std::chrono::milliseconds timeout = std::chrono::seconds(5));
  std::vector<std::string> lines() const;
  std::string standardError() const;
  // Sends `signal` (SIGINT for Ctrl-C).
  void signal(int signal);
  // The exit status if the process ends within `timeout` (-signal when killed by one); all its
  // output has been collected by then.
  std::optional<int> waitForExit(std::chrono::milliseconds timeout = std::chrono::seconds(10));

  static std::string binary();  // the parlavox-client under test

 private:
  void readOutput(int fd, bool isError);

  pid_t pid_ = -1;
  std::optional<int> status_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> lines_;
  std::string partial_;
  std::string error_;
  int openStreams_ = 2;
  std::thread outReader_;
  std::thread errReader_;
};

// Runs parlavox-client to its end (at most `timeout`): its exit status and output lines.
struct ClientRun {
  std::optional<int> status;
  std::vector<std::string> lines;
  std::string standardError;
};
ClientRun runClient(const std::filesystem::path& workingDir, const std::vector<std::string>& args,
                    const std::vector<std::string>& extraEnv = {},
                    std::chrono::milliseconds timeout = std::chrono::seconds(15));

}  // namespace parlavox::test
