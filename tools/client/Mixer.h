#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <span>
#include <vector>

#include "wire/Audio.h"

namespace parlavox::client {

// Mixes what a listener hears into one 16 kHz mono track.
//
// Each frame goes onto a timeline counted in samples since listening began. A talker's first
// frame lands on the 20 ms slot in which it arrived; the frames after it are laid end to end by
// sequence number, so network jitter neither gaps nor overlaps one talker's speech. A talker who
// pauses, whose clock drifts from ours, or who comes back after a loss of more than a second is
// put back onto the slot of arrival. Frames from different talkers that land on the same stretch
// of timeline are summed, and the sum is clipped to 16 bits only when it is taken out, so a loud
// talker and a quiet one mix without the quiet one being clipped twice.
class Mixer {
 public:
  static constexpr std::size_t kSlotSamples = wire::kFrameSamples;
  // How far, in samples, sequence-based placement may stray from arrival before it is given up.
  static constexpr std::uint64_t kMaxDrift = 10 * kSlotSamples;
  // The largest jump of sequence numbers still counted as the same stretch of speech.
  static constexpr int kMaxSeqGap = 50;

  // The owner's thread. Mixes in a frame from `senderID` with sequence number `seq` that arrived
  // `arrival` samples after the start. The part of it that would land before what was already
  // taken out is dropped; a repeated sequence number is not mixed twice.
  void add(std::uint16_t senderID, std::uint16_t seq, std::uint64_t arrival,
           std::span<const std::int16_t> samples);

  // The owner's thread. The mixed samples from the end of the last take up to sample `end`
  // (exclusive), silence where nothing landed.
  std::vector<std::int16_t> takeUntil(std::uint64_t end);
  // The owner's thread. Everything still held, and silence up to `end` if it reaches further.
  std::vector<std::int16_t> takeAll(std::uint64_t end);

  std::uint64_t taken() const { return taken_; }
  // How many distinct senders were heard.
  std::size_t talkers() const { return talkers_.size(); }

 private:
  struct Talker {
    std::uint16_t seq = 0;     // of the newest frame placed
    std::uint64_t start = 0;   // where that frame landed
    std::uint64_t length = 0;  // its length in samples
  };

  std::uint64_t place(std::uint16_t senderID, std::uint16_t seq, std::uint64_t arrival,
                      std::size_t length, bool& repeated);

  std::map<std::uint16_t, Talker> talkers_;
  std::deque<std::int32_t> pending_;  // sums, from sample taken_ on
  std::uint64_t taken_ = 0;
};

}  // namespace parlavox::client
