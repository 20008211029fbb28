#include "announce/OSCListener.h"

#include <fmt/core.h>

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

#include "config/Names.h"

namespace parlavox {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD

// How many bytes a well-formed sequence starting with `lead` has, and the range its second byte
// must fall in (the later ones are always 80..BF). Zero length for a byte that cannot start one.
struct LeadInfo {
  std::size_t length;
  std::uint8_t secondLow;
  std::uint8_t secondHigh;
};

LeadInfo leadInfo(std::uint8_t lead) {
  if (lead < 0x80) {
    return {1, 0, 0};
  }
  if (lead >= 0xC2 && lead <= 0xDF) {
    return {2, 0x80, 0xBF};
  }
  if (lead == 0xE0) {
    return {3, 0xA0, 0xBF};  // no overlong forms
  }
  if (lead == 0xED) {
    return {3, 0x80, 0x9F};  // no surrogates
  }
  if (lead >= 0xE1 && lead <= 0xEF) {
    return {3, 0x80, 0xBF};
  }
  if (lead == 0xF0) {
    return {4, 0x90, 0xBF};
  }
  if (lead >= 0xF1 && lead <= 0xF3) {
    return {4, 0x80, 0xBF};
  }
  if (lead == 0xF4) {
    return {4, 0x80, 0x8F};  // nothing above U+10FFFF
  }
  return {0, 0, 0};
}

// UTF-8 with repair: each maximal subpart of an ill-formed sequence becomes one U+FFFD, the way
// other decoders do it, so a sender sees the same text here as in its own tools.
std::string decodeLenient(Bytes bytes) {
  std::string out;
  out.reserve(bytes.size());
  std::size_t i = 0;
  while (i < bytes.size()) {
    const LeadInfo info = leadInfo(bytes[i]);
    if (info.length == 0) {
      out += kReplacement;
      ++i;
      continue;
    }
    std::size_t good = 1;
    while (good < info.length && i + good < bytes.size()) {
      const std::uint8_t b = bytes[i + good];
      const std::uint8_t low = good == 1 ? info.secondLow : std::uint8_t{0x80};
      const std::uint8_t high = good == 1 ? info.secondHigh : std::uint8_t{0xBF};
      if (b < low || b > high) {
        break;
      }
      ++good;
    }
    if (good == info.length) {
      out.append(reinterpret_cast<const char*>(bytes.data() + i), good);
    } else {
      out += kReplacement;
    }
    i += good;
  }
  return out;
}

// Reads the string at `pos`: up to the first zero byte at or after it, which must exist. Moves
// `pos` past the string's zero byte and its padding to the next multiple of four; whether that
// padding is really there is left to the next read.
std::optional<std::string> readPaddedString(Bytes datagram, std::size_t& pos) {
  if (pos >= datagram.size()) {
    return std::nullopt;
  }
  std::size_t zero = pos;
  while (zero < datagram.size() && datagram[zero] != 0) {
    ++zero;
  }
  if (zero == datagram.size()) {
    return std::nullopt;
  }
  const std::size_t length = zero - pos;
  std::string text = decodeLenient(datagram.subspan(pos, length));
  pos += (length + 1 + 3) / 4 * 4;
  return text;
}

}  // namespace

OSCListener::OSCListener(platform::Network& network, platform::Console& console)
    : network_(network), console_(console) {}

std::optional<OSCMessage> OSCListener::parse(Bytes datagram) {
  std::size_t pos = 0;
  auto address = readPaddedString(datagram, pos);
  // "Begins with" compares whole characters: "/" followed by a combining mark is another
  // character. The same goes for the type tags below.
  if (!address || firstGraphemes(*address, 1) != "/") {
    return std::nullopt;
  }
  // The first argument must be a string ("s"); any further type tags are not looked at.
  const auto typeTags = readPaddedString(datagram, pos);
  if (!typeTags || firstGraphemes(*typeTags, 2) != ",s") {
    return std::nullopt;
  }
  auto text = readPaddedString(datagram, pos);
  if (!text) {
    return std::nullopt;
  }
  return OSCMessage{std::move(*address), std::move(*text)};
}

void OSCListener::start(std::uint16_t port) {
  auto receiver = network_.listenDatagrams(port);
  // The receiver is owned by this listener and delivers nothing once destroyed, so `this` stays
  // valid in every handler.
  receiver->start({
      .onDatagram =
          [this](Bytes datagram) {
            auto message = parse(datagram);
            if (!message || !onMessage_) {
              return;
            }
            // A copy, so a handler that replaces itself is not destroyed while it runs.
            const MessageHandler handler = onMessage_;
            handler(message->address, message->text);
          },
      .onFailed =
          [this](std::string_view error) {
            console_.print(fmt::format("⚠️  OSC listener failed: {}", error));
          },
  });
  receiver_ = std::move(receiver);
}

}  // namespace parlavox
