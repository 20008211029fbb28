#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "platform/Clock.h"
#include "platform/Datagram.h"

namespace parlavox {

// One client, from its first datagram until it leaves or goes silent.
// Unjoined: id 0, empty name and role, masks 0. Joined: a non-zero id that no other peer holds.
struct Peer {
  std::shared_ptr<platform::Flow> conn;
  std::uint16_t id = 0;
  std::string name;
  std::string role;
  std::uint32_t talkMask = 0;
  std::uint32_t listenMask = 0;
  bool joined = false;
  platform::MonoTime lastSeen;
};

// Every known client, by the key of its flow.
using PeerTable = std::unordered_map<std::uint64_t, std::shared_ptr<Peer>>;

}  // namespace parlavox
