#include <gtest/gtest.h>

#include <ostream>
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

struct NamePair {
  const char* label;
  std::string a;
  std::string b;
  bool same;
};
// NOLINTNEXTLINE(readability-identifier-naming): the name GoogleTest looks for
void PrintTo(const NamePair& c, std::ostream* os) {
  *os << c.label;
}

class SameName : public testing::TestWithParam<NamePair> {};

TEST_P(SameName, ComparesBothWays) {
  const auto& p = GetParam();
  EXPECT_EQ(sameName(p.a, p.b), p.same);
  EXPECT_EQ(sameName(p.b, p.a), p.same);
}

INSTANTIATE_TEST_SUITE_P(
    Names, SameName,
    testing::Values(NamePair{"identical", "Main", "Main", true},
                    NamePair{"caseDiffers", "Main", "main", false},
                    NamePair{"noTrimming", "Main", "Main ", false},
                    NamePair{"leadingSpace", " Main", "Main", false},
                    NamePair{"emptyEqualsEmpty", "", "", true},
                    NamePair{"precomposedVsCombining", "R\u00e9gie", "Re\u0301gie", true},
                    NamePair{"accentIsNotOptional", "R\u00e9gie", "Regie", false},
                    NamePair{"combiningMarksInEitherOrder", "a\u0323\u0301", "a\u0301\u0323", true},
                    NamePair{"ohmSignIsOmega", "\u2126", "\u03a9", true},
                    NamePair{"hangulSyllableVsJamo", "\ud55c", "\u1112\u1161\u11ab", true},
                    NamePair{"compatibilityFormsDiffer", "\ufb01le", "file", false},
                    NamePair{"accentedCaseDiffers", "\u00c9clairage", "\u00e9clairage", false},
                    NamePair{"invalidUtf8EqualsItself", "\xff\xfe", "\xff\xfe", true},
                    NamePair{"invalidUtf8DiffersFromValid", "\xff", "\u00ff", false},
                    NamePair{"embeddedNul", std::string("A\0B", 3), std::string("A\0C", 3), false}),
    [](const auto& p) { return std::string(p.param.label); });

TEST(Names, FindNameReturnsTheFirstMatch) {
  const std::vector<std::string> names{"Main", "Re\u0301gie", "Tech", "R\u00e9gie", "Main"};
  EXPECT_EQ(findName("Main", names), 0U);
  EXPECT_EQ(findName("R\u00e9gie", names), 1U);
  EXPECT_EQ(findName("Tech", names), 2U);
  EXPECT_EQ(findName("tech", names), std::nullopt);
  EXPECT_EQ(findName("", names), std::nullopt);
  EXPECT_EQ(findName("Main", {}), std::nullopt);
}

struct Cut {
  const char* label;
  std::string text;
  std::size_t limit;
  std::string expected;
};
// NOLINTNEXTLINE(readability-identifier-naming): the name GoogleTest looks for
void PrintTo(const Cut& c, std::ostream* os) {
  *os << c.label;
}

class FirstGraphemes : public testing::TestWithParam<Cut> {};

TEST_P(FirstGraphemes, KeepsWholeCharacters) {
  EXPECT_EQ(firstGraphemes(GetParam().text, GetParam().limit), GetParam().expected);
}

constexpr std::string_view thumb = "\U0001F44D\U0001F3FD";  // 👍🏽 with a skin-tone modifier
constexpr std::string_view family =
    "\U0001F468\u200D\U0001F469\u200D\U0001F467\u200D\U0001F466";  // 👨‍👩‍👧‍👦
constexpr std::string_view france = "\U0001F1EB\U0001F1F7";        // 🇫🇷

INSTANTIATE_TEST_SUITE_P(
    Names, FirstGraphemes,
    testing::Values(
        Cut{"asciiCut", "abcdefghijklmnopqrstuvwxyz0123", 24, "abcdefghijklmnopqrstuvwx"},
        Cut{"shortKept", "Ana", 24, "Ana"},
        Cut{"exactlyAtLimit", repeat("x", 24), 24, repeat("x", 24)}, Cut{"empty", "", 24, ""},
        Cut{"zeroLimit", "Ana", 0, ""}, Cut{"spacesNotTrimmed", "  a  ", 24, "  a  "},
        Cut{"skinToneEmoji", repeat(thumb, 30), 24, repeat(thumb, 24)},
        Cut{"zwjFamily", repeat(family, 25), 24, repeat(family, 24)},
        Cut{"flags", repeat(france, 25), 24, repeat(france, 24)},
        Cut{"flagPairsNotSplit", std::string(france) + "\U0001F1E9\U0001F1EA", 1,
            std::string(france)},
        Cut{"oddRegionalIndicator", std::string(france) + "\U0001F1E9x", 2,
            std::string(france) + "\U0001F1E9"},
        Cut{"combiningMarkStaysWithBase", repeat("e\u0301", 25), 24, repeat("e\u0301", 24)},
        Cut{"stackedMarks", "a\u0323\u0301b", 1, "a\u0323\u0301"},
        Cut{"hangulJamoOneCharacter", "\u1112\u1161\u11abx", 1, "\u1112\u1161\u11ab"},
        Cut{"crLfOneCharacter", "\r\nx", 1, "\r\n"},
        Cut{"mixed", "R\u00e9gie " + std::string(thumb) + std::string(family) + "!", 8,
            "R\u00e9gie " + std::string(thumb) + std::string(family)},
        Cut{"invalidBytesCountOneEach",
            "\xff\xfe"
            "abc",
            3,
            "\xff\xfe"
            "a"},
        Cut{"truncatedSequence", "ab\xe2\x82", 3, "ab\xe2"}),
    [](const auto& p) { return std::string(p.param.label); });

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
