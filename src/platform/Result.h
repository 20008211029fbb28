#pragma once

#include <optional>
#include <string>
#include <utility>

namespace parlavox::platform {

// Why a platform call failed: the system's or the library's own description.
struct Failure {
  std::string error;
};

// What a platform call that can fail gives back: its value, or a Failure. The one shape for
// every fallible call below the logic; only opening a port at start-up throws instead, since a
// server that cannot have its ports does not start.
template <typename T>
class Result {
 public:
  Result(T value) : value_(std::move(value)) {}  // NOLINT(google-explicit-constructor)
  Result(Failure failure)
      : error_(std::move(failure.error)) {}  // NOLINT(google-explicit-constructor)

  explicit operator bool() const { return value_.has_value(); }
  T& operator*() { return *value_; }
  const T& operator*() const { return *value_; }
  T* operator->() { return &*value_; }
  const T* operator->() const { return &*value_; }
  // Empty on success.
  const std::string& error() const { return error_; }

 private:
  std::optional<T> value_;
  std::string error_;
};

// A call that gives nothing back but may fail.
template <>
class Result<void> {
 public:
  Result() = default;
  Result(Failure failure)
      : failed_(true), error_(std::move(failure.error)) {}  // NOLINT(google-explicit-constructor)

  explicit operator bool() const { return !failed_; }
  const std::string& error() const { return error_; }

 private:
  bool failed_ = false;
  std::string error_;
};

}  // namespace parlavox::platform
