#include "client/Arguments.h"

#include <fmt/format.h>

#include <charconv>
#include <cmath>
#include <vector>

namespace parlavox::client {
namespace {

struct OptionRule {
  std::string_view name;
  bool listen;  // allowed with "listen"
  bool talk;    // allowed with "talk"
  bool call;    // allowed with "call"
};

constexpr OptionRule kOptions[] = {
    {"--role", true, true, true},  {"--name", true, true, true}, {"--seconds", true, false, false},
    {"--out", true, false, false}, {"--in", false, true, false}, {"--mask", false, true, false},
};

std::optional<Arguments::Command> commandNamed(std::string_view word) {
  if (word == "info") {
    return Arguments::Command::info;
  }
  if (word == "listen") {
    return Arguments::Command::listen;
  }
  if (word == "talk") {
    return Arguments::Command::talk;
  }
  if (word == "call") {
    return Arguments::Command::call;
  }
  return std::nullopt;
}

std::string_view commandName(Arguments::Command command) {
  switch (command) {
    case Arguments::Command::info:
      return "info";
    case Arguments::Command::listen:
      return "listen";
    case Arguments::Command::talk:
      return "talk";
    case Arguments::Command::call:
      return "call";
  }
  return "";
}

const OptionRule* findOption(std::string_view name) {
  for (const auto& rule : kOptions) {
    if (rule.name == name) {
      return &rule;
    }
  }
  return nullptr;
}

// Far beyond any show, and well inside what a clock duration holds.
constexpr double kMaxSeconds = 1e7;

// A number of seconds above 0, in plain decimal notation.
std::optional<double> parseSeconds(std::string_view text) {
  double value = 0;
  const auto* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value, std::chars_format::fixed);
  if (error != std::errc() || stop != end || !std::isfinite(value) || value <= 0 ||
      value > kMaxSeconds) {
    return std::nullopt;
  }
  return value;
}

UsageError missing(std::string_view option, Arguments::Command command) {
  return {fmt::format("{} needs {}", commandName(command), option)};
}

}  // namespace

ParseResult parseArguments(std::span<const std::string_view> args) {
  for (const auto arg : args) {
    if (arg == "--help" || arg == "-h") {
      return HelpRequest{};
    }
  }
  Arguments out;
  std::size_t next = 0;
  if (next < args.size() && !args[next].starts_with("-") && !commandNamed(args[next])) {
    out.host = std::string(args[next]);
    ++next;
    if (out.host->empty()) {
      return UsageError{"the host is empty"};
    }
  }
  if (next >= args.size()) {
    // "parlavox-client lisen" reads as a host without a command; say both, for the typo's sake.
    return UsageError{
        out.host ? fmt::format("no command after the host \"{}\" (info, listen, talk or call)",
                               *out.host)
                 : std::string("no command given (info, listen, talk or call)")};
  }
  const auto command = commandNamed(args[next]);
  if (!command) {
    return UsageError{
        fmt::format("unknown command \"{}\" (info, listen, talk or call)", args[next])};
  }
  out.command = *command;
  ++next;

  std::vector<std::string_view> seen;
  while (next < args.size()) {
    std::string_view word = args[next++];
    // A call's one word that is not an option: the channels it calls on.
    if (out.command == Arguments::Command::call && !word.starts_with("--") && !out.mask) {
      out.mask = std::string(word);
      continue;
    }
    if (!word.starts_with("--")) {
      return UsageError{fmt::format("unexpected argument \"{}\"", word)};
    }
    std::optional<std::string_view> value;
    if (const auto equals = word.find('='); equals != std::string_view::npos) {
      value = word.substr(equals + 1);
      word = word.substr(0, equals);
    }
    const OptionRule* rule = findOption(word);
    if (rule == nullptr) {
      return UsageError{fmt::format("unknown option {}", word)};
    }
    const bool allowed = (out.command == Arguments::Command::listen && rule->listen) ||
                         (out.command == Arguments::Command::talk && rule->talk) ||
                         (out.command == Arguments::Command::call && rule->call);
    if (!allowed) {
      return UsageError{fmt::format("{} does not take {}", commandName(out.command), word)};
    }
    for (const auto earlier : seen) {
      if (earlier == word) {
        return UsageError{fmt::format("{} given twice", word)};
      }
    }
    seen.push_back(rule->name);
    if (!value) {
      if (next >= args.size()) {
        return UsageError{fmt::format("{} needs a value", word)};
      }
      value = args[next++];
    }
    if (word == "--role") {
      out.role = std::string(*value);
    } else if (word == "--name") {
      out.name = std::string(*value);
    } else if (word == "--seconds") {
      out.seconds = parseSeconds(*value);
      if (!out.seconds) {
        return UsageError{fmt::format("--seconds wants a number above 0 and at most {}, not \"{}\"",
                                      kMaxSeconds, *value)};
      }
    } else if (word == "--out") {
      out.out = std::string(*value);
    } else if (word == "--in") {
      out.in = std::string(*value);
    } else if (word == "--mask") {
      out.mask = std::string(*value);
    }
  }

  if (out.command == Arguments::Command::info) {
    return out;
  }
  if (out.command == Arguments::Command::call) {
    return out.mask ? ParseResult(out) : UsageError{"call needs the CHANNELS to call on"};
  }
  if (out.role.empty()) {
    return missing("--role ROLE", out.command);
  }
  if (out.command == Arguments::Command::listen && out.out.empty()) {
    return missing("--out FILE.wav", out.command);
  }
  if (out.command == Arguments::Command::talk && out.in.empty()) {
    return missing("--in FILE", out.command);
  }
  return out;
}

std::string usageText() {
  return "usage: parlavox-client [HOST] info\n"
         "       parlavox-client [HOST] listen --role ROLE [--name NAME] [--seconds S] --out "
         "FILE.wav\n"
         "       parlavox-client [HOST] talk --role ROLE [--name NAME] [--mask CHANNELS] --in "
         "FILE\n"
         "       parlavox-client [HOST] call CHANNELS [--role ROLE] [--name NAME]\n"
         "\n"
         "A crew member on the Parlavox intercom (UDP port 50505).\n"
         "\n"
         "  HOST             the server's name or address; without it the server is found on\n"
         "                   the local network by DNS-SD (_intercom._udp, through Avahi)\n"
         "  info             print the show's channels and roles\n"
         "  listen           join and record what the role hears, talkers and announcements\n"
         "                   mixed, as 16 kHz mono WAV, printing the calls and the words of\n"
         "                   the announcements it receives; Ctrl-C stops and finishes the file\n"
         "  talk             join and play an audio file (any format libsndfile reads) into the\n"
         "                   intercom in real time\n"
         "  call             join and call the crew on CHANNELS (names separated by commas, or\n"
         "                   a mask number), as ROLE or else the first role that may talk on\n"
         "                   them all, then leave\n"
         "  --role ROLE      the role to join as (see info)\n"
         "  --name NAME      the display name (default: the server's, \"Crew\")\n"
         "  --seconds S      stop listening after S seconds\n"
         "  --out FILE.wav   where listen writes what it hears\n"
         "  --in FILE        the audio file talk plays\n"
         "  --mask CHANNELS  the channels to talk on: names separated by commas (\"Main,Tech\")\n"
         "                   or a channel mask number (3, 0x3); default: all the role may\n"
         "  -h, --help       this text\n"
         "\n"
         "Exit status: 0 done, 1 failed, 2 bad command line.";
}

}  // namespace parlavox::client
