#pragma once

#include <sys/types.h>

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Result.h"

namespace parlavox::platform {

// Where a password's hash is kept, and how a password is checked against it.
class PasswordStore {
 public:
  virtual ~PasswordStore() = default;
  // Whether what is kept may have changed since the last call (the first call: true). Cheap.
  virtual bool changed() = 0;
  // The hash kept: nothing when none is; a Failure when something is kept that is not a hash or
  // cannot be read.
  virtual Result<std::optional<std::string>> read() = 0;
  // Whether `password` is the one `hash` was made from. Slow on purpose: tens of milliseconds.
  virtual bool verify(std::string_view password, const std::string& hash) = 0;
};

// A hash kept in a file of its own, replaced whole when the password changes. The owner's thread
// only.
class PasswordFile final : public PasswordStore {
 public:
  explicit PasswordFile(std::string path) : path_(std::move(path)) {}

  // Compares the file's identity, size and time of change with the last call's: a stat.
  bool changed() override;
  Result<std::optional<std::string>> read() override;
  bool verify(std::string_view password, const std::string& hash) override;

  const std::string& path() const { return path_; }

  // Any thread. Stores `hash` at `path` in place of what is there (if anything), readable and
  // writable by the owner alone from the first moment on.
  static Result<void> store(const std::string& path, std::string_view hash);

 private:
  struct Seen {
    bool exists = false;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec changedAt{};
  };

  std::string path_;
  std::optional<Seen> seen_;
};

}  // namespace parlavox::platform
