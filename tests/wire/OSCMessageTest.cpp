#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "wire/Audio.h"
#include "wire/OSCMessage.h"

namespace parlavox::wire {
namespace {

using namespace std::string_literals;

// A well-formed message: each string, a zero byte, zero padding to a multiple of four.
std::string message(const std::string& address, const std::string& tags, const std::string& text) {
  const auto field = [](std::string s) {
    s.push_back('\0');
    s.append((4 - s.size() % 4) % 4, '\0');
    return s;
  };
  return field(address) + field(tags) + field(text);
}

std::optional<OSCMessage> parse(const std::string& datagram) {
  return OSCMessage::parse(asBytes(datagram));
}

std::optional<OSCMessage> accepted(std::string address, std::string text) {
  return OSCMessage{std::move(address), std::move(text)};
}

TEST(OSCMessage, FollowsTheLayoutOfAMessage) {
  struct Case {
    const char* name;
    std::string datagram;
    std::optional<OSCMessage> expected;
  };
  const Case cases[] = {
      {"string argument", message("/parlavox/say", ",s", "hello"),
       accepted("/parlavox/say", "hello")},
      {"later arguments ignored", message("/a", ",si", "hello") + "\0\0\0\x07"s,
       accepted("/a", "hello")},
      // Address lengths: 1 to 3 bytes take 4, exactly 4 take 8.
      {"4-byte address takes 8", "/abc\0\0\0\0,s\0\0x\0\0\0"s, accepted("/abc", "x")},
      {"4-byte address given only 5 bytes", "/abc\0,s\0\0x\0\0\0"s, std::nullopt},
      {"first argument an int", message("/a", ",is", "x"), std::nullopt},
      {"type tags without comma", message("/a", "s", "x"), std::nullopt},
      {"no type tag string at all", "/a\0\0"s, std::nullopt},
      {"empty text", "/a\0\0,s\0\0\0\0\0\0"s, accepted("/a", "")},
      {"text zero byte is last byte, no padding", "/a\0\0,s\0\0hello\0"s, accepted("/a", "hello")},
      {"text without zero byte", "/a\0\0,s\0\0hello"s, std::nullopt},
      {"text keeps spaces and UTF-8", message("/a", ",s", "  Places, 🎭 please "),
       accepted("/a", "  Places, 🎭 please ")},
      {"address without slash", message("parlavox/say", ",s", "x"), std::nullopt},
      {"bundle", "#bundle\0"s + "\0\0\0\0\0\0\0\x01"s + "\0\0\0\x10"s + message("/a", ",s", "x"),
       std::nullopt},
      {"empty datagram", ""s, std::nullopt},
      {"unpadded address, tags read from wrong place", "/abcde\0,s\0\0hi\0\0"s, std::nullopt},
      {"padding is skipped, not checked", "/a\0X,s\0Yhi\0Z"s, accepted("/a", "hi")},
      // "Begins with" is about whole characters: a combining mark glued on makes another one.
      {"mark on the slash", message("/\xCC\x81x", ",s", "x"), std::nullopt},
      {"mark on the s", message("/a", ",s\xCC\x81", "x"), std::nullopt},
      {"stray byte after the s", message("/a", ",s\xFF", "x"), accepted("/a", "x")},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(parse(c.datagram), c.expected) << c.name;
  }
  const OSCMessage written{"/parlavox/say/Green Room", "Places, 🎭 please"};
  EXPECT_EQ(OSCMessage::parse(written.encode()), written);
  EXPECT_EQ(written.encode().size() % 4, 0U);
}

// Ill-formed UTF-8 is repaired, one U+FFFD per maximal subpart, in the text and the address alike.
TEST(OSCMessage, RepairsTextAndAddress) {
  const std::string bad = "\xEF\xBF\xBD";
  const std::pair<std::string, std::string> cases[] = {
      {"\xE0\x80\xAF", bad + bad + bad},  // overlong
      {"\x61\xF1\x80\x80\xE1\x80\xC2\x62\x80\x63\x80\xBF\x64",
       "a" + bad + bad + bad + "b" + bad + "c" + bad + bad + "d"},
  };
  for (const auto& [raw, decoded] : cases) {
    EXPECT_EQ(parse(message("/a", ",s", raw)), accepted("/a", decoded)) << raw;
    EXPECT_EQ(parse(message("/" + raw, ",s", "x")), accepted("/" + decoded, "x")) << raw;
  }
}

TEST(AudioHeader, LaysOutKindSenderMaskAndSeqLittleEndian) {
  const std::vector<std::uint8_t> bytes{0x02, 0x34, 0x12, 0x78, 0x56, 0x34, 0x12, 0xCD, 0xAB, 0x01};
  const AudioHeader header{0x1234, 0x12345678, 0xABCD};
  EXPECT_EQ(encodeAudio(header, std::vector<std::uint8_t>{0x01}), bytes);
  EXPECT_EQ(AudioHeader::read(bytes), header);
  EXPECT_EQ(AudioHeader::read(Bytes(bytes).first(8)), std::nullopt) << "too short";
  EXPECT_EQ(AudioHeader::read(std::vector<std::uint8_t>(9, 0x01)), std::nullopt) << "not audio";
  const std::vector<std::int16_t> samples{1, -1, -32768, 32767};
  EXPECT_EQ(sampleBytes(samples),
            (std::vector<std::uint8_t>{0x01, 0x00, 0xFF, 0xFF, 0x00, 0x80, 0xFF, 0x7F}));
  auto odd = sampleBytes(samples);
  odd.push_back(0x99);
  EXPECT_EQ(samplesOf(odd), samples) << "half a sample at the end is dropped";
}

}  // namespace
}  // namespace parlavox::wire
