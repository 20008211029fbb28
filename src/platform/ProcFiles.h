#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string_view>

namespace parlavox::platform {

// A process as the kernel describes it in /proc/PID: the server's own metrics, and the tests' and
// the bench's view of the server they run, read it here and nowhere else.

// The fields of /proc/PID/stat that we use, in the kernel's units.
struct ProcStat {
  char state = 0;               // R, S, D, Z, ...
  std::uint64_t userTicks = 0;  // clock ticks (clockTicksPerSecond)
  std::uint64_t systemTicks = 0;
  std::uint64_t startTicks = 0;  // after the system booted
  std::uint64_t virtualBytes = 0;
  std::uint64_t residentPages = 0;  // of pageBytes each

  bool operator==(const ProcStat&) const = default;
};

// The memory fields of /proc/PID/status that we use, in bytes.
struct ProcStatus {
  std::uint64_t residentBytes = 0;      // VmRSS
  std::uint64_t peakResidentBytes = 0;  // VmHWM
  std::uint64_t anonymousBytes = 0;     // RssAnon: the process's own pages, not mapped files

  bool operator==(const ProcStatus&) const = default;
};

// Any thread. Parse the text of those files; nothing when a field we use is missing or is not a
// number (a zombie's status has no memory fields). Never throw: the server reads its own on its
// loop.
std::optional<ProcStat> parseProcStat(std::string_view text);
std::optional<ProcStatus> parseProcStatus(std::string_view text);

// Any thread. Read and parse the files of process `pid` (getpid() for this one); nothing once it
// is gone or when they cannot be read.
std::optional<ProcStat> readProcStat(pid_t pid);
std::optional<ProcStatus> readProcStatus(pid_t pid);
// Any thread. The descriptors `pid` has open; nothing when /proc does not say.
std::optional<std::uint64_t> openFileCount(pid_t pid);
// Any thread. When the system booted, in seconds since the Unix epoch ("btime" in /proc/stat).
std::optional<double> bootTimeSeconds();

// Any thread. The units of ProcStat.
double clockTicksPerSecond();
std::uint64_t pageBytes();

}  // namespace parlavox::platform
