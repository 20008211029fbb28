#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <optional>

#include "platform/Bytes.h"
#include "platform/Clock.h"

namespace parlavox {

// How one peer's audio reaches the server, read off the audio datagrams the relay receives anyway:
// loss from their sequence numbers, jitter from their arrival times, level from their samples. It
// sits on the relay's path, so its state is fixed in size (nothing allocated after construction)
// and a datagram costs a few steps plus one pass over its samples.
// A peer's audio loss crossing the line at which the operator is warned, one way or the other.
struct LossAlarm {
  bool raised = false;  // false: back under the line
  double ratio = 0;     // lost / (received + lost) over the last kWindowSeconds
};

class LinkHealth {
 public:
  // A seq further ahead than kMaxGap, or further behind than kReorderWindow, is neither loss nor
  // lateness: a stray, or a client that started its sequence again (a station reloaded). It is a
  // restart once the next datagram follows it, so that a single stray resets nothing.
  static constexpr int kMaxGap = 1000;  // 20 s of frames, longer than a silent peer is kept
  static constexpr int kReorderWindow = 64;
  static constexpr int kWindowSeconds = 10;
  // The level of samples all 0: below the quietest one that is not (-90.3 dBFS), and not nothing,
  // which would hide a talker whose microphone sends silence.
  static constexpr double kSilenceDbfs = -96.0;

  struct Window {
    std::uint64_t received = 0;
    std::uint64_t lost = 0;
    bool operator==(const Window&) const = default;
  };

  // Loop thread. `datagram`, an audio datagram at least a header long, arrived at `at`, which
  // never goes back.
  void audio(Bytes datagram, platform::MonoTime at);

  // Loop thread. Distinct datagrams received since the first, and seqs missing in between that
  // have not arrived late since.
  std::uint64_t received() const { return received_; }
  std::uint64_t lost() const { return lost_; }
  // Loop thread. The same for the second of `now` and the nine before it: a datagram counts in the
  // second it arrived, a loss in the second its gap showed. A late datagram takes back the newest
  // loss still in those seconds, none if they have all gone.
  Window lastSeconds(platform::MonoTime now) const;
  // Loop thread. The interarrival jitter of RFC 3550, in ms: a running mean (gain 1/16) of how far
  // the time between two datagrams strays from 20 ms per seq between them. More than 250 ms is a
  // pause between talk bursts, not jitter, and is left out: a client sends nothing while it does
  // not talk, and its seq does not jump.
  double jitterMs() const { return jitterMs_; }
  // Loop thread. The peak of the samples that arrived in the last 100 ms (in 20 ms steps) in dBFS,
  // 0 for a sample of 32768; nothing without samples in that time.
  std::optional<double> levelDbfs(platform::MonoTime now) const;
  // Loop thread. Whether audio arrived in the last 300 ms.
  bool talking(platform::MonoTime now) const;

  // More than this share of the last kWindowSeconds' audio lost is worth a warning, judged over
  // at least kLossSample datagrams (a second of talking): two of three is no pattern.
  static constexpr double kLossWarning = 0.05;
  static constexpr std::uint64_t kLossSample = 50;
  // Loop thread. The crossing to report now, if any: up when the loss goes over the line, down
  // when it is back under it, never two within kWindowSeconds.
  std::optional<LossAlarm> lossAlarm(platform::MonoTime now);

 private:
  static constexpr int kLevelSteps = 5;  // of 20 ms
  static constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::min();

  struct Second {
    std::int64_t index = kNever;  // whole seconds of the clock
    Window counts;
  };
  struct Peak {
    std::int64_t index = kNever;  // 20 ms steps of the clock
    int peak = 0;
  };

  void restart(std::uint16_t seq, platform::MonoTime at, std::uint64_t received);
  void spaced(std::uint16_t seq, platform::MonoTime at);
  void notePeak(Bytes samples, platform::MonoTime at);
  Second& secondOf(platform::MonoTime at);

  bool started_ = false;
  std::uint16_t newest_ = 0;  // the furthest seq received
  std::uint64_t seen_ = 0;    // bit k: seq newest_ - k received, or from before a restart
  std::optional<std::uint16_t> restartAt_;  // the seq that confirms a jump as a restart
  std::uint64_t received_ = 0;
  std::uint64_t lost_ = 0;
  std::array<Second, kWindowSeconds> seconds_{};  // a ring

  std::uint16_t previousSeq_ = 0;
  platform::MonoTime previousAt_;
  double jitterMs_ = 0;

  std::array<Peak, kLevelSteps> peaks_{};  // a ring
  std::optional<platform::MonoTime> lastAudio_;

  bool lossRaised_ = false;
  std::optional<platform::MonoTime> lossReportedAt_;
};

}  // namespace parlavox
