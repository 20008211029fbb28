#pragma once

#include "relay/ControlMessages.h"
#include "relay/Peer.h"

namespace parlavox {

// Who is on the intercom: every joined peer, in ascending order of id.
RosterMsg makeRoster(const PeerTable& peers);

}  // namespace parlavox
