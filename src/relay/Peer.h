#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/Bytes.h"
#include "platform/Clock.h"
#include "platform/Transport.h"
#include "relay/LinkHealth.h"

namespace parlavox {

// One client, from its first datagram until it leaves or goes silent, whatever its transport.
// Unjoined: id 0, empty name and role, masks 0. Joined: a non-zero id that no other peer holds.
struct Peer {
  platform::PeerAddress address;
  std::uint16_t id = 0;
  std::string name;
  std::string role;
  std::uint32_t talkMask = 0;
  std::uint32_t listenMask = 0;
  bool joined = false;
  platform::MonoTime lastSeen;
  std::optional<platform::MonoTime> lastAudio;  // for the count of who is talking
  LinkHealth health;                            // of its audio, once joined
};

// A joined peer as the fan-outs (relayed audio, announcements, rosters) see it: one small
// contiguous array of these is walked per datagram instead of the table's nodes.
struct JoinedPeer {
  std::uint16_t id = 0;
  std::uint32_t listenMask = 0;
  // The peer's transport (kept here, one load less per copy) and its own address in the
  // registry's table; the array is rebuilt before a peer goes.
  platform::Transport* transport = nullptr;
  const platform::PeerAddress* address = nullptr;

  void send(Bytes head, Bytes body = {}) const { transport->send(*address, head, body); }
};

}  // namespace parlavox
