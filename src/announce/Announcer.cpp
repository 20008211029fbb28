#include "announce/Announcer.h"

#include <fmt/format.h>

#include <chrono>
#include <utility>
#include <vector>

#include "announce/FramePacing.h"
#include "platform/AudioFile.h"
#include "platform/Process.h"
#include "platform/Resampler.h"
#include "platform/SerialQueue.h"
#include "platform/TempFile.h"
#include "wire/Audio.h"

namespace parlavox {

namespace {
// The kernel's usual slack, stated so that a larger one inherited from a service manager cannot
// make frames leave late.
constexpr std::chrono::microseconds kTimerSlack{50};
}  // namespace

struct Announcer::Impl {
  Impl(std::string command, platform::Console& out, platform::Clock& time, std::string directory)
      : sayCommand(std::move(command)),
        console(out),
        clock(time),
        tempDirectory(std::move(directory)),
        queue("intercom.announcer", kTimerSlack) {}

  // Announcer thread. One announcement, start to end; every way out removes the speech file.
  void announce(const std::string& text, const FrameHandler& onFrame) const {
    const platform::TempFile speech(
        tempDirectory, "parlavox-announce-" + platform::TempFile::randomUuid() + ".aiff");

    const auto status = platform::runProcess({sayCommand, "-o", speech.path(), text});
    if (!status) {
      console.print(fmt::format("⚠️  Couldn't run `say`: {}", status.error()));
      return;
    }
    if (*status != 0) {
      console.print(fmt::format("⚠️  `say` failed (status {})", *status));
      return;
    }

    const auto audio = platform::readAudioFile(speech.path());
    if (!audio) {
      console.print(
          fmt::format("⚠️  Announcer couldn't read synthesized audio: {}", audio.error()));
      return;
    }
    const auto capacity = convertedCapacity(audio->sampleRate, audio->frames);
    if (!capacity) {
      console.print(
          fmt::format("⚠️  Announcement dropped: {} frames at {} Hz is too long to send",
                      audio->frames, audio->sampleRate));
      return;
    }
    const auto converted =
        platform::resampleToMono16(audio->samples, audio->channels, audio->frames,
                                   audio->sampleRate, wire::sampleRate, *capacity);
    if (!converted) {
      console.print(fmt::format("⚠️  Announcer convert failed: {}", converted.error()));
      return;
    }

    const auto elapsed = streamFrames(*converted, clock, onFrame);
    console.print(fmt::format("📣 Announcement finished ({:.1f}s)",
                              std::chrono::duration<double>(elapsed).count()));
  }

  const std::string sayCommand;
  platform::Console& console;
  platform::Clock& clock;
  const std::string tempDirectory;
  platform::SerialQueue queue;  // last: its thread stops, draining, before the rest goes
};

Announcer::Announcer(std::string sayCommand, platform::Console& console, platform::Clock& clock,
                     std::string tempDirectory)
    : impl_(std::make_unique<Impl>(std::move(sayCommand), console, clock,
                                   std::move(tempDirectory))) {}

Announcer::~Announcer() = default;

void Announcer::speak(std::string text, FrameHandler onFrame) {
  Impl* impl = impl_.get();
  impl->queue.submit([impl, text = std::move(text), onFrame = std::move(onFrame)] {
    impl->announce(text, onFrame);
  });
}

std::string defaultSayCommand() {
  static constexpr const char* kHostSay = "/usr/bin/say";
  if (platform::isExecutableFile(kHostSay)) {
    return kHostSay;
  }
  const std::string dir = platform::executableDirectory();
  return dir.empty() ? std::string("parlavox-say") : dir + "/parlavox-say";
}

}  // namespace parlavox
