#include "relay/AudioRelay.h"

#include <algorithm>
#include <array>

#include "wire/Audio.h"
#include "wire/ByteOrder.h"

namespace parlavox {

std::size_t relayAudio(Bytes datagram, const Peer& sender, std::span<const JoinedPeer> joined) {
  using wire::AudioHeader;
  if (!sender.joined || datagram.size() <= AudioHeader::kSize) {
    return 0;  // strangers never talk, and a header without a sample says nothing
  }
  const std::uint32_t effective =
      sender.talkMask & wire::loadLE32(&datagram[AudioHeader::kMaskOffset]);
  if (effective == 0) {
    return 0;
  }
  // The header is the working copy; the samples go out from the received buffer untouched.
  std::array<std::uint8_t, AudioHeader::kSize> header{};
  std::copy_n(datagram.begin(), AudioHeader::kSize, header.begin());
  wire::rewriteSenderID(header, sender.id);
  const Bytes samples = datagram.subspan(AudioHeader::kSize);
  std::size_t copies = 0;
  for (const JoinedPeer& member : joined) {
    const std::uint32_t share = member.listenMask & effective;
    if (share == 0 || member.id == sender.id) {
      continue;  // ids are unique among the joined, so this skips only the sender
    }
    wire::rewriteMask(header, share);
    member.send(header, samples);
    ++copies;
  }
  return copies;
}

}  // namespace parlavox
