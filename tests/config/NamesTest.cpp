#include <gtest/gtest.h>

#include <string>

#include "config/Names.h"

namespace parlavox {
namespace {

std::string repeat(std::string_view unit, std::size_t times) {
  std::string out;
  for (std::size_t i = 0; i < times; ++i) {
    out += unit;
  }
  return out;
}

TEST(Names, FirstGraphemesKeepsWholeCharacters) {
  const std::string thumb = "\U0001F44D\U0001F3FD";  // 👍🏽 with a skin-tone modifier
  const std::string family = "\U0001F468\u200D\U0001F469\u200D\U0001F467\u200D\U0001F466";
  const std::string france = "\U0001F1EB\U0001F1F7";
  const std::tuple<std::string, std::size_t, std::string> cases[] = {
      {"abcdefghijklmnopqrstuvwxyz0123", 24, "abcdefghijklmnopqrstuvwx"},
      {"  a  ", 24, "  a  "},
      {repeat(thumb, 30), 24, repeat(thumb, 24)},
      {repeat(family, 25), 24, repeat(family, 24)},
      {france + "\U0001F1E9x", 2, france + "\U0001F1E9"},  // flags pair up, an odd one stands
      {"a\u0323\u0301b", 1, "a\u0323\u0301"},
      {"\xff\xfe"
       "abc",
       3,
       "\xff\xfe"
       "a"},  // invalid bytes count one each
      {"ab\xe2\x82", 3, "ab\xe2"},
  };
  for (const auto& [text, limit, expected] : cases) {
    EXPECT_EQ(firstGraphemes(text, limit), expected) << text;
  }
}

}  // namespace
}  // namespace parlavox
