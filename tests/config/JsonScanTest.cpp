#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "config/JsonScan.h"

namespace parlavox {
namespace {

using Kind = JsonScanProblem::Kind;

struct Scan {
  const char* label;
  std::string text;
  std::size_t maxDepth;
  std::optional<JsonScanProblem> expected;
};
// NOLINTNEXTLINE(readability-identifier-naming): the name GoogleTest looks for
void PrintTo(const Scan& c, std::ostream* os) {
  *os << c.label;
}

class ScanJson : public testing::TestWithParam<Scan> {};

TEST_P(ScanJson, FindsTheFirstProblem) {
  EXPECT_EQ(scanJson(GetParam().text, GetParam().maxDepth), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    JsonScan, ScanJson,
    testing::Values(
        Scan{"empty", "", 0, std::nullopt}, Scan{"flatAtLimit", R"({"a":1})", 1, std::nullopt},
        Scan{"oneTooDeep", R"({"a":[1]})", 1, JsonScanProblem{Kind::tooDeep, 5}},
        Scan{"siblingsDoNotAddUp", "[[],[],{},[[]]]", 3, std::nullopt},
        Scan{"siblingsOneTooDeep", "[[],[],{},[[]]]", 2, JsonScanProblem{Kind::tooDeep, 11}},
        Scan{"deepSibling", "[[],[[[]]]]", 3, JsonScanProblem{Kind::tooDeep, 6}},
        Scan{"bracketsInStringsIgnored", R"(["[[[{{{"])", 1, std::nullopt},
        Scan{"escapedQuoteKeepsString", R"(["\"[[[", "\\"])", 1, std::nullopt},
        Scan{"escapedBackslashEndsString", R"(["\\", [[]]])", 2, JsonScanProblem{Kind::tooDeep, 8}},
        Scan{"hugeDepth", std::string(100000, '['), 32, JsonScanProblem{Kind::tooDeep, 32}},
        Scan{"nulOutsideString", std::string("{}\0", 3), 8, JsonScanProblem{Kind::nulByte, 2}},
        Scan{"nulInsideString", std::string("[\"a\0\"]", 6), 8, JsonScanProblem{Kind::nulByte, 3}}),
    [](const auto& p) { return std::string(p.param.label); });

}  // namespace
}  // namespace parlavox
