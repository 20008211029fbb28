#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "announce/Announcer.h"
#include "announce/OSCListener.h"
#include "config/Config.h"
#include "platform/Advertiser.h"
#include "platform/Clock.h"
#include "platform/Console.h"
#include "platform/Datagram.h"
#include "platform/EventLoop.h"
#include "relay/ControlMessages.h"
#include "relay/Listeners.h"
#include "relay/Peer.h"

namespace parlavox {

// What the server needs of the machine. Everything here outlives the server.
struct ServerPlatform {
  platform::EventLoop& loop;
  platform::Network& network;
  platform::Advertiser& advertiser;
  platform::Clock& clock;
  platform::Console& console;
  std::string sayCommand;                // the speech command the announcer runs
  std::function<void(int status)> exit;  // ends the process when the intercom listener fails
};

// The intercom: owns the peer table, the listeners, the liveness sweep and the announcer. All of
// its state lives on the server loop; nothing here takes a lock.
class IntercomServer : public std::enable_shared_from_this<IntercomServer> {
 public:
  static constexpr auto sweepPeriod = std::chrono::seconds(2);
  static constexpr auto silenceLimit = std::chrono::seconds(8);

  // Any thread. Starts nothing and prints nothing.
  static std::shared_ptr<IntercomServer> create(Config config, ServerPlatform platform);

  // Main thread, once, before the loop runs. Opens the intercom port (advertised by DNS-SD), the
  // sweep and the OSC port. Throws std::system_error when a port cannot be had.
  void start(std::uint16_t port);

  // Loop thread. The rest of the server's work, exposed for the loop's handlers and for tests.
  void accept(std::shared_ptr<platform::Flow> conn);
  void receive(const std::shared_ptr<Peer>& peer, Bytes datagram);
  void remove(std::uint64_t key);
  void sweep();
  void handleControl(Bytes payload, const std::shared_ptr<Peer>& peer);
  void broadcastRoster();
  void handleOSC(const std::string& address, const std::string& text);
  void broadcastAnnouncement(Bytes frame, std::uint32_t mask);

  // Loop thread. For tests and diagnostics.
  const PeerTable& peers() const { return peers_; }

  // Private by intent: use create().
  IntercomServer(Config config, ServerPlatform platform);

 private:
  template <typename Message>
  void send(const Message& message, const Peer& to);
  void join(const Incoming& message, Peer& peer);
  // Who is joined, or what they hear, has changed: the fan-outs' listeners and everyone's roster.
  void joinedChanged();

  const Config config_;
  ServerPlatform platform_;
  PeerTable peers_;
  Listeners listeners_;  // the joined peers of peers_, by id; kept in step by joinedChanged()
  std::uint16_t nextID_ = 1;
  std::unique_ptr<platform::FlowListener> listener_;
  OSCListener oscListener_;
  Announcer announcer_;
  std::uint16_t announcerSeq_ = 0;
};

}  // namespace parlavox
