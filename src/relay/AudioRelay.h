#pragma once

#include <span>

#include "platform/Bytes.h"
#include "relay/Peer.h"

namespace parlavox {

// Forwards one audio datagram from `sender` to every other joined peer that listens on a channel
// the sender may talk on and asked for, in the order of `joined`. Each copy carries the sender's id
// and the receiver's share of the mask; everything else arrives as sent. Allocates nothing. Returns
// how many copies went out.
std::size_t relayAudio(Bytes datagram, const Peer& sender, std::span<const JoinedPeer> joined);

}  // namespace parlavox
