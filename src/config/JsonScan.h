#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace parlavox {

// What a quick pass over JSON text finds wrong before any document is built from it.
//  - tooDeep: arrays and objects nest deeper than allowed. nlohmann's parser is iterative, but
//    copying, comparing and printing a document recurse, so untrusted nesting is bounded first.
//  - nulByte: a NUL byte, which JSON never allows raw; nlohmann's lexer takes it for the end of
//    the input and would silently accept whatever follows it.
struct JsonScanProblem {
  enum class Kind { tooDeep, nulByte };
  Kind kind = Kind::tooDeep;
  std::size_t offset = 0;  // byte offset of the offending '[', '{' or NUL
  bool operator==(const JsonScanProblem&) const = default;
};

// Any thread; pure. Exact for every prefix of `text` that is valid JSON, which is all a parser
// will ever build from; what it says about invalid text does not matter, the parser refuses it.
std::optional<JsonScanProblem> scanJson(std::string_view text, std::size_t maxDepth);

}  // namespace parlavox
