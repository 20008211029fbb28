#include "platform/PasswordFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

#include "platform/PasswordHash.h"
#include "platform/RegularFile.h"

namespace parlavox::platform {
namespace {

// A hash is one short line; anything much longer is not one.
constexpr std::size_t kMostBytes = 1024;

}  // namespace

bool PasswordFile::changed() {
  struct stat info {};
  Seen now;
  if (::stat(path_.c_str(), &info) == 0) {
    now = Seen{true, info.st_dev, info.st_ino, info.st_size, info.st_ctim};
  } else if (errno != ENOENT) {
    now.exists = true;  // there, but not for us to see: read() says why
  }
  const bool differs = !seen_ || seen_->exists != now.exists || seen_->device != now.device ||
                       seen_->inode != now.inode || seen_->size != now.size ||
                       seen_->changedAt.tv_sec != now.changedAt.tv_sec ||
                       seen_->changedAt.tv_nsec != now.changedAt.tv_nsec;
  seen_ = now;
  return differs;
}

Result<std::optional<std::string>> PasswordFile::read() {
  auto bytes = readRegularFile(path_, kMostBytes);
  if (!bytes) {
    return Failure{path_ + ": " + bytes.error()};
  }
  if (!*bytes) {
    return std::optional<std::string>();
  }
  std::string& hash = **bytes;
  while (!hash.empty() && (hash.back() == '\n' || hash.back() == '\r')) {
    hash.pop_back();
  }
  if (!isPasswordHash(hash)) {
    return Failure{path_ + ": not a hash parlavox --operator-password made"};
  }
  return std::optional<std::string>(std::move(hash));
}

bool PasswordFile::verify(std::string_view password, const std::string& hash) {
  return verifyPassword(password, hash);
}

Result<void> PasswordFile::store(const std::string& path, std::string_view hash) {
  // Written beside its place and renamed over it, so that a reader sees the old file or the new
  // one whole, never a part.
  const std::string temporary = path + ".new-" + std::to_string(::getpid());
  ::unlink(temporary.c_str());  // a leftover of an interrupted run of this same process id
  if (auto created = createRegularFile(temporary, std::string(hash) + "\n", 0600); !created) {
    return created;
  }
  if (std::rename(temporary.c_str(), path.c_str()) != 0) {
    const int error = errno;
    ::unlink(temporary.c_str());
    return Failure{std::system_category().message(error)};
  }
  return {};
}

}  // namespace parlavox::platform
