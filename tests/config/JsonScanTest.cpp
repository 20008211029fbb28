#include <gtest/gtest.h>

#include <string>

#include "config/JsonScan.h"

namespace parlavox {
namespace {

using Kind = JsonScanProblem::Kind;

TEST(JsonScan, FindsTheFirstProblem) {
  struct Case {
    const char* label;
    std::string text;
    std::size_t maxDepth;
    std::optional<JsonScanProblem> expected;
  };
  const Case cases[] = {
      {"empty", "", 0, std::nullopt},
      {"flatAtLimit", R"({"a":1})", 1, std::nullopt},
      {"oneTooDeep", R"({"a":[1]})", 1, JsonScanProblem{Kind::tooDeep, 5}},
      {"siblingsDoNotAddUp", "[[],[],{},[[]]]", 3, std::nullopt},
      {"siblingsOneTooDeep", "[[],[],{},[[]]]", 2, JsonScanProblem{Kind::tooDeep, 11}},
      {"deepSibling", "[[],[[[]]]]", 3, JsonScanProblem{Kind::tooDeep, 6}},
      {"bracketsInStringsIgnored", R"(["[[[{{{"])", 1, std::nullopt},
      {"escapedQuoteKeepsString", R"(["\"[[[", "\\"])", 1, std::nullopt},
      {"escapedBackslashEndsString", R"(["\\", [[]]])", 2, JsonScanProblem{Kind::tooDeep, 8}},
      {"hugeDepth", std::string(100000, '['), 32, JsonScanProblem{Kind::tooDeep, 32}},
      {"nulOutsideString", std::string("{}\0", 3), 8, JsonScanProblem{Kind::nulByte, 2}},
      {"nulInsideString", std::string("[\"a\0\"]", 6), 8, JsonScanProblem{Kind::nulByte, 3}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(scanJson(c.text, c.maxDepth), c.expected) << c.label;
  }
}

}  // namespace
}  // namespace parlavox
