#include "platform/ProcessInterrupt.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

namespace parlavox::platform {

ProcessInterrupt::ProcessInterrupt() : fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (fd_ < 0) {
    throw std::system_error(errno, std::generic_category(), "eventfd");
  }
}

ProcessInterrupt::~ProcessInterrupt() {
  ::close(fd_);
}

void ProcessInterrupt::raise() const {
  const std::uint64_t one = 1;
  // Fails only when the counter is about to overflow, and then it is raised anyway.
  [[maybe_unused]] const auto written = ::write(fd_, &one, sizeof one);
}

void ProcessInterrupt::clear() const {
  std::uint64_t count = 0;
  // Non-blocking: reading resets the counter, or fails with EAGAIN when nothing was raised.
  [[maybe_unused]] const auto read = ::read(fd_, &count, sizeof count);
}

}  // namespace parlavox::platform
