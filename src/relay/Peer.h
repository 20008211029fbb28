#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/Bytes.h"
#include "platform/Clock.h"
#include "platform/Transport.h"
#include "relay/LinkHealth.h"
#include "relay/TokenBucket.h"
#include "wire/ControlMessages.h"

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
  wire::Features features;  // what it said it understands when it joined
  platform::MonoTime lastSeen;
  std::optional<platform::MonoTime> lastAudio;  // for the count of who is talking
  LinkHealth health;                            // of its audio, once joined
  std::optional<TokenBucket> calls;             // its calls, from its first
  std::optional<TokenBucket> audio;             // its audio, from its join
  bool audioWithinRate = true;                  // of its last audio datagram
};

// A joined peer as the fan-outs (relayed audio, announcements, rosters) see it: one small
// contiguous array of these is walked per datagram instead of the table's nodes.
struct JoinedPeer {
  std::uint16_t id = 0;
  wire::Features features;  // in the padding after the id: the array's stride stays 24 bytes
  std::uint32_t listenMask = 0;
  // The peer's transport (kept here, one load less per copy) and its own address in the
  // registry's table; the array is rebuilt before a peer goes.
  platform::Transport* transport = nullptr;
  const platform::PeerAddress* address = nullptr;

  void send(Bytes head, Bytes body = {}) const { transport->send(*address, head, body); }
};
static_assert(sizeof(void*) != 8 || sizeof(JoinedPeer) == 24, "one fan-out entry, 24 bytes");

}  // namespace parlavox
