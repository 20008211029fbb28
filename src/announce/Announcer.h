#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "announce/Speaker.h"
#include "platform/Clock.h"
#include "platform/Console.h"

namespace parlavox {

// The speaker of the show: runs the speech command, converts what it wrote to the network audio
// format and hands it over in paced 20 ms frames, on the announcer's own thread.
class Announcer final : public Speaker {
 public:
  // `sayCommand` is run as `sayCommand -o FILE.aiff TEXT` and must write FILE.aiff and exit 0
  // within `sayTimeLimit`. FILE.aiff lies in `tempDirectory`, or in $TMPDIR (else /tmp) when that
  // is empty.
  Announcer(std::string sayCommand, platform::Console& console, platform::Clock& clock,
            std::string tempDirectory = {},
            std::chrono::milliseconds sayTimeLimit = std::chrono::seconds(20));
  // Any thread but the announcer's. Finishes the announcements still queued (none after stop()),
  // drops the clips, then ends the thread: no speech command or speech file outlives this object.
  ~Announcer() override;
  Announcer(const Announcer&) = delete;
  Announcer& operator=(const Announcer&) = delete;

  void speak(std::string text, FrameHandler onFrame, DoneHandler onDone) override;
  void stop() override;
  void play(Clip clip, std::chrono::milliseconds maxWait, FrameHandler onFrame) override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// "/usr/bin/say" where the host has one, else the parlavox-say installed beside this program.
std::string defaultSayCommand();

}  // namespace parlavox
