#include "platform/LogDirectory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace parlavox::platform {
namespace {

Failure systemFailure(int error) {
  return Failure{std::system_category().message(error)};
}

}  // namespace

LogDirectory::~LogDirectory() {
  close();
}

void LogDirectory::close() {
  if (fd_ >= 0) {
    ::close(fd_);
    fd_ = -1;
  }
}

std::string LogDirectory::pathOf(const std::string& name) const {
  return (std::filesystem::path(path_) / name).string();
}

Result<std::uint64_t> LogDirectory::open(const std::string& name) {
  close();
  const std::string path = pathOf(name);
  const int fd =
      ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK,
             S_IRUSR | S_IWUSR | S_IRGRP);
  if (fd < 0) {
    return systemFailure(errno);
  }
  struct stat status {};
  if (::fstat(fd, &status) != 0) {
    const int error = errno;
    ::close(fd);
    return systemFailure(error);
  }
  if (!S_ISREG(status.st_mode)) {
    ::close(fd);
    return Failure{"not a regular file"};
  }
  fd_ = fd;
  return static_cast<std::uint64_t>(status.st_size);
}

Result<void> LogDirectory::append(std::string_view bytes) {
  if (fd_ < 0) {
    return Failure{"not open"};
  }
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd_, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written <= 0) {
      return systemFailure(written < 0 ? errno : ENOSPC);
    }
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return {};
}

Result<std::vector<std::string>> LogDirectory::names() const {
  std::error_code error;
  std::vector<std::string> names;
  for (std::filesystem::directory_iterator each(path_, error), end; !error && each != end;
       each.increment(error)) {
    names.push_back(each->path().filename().string());
  }
  if (error) {
    return Failure{error.message()};
  }
  return names;
}

Result<void> LogDirectory::remove(const std::string& name) {
  std::error_code error;
  std::filesystem::remove(pathOf(name), error);
  if (error) {
    return Failure{error.message()};
  }
  return {};
}

}  // namespace parlavox::platform
