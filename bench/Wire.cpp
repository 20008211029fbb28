#include "Wire.h"

#include <algorithm>
#include <cstring>

namespace parlavox::bench {
namespace {

constexpr std::size_t kMagicAt = kHeaderSize;
constexpr std::size_t kRunAt = kMagicAt + 4;
constexpr std::size_t kTalkerAt = kRunAt + 4;
constexpr std::size_t kSeqAt = kTalkerAt + 2;
constexpr std::size_t kTimeAt = kSeqAt + 4;
constexpr std::size_t kSentAt = kTimeAt + 8;
constexpr std::size_t kProbeEnd = kSentAt + 8;

template <typename T>
void put(std::span<std::uint8_t> at, std::size_t offset, T value) {
  for (std::size_t i = 0; i < sizeof(T); ++i) {
    at[offset + i] = static_cast<std::uint8_t>(static_cast<std::uint64_t>(value) >> (8 * i));
  }
}

template <typename T>
T get(std::span<const std::uint8_t> at, std::size_t offset) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < sizeof(T); ++i) {
    value |= std::uint64_t{at[offset + i]} << (8 * i);
  }
  return static_cast<T>(value);
}

void appendPadded(std::vector<std::uint8_t>& out, const std::string& text) {
  out.insert(out.end(), text.begin(), text.end());
  // OSC strings end in at least one NUL and are padded to a multiple of four bytes.
  do {
    out.push_back(0);
  } while (out.size() % 4 != 0);
}

}  // namespace

void writeAudio(std::span<std::uint8_t> datagram, std::uint32_t mask, const Probe& probe) {
  for (std::size_t i = kProbeEnd; i < datagram.size(); ++i) {
    datagram[i] = static_cast<std::uint8_t>(i * 7);  // filler samples, never read
  }
  datagram[0] = 0x02;
  put<std::uint16_t>(datagram, 1, 0);
  put<std::uint32_t>(datagram, 3, mask);
  put<std::uint32_t>(datagram, kMagicAt, kProbeMagic);
  put<std::uint32_t>(datagram, kRunAt, probe.run);
  put<std::uint16_t>(datagram, kTalkerAt, probe.talker);
  restamp(datagram, probe.seq, probe.intendedNs, probe.sentNs);
}

void restamp(std::span<std::uint8_t> datagram, std::uint32_t seq, std::int64_t intendedNs,
             std::int64_t sentNs) {
  put<std::uint16_t>(datagram, 7, static_cast<std::uint16_t>(seq));
  put<std::uint32_t>(datagram, kSeqAt, seq);
  put<std::int64_t>(datagram, kTimeAt, intendedNs);
  put<std::int64_t>(datagram, kSentAt, sentNs);
}

std::optional<Probe> readProbe(std::span<const std::uint8_t> datagram) {
  if (datagram.size() < kProbeEnd || datagram[0] != 0x02 ||
      get<std::uint32_t>(datagram, kMagicAt) != kProbeMagic) {
    return std::nullopt;
  }
  return Probe{get<std::uint32_t>(datagram, kRunAt), get<std::uint16_t>(datagram, kTalkerAt),
               get<std::uint32_t>(datagram, kSeqAt), get<std::int64_t>(datagram, kTimeAt),
               get<std::int64_t>(datagram, kSentAt)};
}

std::optional<AudioHeader> readAudioHeader(std::span<const std::uint8_t> datagram) {
  if (datagram.size() < kHeaderSize || datagram[0] != 0x02) {
    return std::nullopt;
  }
  return AudioHeader{get<std::uint16_t>(datagram, 1), get<std::uint32_t>(datagram, 3),
                     get<std::uint16_t>(datagram, 7)};
}

std::vector<std::uint8_t> control(const std::string& json) {
  std::vector<std::uint8_t> out(1 + json.size(), 0x01);
  std::copy(json.begin(), json.end(), out.begin() + 1);
  return out;
}

std::vector<std::uint8_t> oscMessage(const std::string& address, const std::string& text) {
  std::vector<std::uint8_t> out;
  appendPadded(out, address);
  appendPadded(out, ",s");
  appendPadded(out, text);
  return out;
}

}  // namespace parlavox::bench
