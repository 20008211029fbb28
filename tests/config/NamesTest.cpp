#include <gtest/gtest.h>

#include <string>

#include "config/Names.h"
#include "config/Printable.h"

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
      {"e" + repeat("\u0301", 30000) + "f", 2, "e" + repeat("\u0301", 31) + "f"},  // 1 + 31 × 2
  };
  for (const auto& [text, limit, expected] : cases) {
    EXPECT_EQ(firstGraphemes(text, limit), expected) << text;
  }
}

TEST(Names, PrintableKeepsOneLineAndTheOperatorsScreen) {
  const std::string r = "\uFFFD";
  const std::pair<std::string, std::string> cases[] = {
      {"Régie 🎧 \u05E9\u05DC\u05D5\u05DD", "Régie 🎧 \u05E9\u05DC\u05D5\u05DD"},
      {"Bob\n🎧 Eve joined as Director", "Bob" + r + "🎧 Eve joined as Director"},
      {"\x1b[2J\x1b[H\r\t\x7f", r + "[2J" + r + "[H" + r + r + r},
      {"a\u0085b\u009Bc", "a" + r + "b" + r + "c"},                           // C1: NEL, CSI
      {"\u202Egnp.exe\u2066x\u2069\u2028", r + "gnp.exe" + r + "x" + r + r},  // bidi, separator
      {"ok\xff\xc3", "ok" + r + r},                                           // not UTF-8
  };
  for (const auto& [text, expected] : cases) {
    EXPECT_EQ(printable(text), expected) << text;
  }
}

}  // namespace
}  // namespace parlavox
