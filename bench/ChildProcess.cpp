#include "ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace parlavox::bench {

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& args,
                           const std::filesystem::path& workingDir) {
  int out[2];
  int err[2];
  if (::pipe2(out, O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe failed");
  }
  if (::pipe2(err, O_CLOEXEC) != 0) {
    ::close(out[0]);
    ::close(out[1]);
    throw std::runtime_error("pipe failed");
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err[1], 2);
  posix_spawn_file_actions_addchdir_np(&actions, workingDir.c_str());
  std::vector<std::string> strings{program};
  strings.insert(strings.end(), args.begin(), args.end());
  std::vector<char*> argv;
  argv.reserve(strings.size() + 1);
  for (auto& s : strings) {
    argv.push_back(s.data());
  }
  argv.push_back(nullptr);
  const int spawned =
      ::posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(out[1]);
  ::close(err[1]);
  if (spawned != 0) {
    ::close(out[0]);
    ::close(err[0]);
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
    const ssize_t n = ::read(fd, buffer.data(), buffer.size());
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
  ::close(fd);
}

bool ChildProcess::waitForLine(const std::string& text, std::size_t nth,
                               std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] {
    std::size_t seen = 0;
    for (const auto& line : lines_) {
      seen += line.find(text) != std::string::npos ? 1U : 0U;
    }
    return seen >= nth;
  });
}

std::size_t ChildProcess::count(const std::string& text) const {
  std::lock_guard lock(mutex_);
  std::size_t seen = 0;
  for (const auto& line : lines_) {
    seen += line.find(text) != std::string::npos ? 1U : 0U;
  }
  return seen;
}

std::string ChildProcess::standardError() const {
  std::lock_guard lock(mutex_);
  return error_;
}

bool ChildProcess::running() {
  if (reaped_) {
    return false;
  }
  int status = 0;
  if (::waitpid(pid_, &status, WNOHANG) == pid_) {
    reaped_ = true;
  }
  return !reaped_;
}

int ChildProcess::wait() {
  if (reaped_) {
    return -1;
  }
  int status = 0;
  ::waitpid(pid_, &status, 0);
  reaped_ = true;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::uint64_t ChildProcess::statusField(const char* name) const {
  std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
  std::string line;
  const std::string prefix = std::string(name) + ":";
  while (std::getline(status, line)) {
    if (line.rfind(prefix, 0) == 0) {
      std::istringstream fields(line.substr(prefix.size()));
      std::uint64_t kib = 0;
      fields >> kib;
      return kib * 1024;
    }
  }
  return 0;
}

std::uint64_t ChildProcess::residentBytes() const {
  return statusField("VmRSS");
}

std::uint64_t ChildProcess::peakResidentBytes() const {
  return statusField("VmHWM");
}

std::uint64_t ChildProcess::anonymousResidentBytes() const {
  return statusField("RssAnon");
}

std::chrono::nanoseconds ChildProcess::cpuTime() const {
  std::ifstream stat("/proc/" + std::to_string(pid_) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  // Fields after the command name, which may hold spaces, start after its closing parenthesis;
  // utime and stime are the 14th and 15th fields of the line.
  const auto close = text.rfind(')');
  if (close == std::string::npos) {
    return {};
  }
  std::istringstream fields(text.substr(close + 2));
  std::string skip;
  for (int i = 3; i < 14; ++i) {
    fields >> skip;
  }
  long long utime = 0;
  long long stime = 0;
  fields >> utime >> stime;
  const long ticks = ::sysconf(_SC_CLK_TCK);
  return std::chrono::nanoseconds((utime + stime) * (1'000'000'000LL / ticks));
}

void ChildProcess::stop() {
  if (reaped_) {
    return;
  }
  ::kill(pid_, SIGTERM);
  for (int i = 0; i < 300 && running(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  if (running()) {
    ::kill(pid_, SIGKILL);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    reaped_ = true;
  }
}

std::filesystem::path ownDirectory() {
  std::error_code error;
  const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? std::filesystem::current_path() : self.parent_path();
}

}  // namespace parlavox::bench
