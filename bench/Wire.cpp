#include "Wire.h"

#include <algorithm>
#include <cstring>
#include <variant>

namespace parlavox::bench {
namespace {

constexpr std::size_t kMagicAt = wire::AudioHeader::kSize;
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

}  // namespace

void writeAudio(std::span<std::uint8_t> datagram, std::uint32_t mask, const Probe& probe) {
  for (std::size_t i = kProbeEnd; i < datagram.size(); ++i) {
    datagram[i] = static_cast<std::uint8_t>(i * 7);  // filler samples, never read
  }
  const auto header = wire::AudioHeader{0, mask, 0}.bytes();
  std::copy(header.begin(), header.end(), datagram.begin());
  put<std::uint32_t>(datagram, kMagicAt, kProbeMagic);
  put<std::uint32_t>(datagram, kRunAt, probe.run);
  put<std::uint16_t>(datagram, kTalkerAt, probe.talker);
  restamp(datagram, probe.seq, probe.intendedNs, probe.sentNs);
}

void restamp(std::span<std::uint8_t> datagram, std::uint32_t seq, std::int64_t intendedNs,
             std::int64_t sentNs) {
  put<std::uint16_t>(datagram, wire::AudioHeader::kSeqOffset, static_cast<std::uint16_t>(seq));
  put<std::uint32_t>(datagram, kSeqAt, seq);
  put<std::int64_t>(datagram, kTimeAt, intendedNs);
  put<std::int64_t>(datagram, kSentAt, sentNs);
}

std::optional<Probe> readProbe(std::span<const std::uint8_t> datagram) {
  if (datagram.size() < kProbeEnd || !wire::AudioHeader::read(datagram) ||
      get<std::uint32_t>(datagram, kMagicAt) != kProbeMagic) {
    return std::nullopt;
  }
  return Probe{get<std::uint32_t>(datagram, kRunAt), get<std::uint16_t>(datagram, kTalkerAt),
               get<std::uint32_t>(datagram, kSeqAt), get<std::int64_t>(datagram, kTimeAt),
               get<std::int64_t>(datagram, kSentAt)};
}

std::vector<std::uint8_t> control(const wire::Incoming& message) {
  const std::string datagram = wire::encodeControl(message);
  return {datagram.begin(), datagram.end()};
}

bool isWelcome(std::span<const std::uint8_t> datagram) {
  if (datagram.empty() || datagram[0] != wire::kControlKind) {
    return false;
  }
  const auto message = wire::decodeServerMessage(datagram.subspan(1));
  return message && std::holds_alternative<wire::WelcomeMsg>(*message);
}

}  // namespace parlavox::bench
