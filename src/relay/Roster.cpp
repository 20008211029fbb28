#include "relay/Roster.h"

#include <algorithm>

namespace parlavox {

RosterMsg makeRoster(const PeerTable& peers) {
  RosterMsg roster;
  for (const auto& [key, peer] : peers) {
    if (peer->joined) {
      roster.users.push_back({peer->id, peer->name, peer->role});
    }
  }
  std::stable_sort(roster.users.begin(), roster.users.end(),
                   [](const RosterUser& a, const RosterUser& b) { return a.id < b.id; });
  return roster;
}

}  // namespace parlavox
