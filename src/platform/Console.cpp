#include "platform/Console.h"

#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace parlavox::platform {
namespace {

// Whether standard output is the journal's stream: systemd says which in JOURNAL_STREAM
// ("device:inode"), and a child that inherited the variable but not the stream does not match.
bool stdoutIsJournal() {
  const char* stream = std::getenv("JOURNAL_STREAM");  // NOLINT(concurrency-mt-unsafe): read-only
  struct stat out {};
  if (stream == nullptr || ::fstat(STDOUT_FILENO, &out) != 0) {
    return false;
  }
  const std::string_view text(stream);
  const char* end = text.data() + text.size();
  dev_t device = 0;
  ino_t inode = 0;
  const auto [colon, deviceError] = std::from_chars(text.data(), end, device);
  if (deviceError != std::errc{} || colon == end || *colon != ':') {
    return false;
  }
  const auto [rest, inodeError] = std::from_chars(colon + 1, end, inode);
  return inodeError == std::errc{} && rest == end && device == out.st_dev && inode == out.st_ino;
}

// The journal's syslog-style priority prefix, or nothing for plain information.
std::string_view priorityOf(Severity severity) {
  switch (severity) {
    case Severity::error:
      return "<3>";
    case Severity::warning:
      return "<4>";
    case Severity::info:
      break;
  }
  return {};
}

}  // namespace

std::string_view kindName(EventKind kind) {
  switch (kind) {
    case EventKind::report:
      return "report";
    case EventKind::crew:
      return "crew";
    case EventKind::announcement:
      return "announcement";
    case EventKind::call:
      return "call";
    case EventKind::link:
      return "link";
    case EventKind::service:
      return "service";
    case EventKind::operatorAction:
      return "operator";
  }
  return "service";
}

StdoutConsole::StdoutConsole() : journal_(stdoutIsJournal()) {}

void StdoutConsole::makeLineBuffered() {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
}

void StdoutConsole::print(const ConsoleEvent& event) {
  // One fwrite per message: stdio's stream lock keeps concurrent messages whole.
  const std::string_view message = event.text;
  const std::string_view priority = journal_ ? priorityOf(event.severity) : std::string_view{};
  std::string line;
  line.reserve(priority.size() + message.size() + 1);
  line.append(priority);
  line.append(message);
  line.push_back('\n');
  std::fwrite(line.data(), 1, line.size(), stdout);
}

}  // namespace parlavox::platform
