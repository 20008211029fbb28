#include "wire/Audio.h"

#include <algorithm>

#include "wire/ByteOrder.h"
#include "wire/Protocol.h"

namespace parlavox::wire {

std::optional<AudioHeader> AudioHeader::read(Bytes datagram) {
  if (datagram.size() < kSize || datagram[0] != kAudioKind) {
    return std::nullopt;
  }
  return AudioHeader{loadLE16(&datagram[kSenderIDOffset]), loadLE32(&datagram[kMaskOffset]),
                     loadLE16(&datagram[kSeqOffset])};
}

std::array<std::uint8_t, AudioHeader::kSize> AudioHeader::bytes() const {
  std::array<std::uint8_t, kSize> out{};
  out[0] = kAudioKind;
  storeLE16(&out[kSenderIDOffset], senderID);
  storeLE32(&out[kMaskOffset], mask);
  storeLE16(&out[kSeqOffset], seq);
  return out;
}

std::vector<std::uint8_t> encodeAudio(const AudioHeader& header, Bytes samples) {
  std::vector<std::uint8_t> datagram(AudioHeader::kSize + samples.size());
  const auto head = header.bytes();
  std::copy(samples.begin(), samples.end(), std::copy(head.begin(), head.end(), datagram.begin()));
  return datagram;
}

void writeSamples(std::span<const std::int16_t> samples, std::span<std::uint8_t> out) {
  for (std::size_t i = 0; i < samples.size() && 2 * i + 1 < out.size(); ++i) {
    storeLE16(&out[2 * i], static_cast<std::uint16_t>(samples[i]));
  }
}

std::vector<std::uint8_t> sampleBytes(std::span<const std::int16_t> samples) {
  std::vector<std::uint8_t> bytes(samples.size() * 2);
  writeSamples(samples, bytes);
  return bytes;
}

std::vector<std::int16_t> samplesOf(Bytes bytes) {
  std::vector<std::int16_t> samples(bytes.size() / 2);
  for (std::size_t i = 0; i < samples.size(); ++i) {
    samples[i] = static_cast<std::int16_t>(loadLE16(&bytes[2 * i]));
  }
  return samples;
}

}  // namespace parlavox::wire
