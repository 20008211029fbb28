#include "platform/ProcFiles.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <string>

namespace parlavox::platform {
namespace {

// Far more than any of them holds, even /proc/stat on a machine with hundreds of CPUs.
constexpr std::size_t kMaxFileBytes = 1U << 20U;

// The whole file, read with plain system calls: /proc's files say they hold 0 bytes, and no
// stream here may throw on the server's loop.
std::optional<std::string> readWhole(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return std::nullopt;
  }
  std::string text;
  std::array<char, 4096> buffer{};
  bool failed = false;
  while (text.size() < kMaxFileBytes) {
    const ssize_t n = ::read(fd, buffer.data(), buffer.size());
    if (n > 0) {
      text.append(buffer.data(), static_cast<std::size_t>(n));
    } else if (n == 0 || errno != EINTR) {
      failed = n < 0;
      break;
    }
  }
  ::close(fd);
  if (failed) {
    return std::nullopt;
  }
  return text;
}

std::string procPath(pid_t pid, const char* name) {
  return "/proc/" + std::to_string(pid) + "/" + name;
}

// The whole of `text` as a number, nothing else.
bool parseNumber(std::string_view text, std::uint64_t& value) {
  const char* end = text.data() + text.size();
  const auto [at, error] = std::from_chars(text.data(), end, value);
  return !text.empty() && error == std::errc() && at == end;
}

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n';
}

// The next space-separated word of `text`, which then starts after it.
std::string_view nextWord(std::string_view& text) {
  std::size_t start = 0;
  while (start < text.size() && isSpace(text[start])) {
    ++start;
  }
  std::size_t end = start;
  while (end < text.size() && !isSpace(text[end])) {
    ++end;
  }
  const std::string_view word = text.substr(start, end - start);
  text.remove_prefix(end);
  return word;
}

// The "Name:   123 kB" line of /proc/PID/status, in bytes. Only at the start of a line: the
// process's name, on the first, is whatever the process chose.
bool statusBytes(std::string_view status, std::string_view name, std::uint64_t& bytes) {
  for (std::size_t at = 0; at < status.size();) {
    const std::size_t end = std::min(status.find('\n', at), status.size());
    std::string_view line = status.substr(at, end - at);
    at = end + 1;
    if (line.size() > name.size() && line.starts_with(name) && line[name.size()] == ':') {
      line.remove_prefix(name.size() + 1);
      std::uint64_t kib = 0;
      if (!parseNumber(nextWord(line), kib) || nextWord(line) != "kB") {
        return false;
      }
      bytes = kib * 1024;
      return true;
    }
  }
  return false;
}

}  // namespace

std::optional<ProcStat> parseProcStat(std::string_view text) {
  // The command name, the 2nd field, is in parentheses and may hold anything, parentheses and
  // spaces included: the other fields follow the last ")".
  const auto close = text.rfind(')');
  if (close == std::string_view::npos) {
    return std::nullopt;
  }
  std::string_view rest = text.substr(close + 1);
  ProcStat stat;
  for (int field = 3; field <= 24; ++field) {
    const std::string_view word = nextWord(rest);
    if (word.empty()) {
      return std::nullopt;
    }
    bool parsed = true;
    switch (field) {
      case 3:
        parsed = word.size() == 1;
        stat.state = word.front();
        break;
      case 14:
        parsed = parseNumber(word, stat.userTicks);
        break;
      case 15:
        parsed = parseNumber(word, stat.systemTicks);
        break;
      case 22:
        parsed = parseNumber(word, stat.startTicks);
        break;
      case 23:
        parsed = parseNumber(word, stat.virtualBytes);
        break;
      case 24:
        parsed = parseNumber(word, stat.residentPages);
        break;
      default:
        break;
    }
    if (!parsed) {
      return std::nullopt;
    }
  }
  return stat;
}

std::optional<ProcStatus> parseProcStatus(std::string_view text) {
  ProcStatus status;
  if (!statusBytes(text, "VmRSS", status.residentBytes) ||
      !statusBytes(text, "VmHWM", status.peakResidentBytes) ||
      !statusBytes(text, "RssAnon", status.anonymousBytes)) {
    return std::nullopt;
  }
  return status;
}

std::optional<ProcStat> readProcStat(pid_t pid) {
  const auto text = readWhole(procPath(pid, "stat"));
  return text ? parseProcStat(*text) : std::nullopt;
}

std::optional<ProcStatus> readProcStatus(pid_t pid) {
  const auto text = readWhole(procPath(pid, "status"));
  return text ? parseProcStatus(*text) : std::nullopt;
}

std::optional<std::uint64_t> openFileCount(pid_t pid) {
  std::error_code error;
  std::filesystem::directory_iterator it(procPath(pid, "fd"), error);
  std::uint64_t count = 0;
  for (; !error && it != std::filesystem::directory_iterator(); it.increment(error)) {
    ++count;
  }
  return error ? std::nullopt : std::optional(count);
}

std::optional<double> bootTimeSeconds() {
  const auto text = readWhole("/proc/stat");
  const auto at = text ? text->find("\nbtime ") : std::string::npos;
  if (at == std::string::npos) {
    return std::nullopt;
  }
  std::string_view rest = std::string_view(*text).substr(at + 7);
  std::uint64_t seconds = 0;
  return parseNumber(nextWord(rest), seconds) ? std::optional(static_cast<double>(seconds))
                                              : std::nullopt;
}

double clockTicksPerSecond() {
  return static_cast<double>(::sysconf(_SC_CLK_TCK));
}

std::uint64_t pageBytes() {
  return static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
}

}  // namespace parlavox::platform
