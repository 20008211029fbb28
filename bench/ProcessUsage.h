#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string_view>

namespace parlavox::bench {

// What the kernel says a running process uses, read from /proc/PID. Any thread; a process that
// is gone reads as 0.

// Resident set now and at its peak, in bytes.
std::uint64_t residentBytes(pid_t pid);
std::uint64_t peakResidentBytes(pid_t pid);
// The part of the resident set that is the process's own (heap, stacks), not mapped files.
std::uint64_t anonymousResidentBytes(pid_t pid);
// CPU time used so far by all the process's threads.
std::chrono::nanoseconds cpuTime(pid_t pid);

// The readers' parsers, apart so that they can be tried on made-up text.
// The "Name:   123 kB" field of /proc/PID/status, in bytes; 0 when it is missing.
std::uint64_t statusBytes(std::string_view status, std::string_view name);
// utime + stime, in clock ticks, from a /proc/PID/stat line; 0 when it does not parse.
std::uint64_t cpuTicks(std::string_view stat);

}  // namespace parlavox::bench
