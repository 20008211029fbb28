#include "relay/PeerTable.h"

#include <algorithm>
#include <bitset>
#include <memory>

#include "config/Names.h"
#include "wire/Audio.h"
#include "wire/ControlMessages.h"
#include "wire/Protocol.h"

namespace parlavox {

std::optional<std::uint16_t> allocateID(std::uint16_t& nextID, std::span<const JoinedPeer> joined) {
  auto held = std::make_unique<std::bitset<65536>>();
  held->set(0);
  held->set(wire::announcerID);
  for (const JoinedPeer& member : joined) {
    held->set(member.id);
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
                                 Bytes datagram) {
  auto [it, isNew] = peers_.try_emplace(from);
  Peer& peer = it->second.peer;
  if (isNew) {
    peer.address = from;
    peer.lastSeen = now;
    it->second.unjoined = unjoined_.insert(unjoined_.end(), from);
    if (unjoined_.size() > kUnjoinedLimit) {
      const platform::PeerAddress oldest = unjoined_.front();  // never the newcomer
      erase(peers_.find(oldest));
      oldest.transport->end(oldest);
    }
  } else if (!datagram.empty()) {
    peer.lastSeen = now;
  }
  if (!datagram.empty() && datagram[0] == wire::kAudioKind) {
    peer.audioWithinRate = !peer.audio || peer.audio->take(now, kAudioBurst, audioPerSecond_);
    if (!peer.audioWithinRate) {
      return peer;
    }
    peer.lastAudio = now;
    if (peer.joined && datagram.size() > wire::AudioHeader::kSize) {
      peer.health.audio(datagram, now);
    }
  }
  return peer;
}

std::size_t PeerTable::talkingSince(platform::MonoTime cutoff) const {
  return static_cast<std::size_t>(
      std::count_if(peers_.begin(), peers_.end(), [cutoff](const auto& item) {
        const Peer& peer = item.second.peer;
        return peer.joined && peer.lastAudio && *peer.lastAudio >= cutoff;
      }));
}

const Peer* PeerTable::find(const platform::PeerAddress& address) const {
  const auto found = peers_.find(address);
  return found == peers_.end() ? nullptr : &found->second.peer;
}

PeerTable::JoinResult PeerTable::join(const platform::PeerAddress& address, std::string_view name,
                                      const RoleRights& role, wire::Features features,
                                      platform::MonoTime now) {
  const auto found = peers_.find(address);
  if (found == peers_.end()) {
    return JoinResult::full;
  }
  Peer& peer = found->second.peer;
  if (!peer.joined) {
    const auto sameHost = [&](const JoinedPeer& member) {
      return member.address->host == address.host;
    };
    if (static_cast<std::size_t>(std::count_if(joined_.begin(), joined_.end(), sameHost)) >=
        peersPerHost_) {
      return JoinResult::hostFull;
    }
    const auto id = joined_.size() < kJoinedLimit ? allocateID(nextID_, joined_) : std::nullopt;
    if (!id) {
      return JoinResult::full;
    }
    peer.id = *id;
    peer.audio.emplace(kAudioBurst, now);
    unjoined_.erase(found->second.unjoined);
  }
  peer.name = firstGraphemes(name, wire::kNameLimit);
  peer.role = role.name;
  peer.talkMask = role.talkMask;
  peer.listenMask = role.listenMask;
  peer.features = features;
  peer.joined = true;
  joinedChanged();
  return JoinResult::joined;
}

bool PeerTable::allowCall(const platform::PeerAddress& address, platform::MonoTime now) {
  const auto found = peers_.find(address);
  if (found == peers_.end() || !found->second.peer.joined) {
    return false;
  }
  std::optional<TokenBucket>& calls = found->second.peer.calls;
  if (!calls) {
    calls.emplace(kCallBurst, now);
  }
  return calls->take(now, kCallBurst, kCallsPerSecond);
}

std::optional<Peer> PeerTable::remove(const platform::PeerAddress& address) {
  const auto found = peers_.find(address);
  if (found == peers_.end()) {
    return std::nullopt;
  }
  Peer peer = std::move(found->second.peer);
  erase(found);
  return peer;
}

void PeerTable::erase(
    std::unordered_map<platform::PeerAddress, Entry, platform::PeerAddressHash>::iterator entry) {
  const bool joined = entry->second.peer.joined;
  if (!joined) {
    unjoined_.erase(entry->second.unjoined);
  }
  peers_.erase(entry);
  if (joined) {
    joinedChanged();
  }
}

std::vector<platform::PeerAddress> PeerTable::silentSince(platform::MonoTime cutoff) const {
  std::vector<platform::PeerAddress> silent;
  for (const auto& [address, entry] : peers_) {
    if (entry.peer.lastSeen < cutoff) {
      silent.push_back(address);
    }
  }
  return silent;
}

const std::string& PeerTable::rosterDatagram() {
  if (rosterStale_) {
    wire::RosterMsg roster;
    roster.users.reserve(joined_.size());
    for (const JoinedPeer& member : joined_) {
      const Peer& peer = peers_.find(*member.address)->second.peer;
      roster.users.push_back({peer.id, peer.name, peer.role});
    }
    roster_ = roster.users.empty() ? std::string()
                                   : encodeRosterWithin(std::move(roster), wire::kMaxDatagram);
    rosterStale_ = false;
  }
  return roster_;
}

// Joins and departures are rare next to datagrams: the fan-out array is rebuilt whole, so that
// the paths that read it never have to; the roster waits until it is sent.
void PeerTable::joinedChanged() {
  joined_.clear();
  for (const auto& [address, entry] : peers_) {
    if (entry.peer.joined) {
      joined_.push_back(
          {entry.peer.id, entry.peer.features, entry.peer.listenMask, address.transport, &address});
    }
  }
  std::sort(joined_.begin(), joined_.end(),
            [](const JoinedPeer& a, const JoinedPeer& b) { return a.id < b.id; });
  rosterStale_ = true;
}

std::string encodeRosterWithin(wire::RosterMsg roster, std::size_t limit) {
  std::string datagram = wire::encodeControl(roster);
  if (datagram.size() <= limit) {
    return datagram;
  }
  // The largest length every name may keep, found by halving: few encodings, and only for
  // rosters no real crew makes.
  const wire::RosterMsg whole = roster;
  std::size_t longest = 0;
  for (const wire::RosterUser& user : whole.users) {
    longest = std::max(longest, user.name.size());
  }
  const auto cutTo = [&](std::size_t cap) {
    for (std::size_t i = 0; i < whole.users.size(); ++i) {
      roster.users[i].name = std::string(graphemesWithin(whole.users[i].name, cap));
    }
    return wire::encodeControl(roster);
  };
  std::size_t low = 0;  // the answer when even empty names do not fit
  std::size_t high = longest;
  datagram = cutTo(0);
  while (low < high) {
    const std::size_t middle = low + (high - low + 1) / 2;
    std::string attempt = cutTo(middle);
    if (attempt.size() <= limit) {
      low = middle;
      datagram = std::move(attempt);
    } else {
      high = middle - 1;
    }
  }
  return datagram;
}

}  // namespace parlavox
