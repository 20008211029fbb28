#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "platform/Bytes.h"
#include "platform/Clock.h"
#include "platform/Console.h"

namespace parlavox {

// Speaks text to the crew: runs the speech command, converts what it wrote to the network audio
// format (16-bit little-endian, 16 kHz, mono) and hands it over in paced 20 ms frames. One
// announcement at a time, in the order asked, on the announcer's own thread.
class Announcer {
 public:
  static constexpr std::size_t kFrameSamples = 320;
  static constexpr std::size_t kFrameBytes = kFrameSamples * 2;
  static constexpr int kNetworkRate = 16000;

  using FrameHandler = std::function<void(Bytes frame)>;

  // `sayCommand` is run as `sayCommand -o FILE.aiff TEXT` and must write FILE.aiff and exit 0.
  // FILE.aiff lies in `tempDirectory`, or in $TMPDIR (else /tmp) when that is empty.
  Announcer(std::string sayCommand, platform::Console& console, platform::Clock& clock,
            std::string tempDirectory = {});
  // Finishes the announcements already queued, then stops the thread.
  ~Announcer();
  Announcer(const Announcer&) = delete;
  Announcer& operator=(const Announcer&) = delete;

  // Any thread. Queues one announcement and returns at once. `onFrame` is called on the
  // announcer's thread with each 640-byte frame, at the pace the frames play.
  void speak(std::string text, FrameHandler onFrame);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// "/usr/bin/say" where the host has one, else the parlavox-say installed beside this program.
std::string defaultSayCommand();

}  // namespace parlavox
