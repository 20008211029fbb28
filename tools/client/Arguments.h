#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>

namespace parlavox::client {

// What the command line asks for.
struct Arguments {
  enum class Command { info, listen, talk, call };
  std::optional<std::string> host;  // none: find the server by DNS-SD
  Command command = Command::info;
  std::string role;                 // listen, talk, call (optional there)
  std::optional<std::string> name;  // listen, talk, call; none: the server's default
  std::optional<double> seconds;    // listen; none: until interrupted
  std::string out;                  // listen
  std::string in;                   // talk
  std::optional<std::string> mask;  // talk (none: every channel the role talks on); call
  bool operator==(const Arguments&) const = default;
};

// --help: print the usage and succeed.
struct HelpRequest {
  bool operator==(const HelpRequest&) const = default;
};

// A command line that makes no sense: one line saying why.
struct UsageError {
  std::string message;
  bool operator==(const UsageError&) const = default;
};

using ParseResult = std::variant<Arguments, HelpRequest, UsageError>;

// Any thread. Parses the arguments after the program name. Options take their value as the next
// argument or after "=" ("--role Sound", "--role=Sound"), in any order after the command.
ParseResult parseArguments(std::span<const std::string_view> args);

// The --help text, lines separated by "\n", without a final line feed.
std::string usageText();

}  // namespace parlavox::client
