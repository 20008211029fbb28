#pragma once

#include <cstdint>
#include <optional>

#include "relay/Peer.h"

namespace parlavox {

// The id for a peer's first join: the first id from `nextID` upward (wrapping) that no joined
// peer holds, never 0 (no id) and never 0xFFFF (the announcer's). Advances `nextID` past it.
// Nothing when every id is held; the search makes at most one pass over the id space.
std::optional<std::uint16_t> allocateID(std::uint16_t& nextID, const PeerTable& peers);

}  // namespace parlavox
