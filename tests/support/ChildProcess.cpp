#include "support/ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>

extern char** environ;

namespace parlavox::test {
namespace {

// argv/envp arrays pointing into `strings`, which must outlive them.
std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> out;
  out.reserve(strings.size() + 1);
  for (auto& s : strings) {
    out.push_back(s.data());
  }
  out.push_back(nullptr);
  return out;
}

}  // namespace

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& args,
                           const std::filesystem::path& workingDir,
                           const std::vector<std::string>& extraEnv) {
  std::array<int, 2> out{};
  std::array<int, 2> err{};
  if (pipe2(out.data(), O_CLOEXEC) != 0 || pipe2(err.data(), O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe failed");
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
  posix_spawn_file_actions_addchdir_np(&actions, workingDir.c_str());
  std::vector<std::string> argStrings{program};
  argStrings.insert(argStrings.end(), args.begin(), args.end());
  std::vector<std::string> envStrings;
  for (char** e = environ; *e != nullptr; ++e) {
    envStrings.emplace_back(*e);
  }
  envStrings.insert(envStrings.end(), extraEnv.begin(), extraEnv.end());
  auto argv = pointers(argStrings);
  auto envp = pointers(envStrings);
  const int spawned = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);
  close(err[1]);
  if (spawned != 0) {
    close(out[0]);
    close(err[0]);
    throw std::runtime_error("can't start " + program);
  }
  outReader_ = std::thread([this, fd = out[0]] { readOutput(fd, false); });
  errReader_ = std::thread([this, fd = err[0]] { readOutput(fd, true); });
}

ChildProcess::~ChildProcess() {
  stop();
  outReader_.join();
  errReader_.join();
}

void ChildProcess::readOutput(int fd, bool isError) {
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

std::optional<std::string> ChildProcess::waitForLine(const std::string& text,
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

std::size_t ChildProcess::count(const std::string& text) const {
  std::lock_guard lock(mutex_);
  std::size_t n = 0;
  for (const auto& line : lines_) {
    n += line.find(text) != std::string::npos ? 1U : 0U;
  }
  return n;
}

std::vector<std::string> ChildProcess::lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

std::string ChildProcess::standardError() const {
  std::lock_guard lock(mutex_);
  return error_;
}

void ChildProcess::signal(int signal) {
  if (!status_) {
    ::kill(pid_, signal);
  }
}

std::optional<int> ChildProcess::waitForExit(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!status_) {
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      ended(status);
      break;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      return std::nullopt;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return status_;
}

int ChildProcess::wait() {
  if (!status_) {
    int status = 0;
    while (waitpid(pid_, &status, 0) != pid_) {
      if (errno != EINTR) {
        throw std::runtime_error("lost track of a child process");
      }
    }
    ended(status);
  }
  return *status_;
}

void ChildProcess::ended(int waitStatus) {
  status_ = WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : -WTERMSIG(waitStatus);
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, std::chrono::seconds(2), [&] { return openStreams_ == 0; });
}

void ChildProcess::stop() {
  if (!status_) {
    ::kill(pid_, SIGTERM);
    if (!waitForExit(std::chrono::seconds(5))) {
      ::kill(pid_, SIGKILL);
      waitForExit(std::chrono::seconds(5));
    }
  }
}

ChildRun runToEnd(const std::string& program, const std::vector<std::string>& args,
                  const std::filesystem::path& workingDir, const std::vector<std::string>& extraEnv,
                  std::chrono::milliseconds timeout) {
  ChildProcess process(program, args, workingDir, extraEnv);
  ChildRun run;
  run.status = process.waitForExit(timeout);
  run.lines = process.lines();
  run.standardError = process.standardError();
  return run;
}

int runProgram(const std::vector<std::string>& argv) {
  std::vector<std::string> copy = argv;
  auto pointerArgs = pointers(copy);
  pid_t pid = -1;
  if (posix_spawnp(&pid, pointerArgs[0], nullptr, nullptr, pointerArgs.data(), environ) != 0) {
    return -1;
  }
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
    return -1;
  }
  return WEXITSTATUS(status);
}

std::string parlavoxBinary() {
  return PARLAVOX_BINARY;
}
std::string parlavoxClientBinary() {
  return PARLAVOX_CLIENT_BINARY;
}
std::string parlavoxSayBinary() {
  return PARLAVOX_SAY_BINARY;
}

}  // namespace parlavox::test
