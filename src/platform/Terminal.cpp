#include "platform/Terminal.h"

#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <system_error>

namespace parlavox::platform {
namespace {

constexpr std::size_t kMostHidden = 4096;

termios savedTerminal{};
constexpr int kEndingSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP};

// Puts the echo back and lets the signal do what it would have done.
extern "C" void restoreAndRaise(int signal) {
  ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &savedTerminal);
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

Failure systemFailure(int error) {
  return Failure{std::system_category().message(error)};
}

void write(std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fflush(stderr);
}

}  // namespace

bool inputIsTerminal() {
  return ::isatty(STDIN_FILENO) == 1;
}

Result<std::string> readInputLine(std::size_t maxBytes) {
  std::string line;
  while (true) {
    char byte = 0;
    const ssize_t n = ::read(STDIN_FILENO, &byte, 1);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0) {
      return systemFailure(errno);
    }
    if (n == 0 || byte == '\n') {
      break;
    }
    if (line.size() == maxBytes) {
      return Failure{"longer than " + std::to_string(maxBytes) + " bytes"};
    }
    line.push_back(byte);
  }
  if (!line.empty() && line.back() == '\r') {
    line.pop_back();
  }
  return line;
}

Result<std::string> readHiddenLine(std::string_view prompt) {
  if (::tcgetattr(STDIN_FILENO, &savedTerminal) != 0) {
    return systemFailure(errno);
  }
  for (const int signal : kEndingSignals) {
    std::signal(signal, restoreAndRaise);
  }
  termios hidden = savedTerminal;
  hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  hidden.c_lflag |= ECHONL;  // the line end still shows, so the next prompt starts a line
  write(prompt);
  Result<std::string> line = Failure{};
  if (::tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden) == 0) {
    line = readInputLine(kMostHidden);
  } else {
    line = systemFailure(errno);
  }
  ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &savedTerminal);
  for (const int signal : kEndingSignals) {
    std::signal(signal, SIG_DFL);
  }
  return line;
}

}  // namespace parlavox::platform
