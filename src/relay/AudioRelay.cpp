#include "relay/AudioRelay.h"

#include <array>
#include <cstring>

#include "config/Protocol.h"

namespace parlavox {
namespace {

void writeLE16(std::uint8_t* at, std::uint16_t value) {
  at[0] = static_cast<std::uint8_t>(value);
  at[1] = static_cast<std::uint8_t>(value >> 8);
}

void writeLE32(std::uint8_t* at, std::uint32_t value) {
  for (int i = 0; i < 4; ++i) {
    at[i] = static_cast<std::uint8_t>(value >> (8 * i));
  }
}

std::uint32_t readLE32(const std::uint8_t* at) {
  return std::uint32_t{at[0]} | std::uint32_t{at[1]} << 8 | std::uint32_t{at[2]} << 16 |
         std::uint32_t{at[3]} << 24;
}

}  // namespace

void relayAudio(Bytes datagram, const Peer& sender, std::span<const Listener> listeners) {
  using namespace protocol;
  if (!sender.joined || datagram.size() <= audioHeaderSize) {
    return;  // strangers never talk, and a header without a sample says nothing
  }
  const std::uint32_t effective = sender.talkMask & readLE32(&datagram[maskOffset]);
  if (effective == 0) {
    return;
  }
  // The header is the working copy; the samples go out from the received buffer untouched.
  std::array<std::uint8_t, audioHeaderSize> header{};
  std::memcpy(header.data(), datagram.data(), audioHeaderSize);
  writeLE16(&header[senderIdOffset], sender.id);
  const Bytes samples = datagram.subspan(audioHeaderSize);
  for (const Listener& listener : listeners) {
    const std::uint32_t share = listener.listenMask & effective;
    if (share == 0 || listener.id == sender.id) {
      continue;  // ids are unique among the joined, so this skips only the sender
    }
    writeLE32(&header[maskOffset], share);
    listener.conn->send(header, samples);
  }
}

}  // namespace parlavox
