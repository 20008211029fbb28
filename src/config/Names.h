#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace parlavox {

// Role and channel names compare exactly (case-sensitive, no trimming), except that canonically
// equivalent Unicode spellings are the same name: "Régie" precomposed equals "Re\u0301gie".
bool sameName(std::string_view a, std::string_view b);

// The position of the first entry of `names` equal to `name` by sameName().
std::optional<std::size_t> findName(std::string_view name, const std::vector<std::string>& names);

// The longest user-perceived character (extended grapheme cluster) firstGraphemes() keeps whole.
// Every emoji sequence in use fits; a letter under thousands of combining marks does not.
inline constexpr std::size_t kClusterByteLimit = 64;

// The first `limit` user-perceived characters (extended grapheme clusters) of `text`, each cut to
// at most kClusterByteLimit bytes by dropping its trailing code points. Invalid UTF-8 is kept byte
// for byte; it is counted one byte per character.
std::string firstGraphemes(std::string_view text, std::size_t limit);

// The longest prefix of `text` made of whole grapheme clusters and at most `maxBytes` long.
std::string_view graphemesWithin(std::string_view text, std::size_t maxBytes);

}  // namespace parlavox
