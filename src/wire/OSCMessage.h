#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Bytes.h"

namespace parlavox::wire {

// One OSC 1.0 message as the announcements read it: an address and a first argument that is a
// string. Strings are zero-terminated and padded with zeros to a multiple of four bytes.
struct OSCMessage {
  std::string address;
  std::string text;

  // Any thread; pure. The message in `datagram`, or nothing when it is not one with a string
  // first argument. Further arguments and the text's padding are not looked at; text that is not
  // valid UTF-8 is repaired (U+FFFD per maximal ill-formed subpart), never refused.
  static std::optional<OSCMessage> parse(Bytes datagram);
  // Any thread. The message with type tags ",s", as a show-control desk sends it.
  std::vector<std::uint8_t> encode() const;

  bool operator==(const OSCMessage&) const = default;
};

// Any thread. `bytes` as UTF-8, each maximal subpart of an ill-formed sequence replaced by one
// U+FFFD, the way other decoders do it, so a sender sees the same text here as in its own tools.
std::string decodeLenient(Bytes bytes);

}  // namespace parlavox::wire
