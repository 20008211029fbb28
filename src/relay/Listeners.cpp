#include "relay/Listeners.h"

#include <algorithm>

namespace parlavox {

Listeners listenersOf(const PeerTable& peers) {
  Listeners listeners;
  for (const auto& [key, peer] : peers) {
    if (peer->joined) {
      listeners.push_back({peer->id, peer->listenMask, peer->conn.get()});
    }
  }
  std::sort(listeners.begin(), listeners.end(),
            [](const Listener& a, const Listener& b) { return a.id < b.id; });
  return listeners;
}

}  // namespace parlavox
