#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "announce/AnnouncementCommand.h"

namespace parlavox {
namespace {

using Kind = AnnouncementTarget::Kind;
using Channels = std::vector<std::string>;

Channels numbered(std::size_t count) {
  Channels channels;
  for (std::size_t i = 0; i < count; ++i) {
    channels.push_back("C" + std::to_string(i));
  }
  return channels;
}

TEST(AnnouncementCommand, ResolvesAddressesAgainstTheChannels) {
  const Channels show = {"Main", "Tech", "Backstage", "Green Room"};
  const Channels wide = numbered(33);
  const Channels composed = {"Main", "R\xC3\xA9gie"};
  const Channels decomposed = {"Re\xCC\x81gie"};
  struct Case {
    Channels channels;
    std::string address;
    Kind kind;
    std::uint32_t mask;
    std::string channel;
  };
  const Case cases[] = {
      {show, "/parlavox/say", Kind::announce, 0xF, ""},
      {show, "/parlavox/say/Tech", Kind::announce, 0x2, ""},
      {show, "/parlavox/say/Green Room", Kind::announce, 0x8, ""},
      {show, "/parlavox/say/tech", Kind::unknownChannel, 0, "tech"},
      {show, "/parlavox/say/Tech ", Kind::unknownChannel, 0, "Tech "},
      {show, "/parlavox/say/", Kind::unknownChannel, 0, ""},
      {show, "/parlavox/say/Tech/extra", Kind::unknownChannel, 0, "Tech/extra"},
      {show, "/parlavox/sayx", Kind::ignore, 0, ""},
      {show, "/PARLAVOX/say", Kind::ignore, 0, ""},
      {show, "/parlavox/sa", Kind::ignore, 0, ""},
      // A combining mark glued onto the "/" makes another character: not this prefix at all.
      {show, "/parlavox/say/\xCC\x81Tech", Kind::ignore, 0, ""},
      // Channels from 32 on have no bit.
      {wide, "/parlavox/say", Kind::announce, 0xFFFFFFFF, ""},
      {wide, "/parlavox/say/C31", Kind::announce, 0x80000000, ""},
      {wide, "/parlavox/say/C32", Kind::announce, 0, ""},
      {{}, "/parlavox/say", Kind::announce, 0, ""},
      {{"Main", ""}, "/parlavox/say/", Kind::announce, 0x2, ""},
      {{"A", "Tech", "Tech"}, "/parlavox/say/Tech", Kind::announce, 0x2, ""},
      // Canonically equivalent spellings match either way; an unknown name is kept as sent.
      {composed, "/parlavox/say/Re\xCC\x81gie", Kind::announce, 0x2, ""},
      {decomposed, "/parlavox/say/R\xC3\xA9gie", Kind::announce, 0x1, ""},
      {composed, "/parlavox/say/Re\xCC\x81gies", Kind::unknownChannel, 0, "Re\xCC\x81gies"},
  };
  for (const auto& c : cases) {
    const AnnouncementTarget target = resolveAnnouncement(c.address, c.channels);
    EXPECT_EQ(target.kind, c.kind) << c.address;
    EXPECT_EQ(target.mask, c.mask) << c.address;
    EXPECT_EQ(target.channel, c.channel) << c.address;
  }
}

TEST(AnnouncementHeader, LaysOutKindSenderMaskAndSeqLittleEndian) {
  EXPECT_EQ(announcementHeader(0x12345678, 0xABCD),
            (std::array<std::uint8_t, 9>{0x02, 0xFF, 0xFF, 0x78, 0x56, 0x34, 0x12, 0xCD, 0xAB}));
  EXPECT_EQ(announcementHeader(0xFFFFFFFF, 0),
            (std::array<std::uint8_t, 9>{0x02, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00}));
}

}  // namespace
}  // namespace parlavox
