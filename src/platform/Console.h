#pragma once

#include <string_view>

namespace parlavox::platform {

// What a console message is about, said where it is made: whoever keeps some of them (the
// monitor's log) chooses by kind, never by reading the text.
enum class EventKind {
  report,          // the start-up report and the ports coming up
  crew,            // joins, departures, time-outs
  announcement,    // announcements asked for, spoken, stopped, failed
  call,            // a call from the crew or from show control
  link,            // a talker's audio breaking up, and back to normal
  service,         // the server's own workings: files, ports, advertisement, certificate
  operatorAction,  // what the operator did from the monitor or its HTTP API
};

// Any thread. The kind's name in a kept log ("crew", "operator"): every kind has one.
std::string_view kindName(EventKind kind);

// How much it matters: under systemd, the journal's priority.
enum class Severity {
  info,
  warning,  // a problem the system works around ("⚠️")
  error,    // a failure that ends the program ("❌")
};

struct ConsoleEvent {
  EventKind kind = EventKind::service;
  Severity severity = Severity::info;
  std::string_view text;  // the line as printed, sign included
};

// Where the system's messages go. Each message is written whole, by one call, so lines from the
// server loop and the announcer thread never mix.
class Console {
 public:
  virtual ~Console() = default;
  // Any thread. Writes the event's text followed by a line feed.
  virtual void print(const ConsoleEvent& event) = 0;

  // Any thread. Shorthands for print().
  void info(EventKind kind, std::string_view text) { print({kind, Severity::info, text}); }
  void warning(EventKind kind, std::string_view text) { print({kind, Severity::warning, text}); }
  void error(EventKind kind, std::string_view text) { print({kind, Severity::error, text}); }
};

// Standard output, line-buffered from the first call of makeLineBuffered(). Under systemd,
// standard output is the journal: there each line is an entry, and errors and warnings go in at
// their own priority, so that `journalctl -p warning` shows what went wrong.
class StdoutConsole final : public Console {
 public:
  // Any thread.
  StdoutConsole();
  // Main thread, before anything else prints.
  static void makeLineBuffered();
  void print(const ConsoleEvent& event) override;

 private:
  bool journal_ = false;
};

}  // namespace parlavox::platform
