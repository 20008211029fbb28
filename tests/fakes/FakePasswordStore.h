#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/PasswordFile.h"

namespace parlavox::test {

// A kept password the test sets, checked without a slow hash: the "hash" is the password itself.
// Counts the checks, since what they would cost is the point of limiting them.
class FakePasswordStore final : public platform::PasswordStore {
 public:
  bool changed() override { return std::exchange(changed_, false); }
  platform::Result<std::optional<std::string>> read() override { return kept; }
  bool verify(std::string_view password, const std::string& hash) override {
    ++checks;
    return password == hash;
  }
  void keep(std::optional<std::string> password) {
    kept = std::move(password);
    changed_ = true;
  }

  std::optional<std::string> kept;
  int checks = 0;

 private:
  bool changed_ = true;
};

}  // namespace parlavox::test
