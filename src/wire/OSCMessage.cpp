#include "wire/OSCMessage.h"

#include <cstddef>
#include <utility>

#include "config/Names.h"

namespace parlavox::wire {
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

void appendPadded(std::vector<std::uint8_t>& out, std::string_view text) {
  out.insert(out.end(), text.begin(), text.end());
  do {
    out.push_back(0);
  } while (out.size() % 4 != 0);
}

}  // namespace

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

std::optional<OSCMessage> OSCMessage::parse(Bytes datagram) {
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

std::vector<std::uint8_t> OSCMessage::encode() const {
  std::vector<std::uint8_t> out;
  out.reserve(address.size() + text.size() + 12);
  appendPadded(out, address);
  appendPadded(out, ",s");
  appendPadded(out, text);
  return out;
}

}  // namespace parlavox::wire
