#include "client/Commands.h"

#include <fmt/format.h>

#include <cmath>
#include <limits>
#include <variant>

#include "client/CrewSession.h"
#include "client/Mixer.h"
#include "client/Pacer.h"
#include "client/WavWriter.h"
#include "platform/AudioFile.h"
#include "platform/Resampler.h"
#include "wire/Audio.h"

namespace parlavox::client {
namespace {

using namespace std::chrono_literals;

constexpr int kSampleRate = wire::kSampleRate;
// How long listen holds mixed audio back before writing it, so late frames still find their
// place: as far as the mixer lets a talker's frames stray from the slot of their arrival, and
// one slot more for arrivals late in their slot.
constexpr std::uint64_t kListenLatencySamples = Mixer::kMaxDrift + wire::kFrameSamples;
constexpr auto kListenTick = 50ms;
// A talker this far behind its schedule starts afresh rather than sending a burst.
constexpr auto kTalkMaxLag = 200ms;
constexpr std::size_t kFramesPerProgressLine = 50;  // one a second

std::uint64_t samplesBetween(platform::MonoTime start, platform::MonoTime at) {
  if (at <= start) {
    return 0;
  }
  const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(at - start).count();
  return static_cast<std::uint64_t>(micros) * kSampleRate / 1'000'000;
}

double secondsOf(std::uint64_t samples) {
  return static_cast<double>(samples) / kSampleRate;
}

}  // namespace

int runInfo(CommandContext& context) {
  CrewSession session(context.client, context.console, context.clock, context.where);
  const auto show = session.fetchShow();
  if (!show) {
    return 1;
  }
  context.console.info(platform::EventKind::report, fmt::format("🎭 The show at {}", context.where));
  for (const auto& line : show->describe()) {
    context.console.info(platform::EventKind::report, line);
  }
  return 0;
}

int runListen(CommandContext& context, const Arguments& args) {
  auto& console = context.console;
  CrewSession session(context.client, console, context.clock, context.where);
  const auto show = session.fetchShow();
  wire::Features features;
  features.add(wire::Feature::call);
  features.add(wire::Feature::text);
  if (!show || !session.join(*show, args.role, args.name, features)) {
    return 1;
  }
  WavWriter wav;
  if (const auto opened = wav.open(args.out, kSampleRate); !opened) {
    console.error(platform::EventKind::report,
                  fmt::format("❌ Can't write {}: {}", args.out, opened.error()));
    session.leave();
    return 1;
  }
  console.info(platform::EventKind::report,
               fmt::format("🎧 Listening as {} to {} into {}{}", session.role(),
                           show->channelNames(session.listenMask()), args.out,
                           args.seconds ? fmt::format(" for {} s", *args.seconds)
                                        : std::string("; Ctrl-C stops")));
  if (session.listenMask() == 0) {
    console.warning(
        platform::EventKind::report,
        fmt::format("⚠️  {} hears no channel: the recording will be silent", session.role()));
  }

  Mixer mixer;
  const auto start = context.clock.now();
  session.setAudioHandler([&](const Audio& audio, platform::MonoTime arrival) {
    const auto samples = wire::samplesOf(audio.samples);
    mixer.add(audio.senderID, audio.seq, samplesBetween(start, arrival), samples);
  });
  const auto end = args.seconds ? start + std::chrono::duration_cast<platform::MonoClock::duration>(
                                              std::chrono::duration<double>(*args.seconds))
                                : platform::MonoTime::max();

  platform::Result<void> written;
  for (auto now = context.clock.now(); !context.stop.load() && now < end && written;
       now = context.clock.now()) {
    session.serviceUntil(std::min(end, now + kListenTick), context.stop);
    const std::uint64_t heard = samplesBetween(start, context.clock.now());
    if (heard > kListenLatencySamples) {
      written = wav.append(mixer.takeUntil(heard - kListenLatencySamples));
    }
  }
  if (written) {
    // Stopped by time: exactly the length asked for. Stopped by the user: all that was heard.
    const auto last = args.seconds && !context.stop.load()
                          ? mixer.takeUntil(samplesBetween(start, end))
                          : mixer.takeAll(samplesBetween(start, context.clock.now()));
    written = wav.append(last);
  }
  const auto closed = wav.close();
  session.leave();
  if (!written || !closed) {
    console.error(
        platform::EventKind::report,
        fmt::format("❌ Can't write {}: {}", args.out, written ? closed.error() : written.error()));
    return 1;
  }
  console.info(
      platform::EventKind::report,
      fmt::format("📝 Wrote {} ({:.1f} s, {} {} heard)", args.out, secondsOf(wav.samplesWritten()),
                  mixer.talkers(), mixer.talkers() == 1 ? "sender" : "senders"));
  return 0;
}

int runTalk(CommandContext& context, const Arguments& args,
            const std::vector<std::int16_t>& samples) {
  auto& console = context.console;
  CrewSession session(context.client, console, context.clock, context.where);
  const auto show = session.fetchShow();
  if (!show) {
    return 1;
  }
  std::optional<std::uint32_t> requested;
  if (args.mask) {
    auto parsed = show->parseMask(*args.mask);
    if (const auto* error = std::get_if<std::string>(&parsed)) {
      console.error(platform::EventKind::report, fmt::format("❌ {}", *error));
      return 1;
    }
    requested = std::get<std::uint32_t>(parsed);
  }
  if (!session.join(*show, args.role, args.name)) {
    return 1;
  }
  const std::uint32_t allowed = session.talkMask();
  const std::uint32_t mask = requested ? *requested & allowed : allowed;
  if (allowed == 0) {
    console.error(platform::EventKind::report,
                  fmt::format("❌ {} is a listen-only role: it cannot talk", session.role()));
    session.leave();
    return 1;
  }
  if (mask == 0) {
    console.error(platform::EventKind::report,
                  fmt::format("❌ {} may not talk on {}; it talks on {}", session.role(),
                              show->channelNames(*requested), show->channelNames(allowed)));
    session.leave();
    return 1;
  }
  if (requested && (*requested & ~allowed) != 0) {
    console.warning(
        platform::EventKind::report,
        fmt::format("⚠️  {} may not talk on {}; talking on {} only", session.role(),
                    show->channelNames(*requested & ~allowed), show->channelNames(mask)));
  }

  const std::size_t frames = (samples.size() + wire::kFrameSamples - 1) / wire::kFrameSamples;
  const double total = secondsOf(samples.size());
  console.info(platform::EventKind::report,
               fmt::format("🎙️  Talking as {} on {}: {} ({:.1f} s)", session.role(),
                           show->channelNames(mask), args.in, total));
  Pacer pacer(context.clock.now(), wire::kFramePeriod, kTalkMaxLag);
  std::vector<std::int16_t> frame(wire::kFrameSamples);
  std::size_t sent = 0;
  for (; sent < frames; ++sent) {
    session.serviceUntil(pacer.next(context.clock.now()), context.stop);
    if (context.stop.load()) {
      break;
    }
    // The last frame is filled up with silence: receivers expect whole 20 ms frames.
    const std::size_t first = sent * wire::kFrameSamples;
    const std::size_t count = std::min(wire::kFrameSamples, samples.size() - first);
    std::fill(
        std::copy_n(samples.begin() + static_cast<std::ptrdiff_t>(first), count, frame.begin()),
        frame.end(), std::int16_t{0});
    context.client.sendAudio(session.id(), mask, static_cast<std::uint16_t>(sent),
                             wire::sampleBytes(frame));
    if ((sent + 1) % kFramesPerProgressLine == 0 && sent + 1 < frames) {
      const double done = secondsOf((sent + 1) * wire::kFrameSamples);
      console.info(
          platform::EventKind::report,
          fmt::format("▶️  {:.1f} s of {:.1f} s ({:.0f}%)", done, total,
                      100.0 * static_cast<double>(sent + 1) / static_cast<double>(frames)));
    }
  }
  session.leave();
  if (sent < frames) {
    console.info(platform::EventKind::report,
                 fmt::format("⏹️  Stopped after {:.1f} s of {:.1f} s",
                             secondsOf(sent * wire::kFrameSamples), total));
  } else {
    console.info(platform::EventKind::report,
                 fmt::format("✅ Played {} ({} frames, {:.1f} s)", args.in, frames, total));
  }
  return 0;
}

int runCall(CommandContext& context, const Arguments& args) {
  auto& console = context.console;
  CrewSession session(context.client, console, context.clock, context.where);
  const auto show = session.fetchShow();
  if (!show) {
    return 1;
  }
  auto parsed = show->parseMask(args.mask.value_or(""));
  if (const auto* error = std::get_if<std::string>(&parsed)) {
    console.error(platform::EventKind::report, fmt::format("❌ {}", *error));
    return 1;
  }
  const std::uint32_t requested = std::get<std::uint32_t>(parsed);
  std::string role = args.role;
  if (role.empty()) {
    const Role* caller = show->firstRoleTalkingOn(requested);
    if (caller == nullptr) {
      console.error(platform::EventKind::report,
                    fmt::format("❌ No role may talk on {}: say which with --role",
                                show->channelNames(requested)));
      return 1;
    }
    role = caller->name;
  }
  wire::Features features;
  features.add(wire::Feature::call);  // the caller needs no chime of its own
  if (!session.join(*show, role, args.name, features)) {
    return 1;
  }
  const std::uint32_t mask = requested & session.talkMask();
  if (mask == 0) {
    console.error(
        platform::EventKind::report,
        fmt::format("❌ {} may not talk on {}; it talks on {}", session.role(),
                    show->channelNames(requested), show->channelNames(session.talkMask())));
    session.leave();
    return 1;
  }
  if ((requested & ~mask) != 0) {
    console.warning(platform::EventKind::report,
                    fmt::format("⚠️  {} may not talk on {}; calling on {} only", session.role(),
                                show->channelNames(requested & ~mask), show->channelNames(mask)));
  }
  session.call(mask);
  session.leave();
  console.info(platform::EventKind::call,
               fmt::format("📞 Called {} as {}", show->channelNames(mask), session.role()));
  return 0;
}

std::optional<std::vector<std::int16_t>> loadTalkAudio(const std::string& path,
                                                       platform::Console& console) {
  const auto file = platform::readAudioFile(path);
  if (!file) {
    console.error(platform::EventKind::report,
                  fmt::format("❌ Can't read {}: {}", path, file.error()));
    return std::nullopt;
  }
  if (file->frames == 0) {
    console.error(platform::EventKind::report, fmt::format("❌ {} holds no audio", path));
    return std::nullopt;
  }
  if (!(file->sampleRate > 0) || !std::isfinite(file->sampleRate)) {
    console.error(platform::EventKind::report,
                  fmt::format("❌ Can't read {}: sample rate {}", path, file->sampleRate));
    return std::nullopt;
  }
  // Room for the exact share at 16 kHz plus the resampler's rounding.
  const double expected =
      std::ceil(static_cast<double>(file->frames) * kSampleRate / file->sampleRate);
  if (expected > static_cast<double>(std::numeric_limits<std::uint32_t>::max())) {
    console.error(platform::EventKind::report,
                  fmt::format("❌ Can't read {}: too long to hold in memory", path));
    return std::nullopt;
  }
  auto converted =
      platform::resampleToMono16(file->samples, file->channels, file->frames, file->sampleRate,
                                 kSampleRate, static_cast<std::size_t>(expected) + 32);
  if (!converted) {
    console.error(platform::EventKind::report,
                  fmt::format("❌ Can't convert {} to 16 kHz mono: {}", path, converted.error()));
    return std::nullopt;
  }
  if (converted->empty()) {
    console.error(platform::EventKind::report, fmt::format("❌ {} holds no audio", path));
    return std::nullopt;
  }
  return std::move(*converted);
}

}  // namespace parlavox::client
