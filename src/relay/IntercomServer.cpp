#include "relay/IntercomServer.h"

#include <fmt/format.h>

#include <array>
#include <cstring>
#include <vector>

#include "announce/AnnouncementCommand.h"
#include "config/Names.h"
#include "config/Protocol.h"
#include "relay/AudioRelay.h"
#include "relay/ChannelMask.h"
#include "relay/PeerIds.h"
#include "relay/Roster.h"

namespace parlavox {
namespace {

constexpr const char* kUnknownRole = "That role no longer exists. Pick another.";
constexpr const char* kFull = "The intercom is full.";
constexpr std::size_t kNameLimit = 24;

}  // namespace

std::shared_ptr<IntercomServer> IntercomServer::create(Config config, ServerPlatform platform) {
  return std::make_shared<IntercomServer>(std::move(config), std::move(platform));
}

IntercomServer::IntercomServer(Config config, ServerPlatform platform)
    : config_(std::move(config)),
      platform_(std::move(platform)),
      oscListener_(platform_.network, platform_.console),
      announcer_(platform_.sayCommand, platform_.console, platform_.clock) {}

void IntercomServer::start(std::uint16_t port) {
  listener_ = platform_.network.listenFlows(port);
  platform_.advertiser.advertise(config_.show, "_intercom._udp", port);
  std::weak_ptr<IntercomServer> weak = weak_from_this();
  listener_->start({
      .onReady =
          [this, port] {
            platform_.console.print(
                fmt::format("✅ Listening on UDP port {} and advertising on Bonjour", port));
          },
      .onFlow =
          [weak](std::shared_ptr<platform::Flow> conn) {
            if (auto self = weak.lock()) {
              self->accept(std::move(conn));
            }
          },
      .onFailed =
          [this](std::string_view error) {
            platform_.console.print(fmt::format("❌ Listener failed: {}", error));
            platform_.exit(1);
          },
  });
  platform_.loop.every(sweepPeriod, [weak] {
    if (auto self = weak.lock()) {
      self->sweep();
    }
  });
  oscListener_.setOnMessage([weak](const std::string& address, const std::string& text) {
    if (auto self = weak.lock()) {
      self->handleOSC(address, text);
    }
  });
  oscListener_.start(config_.oscPort);
  platform_.console.print(
      fmt::format("✅ Listening for OSC announcements on UDP port {}", config_.oscPort));
}

void IntercomServer::accept(std::shared_ptr<platform::Flow> conn) {
  auto peer = std::make_shared<Peer>();
  peer->conn = std::move(conn);
  peer->lastSeen = platform_.clock.now();
  const std::uint64_t key = peer->conn->key();
  peers_.emplace(key, peer);
  std::weak_ptr<IntercomServer> weak = weak_from_this();
  // The peer owns its flow, so the flow's handler holds the peer weakly; while a datagram is being
  // handled it holds it strongly, so a "bye" cannot pull the peer away from under the handler.
  peer->conn->start({
      .onDatagram =
          [weak, weakPeer = std::weak_ptr<Peer>(peer)](Bytes datagram) {
            auto self = weak.lock();
            auto held = weakPeer.lock();
            if (self && held) {
              self->receive(held, datagram);
            }
          },
      .onEnd =
          [weak, key](platform::Flow::End, std::string_view) {
            if (auto self = weak.lock()) {
              self->remove(key);
            }
          },
  });
}

void IntercomServer::receive(const std::shared_ptr<Peer>& peer, Bytes datagram) {
  if (datagram.empty()) {
    return;  // says nothing, keeps nobody alive
  }
  peer->lastSeen = platform_.clock.now();
  switch (datagram[0]) {
    case protocol::kindAudio:
      relayAudio(datagram, *peer, listeners_);
      break;
    case protocol::kindControl:
      handleControl(datagram.subspan(1), peer);
      break;
    default:
      break;
  }
}

void IntercomServer::remove(std::uint64_t key) {
  const auto found = peers_.find(key);
  if (found == peers_.end()) {
    return;
  }
  const std::shared_ptr<Peer> peer = found->second;
  peers_.erase(found);
  peer->conn->cancel();
  if (peer->joined) {
    platform_.console.print(fmt::format("👋 {} ({}) left", peer->name, peer->role));
    joinedChanged();
  }
}

void IntercomServer::sweep() {
  const platform::MonoTime cutoff = platform_.clock.now() - silenceLimit;
  std::vector<std::shared_ptr<Peer>> silent;
  for (const auto& [key, peer] : peers_) {
    if (peer->lastSeen < cutoff) {
      silent.push_back(peer);
    }
  }
  for (const auto& peer : silent) {
    if (peer->joined) {
      platform_.console.print(fmt::format("⏱️  {} timed out", peer->name));
    }
    remove(peer->conn->key());
  }
}

void IntercomServer::handleControl(Bytes payload, const std::shared_ptr<Peer>& peer) {
  const std::optional<Incoming> message = decodeIncoming(payload);
  if (!message) {
    return;
  }
  if (message->t == "hi") {
    send(ConfigMsg{config_.channels, config_.roles}, *peer);
  } else if (message->t == "join") {
    join(*message, *peer);
  } else if (message->t == "ping") {
    send(SimpleMsg{peer->joined ? "pong" : "rejoin", std::nullopt}, *peer);
  } else if (message->t == "bye") {
    remove(peer->conn->key());
  }
}

void IntercomServer::join(const Incoming& message, Peer& peer) {
  const Role* role = nullptr;
  if (message.role) {
    for (const Role& candidate : config_.roles) {
      if (sameName(*message.role, candidate.name)) {
        role = &candidate;
        break;
      }
    }
  }
  if (role == nullptr) {
    send(SimpleMsg{"error", kUnknownRole}, peer);
    return;
  }
  if (!peer.joined) {
    const std::optional<std::uint16_t> id = allocateID(nextID_, peers_);
    if (!id) {
      send(SimpleMsg{"error", kFull}, peer);
      return;
    }
    peer.id = *id;
  }
  peer.name = firstGraphemes(message.name.value_or("Crew"), kNameLimit);
  peer.role = role->name;
  peer.talkMask = maskFor(role->talk, config_.channels, platform_.console);
  peer.listenMask = maskFor(role->listen, config_.channels, platform_.console);
  peer.joined = true;
  platform_.console.print(fmt::format("🎧 {} joined as {}", peer.name, peer.role));
  send(WelcomeMsg{peer.id, peer.role, peer.talkMask, peer.listenMask}, peer);
  joinedChanged();
}

void IntercomServer::joinedChanged() {
  listeners_ = listenersOf(peers_);
  broadcastRoster();
}

template <typename Message>
void IntercomServer::send(const Message& message, const Peer& to) {
  const std::string datagram = encodeControl(message);
  if (!datagram.empty()) {
    to.conn->send(asBytes(datagram));
  }
}

void IntercomServer::broadcastRoster() {
  const RosterMsg roster = makeRoster(peers_);
  if (roster.users.empty()) {
    return;
  }
  const std::string datagram = encodeControl(roster);  // the same bytes for everyone
  if (datagram.empty()) {
    return;
  }
  for (const Listener& listener : listeners_) {
    listener.conn->send(asBytes(datagram));
  }
}

void IntercomServer::handleOSC(const std::string& address, const std::string& text) {
  const AnnouncementTarget target = resolveAnnouncement(address, config_.channels);
  switch (target.kind) {
    case AnnouncementTarget::Kind::ignore:
      return;
    case AnnouncementTarget::Kind::unknownChannel:
      platform_.console.print(fmt::format("⚠️  OSC: unknown channel \"{}\"", target.channel));
      return;
    case AnnouncementTarget::Kind::announce:
      break;
  }
  platform_.console.print(fmt::format("📣 Announcing: \"{}\"", text));
  // Runs on the announcer's thread: it touches no server state, only hands the frame over.
  announcer_.speak(
      text, [weak = weak_from_this(), loop = &platform_.loop, mask = target.mask](Bytes frame) {
        if (weak.expired()) {
          return;
        }
        loop->post([weak, mask, copy = std::vector<std::uint8_t>(frame.begin(), frame.end())] {
          if (auto self = weak.lock()) {
            self->broadcastAnnouncement(copy, mask);
          }
        });
      });
}

void IntercomServer::broadcastAnnouncement(Bytes frame, std::uint32_t mask) {
  ++announcerSeq_;  // every frame takes a number, heard or not
  const std::array<std::uint8_t, 9> header = announcementHeader(mask, announcerSeq_);
  for (const Listener& listener : listeners_) {
    if ((listener.listenMask & mask) != 0) {
      listener.conn->send(header, frame);
    }
  }
}

}  // namespace parlavox
