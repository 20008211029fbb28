#pragma once

#include <cstdint>
#include <vector>

#include "platform/Datagram.h"
#include "relay/Peer.h"

namespace parlavox {

// A joined peer as the fan-out sees it. The fan-outs (relayed audio, announcements, rosters) walk
// one small contiguous array of these rather than the peer table's nodes and shared pointers.
struct Listener {
  std::uint16_t id = 0;
  std::uint32_t listenMask = 0;
  platform::Flow* conn = nullptr;  // owned by its peer; the array is rebuilt before a peer goes
};

using Listeners = std::vector<Listener>;

// Every joined peer, in ascending order of id.
Listeners listenersOf(const PeerTable& peers);

}  // namespace parlavox
