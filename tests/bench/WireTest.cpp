// The probe and OSC bytes the bench writes and reads back. The quick run only proves that some
// probes survive and one sentence is announced; these pin down the fields and the edge cases.
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
  EXPECT_EQ(datagram[0], 0x02);
}

TEST(Wire, ForeignDatagramsCarryNoProbe) {
  std::vector<std::uint8_t> announcement(kDatagramSize, 0);
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

TEST(Wire, OscMessagesParseAsTheServerReadsThemWhateverThePadding) {
  // Texts of every length modulo 4: one to four NULs end each string.
  for (const std::string text : {"", "a", "ab", "abc", "abcd"}) {
    for (const std::string address : {"/parlavox/say", "/parlavox/say/Tech"}) {
      const auto bytes = oscMessage(address, text);
      EXPECT_EQ(bytes.size() % 4, 0U);
      const auto parsed = OSCListener::parse(bytes);
      ASSERT_TRUE(parsed) << address << " " << text;
      EXPECT_EQ(parsed->address, address);
      EXPECT_EQ(parsed->text, text);
    }
  }
}

}  // namespace
}  // namespace parlavox::bench
