#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "client/IntercomClient.h"
#include "client/RosterTracker.h"
#include "client/ShowInfo.h"
#include "platform/Clock.h"
#include "platform/Console.h"

namespace parlavox::client {

// One crew member's conversation with the server, over an IntercomClient: asking for the show,
// joining, keeping alive ("ping" every 2 s, joining again on "rejoin"), reporting roster changes
// and a silent server, and leaving. Audio that arrives is handed to `onAudio`. Not thread-safe:
// every method is for the one thread that owns the session.
class CrewSession {
 public:
  using AudioHandler = std::function<void(const Audio& audio, platform::MonoTime arrival)>;

  // Long enough to span two missed pongs; the server itself forgets a client after 8 s.
  static constexpr auto kSilenceWarning = std::chrono::seconds(5);

  // `where` names the server in console lines ("127.0.0.1", "\"Parlavox\" at stage.local").
  CrewSession(IntercomClient& client, platform::Console& console, platform::Clock& clock,
              std::string where);

  void setAudioHandler(AudioHandler handler) { onAudio_ = std::move(handler); }

  // "hi", asked up to three times a second apart: the show, or nothing after printing why.
  std::optional<ShowInfo> fetchShow();
  // "join" as `role` (checked against the show first) with `name`, saying it understands
  // `features`; true once welcomed. Prints a "❌" line and returns false when the role is unknown,
  // the server refuses or does not answer. Calls and announcements' words that arrive are printed.
  bool join(const ShowInfo& show, const std::string& role, const std::optional<std::string>& name,
            wire::Features features = {});
  // "call" on the channels of `mask`.
  void call(std::uint32_t mask);
  // Handles whatever arrives until `until`, pinging when due; returns early once `stop` is set.
  void serviceUntil(platform::MonoTime until, const std::atomic<bool>& stop);
  // "bye".
  void leave();

  bool joined() const { return joined_; }
  std::uint16_t id() const { return id_; }
  const std::string& role() const { return role_; }
  std::uint32_t talkMask() const { return talkMask_; }
  std::uint32_t listenMask() const { return listenMask_; }

 private:
  void sendJoin();
  void handle(const Datagram& datagram, platform::MonoTime arrival);
  void handleControl(const wire::ServerMessage& message);
  void keepAlive(platform::MonoTime now);
  // The next datagram before `until`, or nothing; `stop` is looked at between datagrams.
  std::optional<Datagram> receiveBefore(platform::MonoTime until);

  IntercomClient& client_;
  platform::Console& console_;
  platform::Clock& clock_;
  std::string where_;
  AudioHandler onAudio_;
  RosterTracker roster_;

  std::optional<ShowInfo> show_;
  std::optional<std::string> name_;
  std::string role_;
  wire::Features features_;
  std::uint16_t id_ = 0;
  std::uint32_t talkMask_ = 0;
  std::uint32_t listenMask_ = 0;
  bool joined_ = false;
  std::optional<wire::SimpleMsg> refusal_;  // an "error" reply to our join
  platform::MonoTime nextPing_{};
  platform::MonoTime lastHeard_{};
  bool silenceReported_ = false;
};

}  // namespace parlavox::client
