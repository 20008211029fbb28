#pragma once

#include <utf8proc.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace parlavox::fuzz {

// A property of the code under test failed: say which, then crash so that the fuzzer keeps the
// input and the replay test fails.
inline void require(bool holds, const char* what) {
  if (!holds) {
    std::fprintf(stderr, "fuzz property violated: %s\n", what);
    std::abort();
  }
}

// Strict UTF-8 (no overlong forms, surrogates or code points above U+10FFFF), checked by utf8proc
// rather than by the code under test.
inline bool isValidUtf8(std::string_view text) {
  const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
  auto left = static_cast<utf8proc_ssize_t>(text.size());
  while (left > 0) {
    utf8proc_int32_t codePoint = 0;
    const utf8proc_ssize_t length = utf8proc_iterate(bytes, left, &codePoint);
    if (length <= 0) {
      return false;
    }
    bytes += length;
    left -= length;
  }
  return true;
}

}  // namespace parlavox::fuzz
