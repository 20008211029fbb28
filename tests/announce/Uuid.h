#pragma once

#include <string_view>

namespace parlavox::test {

// True if `text` is a version 4 UUID written as this system writes them: 8-4-4-4-12 upper-case
// hexadecimal digits.
inline bool isUuid4(std::string_view text) {
  constexpr std::string_view shape = "XXXXXXXX-XXXX-4XXX-VXXX-XXXXXXXXXXXX";  // V: the variant
  if (text.size() != shape.size()) {
    return false;
  }
  for (std::size_t i = 0; i < text.size(); ++i) {
    const std::string_view allowed = shape[i] == 'X'   ? "0123456789ABCDEF"
                                     : shape[i] == 'V' ? "89AB"
                                                       : shape.substr(i, 1);
    if (allowed.find(text[i]) == std::string_view::npos) {
      return false;
    }
  }
  return true;
}

}  // namespace parlavox::test
