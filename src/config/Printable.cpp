#include "config/Printable.h"

#include <utf8proc.h>

namespace parlavox {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD

bool isUnsafe(utf8proc_int32_t cp) {
  return cp < 0x20 || (cp >= 0x7F && cp <= 0x9F)  // C0, DEL, C1
         || cp == 0x2028 || cp == 0x2029          // line and paragraph separators
         || (cp >= 0x202A && cp <= 0x202E)        // LRE, RLE, PDF, LRO, RLO
         || (cp >= 0x2066 && cp <= 0x2069);       // LRI, RLI, FSI, PDI
}

}  // namespace

std::string printable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
  const auto size = static_cast<utf8proc_ssize_t>(text.size());
  utf8proc_ssize_t pos = 0;
  while (pos < size) {
    utf8proc_int32_t cp = 0;
    const auto len = utf8proc_iterate(bytes + pos, size - pos, &cp);
    if (len < 0 || isUnsafe(cp)) {
      out.append(kReplacement);
      pos += len < 0 ? 1 : len;
    } else {
      out.append(text.substr(static_cast<std::size_t>(pos), static_cast<std::size_t>(len)));
      pos += len;
    }
  }
  return out;
}

}  // namespace parlavox
