#include <gtest/gtest.h>

#include <string>
#include <vector>

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

TEST(Names, SameNameComparesCanonicalFormsBothWays) {
  struct Case {
    const char* label;
    std::string a;
    std::string b;
    bool same;
  };
  const Case cases[] = {
      {"caseDiffers", "Main", "main", false},
      {"noTrimming", "Main", "Main ", false},
      {"emptyEqualsEmpty", "", "", true},
      {"precomposedVsCombining", "R\u00e9gie", "Re\u0301gie", true},
      {"accentIsNotOptional", "R\u00e9gie", "Regie", false},
      {"combiningMarksInEitherOrder", "a\u0323\u0301", "a\u0301\u0323", true},
      {"ohmSignIsOmega", "\u2126", "\u03a9", true},
      {"hangulSyllableVsJamo", "\ud55c", "\u1112\u1161\u11ab", true},
      {"compatibilityFormsDiffer", "\ufb01le", "file", false},
      {"invalidUtf8EqualsItself", "\xff\xfe", "\xff\xfe", true},
      {"invalidUtf8DiffersFromValid", "\xff", "\u00ff", false},
      {"embeddedNul", std::string("A\0B", 3), std::string("A\0C", 3), false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(sameName(c.a, c.b), c.same) << c.label;
    EXPECT_EQ(sameName(c.b, c.a), c.same) << c.label;
  }
}

TEST(Names, FindNameReturnsTheFirstMatch) {
  const std::vector<std::string> names{"Main", "Re\u0301gie", "Tech", "R\u00e9gie", "Main"};
  EXPECT_EQ(findName("Main", names), 0U);
  EXPECT_EQ(findName("R\u00e9gie", names), 1U);
  EXPECT_EQ(findName("Tech", names), 2U);
  EXPECT_EQ(findName("tech", names), std::nullopt);
  EXPECT_EQ(findName("", names), std::nullopt);
  EXPECT_EQ(findName("Main", {}), std::nullopt);
}

constexpr std::string_view thumb = "\U0001F44D\U0001F3FD";  // 👍🏽 with a skin-tone modifier
constexpr std::string_view family =
    "\U0001F468\u200D\U0001F469\u200D\U0001F467\u200D\U0001F466";  // 👨‍👩‍👧‍👦
constexpr std::string_view france = "\U0001F1EB\U0001F1F7";        // 🇫🇷

TEST(Names, FirstGraphemesKeepsWholeCharacters) {
  struct Case {
    const char* label;
    std::string text;
    std::size_t limit;
    std::string expected;
  };
  const Case cases[] = {
      {"asciiCut", "abcdefghijklmnopqrstuvwxyz0123", 24, "abcdefghijklmnopqrstuvwx"},
      {"exactlyAtLimit", repeat("x", 24), 24, repeat("x", 24)},
      {"zeroLimit", "Ana", 0, ""},
      {"spacesNotTrimmed", "  a  ", 24, "  a  "},
      {"skinToneEmoji", repeat(thumb, 30), 24, repeat(thumb, 24)},
      {"zwjFamily", repeat(family, 25), 24, repeat(family, 24)},
      {"flagPairsNotSplit", std::string(france) + "\U0001F1E9\U0001F1EA", 1, std::string(france)},
      {"oddRegionalIndicator", std::string(france) + "\U0001F1E9x", 2,
       std::string(france) + "\U0001F1E9"},
      {"stackedMarks", "a\u0323\u0301b", 1, "a\u0323\u0301"},
      {"hangulJamoOneCharacter", "\u1112\u1161\u11abx", 1, "\u1112\u1161\u11ab"},
      {"crLfOneCharacter", "\r\nx", 1, "\r\n"},
      {"invalidBytesCountOneEach",
       "\xff\xfe"
       "abc",
       3,
       "\xff\xfe"
       "a"},
      {"truncatedSequence", "ab\xe2\x82", 3, "ab\xe2"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(firstGraphemes(c.text, c.limit), c.expected) << c.label;
  }
}

TEST(Names, AnyBytesGiveAStablePrefix) {
  // Every byte value in every position, mixed with marks and joiners that extend clusters.
  std::string junk;
  for (int i = 0; i < 256; ++i) {
    junk += static_cast<char>(i);
    junk += i % 3 == 0 ? "\u0301" : (i % 3 == 1 ? "\u200d" : "\xed\xa0\x80");
  }
  for (std::size_t limit = 0; limit < 40; ++limit) {
    const auto cut = firstGraphemes(junk, limit);
    EXPECT_EQ(junk.compare(0, cut.size(), cut), 0);
    EXPECT_EQ(firstGraphemes(cut, limit), cut);  // cutting again changes nothing
  }
  EXPECT_EQ(firstGraphemes(junk, junk.size()), junk);
}

}  // namespace
}  // namespace parlavox
