#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "support/TempDir.h"

namespace parlavox::test {

// True if `text` has the shape of `pattern`, where each 'X' stands for one upper-case hexadecimal
// digit and every other character for itself.
inline bool matchesHexPattern(std::string_view text, std::string_view pattern) {
  if (text.size() != pattern.size()) {
    return false;
  }
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const bool hex = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
    if (pattern[i] == 'X' ? !hex : c != pattern[i]) {
      return false;
    }
  }
  return true;
}

inline constexpr std::string_view kUuidPattern = "XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX";

// Splits NUL-terminated fields, as `printf '%s\0' "$@"` writes them.
inline std::vector<std::string> splitNul(const std::string& text) {
  std::vector<std::string> fields;
  std::string::size_type from = 0;
  while (from < text.size()) {
    const auto end = text.find('\0', from);
    if (end == std::string::npos) {
      fields.push_back(text.substr(from));
      break;
    }
    fields.push_back(text.substr(from, end - from));
    from = end + 1;
  }
  return fields;
}

}  // namespace parlavox::test
