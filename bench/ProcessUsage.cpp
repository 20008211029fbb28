#include "ProcessUsage.h"

#include <unistd.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

namespace parlavox::bench {
namespace {

std::string procFile(pid_t pid, const char* name) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/" + name);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace

std::uint64_t statusBytes(std::string_view status, std::string_view name) {
  std::istringstream lines{std::string(status)};
  const std::string prefix = std::string(name) + ":";
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind(prefix, 0) == 0) {
      std::istringstream fields(line.substr(prefix.size()));
      std::uint64_t kib = 0;
      fields >> kib;
      return kib * 1024;
    }
  }
  return 0;
}

std::uint64_t cpuTicks(std::string_view stat) {
  // The command name may hold spaces and parentheses: the fields after it start after the last
  // closing parenthesis, with the state (the 3rd field); utime and stime are the 14th and 15th.
  const auto close = stat.rfind(')');
  if (close == std::string_view::npos) {
    return 0;
  }
  std::istringstream fields{std::string(stat.substr(close + 1))};
  std::string skip;
  for (int field = 3; field < 14; ++field) {
    fields >> skip;
  }
  std::uint64_t utime = 0;
  std::uint64_t stime = 0;
  if (!(fields >> utime >> stime)) {
    return 0;
  }
  return utime + stime;
}

std::uint64_t residentBytes(pid_t pid) {
  return statusBytes(procFile(pid, "status"), "VmRSS");
}

std::uint64_t peakResidentBytes(pid_t pid) {
  return statusBytes(procFile(pid, "status"), "VmHWM");
}

std::uint64_t anonymousResidentBytes(pid_t pid) {
  return statusBytes(procFile(pid, "status"), "RssAnon");
}

std::chrono::nanoseconds cpuTime(pid_t pid) {
  const auto ticks = static_cast<std::int64_t>(cpuTicks(procFile(pid, "stat")));
  return std::chrono::nanoseconds(ticks * (1'000'000'000LL / ::sysconf(_SC_CLK_TCK)));
}

}  // namespace parlavox::bench
