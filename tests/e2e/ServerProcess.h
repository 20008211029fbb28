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

// A fresh empty directory, removed with everything in it at the end of the test.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

// The real parlavox binary, run in a working directory of the test's choosing, with its standard
// output read line by line and its standard error kept apart (it must stay empty).
class ServerProcess {
 public:
  ServerProcess(const std::filesystem::path& workingDir, const std::vector<std::string>& args = {},
                const std::vector<std::string>& extraEnv = {});
  ~ServerProcess();
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  // The first line, from the start of output, that contains `text`; waits up to `timeout`.
  std::optional<std::string> waitForLine(const std::string& text,
                                         std::chrono::milliseconds timeout = std::chrono::seconds(5));
  // How many lines so far contain `text`.
  std::size_t count(const std::string& text) const;
  std::vector<std::string> lines() const;
  std::string standardError() const;
  // The exit status if the process ends within `timeout` (-signal when killed by one).
  std::optional<int> waitForExit(std::chrono::milliseconds timeout = std::chrono::seconds(5));
  void kill();

  static std::string binary();  // the parlavox under test

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

}  // namespace parlavox::test

namespace parlavox::test {

// Runs a program (no shell) to its end; its exit status, or -1 if it could not be started.
int runProgram(const std::vector<std::string>& argv);

// Where the binaries under test live (parlavox, parlavox-say, parlavox-client).
std::filesystem::path binaryDirectory();

}  // namespace parlavox::test
