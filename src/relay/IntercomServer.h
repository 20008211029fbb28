#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "config/Show.h"
#include "platform/Advertiser.h"
#include "platform/Clock.h"
#include "platform/Console.h"
#include "platform/EventLoop.h"
#include "platform/Network.h"
#include "relay/Crew.h"
#include "relay/PeerTable.h"
#include "relay/RateLimiter.h"
#include "wire/ControlMessages.h"

namespace parlavox {

// What the relay needs of the machine. Everything here outlives the server.
struct ServerPlatform {
  platform::EventLoop& loop;
  platform::Advertiser& advertiser;
  platform::Clock& clock;
  platform::Console& console;
};

// What the relay has done since the start, for the metrics.
struct RelayCounts {
  std::uint64_t audioReceived = 0;  // audio datagrams from joined talkers
  std::uint64_t copiesSent = 0;     // copies of them relayed to listeners
  std::uint64_t calls = 0;          // calls made, by the crew and by show control
  std::uint64_t audioDropped = 0;   // audio datagrams beyond their talker's rate
  std::uint64_t joinsRefused = 0;   // for a full intercom, or a host at its cap
};

// A crew member the operator removed, and who else went with it when its address was refused.
struct Removal {
  std::string name;
  std::string role;
  platform::HostAddress host;
  std::vector<std::string> others;  // "Name (Role)" of the others joined from a refused address
};

struct CrewCount {
  std::size_t joined = 0;
  std::size_t talking = 0;  // of the joined, those who sent audio within kTalkingWindow
};

// The intercom relay: serves the peers of its transports (joining, control messages, the audio
// fan-out, rosters, liveness). All of its state lives on the server loop; nothing here takes a
// lock. Announcements and show control reach it only as the Crew.
class IntercomServer final : public platform::Transport::Receiver,
                             public Crew,
                             public std::enable_shared_from_this<IntercomServer> {
 public:
  // What happens when the intercom port is lost for good: the process ends with `status`.
  using ExitPolicy = std::function<void(int status)>;
  // Rings the call chime for a call from `caller` on `mask` (see Crew::sendChime). Loop thread.
  using ChimeCallback = std::function<void(std::uint16_t caller, std::uint32_t mask)>;

  static constexpr auto kSweepPeriod = std::chrono::seconds(2);
  // Rosters go out at most once per this period, the last one always the current crew: a burst
  // of joins or departures costs each peer a few rosters, not one per event.
  static constexpr auto kRosterPeriod = std::chrono::milliseconds(200);
  static constexpr auto kTalkingWindow = std::chrono::seconds(1);
  static constexpr auto kLinkCheckPeriod = std::chrono::seconds(1);

  // Any thread. Starts nothing and prints nothing.
  static std::shared_ptr<IntercomServer> create(Show show, ServerPlatform platform,
                                                ExitPolicy exit);

  // Main thread, once, before the loop runs. Serves the peers of the intercom's port, which
  // outlives the server, advertises it by DNS-SD and starts the liveness sweep; `onReady` runs on
  // the loop thread once the port answers. The peers of any other transport (the browsers') are
  // served as they come, through deliver() and ended().
  void start(platform::PeerListener& intercom, std::function<void()> onReady = {});
  // Main thread, before the loop runs. Who rings the chime for the called peers that did not say
  // they understand call messages; without one, they are not called.
  void setChimeCallback(ChimeCallback callback) { chime_ = std::move(callback); }

  // Loop thread. The joined peer `id` leaves: it is sent why, when it said it understands that,
  // and its session ends. With `refuse`, everyone at its host address goes too, and that address
  // gets no answer from now on (see admits()). Nothing when no peer has joined under `id`. Prints
  // nothing: the operator's action says what happened.
  std::optional<Removal> removeMember(std::uint16_t id, bool refuse);
  // Loop thread. Whether `host` may reach the intercom at all: from the crew's
  // networks, and not refused by the operator. Anyone else is answered as if nothing listened.
  bool admits(const platform::HostAddress& host) const;

  // Loop thread.
  CrewCount crew() const;
  const PeerTable& peers() const { return peers_; }
  RelayCounts counts() const { return counts_; }

  // Loop thread: the Crew.
  void sendToChannels(std::uint32_t mask, Bytes head, Bytes body) override;
  void sendAnnouncementText(const std::string& text, std::uint32_t mask) override;
  void callFromShowControl(std::uint32_t mask) override;
  void sendChime(std::uint16_t caller, std::uint32_t mask,
                 std::span<std::uint8_t, wire::AudioHeader::kSize> head, Bytes body) override;

  // Loop thread; called by the transports.
  void deliver(const platform::PeerAddress& from, Bytes datagram) override;
  void ended(const platform::PeerAddress& peer) override;

 private:
  IntercomServer(Show show, ServerPlatform platform, ExitPolicy exit);

  void handleControl(Bytes payload, const Peer& peer);
  void join(const wire::Incoming& message, const Peer& peer);
  // `caller` (named `who` to the operator) calls the joined peers that listen on `mask`.
  void call(std::uint16_t caller, std::uint32_t mask, std::string_view who);
  // By value: callers may pass the address held by the peer that goes. `quietly`: without the
  // departure line, for the operator's removals, whose own line says it.
  void remove(platform::PeerAddress address, bool quietly = false);
  void sweep();
  void checkLinks();
  void reportListening();
  void advertisedChanged(bool advertised);
  void rosterChanged();
  void broadcastRoster();
  template <typename Message>
  void send(const Message& message, const platform::PeerAddress& to);

  const Show show_;
  ServerPlatform platform_;
  ExitPolicy exit_;
  ChimeCallback chime_;
  const std::string configReply_;  // the answer to every "hi", encoded once
  PeerTable peers_;
  RelayCounts counts_;
  // Per source host, so that a forged source can neither make the server reflect configurations
  // at a victim nor churn the crew with joins; an ordinary client never comes near either.
  RateLimiter configReplies_{20, 5};
  RateLimiter joins_{32, 8};
  // Hosts told of as having reached Config::peersPerHost, until one of their peers leaves.
  std::unordered_set<platform::HostAddress, platform::HostAddressHash> hostsAtCap_;
  // Addresses the operator refused, until the server restarts.
  std::unordered_set<platform::HostAddress, platform::HostAddressHash> refused_;
  std::optional<platform::MonoTime> lastRoster_;
  bool rosterScheduled_ = false;
  std::uint16_t port_ = 0;
  bool listening_ = false;   // the intercom's port answers
  bool advertised_ = false;  // as the advertiser last said
};

}  // namespace parlavox
