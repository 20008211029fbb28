#include "config/Names.h"

#include <utf8proc.h>

#include <cstdlib>
#include <memory>

namespace parlavox {
namespace {

struct FreeDeleter {
  // utf8proc allocates with malloc.
  void operator()(utf8proc_uint8_t* p) const {
    std::free(p);  // NOLINT(cppcoreguidelines-no-malloc)
  }
};

// NFD of valid UTF-8; nullopt for invalid input, which then only equals itself byte for byte.
std::optional<std::string> decomposed(std::string_view text) {
  utf8proc_uint8_t* out = nullptr;
  const auto n = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                              static_cast<utf8proc_ssize_t>(text.size()), &out,
                              static_cast<utf8proc_option_t>(UTF8PROC_DECOMPOSE | UTF8PROC_STABLE));
  std::unique_ptr<utf8proc_uint8_t, FreeDeleter> owned(out);
  if (n < 0) {
    return std::nullopt;
  }
  return std::string(reinterpret_cast<const char*>(out), static_cast<std::size_t>(n));
}

bool isAscii(std::string_view s) {
  for (const char c : s) {
    if (static_cast<unsigned char>(c) >= 0x80) {
      return false;
    }
  }
  return true;
}

}  // namespace

bool sameName(std::string_view a, std::string_view b) {
  if (a == b) {
    return true;
  }
  if (isAscii(a) && isAscii(b)) {
    return false;  // nothing to normalise: the common case stays cheap
  }
  const auto da = decomposed(a);
  const auto db = decomposed(b);
  return da && db && *da == *db;
}

std::optional<std::size_t> findName(std::string_view name, const std::vector<std::string>& names) {
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (sameName(name, names[i])) {
      return i;
    }
  }
  return std::nullopt;
}

std::string firstGraphemes(std::string_view text, std::size_t limit) {
  const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
  const auto size = static_cast<utf8proc_ssize_t>(text.size());
  std::string out;
  utf8proc_int32_t state = 0;
  utf8proc_int32_t previous = -1;
  std::size_t clusters = 0;
  std::size_t clusterBytes = 0;
  utf8proc_ssize_t pos = 0;
  while (pos < size) {
    utf8proc_int32_t cp = 0;
    auto len = utf8proc_iterate(bytes + pos, size - pos, &cp);
    if (len < 0) {
      cp = -1;  // a stray byte is a character of its own
      len = 1;
    }
    const bool breaks =
        previous < 0 || cp < 0 || utf8proc_grapheme_break_stateful(previous, cp, &state);
    if (breaks) {
      if (clusters == limit) {
        break;
      }
      ++clusters;
      clusterBytes = 0;
      if (cp < 0) {
        state = 0;
      }
    }
    const auto n = static_cast<std::size_t>(len);
    if (clusterBytes + n <= kClusterByteLimit) {
      out.append(text.substr(static_cast<std::size_t>(pos), n));
      clusterBytes += n;
    }
    previous = cp;
    pos += len;
  }
  return out;
}

std::string_view graphemesWithin(std::string_view text, std::size_t maxBytes) {
  if (text.size() <= maxBytes) {
    return text;
  }
  const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
  const auto size = static_cast<utf8proc_ssize_t>(maxBytes + 1);  // enough to see the next break
  utf8proc_int32_t state = 0;
  utf8proc_int32_t previous = -1;
  std::size_t kept = 0;  // where the last cluster that fits ends
  utf8proc_ssize_t pos = 0;
  while (pos < size) {
    utf8proc_int32_t cp = 0;
    auto len = utf8proc_iterate(bytes + pos, static_cast<utf8proc_ssize_t>(text.size()) - pos, &cp);
    if (len < 0) {
      cp = -1;
      len = 1;
    }
    if (previous < 0 || cp < 0 || utf8proc_grapheme_break_stateful(previous, cp, &state)) {
      kept = static_cast<std::size_t>(pos);
      if (cp < 0) {
        state = 0;
      }
    }
    previous = cp;
    pos += len;
  }
  return text.substr(0, kept);
}

}  // namespace parlavox
