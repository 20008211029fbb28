#include "e2e/ServerProcess.h"

#include <signal.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <random>
#include <stdexcept>

extern char** environ;

namespace parlavox::test {

TempDir::TempDir() {
  std::random_device random;
  path_ = std::filesystem::temp_directory_path() / ("parlavox-test-" + std::to_string(random()));
  std::filesystem::create_directories(path_);
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string ServerProcess::binary() { return PARLAVOX_BINARY; }

ServerProcess::ServerProcess(const std::filesystem::path& workingDir,
                             const std::vector<std::string>& args,
                             const std::vector<std::string>& extraEnv) {
  int out[2];
  int err[2];
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe failed");
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err[1], 2);
  posix_spawn_file_actions_addchdir_np(&actions, workingDir.c_str());
  std::vector<std::string> argStrings{binary()};
  argStrings.insert(argStrings.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& a : argStrings) {
    argv.push_back(a.data());
  }
  argv.push_back(nullptr);
  std::vector<std::string> envStrings;
  for (char** e = environ; *e != nullptr; ++e) {
    envStrings.emplace_back(*e);
  }
  envStrings.insert(envStrings.end(), extraEnv.begin(), extraEnv.end());
  std::vector<char*> envp;
  for (auto& e : envStrings) {
    envp.push_back(e.data());
  }
  envp.push_back(nullptr);
  const int spawned = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);
  close(err[1]);
  if (spawned != 0) {
    close(out[0]);
    close(err[0]);
    throw std::runtime_error("can't start " + binary());
  }
  outReader_ = std::thread([this, fd = out[0]] { readOutput(fd, false); });
  errReader_ = std::thread([this, fd = err[0]] { readOutput(fd, true); });
}

ServerProcess::~ServerProcess() {
  kill();
  outReader_.join();
  errReader_.join();
}

void ServerProcess::readOutput(int fd, bool isError) {
  std::array<char, 4096> buffer{};
  for (;;) {
    const ssize_t n = read(fd, buffer.data(), buffer.size());
    if (n <= 0) {
      break;
    }
    std::lock_guard lock(mutex_);
    if (isError) {
      error_.append(buffer.data(), static_cast<std::size_t>(n));
      continue;
    }
    partial_.append(buffer.data(), static_cast<std::size_t>(n));
    for (auto newline = partial_.find('\n'); newline != std::string::npos;
         newline = partial_.find('\n')) {
      lines_.push_back(partial_.substr(0, newline));
      partial_.erase(0, newline + 1);
    }
    changed_.notify_all();
  }
  close(fd);
  std::lock_guard lock(mutex_);
  --openStreams_;
  changed_.notify_all();
}

std::optional<std::string> ServerProcess::waitForLine(const std::string& text,
                                                      std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  std::optional<std::string> found;
  changed_.wait_for(lock, timeout, [&] {
    for (const auto& line : lines_) {
      if (line.find(text) != std::string::npos) {
        found = line;
        return true;
      }
    }
    return openStreams_ == 0;
  });
  return found;
}

std::size_t ServerProcess::count(const std::string& text) const {
  std::lock_guard lock(mutex_);
  std::size_t n = 0;
  for (const auto& line : lines_) {
    n += line.find(text) != std::string::npos ? 1U : 0U;
  }
  return n;
}

std::vector<std::string> ServerProcess::lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

std::string ServerProcess::standardError() const {
  std::lock_guard lock(mutex_);
  return error_;
}

std::optional<int> ServerProcess::waitForExit(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!status_) {
    int status = 0;
    const pid_t done = waitpid(pid_, &status, WNOHANG);
    if (done == pid_) {
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
      break;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      return std::nullopt;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  // Let the readers take the last of the output.
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, std::chrono::seconds(2), [&] { return openStreams_ == 0; });
  return status_;
}

void ServerProcess::kill() {
  if (!status_) {
    ::kill(pid_, SIGTERM);
    if (!waitForExit(std::chrono::seconds(5))) {
      ::kill(pid_, SIGKILL);
      waitForExit(std::chrono::seconds(5));
    }
  }
}

}  // namespace parlavox::test

namespace parlavox::test {

int runProgram(const std::vector<std::string>& args) {
  std::vector<std::string> copy = args;
  std::vector<char*> argv;
  for (auto& a : copy) {
    argv.push_back(a.data());
  }
  argv.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
    return -1;
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::filesystem::path binaryDirectory() {
  return std::filesystem::path(ServerProcess::binary()).parent_path();
}

}  // namespace parlavox::test
