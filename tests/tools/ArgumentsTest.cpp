#include <gtest/gtest.h>

#include <vector>

#include "client/Arguments.h"

namespace parlavox::client {
namespace {

using Command = Arguments::Command;

ParseResult parse(std::vector<std::string_view> args) {
  return parseArguments(args);
}

Arguments make(std::optional<std::string> host, Command command) {
  Arguments a;
  a.host = std::move(host);
  a.command = command;
  return a;
}

TEST(Arguments, AcceptsEachCommandWithItsOptionsInAnyOrderAndBothSpellings) {
  Arguments listen = make("10.0.0.2", Command::listen);
  listen.role = "Sound";
  listen.name = "Ann";
  listen.seconds = 2.5;
  listen.out = "a b.wav";
  Arguments talk = make(std::nullopt, Command::talk);
  talk.role = "Stage Manager";
  talk.in = "cue.flac";
  talk.mask = "Main, Green Room";
  Arguments plainListen = make(std::nullopt, Command::listen);
  plainListen.role = "Lighting";
  plainListen.out = "x.wav";
  Arguments emptyName = plainListen;
  emptyName.name = "";

  const std::vector<std::pair<std::vector<std::string_view>, Arguments>> table{
      {{"info"}, make(std::nullopt, Command::info)},
      {{"stage.local", "info"}, make("stage.local", Command::info)},
      {{"::1", "info"}, make("::1", Command::info)},
      {{"10.0.0.2", "listen", "--role=Sound", "--name", "Ann", "--seconds", "2.5", "--out",
        "a b.wav"},
       listen},
      {{"talk", "--in", "cue.flac", "--mask=Main, Green Room", "--role", "Stage Manager"}, talk},
      {{"listen", "--out", "x.wav", "--role", "Lighting"}, plainListen},
      // "=" splits at the first one only; an empty value is a value.
      {{"listen", "--out=x.wav", "--role=Lighting", "--name="}, emptyName},
  };
  for (const auto& [args, expected] : table) {
    const auto result = parse(args);
    ASSERT_TRUE(std::holds_alternative<Arguments>(result)) << args.size();
    EXPECT_EQ(std::get<Arguments>(result), expected) << args[0];
  }
}

TEST(Arguments, HelpWinsWherever) {
  for (const auto& args : std::vector<std::vector<std::string_view>>{
           {"--help"}, {"-h"}, {"host", "listen", "--role", "X", "-h"}, {"dance", "--help"}}) {
    EXPECT_EQ(parse(args), ParseResult(HelpRequest{})) << args[0];
  }
}

TEST(Arguments, RefusesWhatMakesNoSenseWithAMessageThatSaysWhy) {
  const std::vector<std::pair<std::vector<std::string_view>, std::string>> table{
      {{}, "no command given (info, listen or talk)"},
      {{"stage.local"}, "no command after the host \"stage.local\" (info, listen or talk)"},
      {{"stage.local", "dance"}, "unknown command \"dance\" (info, listen or talk)"},
      {{"", "info"}, "the host is empty"},
      {{"--role", "X", "info"}, "unknown command \"--role\" (info, listen or talk)"},
      {{"info", "extra"}, "unexpected argument \"extra\""},
      {{"info", "--role", "X"}, "info does not take --role"},
      {{"listen", "--mask", "3", "--role", "X", "--out", "o"}, "listen does not take --mask"},
      {{"talk", "--seconds", "3", "--role", "X", "--in", "i"}, "talk does not take --seconds"},
      {{"talk", "--volume", "3"}, "unknown option --volume"},
      {{"talk", "-v"}, "unexpected argument \"-v\""},
      {{"listen", "--out", "o"}, "listen needs --role ROLE"},
      {{"listen", "--role", "X"}, "listen needs --out FILE.wav"},
      {{"talk", "--role", "X"}, "talk needs --in FILE"},
      {{"listen", "--out", "o", "--role"}, "--role needs a value"},
      {{"listen", "--role", "A", "--role=B", "--out", "o"}, "--role given twice"},
  };
  for (const auto& [args, message] : table) {
    const auto result = parse(args);
    ASSERT_TRUE(std::holds_alternative<UsageError>(result)) << message;
    EXPECT_EQ(std::get<UsageError>(result).message, message);
  }
}

TEST(Arguments, SecondsMustBeAPlainPositiveNumberOfSensibleSize) {
  for (const std::string_view good : {"1", "0.02", "2.50", "10000000"}) {
    const auto result = parse({"listen", "--role", "X", "--out", "o", "--seconds", good});
    ASSERT_TRUE(std::holds_alternative<Arguments>(result)) << good;
  }
  for (const std::string_view bad :
       {"0", "-1", "", "abc", "3s", "1e3", "inf", "nan", "10000000.5", " 2"}) {
    const auto result = parse({"listen", "--role", "X", "--out", "o", "--seconds", bad});
    ASSERT_TRUE(std::holds_alternative<UsageError>(result)) << bad;
    EXPECT_NE(std::get<UsageError>(result).message.find("--seconds wants a number"),
              std::string::npos);
  }
}

}  // namespace
}  // namespace parlavox::client
