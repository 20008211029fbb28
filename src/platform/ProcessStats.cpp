#include "platform/ProcessStats.h"

#include <unistd.h>

#include "platform/ProcFiles.h"

namespace parlavox::platform {

std::optional<ProcessStats> processStats() {
  const pid_t self = ::getpid();
  const auto stat = readProcStat(self);
  if (!stat) {
    return std::nullopt;
  }
  const double ticks = clockTicksPerSecond();
  ProcessStats stats;
  stats.cpuSeconds = static_cast<double>(stat->userTicks + stat->systemTicks) / ticks;
  stats.residentBytes = stat->residentPages * pageBytes();
  stats.virtualBytes = stat->virtualBytes;
  stats.openFds = openFileCount(self).value_or(0);
  stats.startTimeSeconds =
      bootTimeSeconds().value_or(0) + static_cast<double>(stat->startTicks) / ticks;
  return stats;
}

}  // namespace parlavox::platform
