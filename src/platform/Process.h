#pragma once

#include <string>
#include <vector>

namespace parlavox::platform {

// How a child process ended, or why it never started.
struct ProcessResult {
  bool launched = false;
  std::string error;  // the system's description, when not launched
  int status = 0;     // exit status; 128 + signal number when a signal killed the child
};

// Any thread. Runs `argv[0]` (a path; no PATH search, no shell) with `argv` as its argument list
// and waits for it to end. The child inherits environment, working directory, standard input and
// standard output; its standard error goes to our standard output, because this process keeps
// standard error silent. A failure to execute the program counts as a launch failure.
ProcessResult runProcess(const std::vector<std::string>& argv);

// Any thread. True if `path` names a regular file we may execute.
bool isExecutableFile(const std::string& path);

// Any thread. The directory of the running executable, without a trailing slash; empty if the
// system cannot tell.
std::string executableDirectory();

}  // namespace parlavox::platform
