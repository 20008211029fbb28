#include "relay/PeerIds.h"

#include <bitset>
#include <memory>

#include "config/Protocol.h"

namespace parlavox {

std::optional<std::uint16_t> allocateID(std::uint16_t& nextID, const PeerTable& peers) {
  auto held = std::make_unique<std::bitset<65536>>();
  held->set(0);
  held->set(protocol::announcerID);
  for (const auto& [key, peer] : peers) {
    if (peer->joined) {
      held->set(peer->id);
    }
  }
  std::uint16_t candidate = nextID;
  for (std::uint32_t step = 0; step < 65536; ++step) {
    if (!held->test(candidate)) {
      nextID = static_cast<std::uint16_t>(candidate + 1);
      return candidate;
    }
    candidate = static_cast<std::uint16_t>(candidate + 1);
    nextID = candidate;
  }
  return std::nullopt;
}

}  // namespace parlavox
