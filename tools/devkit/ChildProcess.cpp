#include "devkit/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>

#include "platform/ProcFiles.h"

namespace parlavox::devkit {
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
  const int spawned = posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);
  close(err[1]);
  if (spawned != 0) {
    close(out[0]);
    close(err[0]);
    throw std::runtime_error("can't start " + program);
  }
  reader_ = std::thread([this, out = out[0], err = err[0]] { readOutput(out, err); });
}

ChildProcess::~ChildProcess() {
  stop();
  reader_.join();
}

// Reads both streams until both are closed: standard output line by line, standard error whole.
void ChildProcess::readOutput(int out, int err) {
  std::array<pollfd, 2> fds{pollfd{out, POLLIN, 0}, pollfd{err, POLLIN, 0}};
  std::array<char, 4096> buffer{};
  while (fds[0].fd >= 0 || fds[1].fd >= 0) {
    if (poll(fds.data(), fds.size(), -1) < 0 && errno != EINTR) {
      break;
    }
    for (auto& ready : fds) {
      if (ready.fd < 0 || ready.revents == 0) {
        continue;
      }
      const ssize_t n = read(ready.fd, buffer.data(), buffer.size());
      std::lock_guard lock(mutex_);
      if (n <= 0) {
        close(ready.fd);
        ready.fd = -1;
      } else if (ready.fd == err) {
        error_.append(buffer.data(), static_cast<std::size_t>(n));
      } else {
        partial_.append(buffer.data(), static_cast<std::size_t>(n));
        for (auto end = partial_.find('\n'); end != std::string::npos; end = partial_.find('\n')) {
          lines_.push_back(partial_.substr(0, end));
          partial_.erase(0, end + 1);
        }
      }
    }
    changed_.notify_all();
  }
  std::lock_guard lock(mutex_);
  outputClosed_ = true;
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
    return outputClosed_;
  });
  return found;
}

std::size_t ChildProcess::count(const std::string& text) const {
  std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(std::count_if(lines_.begin(), lines_.end(), [&](const auto& l) {
    return l.find(text) != std::string::npos;
  }));
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
  int status = 0;
  while (!status_) {
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      ended(status);
    } else if (std::chrono::steady_clock::now() >= deadline) {
      return std::nullopt;
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  return status_;
}

int ChildProcess::wait() {
  int status = 0;
  while (!status_ && waitpid(pid_, &status, 0) != pid_) {
    if (errno != EINTR) {
      throw std::runtime_error("lost track of a child process");
    }
  }
  if (!status_) {
    ended(status);
  }
  return *status_;
}

void ChildProcess::ended(int waitStatus) {
  status_ = WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : -WTERMSIG(waitStatus);
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, std::chrono::seconds(2), [&] { return outputClosed_; });
}

void ChildProcess::stop() {
  for (const int signal : {SIGTERM, SIGKILL}) {
    if (!status_) {
      ::kill(pid_, signal);
      waitForExit(std::chrono::seconds(5));
    }
  }
}

ChildRun runToEnd(const std::string& program, const std::vector<std::string>& args,
                  const std::filesystem::path& workingDir, const std::vector<std::string>& extraEnv,
                  std::chrono::milliseconds timeout) {
  ChildProcess process(program, args, workingDir, extraEnv);
  const auto status = process.waitForExit(timeout);
  return {status, process.lines(), process.standardError()};
}

int runProgram(const std::vector<std::string>& argv) {
  const std::vector<std::string> args(argv.begin() + 1, argv.end());
  const auto status = runToEnd(argv.at(0), args, std::filesystem::current_path()).status;
  return status && *status >= 0 ? *status : -1;
}

bool processEnds(pid_t pid, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    const auto stat = platform::readProcStat(pid);
    if (pid > 0 && (!stat || stat->state == 'Z')) {
      return true;
    }
    if (pid <= 0 || std::chrono::steady_clock::now() >= deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

long ChildProcess::residentKiB() const {
  const auto status = platform::readProcStatus(pid_);
  return status ? static_cast<long>(status->residentBytes / 1024) : -1;
}

}  // namespace parlavox::devkit
