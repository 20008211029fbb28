#include "config/JsonScan.h"

namespace parlavox {

std::optional<JsonScanProblem> scanJson(std::string_view text, std::size_t maxDepth) {
  std::size_t depth = 0;
  bool inString = false;
  bool escaped = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\0') {
      return JsonScanProblem{JsonScanProblem::Kind::nulByte, i};
    }
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
      continue;
    }
    switch (c) {
      case '"':
        inString = true;
        break;
      case '[':
      case '{':
        if (++depth > maxDepth) {
          return JsonScanProblem{JsonScanProblem::Kind::tooDeep, i};
        }
        break;
      case ']':
      case '}':
        if (depth > 0) {
          --depth;
        }
        break;
      default:
        break;
    }
  }
  return std::nullopt;
}

}  // namespace parlavox
