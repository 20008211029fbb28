#pragma once

#include <string>
#include <string_view>

namespace parlavox {

// `text` made safe to print inside one console line: control characters (C0, DEL, C1), the line
// and paragraph separators and the bidirectional embeddings, overrides and isolates each become
// U+FFFD, and so does every byte that is not part of valid UTF-8. Names and texts from outside go
// through this before they reach the console, so nobody can clear, recolour, reorder or forge the
// operator's screen; one message stays one line.
std::string printable(std::string_view text);

}  // namespace parlavox
