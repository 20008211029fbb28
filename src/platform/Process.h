#pragma once

#include <string>
#include <vector>

#include "platform/Result.h"

namespace parlavox::platform {

// Any thread. Runs `argv[0]` (a path; no PATH search, no shell) with `argv` as its argument list
// and waits for it to end: its exit status (128 + the signal's number when a signal ended it), or
// why it could not be started. The child inherits environment, working directory, standard input
// and standard output; its standard error goes to our standard output, because this process keeps
// standard error silent. A failure to execute the program counts as a launch failure.
Result<int> runProcess(const std::vector<std::string>& argv);

// Any thread. True if `path` names a regular file we may execute.
bool isExecutableFile(const std::string& path);

// Any thread. The directory of the running executable, without a trailing slash; empty if the
// system cannot tell.
std::string executableDirectory();

}  // namespace parlavox::platform
