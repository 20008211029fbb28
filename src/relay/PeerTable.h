#pragma once

#include <cstdint>
#include <list>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "config/Show.h"
#include "relay/Peer.h"
#include "wire/ControlMessages.h"

namespace parlavox {

// Every client the intercom knows, joined or not: the one place a client's state lives. It keeps
// the rules that hold among peers itself: one peer per address, names of at most wire::kNameLimit
// characters, ids unique among the joined and never 0 or the announcer's, and the joined peers in
// ascending order of id for the fan-outs and the roster. Its memory is bounded whatever arrives: at
// most kUnjoinedLimit peers that have not joined (any source address can make one) and kJoinedLimit
// joined ones. Loop thread only; it prints and sends nothing.
class PeerTable {
 public:
  static constexpr std::size_t kUnjoinedLimit = 4096;
  static constexpr std::size_t kJoinedLimit = 500;  // more than any show's crew
  // A second of a talker's audio at once, as after a stall; the rate is the show's.
  static constexpr double kAudioBurst = 50;

  enum class JoinResult { joined, full, hostFull };

  // At most `peersPerHost` joined peers share one host address; each may send `audioPerSecond`
  // audio datagrams a second after a burst of kAudioBurst.
  explicit PeerTable(std::size_t peersPerHost = Config{}.peersPerHost,
                     double audioPerSecond = Config{}.audioPerTalker)
      : peersPerHost_(peersPerHost), audioPerSecond_(audioPerSecond) {}

  // The peer at `from`, a new unjoined one if there is none, updated for `datagram`: anything at
  // all refreshes its lastSeen; audio of a joined peer its lastAudio and link health too.
  // A new peer beyond kUnjoinedLimit evicts the oldest unjoined one, whose transport is told with
  // end(); joined peers are never evicted.
  const Peer& heardFrom(const platform::PeerAddress& from, platform::MonoTime now, Bytes datagram);

  // Calls `report` for each joined peer whose audio loss has crossed the warning line, either way,
  // since it was last reported (see LinkHealth::lossAlarm).
  template <typename Report>
  void checkLinks(platform::MonoTime now, Report report) {
    for (const JoinedPeer& member : joined_) {
      Peer& peer = peers_.find(*member.address)->second.peer;
      if (const auto alarm = peer.health.lossAlarm(now)) {
        report(static_cast<const Peer&>(peer), *alarm);
      }
    }
  }

  // The peer at `address`, or nothing.
  const Peer* find(const platform::PeerAddress& address) const;

  // Joins the peer at `address` as `role` under `name` (cut to wire::kNameLimit characters), or
  // joins it again: a first join takes the next free id, a later one keeps it. Refused, the peer
  // unchanged: `full` when kJoinedLimit peers have joined already or every id is taken, `hostFull`
  // when peersPerHost peers from its host have. Its audio rate starts full at `now`.
  JoinResult join(const platform::PeerAddress& address, std::string_view name,
                  const RoleRights& role, wire::Features features, platform::MonoTime now);

  // Whether the joined peer at `address` may call now: kCallBurst calls at once, then one every
  // 1/kCallsPerSecond seconds, so that a caller leaning on the key makes a few calls, not a flood.
  static constexpr double kCallBurst = 3;
  static constexpr double kCallsPerSecond = 0.5;
  bool allowCall(const platform::PeerAddress& address, platform::MonoTime now);

  // Takes the peer at `address` out of the table: what it was, or nothing if it was not there.
  std::optional<Peer> remove(const platform::PeerAddress& address);

  // The peers silent since before `cutoff`, in the table's own order.
  std::vector<platform::PeerAddress> silentSince(platform::MonoTime cutoff) const;

  // How many joined peers have sent audio since `cutoff`.
  std::size_t talkingSince(platform::MonoTime cutoff) const;

  // Every joined peer, in ascending order of id.
  std::span<const JoinedPeer> joined() const { return joined_; }
  // The "roster" datagram of the joined peers, encoded when first asked for after a change; empty
  // with nobody joined. It always fits one datagram: the longest names are shortened if need be.
  const std::string& rosterDatagram();

  std::size_t size() const { return peers_.size(); }

 private:
  struct Entry {
    Peer peer;
    std::list<platform::PeerAddress>::iterator unjoined;  // its place in unjoined_ until it joins
  };
  void erase(std::unordered_map<platform::PeerAddress, Entry, platform::PeerAddressHash>::iterator);
  void joinedChanged();

  const std::size_t peersPerHost_;
  const double audioPerSecond_;
  std::unordered_map<platform::PeerAddress, Entry, platform::PeerAddressHash> peers_;
  std::list<platform::PeerAddress> unjoined_;  // oldest first
  std::vector<JoinedPeer> joined_;
  std::string roster_;
  bool rosterStale_ = false;
  std::uint16_t nextID_ = 1;
};

// Any thread; pure. `roster` encoded as one "roster" datagram of at most `limit` bytes: when it
// would not fit, every name longer than some byte length is cut, at a grapheme boundary, to the
// most that lets it fit.
std::string encodeRosterWithin(wire::RosterMsg roster, std::size_t limit);

// Any thread; pure. The id for a peer's first join: the first id from `nextID` upward (wrapping)
// that no joined peer holds, never 0 (no id) and never 0xFFFF (the announcer's). Advances
// `nextID` past it. Nothing when every id is held; at most one pass over the id space.
std::optional<std::uint16_t> allocateID(std::uint16_t& nextID, std::span<const JoinedPeer> joined);

}  // namespace parlavox
