#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "announce/OSCListener.h"
#include "announce/Speaker.h"
#include "config/Show.h"
#include "platform/Clock.h"
#include "platform/Console.h"
#include "platform/EventLoop.h"
#include "platform/Network.h"
#include "relay/Crew.h"
#include "wire/Audio.h"

namespace parlavox {

// The show's own voice, sent under the announcer's id with one run of numbers: OSC messages on the
// show's OSC port are spoken by the speaker, each frame going to the crew that listens on the
// addressed channels (the words first, to the clients that read them); "/parlavox/stop" silences
// the speaker; "/parlavox/call" calls the crew; and the call chime is played here, in the gaps
// between announcements. State lives on the server loop; the speaker's thread only hands frames
// over to it.
class Announcements : public std::enable_shared_from_this<Announcements> {
 public:
  // How long a chime may wait for an announcement being spoken to end before it is dropped.
  static constexpr std::chrono::milliseconds kChimeWait{5000};

  // Any thread. Starts nothing and prints nothing; renders the chime. `speaker` and `crew`
  // outlive this object.
  static std::shared_ptr<Announcements> create(const Show& show, platform::EventLoop& loop,
                                               platform::Network& network,
                                               platform::Console& console, platform::Clock& clock,
                                               Speaker& speaker, Crew& crew);

  // Main thread, once, before the loop runs. Opens the OSC port; throws std::system_error when it
  // cannot be had.
  void start();

  // What was announced lately, for the operator to see and say again.
  struct Announced {
    std::string text;
    std::uint32_t mask = 0;
    platform::MonoTime at;
  };
  static constexpr std::size_t kRecentLimit = 20;

  // Loop thread. The one way in for an announcement, from OSC or the operator: `text` to the
  // channel named `channel` (every channel when empty), queued behind those before it. Why it was
  // refused (no such channel, no words, too long), or nothing.
  std::optional<std::string> announce(const std::string& text, std::string_view channel);
  // Loop thread. The stop cue: ends what is spoken and drops what waits.
  void stop();
  // Loop thread. Show control calls the crew on the channel named `channel` (everyone when
  // empty). Why it was refused (no such channel), or nothing.
  std::optional<std::string> call(std::string_view channel);

  // Loop thread. The last kRecentLimit announcements asked for, oldest first.
  const std::deque<Announced>& recent() const { return recent_; }
  // Loop thread. The announcements asked for and not over yet, the one being spoken first.
  const std::deque<std::string>& pending() const { return pending_; }
  // Loop thread. How many announcements have been asked for since the start.
  std::uint64_t asked() const { return asked_; }

  // Loop thread. Plays the call chime for a call from `caller` on `mask` (see Crew::sendChime).
  void ringChime(std::uint16_t caller, std::uint32_t mask);

 private:
  Announcements(const Show& show, platform::EventLoop& loop, platform::Network& network,
                platform::Console& console, platform::Clock& clock, Speaker& speaker, Crew& crew);

  void handleOSC(const std::string& address, const std::optional<std::string>& text);
  std::optional<std::string> announceTo(const std::string& text, std::uint32_t mask);
  // `text` is the announcement's words with its first frame, else null.
  void broadcastAnnouncement(Bytes frame, std::uint32_t mask, const std::string* text);
  void broadcastChime(Bytes frame, std::uint16_t caller, std::uint32_t mask);
  // The next header under the announcer's id: every frame takes a number, heard or not.
  wire::AudioHeader nextHeader(std::uint32_t mask);

  const std::vector<std::string> channels_;
  const std::uint16_t oscPort_;
  platform::EventLoop& loop_;
  platform::Console& console_;
  platform::Clock& clock_;
  Speaker& speaker_;
  Crew& crew_;
  const Speaker::Clip chime_;
  OSCListener oscListener_;
  std::uint16_t announcerSeq_ = 0;
  std::deque<std::string> pending_;
  std::deque<Announced> recent_;
  std::uint64_t asked_ = 0;
};

}  // namespace parlavox
