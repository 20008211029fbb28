#include "client/Mixer.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace parlavox::client {
namespace {

std::int16_t clipped(std::int32_t sum) {
  return static_cast<std::int16_t>(std::clamp<std::int32_t>(
      sum, std::numeric_limits<std::int16_t>::min(), std::numeric_limits<std::int16_t>::max()));
}

std::uint64_t distance(std::uint64_t a, std::uint64_t b) {
  return a > b ? a - b : b - a;
}

}  // namespace

std::uint64_t Mixer::place(std::uint16_t senderID, std::uint16_t seq, std::uint64_t arrival,
                           std::size_t length, bool& repeated) {
  repeated = false;
  const std::uint64_t slot = arrival / kSlotSamples * kSlotSamples;
  const auto found = talkers_.find(senderID);
  if (found == talkers_.end()) {
    talkers_.emplace(senderID, Talker{seq, slot, length});
    return slot;
  }
  Talker& talker = found->second;
  // Sequence numbers wrap; the signed difference says which way and how far.
  const auto delta = static_cast<std::int16_t>(static_cast<std::uint16_t>(seq - talker.seq));
  if (delta == 0) {
    repeated = true;
    return 0;
  }
  if (delta >= -kMaxSeqGap && delta <= kMaxSeqGap) {
    const std::uint64_t step = talker.length * static_cast<std::uint64_t>(std::abs(delta));
    if (delta > 0 && distance(talker.start + step, slot) <= kMaxDrift) {
      talker = Talker{seq, talker.start + step, length};
      return talker.start;
    }
    // A late, reordered frame goes back where it belongs; the newest frame stays the anchor.
    if (delta < 0 && step <= talker.start && distance(talker.start - step, slot) <= kMaxDrift) {
      return talker.start - step;
    }
  }
  talker = Talker{seq, slot, length};
  return slot;
}

void Mixer::add(std::uint16_t senderID, std::uint16_t seq, std::uint64_t arrival,
                std::span<const std::int16_t> samples) {
  if (samples.empty()) {
    return;
  }
  bool repeated = false;
  const std::uint64_t start = place(senderID, seq, arrival, samples.size(), repeated);
  if (repeated) {
    return;
  }
  const std::uint64_t end = start + samples.size();
  if (end <= taken_) {
    return;
  }
  const std::uint64_t skip = start < taken_ ? taken_ - start : 0;
  const auto first = static_cast<std::size_t>(start + skip - taken_);
  const auto needed = static_cast<std::size_t>(end - taken_);
  if (pending_.size() < needed) {
    pending_.resize(needed, 0);
  }
  for (auto i = static_cast<std::size_t>(skip); i < samples.size(); ++i) {
    pending_[first + i - static_cast<std::size_t>(skip)] += samples[i];
  }
}

std::vector<std::int16_t> Mixer::takeUntil(std::uint64_t end) {
  if (end <= taken_) {
    return {};
  }
  const auto count = static_cast<std::size_t>(end - taken_);
  std::vector<std::int16_t> out(count, 0);
  const std::size_t held = std::min(count, pending_.size());
  for (std::size_t i = 0; i < held; ++i) {
    out[i] = clipped(pending_[i]);
  }
  pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(held));
  taken_ = end;
  return out;
}

std::vector<std::int16_t> Mixer::takeAll(std::uint64_t end) {
  return takeUntil(std::max(end, taken_ + pending_.size()));
}

}  // namespace parlavox::client
