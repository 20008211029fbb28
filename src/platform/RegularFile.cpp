#include "platform/RegularFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace parlavox::platform {
namespace {

Failure systemFailure(int error) {
  return Failure{std::system_category().message(error)};
}

const char* kindOf(mode_t mode) {
  if (S_ISDIR(mode)) {
    return "a directory";
  }
  if (S_ISFIFO(mode)) {
    return "a FIFO";
  }
  if (S_ISCHR(mode)) {
    return "a character device";
  }
  if (S_ISBLK(mode)) {
    return "a block device";
  }
  if (S_ISSOCK(mode)) {
    return "a socket";
  }
  return "something else";
}

Failure notRegular(mode_t mode) {
  return Failure{std::string(kindOf(mode)) + ", not a regular file"};
}

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) {
      ::close(fd_);
    }
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return fd_; }
  // Closes now, for the close's own error: on some file systems a failed write shows only here.
  int close() {
    const int result = ::close(fd_);
    fd_ = -1;
    return result;
  }

 private:
  int fd_;
};

}  // namespace

Result<std::optional<std::string>> readRegularFile(const std::string& path, std::size_t maxSize) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) {
    const int error = errno;
    if (error == ENOENT && ::lstat(path.c_str(), &info) == 0) {
      return Failure{"a symbolic link to nothing"};
    }
    if (error == ENOENT) {
      return std::optional<std::string>();
    }
    return systemFailure(error);
  }
  if (!S_ISREG(info.st_mode)) {
    return notRegular(info.st_mode);
  }
  // Non-blocking, should a FIFO or a device take the file's place after the check: then neither
  // the open nor a read waits for a writer, and the second check turns it away.
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (file.get() < 0) {
    return systemFailure(errno);
  }
  if (::fstat(file.get(), &info) != 0) {
    return systemFailure(errno);
  }
  if (!S_ISREG(info.st_mode)) {
    return notRegular(info.st_mode);
  }
  std::string bytes;
  std::array<char, 16384> chunk{};
  while (true) {
    const ssize_t n = ::read(file.get(), chunk.data(), chunk.size());
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0) {
      return systemFailure(errno);
    }
    if (n == 0) {
      return std::optional<std::string>(std::move(bytes));
    }
    bytes.append(chunk.data(), static_cast<std::size_t>(n));
    if (bytes.size() > maxSize) {
      return Failure{"larger than " + std::to_string(maxSize) + " bytes"};
    }
  }
}

Result<void> createRegularFile(const std::string& path, std::string_view bytes, unsigned mode) {
  // O_EXCL also refuses a link, dangling or not: nothing is written through one.
  Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
  if (file.get() < 0) {
    return systemFailure(errno);
  }
  int error = 0;
  while (!bytes.empty() && error == 0) {
    const ssize_t n = ::write(file.get(), bytes.data(), bytes.size());
    if (n > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(n));
    } else if (n == 0) {
      error = ENOSPC;  // a regular file that takes nothing has no room
    } else if (errno != EINTR) {
      error = errno;
    }
  }
  if (file.close() != 0 && error == 0) {
    error = errno;
  }
  if (error != 0) {
    // A partial file would fail to decode at every later start and be left alone for good.
    ::unlink(path.c_str());
    return systemFailure(error);
  }
  return {};
}

}  // namespace parlavox::platform
