#include <gtest/gtest.h>

#include "Wire.h"
#include "announce/OSCListener.h"

namespace parlavox::bench {
namespace {

TEST(Wire, ProbeSurvivesTheRelaysHeaderRewrite) {
  std::vector<std::uint8_t> datagram(kDatagramSize);
  writeAudio(datagram, 0x1, Probe{7, 3, 0, 0});
  restamp(datagram, 70'000, 1'234'567'890'123, 1'234'567'890'456);
  // The relay writes the sender id and the receiver's mask; the probe lies in the samples.
  datagram[1] = 0x05;
  datagram[2] = 0x00;
  datagram[3] = 0x01;
  const auto probe = readProbe(datagram);
  ASSERT_TRUE(probe);
  EXPECT_EQ(probe->run, 7U);
  EXPECT_EQ(probe->talker, 3U);
  EXPECT_EQ(probe->seq, 70'000U);
  EXPECT_EQ(probe->intendedNs, 1'234'567'890'123);
  EXPECT_EQ(probe->sentNs, 1'234'567'890'456);
  const auto header = readAudioHeader(datagram);
  ASSERT_TRUE(header);
  EXPECT_EQ(header->seq, static_cast<std::uint16_t>(70'000));  // the wire seq is 16 bits
  EXPECT_EQ(header->sender, 5U);
  EXPECT_EQ(header->mask, 1U);
  EXPECT_EQ(datagram.size(), 649U);
  EXPECT_EQ(datagram[0], 0x02);
}

TEST(Wire, ForeignDatagramsCarryNoProbe) {
  std::vector<std::uint8_t> announcement(649, 0);
  announcement[0] = 0x02;
  announcement[1] = 0xFF;
  announcement[2] = 0xFF;
  EXPECT_FALSE(readProbe(announcement));
  EXPECT_EQ(readAudioHeader(announcement)->sender, kAnnouncerId);
  const auto roster = control(R"({"t":"roster","users":[]})");
  EXPECT_FALSE(readProbe(roster));
  EXPECT_FALSE(readAudioHeader(roster));
  EXPECT_FALSE(readAudioHeader(std::vector<std::uint8_t>{0x02, 0, 0}));
}

TEST(Wire, OscMessagesParseAsTheServerReadsThem) {
  struct Case {
    std::string address;
    std::string text;
  };
  for (const Case& c :
       {Case{"/parlavox/say", "Places please, everyone, for the top of act two now."},
        Case{"/parlavox/say/Tech", "abc"},  // text of 3: one NUL pads it to 4
        Case{"/parlavox/say", "abcd"},      // text of 4: four NULs
        Case{"/parlavox/say", ""}}) {
    const auto bytes = oscMessage(c.address, c.text);
    EXPECT_EQ(bytes.size() % 4, 0U);
    const auto parsed = OSCListener::parse(bytes);
    ASSERT_TRUE(parsed) << c.text;
    EXPECT_EQ(parsed->address, c.address);
    EXPECT_EQ(parsed->text, c.text);
  }
}

}  // namespace
}  // namespace parlavox::bench
