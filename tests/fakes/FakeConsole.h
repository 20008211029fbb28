#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Console.h"

namespace parlavox::test {

// Collects printed messages instead of writing them.
class FakeConsole final : public platform::Console {
 public:
  void print(const platform::ConsoleEvent& event) override {
    std::lock_guard lock(mutex_);
    lines_.emplace_back(event.text);
  }
  std::vector<std::string> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }
  std::vector<std::string> take() {
    std::lock_guard lock(mutex_);
    return std::exchange(lines_, {});
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace parlavox::test
