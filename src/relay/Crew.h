#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "platform/Bytes.h"
#include "wire/Audio.h"

namespace parlavox {

// The crew as the show's own voice reaches it: announcements, their words, show control's calls
// and the chime that calls the crew whose clients know no call message. The relay is the one
// implementation; tests give the announcements a fake. Loop thread only.
class Crew {
 public:
  virtual ~Crew() = default;
  // `head` and `body` as one datagram to every joined peer that listens on a channel of `mask`.
  virtual void sendToChannels(std::uint32_t mask, Bytes head, Bytes body) = 0;
  // An announcement's words, with each receiver's share of `mask`, to the joined peers that
  // listen on one of its channels and understand text.
  virtual void sendAnnouncementText(const std::string& text, std::uint32_t mask) = 0;
  // Show control calls the crew on the channels of `mask`.
  virtual void callFromShowControl(std::uint32_t mask) = 0;
  // A frame of the chime for a call from `caller` on `mask`, to the joined peers it calls that do
  // not understand call messages: `head` is rewritten with each one's share of `mask`.
  virtual void sendChime(std::uint16_t caller, std::uint32_t mask,
                         std::span<std::uint8_t, wire::AudioHeader::kSize> head, Bytes body) = 0;
};

}  // namespace parlavox
