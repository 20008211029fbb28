#include "announce/Announcer.h"

#include <fmt/format.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

#include "announce/FramePacing.h"
#include "config/Printable.h"
#include "platform/AudioFile.h"
#include "platform/Process.h"
#include "platform/ProcessInterrupt.h"
#include "platform/Resampler.h"
#include "platform/SerialQueue.h"
#include "platform/TempFile.h"
#include "wire/Audio.h"

namespace parlavox {

namespace {
// The kernel's usual slack, stated so that a larger one inherited from a service manager cannot
// make frames leave late.
constexpr std::chrono::microseconds kTimerSlack{50};
// Enough of the command's last words to tell why it failed, however much it writes.
constexpr std::size_t kOutputKept = 2048;

// The command's last words as one console line: its lines joined by " | ", control characters
// replaced. A tail cut inside a character starts at the next one.
std::string lastWords(std::string_view output) {
  while (!output.empty() && (static_cast<unsigned char>(output.front()) & 0xC0U) == 0x80U) {
    output.remove_prefix(1);
  }
  std::string joined;
  for (std::size_t from = 0; from < output.size();) {
    const std::size_t end = std::min(output.find('\n', from), output.size());
    std::string_view line = output.substr(from, end - from);
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) {
      line.remove_suffix(1);
    }
    if (!line.empty()) {
      joined.append(joined.empty() ? "" : " | ").append(line);
    }
    from = end + 1;
  }
  return joined.empty() ? joined : ": " + printable(joined);
}
}  // namespace

struct Announcer::Impl {
  Impl(std::string command, platform::Console& out, platform::Clock& time, std::string directory,
       std::chrono::milliseconds limit)
      : sayCommand(std::move(command)),
        sayTimeLimit(limit),
        console(out),
        clock(time),
        tempDirectory(std::move(directory)),
        queue("intercom.announcer", kTimerSlack) {}

  // Any thread.
  void stop() {
    stops.fetch_add(1);
    interrupt.raise();
  }

  // Announcer thread. One announcement, start to end, unless a stop came after `ticket` was
  // taken; every way out removes the speech file.
  void announce(std::uint64_t ticket, const std::string& text, const FrameHandler& onFrame) {
    // In this order: a raise left over from an earlier stop is forgotten, and one for a later stop
    // is either seen below or still raised when the command runs.
    interrupt.clear();
    const auto cutShort = [this, ticket] { return stops.load() != ticket; };
    if (cutShort()) {
      return;
    }
    const platform::TempFile speech(
        tempDirectory, "parlavox-announce-" + platform::TempFile::randomUuid() + ".aiff");

    const auto run = platform::runProcess({sayCommand, "-o", speech.path(), text},
                                          {sayTimeLimit, kOutputKept, &interrupt});
    if (!run) {
      console.warning(platform::EventKind::announcement,
                      fmt::format("⚠️  Couldn't run `say`: {}", run.error()));
      return;
    }
    switch (run->kind) {
      case platform::ProcessEnd::Kind::interrupted:
        return;  // the stop has been reported where it was asked for
      case platform::ProcessEnd::Kind::timedOut:
        console.info(platform::EventKind::announcement,
                     fmt::format("⏱️  `say` took longer than {:g}s and was killed{}",
                                 std::chrono::duration<double>(sayTimeLimit).count(),
                                 lastWords(run->output)));
        return;
      case platform::ProcessEnd::Kind::exited:
        break;
    }
    if (run->status != 0) {
      console.warning(
          platform::EventKind::announcement,
          fmt::format("⚠️  `say` failed (status {}){}", run->status, lastWords(run->output)));
      return;
    }

    const auto audio = platform::readAudioFile(speech.path());
    if (!audio) {
      console.warning(
          platform::EventKind::announcement,
          fmt::format("⚠️  Announcer couldn't read synthesized audio: {}", audio.error()));
      return;
    }
    const auto capacity = convertedCapacity(audio->sampleRate, audio->frames);
    if (!capacity) {
      console.warning(
          platform::EventKind::announcement,
          fmt::format("⚠️  Announcement dropped: {} frames at {} Hz is too long to send",
                      audio->frames, audio->sampleRate));
      return;
    }
    const auto converted =
        platform::resampleToMono16(audio->samples, audio->channels, audio->frames,
                                   audio->sampleRate, wire::kSampleRate, *capacity);
    if (!converted) {
      console.warning(platform::EventKind::announcement,
                      fmt::format("⚠️  Announcer convert failed: {}", converted.error()));
      return;
    }

    const auto elapsed = streamFrames(*converted, clock, onFrame, cutShort);
    if (elapsed) {
      console.info(platform::EventKind::announcement,
                   fmt::format("📣 Announcement finished ({:.1f}s)",
                               std::chrono::duration<double>(*elapsed).count()));
    }
  }

  const std::string sayCommand;
  const std::chrono::milliseconds sayTimeLimit;
  platform::Console& console;
  platform::Clock& clock;
  const std::string tempDirectory;
  // How many stops have been asked for. An announcement runs only while this still reads what it
  // read when the announcement was asked for.
  std::atomic<std::uint64_t> stops{0};
  std::atomic<bool> closing{false};            // the announcer is being destroyed
  const platform::ProcessInterrupt interrupt;  // kills the speech command of a stopped announcement
  platform::SerialQueue queue;                 // last: its thread ends before the rest goes
};

Announcer::Announcer(std::string sayCommand, platform::Console& console, platform::Clock& clock,
                     std::string tempDirectory, std::chrono::milliseconds sayTimeLimit)
    : impl_(std::make_unique<Impl>(std::move(sayCommand), console, clock, std::move(tempDirectory),
                                   sayTimeLimit)) {}

// Clips still queued are dropped: a chime heard while the server goes down would call nobody.
Announcer::~Announcer() {
  impl_->closing.store(true);
}

void Announcer::speak(std::string text, FrameHandler onFrame, DoneHandler onDone) {
  Impl* impl = impl_.get();
  const std::uint64_t ticket = impl->stops.load();
  impl->queue.submit([impl, ticket, text = std::move(text), onFrame = std::move(onFrame),
                      onDone = std::move(onDone)] {
    impl->announce(ticket, text, onFrame);
    if (onDone) {
      onDone();
    }
  });
}

void Announcer::stop() {
  impl_->stop();
}

void Announcer::play(Clip clip, std::chrono::milliseconds maxWait, FrameHandler onFrame) {
  Impl* impl = impl_.get();
  const platform::MonoTime latest = impl->clock.now() + maxWait;
  impl->queue.submit([impl, latest, clip = std::move(clip), onFrame = std::move(onFrame)] {
    if (!impl->closing.load() && impl->clock.now() <= latest) {
      streamFrames(*clip, impl->clock, onFrame);
    }
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
