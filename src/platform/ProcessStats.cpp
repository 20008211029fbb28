#include "platform/ProcessStats.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace parlavox::platform {
namespace {

// Seconds since the epoch at which the system booted: "btime" in /proc/stat.
std::optional<double> bootTime() {
  std::ifstream stat("/proc/stat");
  std::string key;
  double value = 0;
  while (stat >> key) {
    if (key == "btime" && stat >> value) {
      return value;
    }
    stat.ignore(4096, '\n');
  }
  return std::nullopt;
}

}  // namespace

std::optional<ProcessStats> processStats() {
  std::ifstream in("/proc/self/stat");
  std::string line;
  if (!std::getline(in, line)) {
    return std::nullopt;
  }
  // The command name, field 2, is in parentheses and may hold spaces: count fields after it.
  const auto close = line.rfind(')');
  if (close == std::string::npos) {
    return std::nullopt;
  }
  // Parsed without exceptions: this runs on the server loop, which a bad read must not end.
  std::istringstream fields(line.substr(std::min(close + 2, line.size())));
  const auto parse = [](const std::string& text, auto& value) {
    std::from_chars(text.data(), text.data() + text.size(), value);
  };
  std::string field;
  std::uint64_t utime = 0;
  std::uint64_t stime = 0;
  std::uint64_t start = 0;
  std::uint64_t vsize = 0;
  std::int64_t rss = 0;
  for (int number = 3; fields >> field; ++number) {
    switch (number) {
      case 14:
        parse(field, utime);
        break;
      case 15:
        parse(field, stime);
        break;
      case 22:
        parse(field, start);
        break;
      case 23:
        parse(field, vsize);
        break;
      case 24:
        parse(field, rss);
        break;
      default:
        break;
    }
  }
  const auto ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
  const auto pageSize = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  ProcessStats stats;
  stats.cpuSeconds = static_cast<double>(utime + stime) / ticks;
  stats.residentBytes = static_cast<std::uint64_t>(rss < 0 ? 0 : rss) * pageSize;
  stats.virtualBytes = vsize;
  std::error_code error;
  for (auto it = std::filesystem::directory_iterator("/proc/self/fd", error);
       !error && it != std::filesystem::directory_iterator(); it.increment(error)) {
    ++stats.openFds;
  }
  stats.startTimeSeconds = bootTime().value_or(0) + static_cast<double>(start) / ticks;
  return stats;
}

}  // namespace parlavox::platform
