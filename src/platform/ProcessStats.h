#pragma once

#include <cstdint>
#include <optional>

namespace parlavox::platform {

// This process as the system sees it, for the usual process metrics.
struct ProcessStats {
  double cpuSeconds = 0;  // user and system
  std::uint64_t residentBytes = 0;
  std::uint64_t virtualBytes = 0;
  std::uint64_t openFds = 0;
  double startTimeSeconds = 0;  // since the Unix epoch
};

// Any thread. From /proc (ProcFiles.h); nothing, never an exception, when it cannot be read: the
// server loop asks for it.
std::optional<ProcessStats> processStats();

}  // namespace parlavox::platform
