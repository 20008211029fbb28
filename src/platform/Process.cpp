#include "platform/Process.h"

#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace parlavox::platform {
namespace {

// posix_spawn's attribute and file-action objects, released on every path out.
class SpawnSetup {
 public:
  SpawnSetup() {
    attrOk_ = posix_spawnattr_init(&attr_) == 0;
    actionsOk_ = posix_spawn_file_actions_init(&actions_) == 0;
  }
  ~SpawnSetup() {
    if (actionsOk_) {
      posix_spawn_file_actions_destroy(&actions_);
    }
    if (attrOk_) {
      posix_spawnattr_destroy(&attr_);
    }
  }
  SpawnSetup(const SpawnSetup&) = delete;
  SpawnSetup& operator=(const SpawnSetup&) = delete;

  // Returns 0 or an errno value.
  int configure() {
    if (!attrOk_ || !actionsOk_) {
      return ENOMEM;
    }
    // The calling thread may block signals or the server may ignore SIGPIPE; the child should
    // start with neither.
    sigset_t none;
    sigemptyset(&none);
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    int rc = posix_spawnattr_setsigmask(&attr_, &none);
    if (rc == 0) {
      rc = posix_spawnattr_setsigdefault(&attr_, &pipe);
    }
    if (rc == 0) {
      rc = posix_spawnattr_setflags(&attr_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    if (rc == 0) {
      rc = posix_spawn_file_actions_adddup2(&actions_, STDOUT_FILENO, STDERR_FILENO);
    }
    return rc;
  }

  const posix_spawnattr_t* attr() const { return &attr_; }
  const posix_spawn_file_actions_t* actions() const { return &actions_; }

 private:
  posix_spawnattr_t attr_{};
  posix_spawn_file_actions_t actions_{};
  bool attrOk_ = false;
  bool actionsOk_ = false;
};

Failure launchFailure(int error) {
  // The GNU strerror_r: thread-safe, returns the text (in `buffer` or a static string).
  std::array<char, 256> buffer{};
  return Failure{strerror_r(error, buffer.data(), buffer.size())};
}

}  // namespace

Result<int> runProcess(const std::vector<std::string>& argv) {
  if (argv.empty()) {
    return launchFailure(EINVAL);
  }
  std::vector<char*> args;
  args.reserve(argv.size() + 1);
  for (const auto& arg : argv) {
    args.push_back(const_cast<char*>(arg.c_str()));
  }
  args.push_back(nullptr);

  SpawnSetup setup;
  if (const int rc = setup.configure(); rc != 0) {
    return launchFailure(rc);
  }
  // Whatever we buffered belongs before anything the child writes to the same stream.
  std::fflush(stdout);
  pid_t pid = 0;
  // glibc's posix_spawn waits until the child has exec'd and returns exec's error, so a missing
  // or non-executable program shows up here rather than as an exit status of 127.
  if (const int rc =
          posix_spawn(&pid, args[0], setup.actions(), setup.attr(), args.data(), environ);
      rc != 0) {
    return launchFailure(rc);
  }
  int wstatus = 0;
  while (waitpid(pid, &wstatus, 0) < 0) {
    if (errno != EINTR) {
      // The child ran but its end is lost to us (someone else reaped it): not a success.
      return -1;
    }
  }
  if (WIFEXITED(wstatus)) {
    return WEXITSTATUS(wstatus);
  }
  if (WIFSIGNALED(wstatus)) {
    // Reported the way shells do, so a killed command reads as a failure with a telling number.
    return 128 + WTERMSIG(wstatus);
  }
  return -1;
}

bool isExecutableFile(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
         ::access(path.c_str(), X_OK) == 0;
}

std::string executableDirectory() {
  std::error_code error;
  const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) {
    return {};
  }
  return self.parent_path().string();
}

}  // namespace parlavox::platform
