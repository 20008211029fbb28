#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "platform/ProcessInterrupt.h"
#include "platform/Result.h"

namespace parlavox::platform {

// What runProcess() allows a command.
struct ProcessLimits {
  std::chrono::milliseconds timeLimit;  // killed when still running after this long
  std::size_t outputLimit;              // only the last this many bytes of its output are kept
  const ProcessInterrupt* interrupt = nullptr;  // when given, raising it kills the command
};

// How a command run by runProcess() ended.
struct ProcessEnd {
  enum class Kind {
    exited,       // by itself, or by a signal from elsewhere
    timedOut,     // killed at the time limit
    interrupted,  // killed because the interrupt was raised
  };
  Kind kind = Kind::exited;
  int status = 0;      // the exit status; 128 + the signal's number when a signal ended it
  std::string output;  // the end of what it wrote to standard output and standard error, raw
};

// Any thread. Runs `argv[0]` (a path; no PATH search, no shell) with `argv` as its argument list
// and waits for it to end, or why it could not be started (a program that cannot be executed
// counts as that). The command inherits environment and working directory; its standard input is
// /dev/null and its output is captured, never shown. It runs in a process group of its own, and
// whatever is left of that group when it ends, is killed, or is cut short, is killed with it; it is
// also killed if the thread that started it, or this process, dies first.
Result<ProcessEnd> runProcess(const std::vector<std::string>& argv, const ProcessLimits& limits);

// Any thread. True if `path` names a regular file we may execute.
bool isExecutableFile(const std::string& path);

// Any thread. The directory of the running executable, without a trailing slash; empty if the
// system cannot tell.
std::string executableDirectory();

}  // namespace parlavox::platform
