#include <gtest/gtest.h>

#include <vector>

#include "client/Arguments.h"

namespace parlavox::client {
namespace {

ParseResult parse(std::vector<std::string_view> args) {
  return parseArguments(args);
}

// What it accepts is seen end to end (tests/e2e/ClientToolTest.cpp); here, what it refuses.
TEST(Arguments, RefusesWhatMakesNoSenseWithAMessageThatSaysWhy) {
  const std::vector<std::pair<std::vector<std::string_view>, std::string>> table{
      {{}, "no command given (info, listen, talk or call)"},
      {{"stage.local"}, "no command after the host \"stage.local\" (info, listen, talk or call)"},
      {{"stage.local", "dance"}, "unknown command \"dance\" (info, listen, talk or call)"},
      {{"", "info"}, "the host is empty"},
      {{"info", "extra"}, "unexpected argument \"extra\""},
      {{"listen", "--mask", "3", "--role", "X", "--out", "o"}, "listen does not take --mask"},
      {{"talk", "--volume", "3"}, "unknown option --volume"},
      {{"listen", "--out", "o"}, "listen needs --role ROLE"},
      {{"talk", "--role", "X"}, "talk needs --in FILE"},
      {{"listen", "--out", "o", "--role"}, "--role needs a value"},
      {{"listen", "--role", "A", "--role=B", "--out", "o"}, "--role given twice"},
      {{"call", "--role", "A"}, "call needs the CHANNELS to call on"},
      {{"call", "Main", "Tech"}, "unexpected argument \"Tech\""},
      {{"call", "Main", "--in", "f"}, "call does not take --in"},
  };
  for (const auto& [args, message] : table) {
    EXPECT_EQ(parse(args), ParseResult(UsageError{message}));
  }
  // Seconds are plain positive numbers of a sensible size.
  for (const std::string_view bad : {"0", "-1", "", "3s", "1e3", "inf", "nan", "10000000.5"}) {
    EXPECT_TRUE(std::holds_alternative<UsageError>(
        parse({"listen", "--role", "X", "--out", "o", "--seconds", bad})))
        << bad;
  }
}

}  // namespace
}  // namespace parlavox::client
