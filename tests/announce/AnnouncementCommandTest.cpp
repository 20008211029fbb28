#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "announce/AnnouncementCommand.h"

namespace parlavox {
namespace {

using Kind = AnnouncementTarget::Kind;

std::vector<std::string> showChannels() {
  return {"Main", "Tech", "Backstage", "Green Room"};
}

std::vector<std::string> numberedChannels(std::size_t count) {
  std::vector<std::string> channels;
  for (std::size_t i = 0; i < count; ++i) {
    channels.push_back("C" + std::to_string(i));
  }
  return channels;
}

TEST(AnnouncementCommand, ResolvesAddressesAgainstTheChannels) {
  struct Case {
    const char* name;
    std::vector<std::string> channels;
    std::string address;
    Kind kind;
    std::uint32_t mask;
    std::string channel;
  };
  const Case cases[] = {
      {"all channels", showChannels(), "/parlavox/say", Kind::announce, 0xF, ""},
      {"one channel", showChannels(), "/parlavox/say/Tech", Kind::announce, 0x2, ""},
      {"name with a space", showChannels(), "/parlavox/say/Green Room", Kind::announce, 0x8, ""},
      {"case differs", showChannels(), "/parlavox/say/tech", Kind::unknownChannel, 0, "tech"},
      {"no trimming", showChannels(), "/parlavox/say/Tech ", Kind::unknownChannel, 0, "Tech "},
      {"empty name", showChannels(), "/parlavox/say/", Kind::unknownChannel, 0, ""},
      {"name with a slash", showChannels(), "/parlavox/say/Tech/extra", Kind::unknownChannel, 0,
       "Tech/extra"},
      {"longer word", showChannels(), "/parlavox/sayx", Kind::ignore, 0, ""},
      {"upper case", showChannels(), "/PARLAVOX/say", Kind::ignore, 0, ""},
      {"other address", showChannels(), "/cue/go", Kind::ignore, 0, ""},
      {"prefix cut short", showChannels(), "/parlavox/sa", Kind::ignore, 0, ""},
      {"combining mark after the slash", showChannels(), "/parlavox/say/\xCC\x81Tech", Kind::ignore,
       0, ""},
      {"32 channels, all", numberedChannels(32), "/parlavox/say", Kind::announce, 0xFFFFFFFF, ""},
      {"32 channels, last", numberedChannels(32), "/parlavox/say/C31", Kind::announce, 0x80000000,
       ""},
      {"33 channels, all", numberedChannels(33), "/parlavox/say", Kind::announce, 0xFFFFFFFF, ""},
      {"33 channels, beyond the mask", numberedChannels(33), "/parlavox/say/C32", Kind::announce, 0,
       ""},
      {"no channels, all", {}, "/parlavox/say", Kind::announce, 0, ""},
      {"no channels, one", {}, "/parlavox/say/Main", Kind::unknownChannel, 0, "Main"},
      {"channel with an empty name", {"Main", ""}, "/parlavox/say/", Kind::announce, 0x2, ""},
      {"duplicate name takes the first",
       {"A", "Tech", "Tech"},
       "/parlavox/say/Tech",
       Kind::announce,
       0x2,
       ""},
      {"canonically equivalent name",
       {"Main", "R\xC3\xA9gie"},
       "/parlavox/say/Re\xCC\x81gie",
       Kind::announce,
       0x2,
       ""},
      {"decomposed name configured",
       {"Re\xCC\x81gie"},
       "/parlavox/say/R\xC3\xA9gie",
       Kind::announce,
       0x1,
       ""},
      {"unknown name kept as sent",
       {"R\xC3\xA9gie"},
       "/parlavox/say/Re\xCC\x81gies",
       Kind::unknownChannel,
       0,
       "Re\xCC\x81gies"},
  };
  for (const auto& c : cases) {
    const AnnouncementTarget target = resolveAnnouncement(c.address, c.channels);
    EXPECT_EQ(target.kind, c.kind) << c.name;
    EXPECT_EQ(target.mask, c.mask) << c.name;
    EXPECT_EQ(target.channel, c.channel) << c.name;
  }
}

struct HeaderCase {
  std::uint32_t mask;
  std::uint16_t seq;
  std::array<std::uint8_t, 9> bytes;
};

TEST(AnnouncementHeader, LaysOutKindSenderMaskAndSeqLittleEndian) {
  const HeaderCase cases[] = {
      {0xF, 1, {0x02, 0xFF, 0xFF, 0x0F, 0x00, 0x00, 0x00, 0x01, 0x00}},
      {0x12345678, 0xABCD, {0x02, 0xFF, 0xFF, 0x78, 0x56, 0x34, 0x12, 0xCD, 0xAB}},
      {0xFFFFFFFF, 0, {0x02, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00}},
      {0, 0xFFFF, {0x02, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0x00, 0xFF, 0xFF}},
  };
  for (const HeaderCase& c : cases) {
    EXPECT_EQ(announcementHeader(c.mask, c.seq), c.bytes) << std::hex << c.mask << " " << c.seq;
  }
}

}  // namespace
}  // namespace parlavox
