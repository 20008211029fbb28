#include "platform/Console.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace parlavox::platform {
namespace {

// Whether standard output is the journal's stream: systemd says which in JOURNAL_STREAM
// ("device:inode"), and a child that inherited the variable but not the stream does not match.
bool stdoutIsJournal() {
  const char* stream = std::getenv("JOURNAL_STREAM");  // NOLINT(concurrency-mt-unsafe)
  struct stat out {};
  if (stream == nullptr || ::fstat(STDOUT_FILENO, &out) != 0) {
    return false;
  }
  unsigned long long device = 0;
  unsigned long long inode = 0;
  return std::sscanf(stream, "%llu:%llu", &device, &inode) == 2 && device == out.st_dev &&
         inode == out.st_ino;
}

// The journal's syslog-style priority prefix for `message`, or nothing for plain information.
std::string_view priorityOf(std::string_view message) {
  if (message.starts_with("❌")) {
    return "<3>";
  }
  if (message.starts_with("⚠️")) {
    return "<4>";
  }
  return {};
}

}  // namespace

StdoutConsole::StdoutConsole() : journal_(stdoutIsJournal()) {}

void StdoutConsole::makeLineBuffered() {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
}

void StdoutConsole::print(std::string_view message) {
  // One fwrite per message: stdio's stream lock keeps concurrent messages whole.
  const std::string_view priority = journal_ ? priorityOf(message) : std::string_view{};
  std::string line;
  line.reserve(priority.size() + message.size() + 1);
  line.append(priority);
  line.append(message);
  line.push_back('\n');
  std::fwrite(line.data(), 1, line.size(), stdout);
}

}  // namespace parlavox::platform
