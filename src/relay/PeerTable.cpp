#include "relay/PeerTable.h"

#include <algorithm>
#include <bitset>
#include <memory>

#include "config/Names.h"
#include "wire/ControlMessages.h"
#include "wire/Protocol.h"

namespace parlavox {

std::optional<std::uint16_t> allocateID(std::uint16_t& nextID, std::span<const Listener> joined) {
  auto held = std::make_unique<std::bitset<65536>>();
  held->set(0);
  held->set(wire::announcerID);
  for (const Listener& listener : joined) {
    held->set(listener.id);
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

const Peer& PeerTable::heardFrom(const platform::PeerAddress& from, platform::MonoTime now,
                                 bool keepsAlive) {
  auto [it, isNew] = peers_.try_emplace(from);
  Peer& peer = it->second;
  if (isNew) {
    peer.address = from;
  }
  if (isNew || keepsAlive) {
    peer.lastSeen = now;
  }
  return peer;
}

const Peer* PeerTable::find(const platform::PeerAddress& address) const {
  const auto found = peers_.find(address);
  return found == peers_.end() ? nullptr : &found->second;
}

bool PeerTable::join(const platform::PeerAddress& address, std::string_view name,
                     const RoleRights& role) {
  const auto found = peers_.find(address);
  if (found == peers_.end()) {
    return false;
  }
  Peer& peer = found->second;
  if (!peer.joined) {
    const auto id = allocateID(nextID_, listeners_);
    if (!id) {
      return false;
    }
    peer.id = *id;
  }
  peer.name = firstGraphemes(name, kNameLimit);
  peer.role = role.name;
  peer.talkMask = role.talkMask;
  peer.listenMask = role.listenMask;
  peer.joined = true;
  joinedChanged();
  return true;
}

std::optional<Peer> PeerTable::remove(const platform::PeerAddress& address) {
  const auto found = peers_.find(address);
  if (found == peers_.end()) {
    return std::nullopt;
  }
  Peer peer = std::move(found->second);
  peers_.erase(found);
  if (peer.joined) {
    joinedChanged();
  }
  return peer;
}

std::vector<platform::PeerAddress> PeerTable::silentSince(platform::MonoTime cutoff) const {
  std::vector<platform::PeerAddress> silent;
  for (const auto& [address, peer] : peers_) {
    if (peer.lastSeen < cutoff) {
      silent.push_back(address);
    }
  }
  return silent;
}

// Joins and departures are rare next to datagrams: the fan-out array and the roster are rebuilt
// whole, so that the paths that read them never have to.
void PeerTable::joinedChanged() {
  listeners_.clear();
  wire::RosterMsg roster;
  for (const auto& [address, peer] : peers_) {
    if (peer.joined) {
      listeners_.push_back({peer.id, peer.listenMask, address.transport, &address});
      roster.users.push_back({peer.id, peer.name, peer.role});
    }
  }
  std::sort(listeners_.begin(), listeners_.end(),
            [](const Listener& a, const Listener& b) { return a.id < b.id; });
  std::sort(roster.users.begin(), roster.users.end(),
            [](const wire::RosterUser& a, const wire::RosterUser& b) { return a.id < b.id; });
  roster_ = roster.users.empty() ? std::string() : wire::encodeControl(roster);
}

}  // namespace parlavox
