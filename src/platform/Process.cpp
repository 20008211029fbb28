#include "platform/Process.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace parlavox::platform {
namespace {

using std::chrono::steady_clock;

// How often to look for the command's end where the kernel cannot tell us (no pidfd).
constexpr std::chrono::milliseconds kEndPollPeriod{20};

// A descriptor, closed on every path out.
class Fd {
 public:
  Fd() = default;
  ~Fd() { reset(); }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }
  void reset() {
    if (fd_ >= 0) {
      ::close(fd_);
    }
    fd_ = -1;
  }
  void reset(int fd) {
    reset();
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

// Both ends close on exec; the child's copies are made by dup2, which keeps them open.
int makePipe(Fd& readEnd, Fd& writeEnd) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
    return errno;
  }
  readEnd.reset(ends[0]);
  writeEnd.reset(ends[1]);
  return 0;
}

Failure launchFailure(int error) {
  // The GNU strerror_r: thread-safe, returns the text (in `buffer` or a static string).
  std::array<char, 256> buffer{};
  return Failure{strerror_r(error, buffer.data(), buffer.size())};
}

// The child, between fork and exec. Only async-signal-safe calls: another thread of the server may
// have held a lock at the fork. Reports exec's error on `report` and exits if it fails.
[[noreturn]] void becomeCommand(char* const* argv, pid_t server, int input, int output, int report,
                                int descriptorLimit) {
  ::setpgid(0, 0);  // a group of its own: what it starts can be killed with it
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != server) {
    ::_exit(127);  // the server died before the line above took hold
  }
  // Our handlers must not run here (they would write to the server's own descriptors), and the
  // command starts with default signals: caught ones become default at exec anyway, and an
  // ignored SIGPIPE would otherwise be inherited.
  struct sigaction standard {};
  standard.sa_handler = SIG_DFL;
  for (int sig = 1; sig < NSIG; ++sig) {
    struct sigaction current {};
    if (sig == SIGPIPE || (::sigaction(sig, nullptr, &current) == 0 &&
                           current.sa_handler != SIG_DFL && current.sa_handler != SIG_IGN)) {
      ::sigaction(sig, &standard, nullptr);
    }
  }
  sigset_t none;
  sigemptyset(&none);
  ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
  if (::dup2(input, STDIN_FILENO) >= 0 && ::dup2(output, STDOUT_FILENO) >= 0 &&
      ::dup2(output, STDERR_FILENO) >= 0) {
    // Nothing of the server's but these three: an inherited socket would hold its ports for as
    // long as anything the command left behind lives.
    if (::close_range(3, ~0U, CLOSE_RANGE_CLOEXEC) != 0) {
      for (int fd = 3; fd < descriptorLimit; ++fd) {
        ::fcntl(fd, F_SETFD, FD_CLOEXEC);
      }
    }
    ::execve(argv[0], argv, environ);
  }
  const int error = errno;
  [[maybe_unused]] const auto written = ::write(report, &error, sizeof error);
  ::_exit(127);
}

// Whether the child has ended, without reaping it: until it is reaped its id, and so its group's,
// cannot pass to another process, so killing the group stays safe.
bool hasEnded(pid_t pid) {
  siginfo_t info{};
  return ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         info.si_pid == pid;
}

int reap(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) {
      return -1;  // someone else reaped it: its end is lost
    }
  }
  if (WIFSIGNALED(status)) {
    return 128 + WTERMSIG(status);  // the way shells report it
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The command's output as it comes, keeping the last `limit` bytes.
class OutputTail {
 public:
  enum class Read { data, nothingNow, closed };

  OutputTail(int fd, std::size_t limit) : fd_(fd), limit_(limit) {}
  Read read() {
    std::array<char, 4096> buffer{};
    const auto got = ::read(fd_, buffer.data(), buffer.size());
    if (got < 0) {
      return errno == EINTR || errno == EAGAIN ? Read::nothingNow : Read::closed;
    }
    if (got == 0) {
      return Read::closed;
    }
    text_.append(buffer.data(), static_cast<std::size_t>(got));
    if (text_.size() > 2 * limit_ + buffer.size()) {
      text_.erase(0, text_.size() - limit_);
    }
    return Read::data;
  }
  std::string take() {
    if (text_.size() > limit_) {
      text_.erase(0, text_.size() - limit_);
    }
    return std::move(text_);
  }

 private:
  int fd_;
  std::size_t limit_;
  std::string text_;
};

// Waits for the command to end, to run out of time or to be interrupted, reading its output all
// the while so that it never blocks on a full pipe.
ProcessEnd::Kind await(pid_t pid, int pidfd, int output, OutputTail& tail,
                       const ProcessLimits& limits) {
  const auto deadline = steady_clock::now() + limits.timeLimit;
  const int interrupt = limits.interrupt != nullptr ? limits.interrupt->fd() : -1;
  bool outputOpen = true;
  for (;;) {
    if (hasEnded(pid)) {
      return ProcessEnd::Kind::exited;
    }
    const auto left = deadline - steady_clock::now();
    if (left <= steady_clock::duration::zero()) {
      return ProcessEnd::Kind::timedOut;
    }
    auto wait = std::chrono::ceil<std::chrono::milliseconds>(left);
    if (pidfd < 0) {
      wait = std::min(wait, kEndPollPeriod);
    }
    std::array<pollfd, 3> fds{pollfd{pidfd, POLLIN, 0}, pollfd{outputOpen ? output : -1, POLLIN, 0},
                              pollfd{interrupt, POLLIN, 0}};
    if (::poll(fds.data(), fds.size(), static_cast<int>(wait.count())) < 0) {
      continue;  // a signal for the server's loop
    }
    if (fds[1].revents != 0) {
      outputOpen = tail.read() != OutputTail::Read::closed;
    }
    if (fds[2].revents != 0 && !hasEnded(pid)) {
      return ProcessEnd::Kind::interrupted;
    }
  }
}

}  // namespace

Result<ProcessEnd> runProcess(const std::vector<std::string>& argv, const ProcessLimits& limits) {
  if (argv.empty()) {
    return launchFailure(EINVAL);
  }
  // Everything the child needs is made before the fork: it may not allocate.
  std::vector<char*> args;
  args.reserve(argv.size() + 1);
  for (const auto& arg : argv) {
    args.push_back(const_cast<char*>(arg.c_str()));
  }
  args.push_back(nullptr);
  Fd input;
  input.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (input.get() < 0) {
    return launchFailure(errno);
  }
  Fd outputRead;
  Fd outputWrite;
  Fd reportRead;
  Fd reportWrite;
  if (const int error = makePipe(outputRead, outputWrite); error != 0) {
    return launchFailure(error);
  }
  if (const int error = makePipe(reportRead, reportWrite); error != 0) {
    return launchFailure(error);
  }

  rlimit descriptors{};
  ::getrlimit(RLIMIT_NOFILE, &descriptors);
  const int descriptorLimit =
      static_cast<int>(std::min<rlim_t>(descriptors.rlim_cur, rlim_t{1} << 16));
  const pid_t server = ::getpid();
  sigset_t all;
  sigset_t saved;
  sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &saved);
  const pid_t pid = ::fork();
  if (pid == 0) {
    becomeCommand(args.data(), server, input.get(), outputWrite.get(), reportWrite.get(),
                  descriptorLimit);
  }
  const int forkError = errno;
  ::pthread_sigmask(SIG_SETMASK, &saved, nullptr);
  input.reset();
  outputWrite.reset();
  reportWrite.reset();
  if (pid < 0) {
    return launchFailure(forkError);
  }
  // The report pipe closes at exec; before that the child writes exec's error to it.
  int execError = 0;
  ssize_t got = 0;
  while ((got = ::read(reportRead.get(), &execError, sizeof execError)) < 0 && errno == EINTR) {
  }
  if (got == static_cast<ssize_t>(sizeof execError)) {
    reap(pid);
    return launchFailure(execError);
  }

  Fd pidfd;
#ifdef SYS_pidfd_open
  pidfd.reset(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
#endif
  ::fcntl(outputRead.get(), F_SETFL, O_NONBLOCK);
  OutputTail tail(outputRead.get(), limits.outputLimit);
  ProcessEnd end;
  end.kind = await(pid, pidfd.get(), outputRead.get(), tail, limits);
  if (pid > 1) {            // never -1 or -0: those would reach every process we may signal
    ::kill(-pid, SIGKILL);  // the command if it still runs, and whatever it left behind
  }
  // What it wrote before it ended is in the pipe; a leftover that got away may keep writing, so the
  // reading is bounded.
  for (int i = 0; i < 64 && tail.read() == OutputTail::Read::data; ++i) {
  }
  end.status = reap(pid);
  end.output = tail.take();
  return end;
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
