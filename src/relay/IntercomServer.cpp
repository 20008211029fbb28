#include "relay/IntercomServer.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cmath>

#include "config/Printable.h"
#include "relay/AudioRelay.h"
#include "wire/Protocol.h"

namespace parlavox {
namespace {

constexpr const char* kUnknownRole = "That role no longer exists. Pick another.";
constexpr const char* kFull = "The intercom is full.";
constexpr const char* kRemoved = "The operator removed you from the intercom. You may join again.";
constexpr const char* kRefused = "The operator removed you from the intercom.";

// The names of `mask`'s channels, for the operator.
std::string channelNames(const std::vector<std::string>& channels, std::uint32_t mask) {
  std::vector<std::string> names;
  for (std::size_t i = 0; i < channels.size() && i < kChannelLimit; ++i) {
    if ((mask >> i & 1U) != 0) {
      names.push_back(printable(channels[i]));
    }
  }
  return fmt::format("{}", fmt::join(names, ", "));
}

}  // namespace

std::shared_ptr<IntercomServer> IntercomServer::create(Show show, ServerPlatform platform,
                                                       ExitPolicy exit) {
  return std::shared_ptr<IntercomServer>(
      new IntercomServer(std::move(show), platform, std::move(exit)));
}

IntercomServer::IntercomServer(Show show, ServerPlatform platform, ExitPolicy exit)
    : show_(std::move(show)),
      platform_(platform),
      exit_(std::move(exit)),
      configReply_(wire::encodeControl(wire::ConfigMsg{show_.channels(), show_.config().roles})),
      peers_(show_.config().peersPerHost, show_.config().audioPerTalker) {}

void IntercomServer::start(platform::PeerListener& intercom, std::function<void()> onReady) {
  port_ = intercom.port();
  // Called on the advertiser's thread, which may outlive the server: it holds only the loop.
  platform_.advertiser.advertise(
      show_.name(), wire::kServiceType, port_,
      [&loop = platform_.loop, weak = weak_from_this()](bool advertised) {
        loop.post([weak, advertised] {
          if (auto self = weak.lock()) {
            self->advertisedChanged(advertised);
          }
        });
      });
  intercom.start(*this, {
                            .onReady =
                                [this, onReady = std::move(onReady)] {
                                  listening_ = true;
                                  reportListening();
                                  if (onReady) {
                                    onReady();
                                  }
                                },
                            .onFailed =
                                [this](std::string_view error) {
                                  platform_.console.error(
                                      platform::EventKind::service,
                                      fmt::format("❌ Listener failed: {}", error));
                                  exit_(1);
                                },
                        });
  platform_.loop.every(kSweepPeriod, [weak = weak_from_this()] {
    if (auto self = weak.lock()) {
      self->sweep();
    }
  });
  platform_.loop.every(kLinkCheckPeriod, [weak = weak_from_this()] {
    if (auto self = weak.lock()) {
      self->checkLinks();
    }
  });
}

// The operator is told the port listens, and whether crew devices can find it by name: the whole
// line again once the advertisement is up after it was not (as after an Avahi restart).
void IntercomServer::reportListening() {
  platform_.console.info(
      platform::EventKind::report,
      advertised_ ? fmt::format("✅ Listening on UDP port {} and advertising on Bonjour", port_)
                  : fmt::format("✅ Listening on UDP port {}", port_));
}

void IntercomServer::advertisedChanged(bool advertised) {
  advertised_ = advertised;
  if (advertised && listening_) {
    reportListening();
  }
}

void IntercomServer::deliver(const platform::PeerAddress& from, Bytes datagram) {
  // From outside the crew's networks, or refused: as if nothing were listening.
  if (!admits(from.host)) {
    return;
  }
  // A new address is a new peer, even for a datagram that says nothing.
  const Peer& peer = peers_.heardFrom(from, platform_.clock.now(), datagram);
  if (datagram.empty()) {
    return;
  }
  switch (datagram[0]) {
    case wire::kAudioKind:
      if (!peer.audioWithinRate) {
        ++counts_.audioDropped;  // without a word: a flood is not worth an answer
        break;
      }
      counts_.audioReceived += peer.joined ? 1U : 0U;
      counts_.copiesSent += relayAudio(datagram, peer, peers_.joined());
      break;
    case wire::kControlKind:
      handleControl(datagram.subspan(1), peer);
      break;
    default:
      break;
  }
}

void IntercomServer::ended(const platform::PeerAddress& peer) {
  remove(peer);
}

bool IntercomServer::admits(const platform::HostAddress& host) const {
  return crewMayComeFrom(show_.config().crewNetworks, host) &&
         (refused_.empty() || !refused_.contains(host));  // no hashing per datagram until then
}

std::optional<Removal> IntercomServer::removeMember(std::uint16_t id, bool refuse) {
  const auto joined = peers_.joined();
  const auto member = std::find_if(joined.begin(), joined.end(),
                                   [id](const JoinedPeer& each) { return each.id == id; });
  if (member == joined.end()) {
    return std::nullopt;
  }
  const platform::PeerAddress address = *member->address;
  const Peer* peer = peers_.find(address);
  Removal removal{peer->name, peer->role, address.host, {}};
  std::vector<platform::PeerAddress> leaving{address};
  if (refuse) {
    refused_.insert(address.host);
    for (const JoinedPeer& other : joined) {
      if (other.address->host == address.host && other.id != id) {
        const Peer* each = peers_.find(*other.address);
        removal.others.push_back(
            fmt::format("{} ({})", printable(each->name), printable(each->role)));
        leaving.push_back(*other.address);
      }
    }
  }
  for (const platform::PeerAddress& each : leaving) {
    if (const Peer* gone = peers_.find(each);
        gone != nullptr && gone->features.has(wire::Feature::removed)) {
      send(wire::SimpleMsg{wire::MessageType::error, refuse ? kRefused : kRemoved}, each);
    }
    remove(each, true);
  }
  // Those not yet joined from a refused address go as well: they would hear nothing more.
  if (refuse) {
    for (const platform::PeerAddress& each : peers_.silentSince(platform::MonoTime::max())) {
      if (each.host == address.host) {
        remove(each, true);
      }
    }
  }
  return removal;
}

void IntercomServer::remove(platform::PeerAddress address, bool quietly) {
  const std::optional<Peer> peer = peers_.remove(address);
  if (!peer) {
    return;
  }
  address.transport->end(address);
  if (peer->joined) {
    hostsAtCap_.erase(address.host);  // below the cap again: a next refusal is news
    rosterChanged();
    if (quietly) {
      return;
    }
    platform_.console.info(
        platform::EventKind::crew,
        fmt::format("👋 {} ({}) left", printable(peer->name), printable(peer->role)));
  }
}

void IntercomServer::sweep() {
  const platform::MonoTime cutoff = platform_.clock.now() - wire::kSilenceLimit;
  for (const platform::PeerAddress& address : peers_.silentSince(cutoff)) {
    if (const Peer* peer = peers_.find(address); peer != nullptr && peer->joined) {
      platform_.console.info(platform::EventKind::crew,
                             fmt::format("⏱️  {} timed out", printable(peer->name)));
    }
    remove(address);
  }
}

// The operator hears of a crew member whose audio is breaking up, and of its recovery, at most
// once in LinkHealth::kWindowSeconds each.
void IntercomServer::checkLinks() {
  peers_.checkLinks(platform_.clock.now(), [this](const Peer& peer, const LossAlarm& alarm) {
    const long percent = std::lround(alarm.ratio * 100.0);
    const std::string line =
        alarm.raised ? fmt::format("⚠️  {} ({}): {}% audio lost in the last 10 s",
                                   printable(peer.name), printable(peer.role), percent)
                     : fmt::format("✅ {} ({}): audio back to normal, {}% lost in the last 10 s",
                                   printable(peer.name), printable(peer.role), percent);
    platform_.console.print({platform::EventKind::link,
                             alarm.raised ? platform::Severity::warning : platform::Severity::info,
                             line});
  });
}

CrewCount IntercomServer::crew() const {
  return {peers_.joined().size(), peers_.talkingSince(platform_.clock.now() - kTalkingWindow)};
}

void IntercomServer::handleControl(Bytes payload, const Peer& peer) {
  const std::optional<wire::Incoming> message = wire::decodeIncoming(payload);
  if (!message) {
    return;
  }
  using wire::MessageType;
  switch (message->t) {
    case MessageType::hi:
      if (configReplies_.allow(peer.address.host, platform_.clock.now())) {
        peer.address.transport->send(peer.address, asBytes(configReply_));
      }
      break;
    case MessageType::join:
      if (joins_.allow(peer.address.host, platform_.clock.now())) {
        join(*message, peer);
      }
      break;
    case MessageType::ping:
      send(wire::SimpleMsg{peer.joined ? MessageType::pong : MessageType::rejoin, std::nullopt},
           peer.address);
      break;
    case MessageType::bye:
      remove(peer.address);  // `peer` is gone from here on
      break;
    case MessageType::call:
      // Narrowed as audio is, before the limit: a call on nothing costs the caller nothing.
      if (const std::uint32_t mask = message->mask.value_or(0) & peer.talkMask;
          peer.joined && mask != 0 && peers_.allowCall(peer.address, platform_.clock.now())) {
        call(peer.id, mask, fmt::format("{} ({})", printable(peer.name), printable(peer.role)));
      }
      break;
    default:
      break;  // the server's own messages mean nothing coming from a client
  }
}

void IntercomServer::join(const wire::Incoming& message, const Peer& peer) {
  const RoleRights* role = message.role ? show_.findRole(*message.role) : nullptr;
  if (role == nullptr) {
    send(wire::SimpleMsg{wire::MessageType::error, kUnknownRole}, peer.address);
    return;
  }
  const auto joined = peers_.join(peer.address, message.name.value_or("Crew"), *role,
                                  message.features, platform_.clock.now());
  if (joined != PeerTable::JoinResult::joined) {
    ++counts_.joinsRefused;
    if (joined == PeerTable::JoinResult::hostFull && hostsAtCap_.insert(peer.address.host).second) {
      platform_.console.warning(
          platform::EventKind::crew,
          fmt::format("⚠️  Intercom full for {}: {} crew joined from that address, the most "
                      "allowed; \"peersPerHost\" in the roles file raises it",
                      platform::toString(peer.address.host), show_.config().peersPerHost));
    }
    send(wire::SimpleMsg{wire::MessageType::error, kFull}, peer.address);
    return;
  }
  // The operator hears of a role's unknown channels each time its masks are put to use.
  for (const std::string& channel : role->unknownChannels) {
    platform_.console.warning(
        platform::EventKind::service,
        fmt::format("⚠️  Role refers to unknown channel \"{}\"", printable(channel)));
  }
  platform_.console.info(
      platform::EventKind::crew,
      fmt::format("🎧 {} joined as {}", printable(peer.name), printable(peer.role)));
  send(wire::WelcomeMsg{peer.id, peer.role, peer.talkMask, peer.listenMask}, peer.address);
  rosterChanged();
}

template <typename Message>
void IntercomServer::send(const Message& message, const platform::PeerAddress& to) {
  const std::string datagram = wire::encodeControl(message);
  if (!datagram.empty()) {
    to.transport->send(to, asBytes(datagram));
  }
}

// The first change after a quiet period goes out at once; later ones wait for the period's end
// and go out together.
void IntercomServer::rosterChanged() {
  if (rosterScheduled_) {
    return;
  }
  const platform::MonoTime now = platform_.clock.now();
  if (!lastRoster_ || now - *lastRoster_ >= kRosterPeriod) {
    broadcastRoster();
    return;
  }
  rosterScheduled_ = true;
  const auto wait =
      std::chrono::ceil<std::chrono::milliseconds>(*lastRoster_ + kRosterPeriod - now);
  platform_.loop.after(wait, [weak = weak_from_this()] {
    if (auto self = weak.lock()) {
      self->rosterScheduled_ = false;
      self->broadcastRoster();
    }
  });
}

void IntercomServer::broadcastRoster() {
  lastRoster_ = platform_.clock.now();
  const std::string& roster = peers_.rosterDatagram();  // the same bytes for everyone
  if (roster.empty()) {
    return;
  }
  for (const JoinedPeer& member : peers_.joined()) {
    member.send(asBytes(roster));
  }
}

void IntercomServer::sendToChannels(std::uint32_t mask, Bytes head, Bytes body) {
  for (const JoinedPeer& member : peers_.joined()) {
    if ((member.listenMask & mask) != 0) {
      member.send(head, body);
    }
  }
}

void IntercomServer::sendAnnouncementText(const std::string& text, std::uint32_t mask) {
  for (const JoinedPeer& member : peers_.joined()) {
    if (const std::uint32_t share = member.listenMask & mask;
        share != 0 && member.features.has(wire::Feature::text)) {
      send(wire::AnnounceMsg{text, share}, *member.address);
    }
  }
}

void IntercomServer::callFromShowControl(std::uint32_t mask) {
  call(wire::announcerID, mask, "Show control");
}

// Those who understand call messages get one at once; the rest hear the chime, which needs the
// announcer's voice free and so comes through the callback.
void IntercomServer::call(std::uint16_t caller, std::uint32_t mask, std::string_view who) {
  // Everyone called can name the caller, even one who joined a moment ago: a roster held back goes
  // first (the held one still follows, the same list again).
  if (rosterScheduled_) {
    broadcastRoster();
  }
  bool chime = false;
  for (const JoinedPeer& member : peers_.joined()) {
    const std::uint32_t share = member.listenMask & mask;
    if (share == 0 || member.id == caller) {
      continue;
    }
    if (member.features.has(wire::Feature::call)) {
      send(wire::CallMsg{caller, share}, *member.address);
    } else {
      chime = true;
    }
  }
  ++counts_.calls;
  platform_.console.info(platform::EventKind::call,
                         fmt::format("📞 {} called {}", who, channelNames(show_.channels(), mask)));
  if (chime && chime_) {
    chime_(caller, mask);
  }
}

void IntercomServer::sendChime(std::uint16_t caller, std::uint32_t mask,
                               std::span<std::uint8_t, wire::AudioHeader::kSize> head, Bytes body) {
  for (const JoinedPeer& member : peers_.joined()) {
    const std::uint32_t share = member.listenMask & mask;
    if (share != 0 && member.id != caller && !member.features.has(wire::Feature::call)) {
      wire::rewriteMask(head, share);
      member.send(head, body);
    }
  }
}

}  // namespace parlavox
