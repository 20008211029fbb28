#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "wire/Audio.h"
#include "wire/ControlMessages.h"
#include "wire/Protocol.h"

namespace parlavox::bench {

// The bench's own use of the wire format. What the load generator writes into the samples of every
// audio datagram it sends, so that each copy a client receives says who sent it, which run it
// belongs to and when it was meant to leave.
struct Probe {
  std::uint32_t run = 0;
  std::uint16_t talker = 0;
  std::uint32_t seq = 0;
  // CLOCK_REALTIME, the clock of the kernel's receive timestamps.
  std::int64_t intendedNs = 0;  // when the schedule meant it to leave: decides its run window
  std::int64_t sentNs = 0;      // when it left: added latency counts from here
};

inline constexpr std::size_t kDatagramSize = wire::AudioHeader::kSize + wire::kFrameBytes;
inline constexpr std::uint32_t kProbeMagic = 0x42585650;  // "PVXB"
// Main, the channel every bench client talks and listens on.
inline constexpr std::uint32_t kMainChannel = 0x1;

// Writes a whole audio datagram for `probe` into `datagram` (kDatagramSize bytes): sender id 0,
// `mask`, the low 16 bits of the sequence number, then the probe and filler samples.
void writeAudio(std::span<std::uint8_t> datagram, std::uint32_t mask, const Probe& probe);
// Rewrites only what changes from one send to the next: seq and the two times.
void restamp(std::span<std::uint8_t> datagram, std::uint32_t seq, std::int64_t intendedNs,
             std::int64_t sentNs);
// The probe in a received audio datagram, or nothing for anything else (control messages,
// announcements, foreign audio).
std::optional<Probe> readProbe(std::span<const std::uint8_t> datagram);

// A control datagram from a client, as bytes to send.
std::vector<std::uint8_t> control(const wire::Incoming& message);
// Whether `datagram` is the server's "welcome".
bool isWelcome(std::span<const std::uint8_t> datagram);

}  // namespace parlavox::bench
