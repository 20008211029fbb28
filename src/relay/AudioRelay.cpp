#include "relay/AudioRelay.h"

#include <algorithm>
#include <array>

#include "wire/Audio.h"
#include "wire/ByteOrder.h"

namespace parlavox {

std::size_t relayAudio(Bytes datagram, const Peer& sender, std::span<const Listener> listeners) {
  using wire::AudioHeader;
  if (!sender.joined || datagram.size() <= AudioHeader::size) {
    return 0;  // strangers never talk, and a header without a sample says nothing
  }
  const std::uint32_t effective =
      sender.talkMask & wire::loadLE32(&datagram[AudioHeader::maskOffset]);
  if (effective == 0) {
    return 0;
  }
  // The header is the working copy; the samples go out from the received buffer untouched.
  std::array<std::uint8_t, AudioHeader::size> header{};
  std::copy_n(datagram.begin(), AudioHeader::size, header.begin());
  wire::rewriteSenderID(header, sender.id);
  const Bytes samples = datagram.subspan(AudioHeader::size);
  std::size_t copies = 0;
  for (const Listener& listener : listeners) {
    const std::uint32_t share = listener.listenMask & effective;
    if (share == 0 || listener.id == sender.id) {
      continue;  // ids are unique among the joined, so this skips only the sender
    }
    wire::rewriteMask(header, share);
    listener.send(header, samples);
    ++copies;
  }
  return copies;
}

}  // namespace parlavox
