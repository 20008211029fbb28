#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "platform/Bytes.h"
#include "wire/ByteOrder.h"

namespace parlavox::wire {

// The network audio format: signed 16-bit little-endian PCM, 16,000 Hz, mono, in 20 ms frames.
inline constexpr int kSampleRate = 16000;
inline constexpr std::size_t kFrameSamples = 320;
inline constexpr std::size_t kFrameBytes = kFrameSamples * 2;
inline constexpr std::chrono::milliseconds kFramePeriod{20};

// The 9-byte header of an audio datagram; the samples follow it.
//   offset 0 kind (0x02), 1 senderID (u16), 3 mask (u32), 7 seq (u16), 9 samples.
struct AudioHeader {
  static constexpr std::size_t kSize = 9;
  static constexpr std::size_t kSenderIDOffset = 1;
  static constexpr std::size_t kMaskOffset = 3;
  static constexpr std::size_t kSeqOffset = 7;

  std::uint16_t senderID = 0;
  std::uint32_t mask = 0;
  std::uint16_t seq = 0;

  // Any thread. The header of `datagram`, or nothing when it is not an audio datagram.
  static std::optional<AudioHeader> read(Bytes datagram);
  // Any thread. The header's bytes, kind included.
  std::array<std::uint8_t, kSize> bytes() const;
  bool operator==(const AudioHeader&) const = default;
};

// Any thread. The header's fields rewritten in place, as the relay does for each receiver; inline,
// since the fan-out does it once per copy.
inline void rewriteSenderID(std::span<std::uint8_t, AudioHeader::kSize> header,
                            std::uint16_t senderID) {
  storeLE16(&header[AudioHeader::kSenderIDOffset], senderID);
}
inline void rewriteMask(std::span<std::uint8_t, AudioHeader::kSize> header, std::uint32_t mask) {
  storeLE32(&header[AudioHeader::kMaskOffset], mask);
}

// Any thread. A whole audio datagram: `header`, then `samples` as given.
std::vector<std::uint8_t> encodeAudio(const AudioHeader& header, Bytes samples);

// Any thread. Samples to and from their little-endian bytes; an odd last byte is dropped.
std::vector<std::uint8_t> sampleBytes(std::span<const std::int16_t> samples);
void writeSamples(std::span<const std::int16_t> samples, std::span<std::uint8_t> out);
std::vector<std::int16_t> samplesOf(Bytes bytes);

}  // namespace parlavox::wire
