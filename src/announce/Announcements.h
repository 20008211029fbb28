#pragma once

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
#include "platform/Console.h"
#include "platform/EventLoop.h"
#include "platform/Network.h"

namespace parlavox {

// Show control speaking to the crew: OSC messages on the show's OSC port are spoken by the
// speaker, and each frame goes to the crew that listens on the addressed channels, numbered and
// sent under the announcer's id; "/parlavox/stop" silences the speaker. State lives on the server
// loop; the speaker's thread only hands frames over to it.
class Announcements : public std::enable_shared_from_this<Announcements> {
 public:
  // How frames reach the crew: `head` and `body` as one datagram to every joined peer that listens
  // on a channel of `mask`. Called on the loop thread.
  using FanOut = std::function<void(std::uint32_t mask, Bytes head, Bytes body)>;

  // Any thread. Starts nothing and prints nothing. `speaker` outlives this object.
  static std::shared_ptr<Announcements> create(const Show& show, platform::EventLoop& loop,
                                               platform::Network& network,
                                               platform::Console& console, Speaker& speaker,
                                               FanOut fanOut);

  // Main thread, once, before the loop runs. Opens the OSC port; throws std::system_error when it
  // cannot be had.
  void start();

  // Loop thread. The announcements asked for and not over yet, the one being spoken first.
  const std::deque<std::string>& pending() const { return pending_; }
  // Loop thread. How many announcements have been asked for since the start.
  std::uint64_t asked() const { return asked_; }

 private:
  Announcements(const Show& show, platform::EventLoop& loop, platform::Network& network,
                platform::Console& console, Speaker& speaker, FanOut fanOut);

  void handleOSC(const std::string& address, const std::optional<std::string>& text);
  void broadcastAnnouncement(Bytes frame, std::uint32_t mask);

  const std::vector<std::string> channels_;
  const std::uint16_t oscPort_;
  platform::EventLoop& loop_;
  platform::Console& console_;
  Speaker& speaker_;
  FanOut fanOut_;
  OSCListener oscListener_;
  std::uint16_t announcerSeq_ = 0;
  std::deque<std::string> pending_;
  std::uint64_t asked_ = 0;
};

}  // namespace parlavox
