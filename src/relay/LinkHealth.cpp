#include "relay/LinkHealth.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>

#include "wire/Audio.h"
#include "wire/ByteOrder.h"

namespace parlavox {
namespace {

using LevelStep = std::chrono::duration<std::int64_t, std::ratio<1, 50>>;  // 20 ms
constexpr auto kPause = std::chrono::milliseconds(250);
constexpr auto kTalkingHold = std::chrono::milliseconds(300);
static_assert(LinkHealth::kReorderWindow <= 64, "one bit of seen_ per seq");

template <typename Step>
std::int64_t stepOf(platform::MonoTime at) {
  return std::chrono::floor<Step>(at.time_since_epoch()).count();
}

template <typename Ring>
auto& slotOf(Ring& ring, std::int64_t index) {
  const auto size = static_cast<std::int64_t>(ring.size());
  return ring[static_cast<std::size_t>((index % size + size) % size)];
}

// Seqs wrap: the signed difference says which way and how far.
int seqsFrom(std::uint16_t from, std::uint16_t to) {
  return static_cast<std::int16_t>(static_cast<std::uint16_t>(to - from));
}

}  // namespace

void LinkHealth::audio(Bytes datagram, platform::MonoTime at) {
  lastAudio_ = at;
  notePeak(datagram.subspan(wire::AudioHeader::kSize), at);
  const std::uint16_t seq = wire::loadLE16(&datagram[wire::AudioHeader::kSeqOffset]);
  if (!started_) {
    restart(seq, at, 1);
    return;
  }
  const int ahead = seqsFrom(newest_, seq);
  if (ahead > 0 && ahead <= kMaxGap) {
    const auto missing = static_cast<std::uint64_t>(ahead - 1);
    seen_ = ahead < 64 ? (seen_ << ahead) | 1 : 1;
    newest_ = seq;
    ++received_;
    lost_ += missing;
    Window& counts = secondOf(at).counts;
    ++counts.received;
    counts.lost += missing;
  } else if (ahead <= 0 && -ahead < kReorderWindow) {
    const std::uint64_t bit = std::uint64_t{1} << -ahead;
    if ((seen_ & bit) != 0) {
      return;  // twice is not a second receipt
    }
    // Every bit left clear in the window is a seq counted lost: this one was late instead.
    seen_ |= bit;
    ++received_;
    --lost_;
    ++secondOf(at).counts.received;
    const std::int64_t now = stepOf<std::chrono::seconds>(at);
    for (std::int64_t index = now; index > now - kWindowSeconds; --index) {
      if (Second& second = slotOf(seconds_, index);
          second.index == index && second.counts.lost > 0) {
        --second.counts.lost;
        break;
      }
    }
  } else if (restartAt_ == seq) {
    restart(seq, at, 2);  // the jump and this one
    return;
  } else {
    restartAt_ = static_cast<std::uint16_t>(seq + 1);
    return;
  }
  spaced(seq, at);
}

void LinkHealth::restart(std::uint16_t seq, platform::MonoTime at, std::uint64_t received) {
  started_ = true;
  newest_ = seq;
  seen_ = ~std::uint64_t{0};  // what went before is no loss of this sequence
  restartAt_.reset();
  received_ += received;
  secondOf(at).counts.received += received;
  previousSeq_ = seq;
  previousAt_ = at;
}

void LinkHealth::spaced(std::uint16_t seq, platform::MonoTime at) {
  const auto spacing = at - previousAt_;
  if (spacing <= kPause) {
    const auto stray = spacing - seqsFrom(previousSeq_, seq) * wire::kFramePeriod;
    const double strayMs = std::chrono::duration<double, std::milli>(stray).count();
    jitterMs_ += (std::abs(strayMs) - jitterMs_) / 16;
  }
  previousSeq_ = seq;
  previousAt_ = at;
}

void LinkHealth::notePeak(Bytes samples, platform::MonoTime at) {
  if (samples.size() < 2) {
    return;
  }
  int peak = 0;
  for (std::size_t i = 0; i + 1 < samples.size(); i += 2) {
    peak = std::max(peak, std::abs(static_cast<std::int16_t>(wire::loadLE16(&samples[i]))));
  }
  const std::int64_t index = stepOf<LevelStep>(at);
  Peak& slot = slotOf(peaks_, index);
  if (slot.index != index) {
    slot = {index, 0};
  }
  slot.peak = std::max(slot.peak, peak);
}

LinkHealth::Second& LinkHealth::secondOf(platform::MonoTime at) {
  const std::int64_t index = stepOf<std::chrono::seconds>(at);
  Second& second = slotOf(seconds_, index);
  if (second.index != index) {
    second = {index, {}};
  }
  return second;
}

LinkHealth::Window LinkHealth::lastSeconds(platform::MonoTime now) const {
  const std::int64_t current = stepOf<std::chrono::seconds>(now);
  Window sum;
  for (const Second& second : seconds_) {
    if (second.index <= current && second.index > current - kWindowSeconds) {
      sum.received += second.counts.received;
      sum.lost += second.counts.lost;
    }
  }
  return sum;
}

std::optional<double> LinkHealth::levelDbfs(platform::MonoTime now) const {
  const std::int64_t current = stepOf<LevelStep>(now);
  std::optional<int> peak;
  for (const Peak& slot : peaks_) {
    if (slot.index <= current && slot.index > current - kLevelSteps) {
      peak = std::max(peak.value_or(0), slot.peak);
    }
  }
  if (!peak) {
    return std::nullopt;
  }
  return *peak == 0 ? kSilenceDbfs : 20 * std::log10(*peak / 32768.0);
}

bool LinkHealth::talking(platform::MonoTime now) const {
  return lastAudio_ && now - *lastAudio_ <= kTalkingHold;
}

std::optional<LossAlarm> LinkHealth::lossAlarm(platform::MonoTime now) {
  if (lossReportedAt_ && now - *lossReportedAt_ < std::chrono::seconds(kWindowSeconds)) {
    return std::nullopt;
  }
  const Window window = lastSeconds(now);
  const std::uint64_t total = window.received + window.lost;
  if (total < kLossSample) {
    return std::nullopt;  // too little to tell, either way
  }
  const double ratio = static_cast<double>(window.lost) / static_cast<double>(total);
  if ((ratio > kLossWarning) == lossRaised_) {
    return std::nullopt;
  }
  lossRaised_ = !lossRaised_;
  lossReportedAt_ = now;
  return LossAlarm{lossRaised_, ratio};
}

}  // namespace parlavox
