// The operator's view from outside: /metrics read with curl while a UDP talker sends a known
// sequence, and the console's warning when a talker's audio breaks up.
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "e2e/ServerFixture.h"
#include "wire/Audio.h"

namespace parlavox::test {
namespace {

using devkit::ChildRun;
using devkit::runToEnd;

using namespace std::chrono_literals;

class Monitor : public ServerFixture {
 protected:
  void SetUp() override { startWith(defaultConfig()); }

  // Every sample of the Prometheus text by its name and labels, as written.
  std::map<std::string, std::string> metrics() {
    const ChildRun run = runToEnd("curl", {"-sk", "https://127.0.0.1:50505/metrics"}, dir.path());
    std::map<std::string, std::string> samples;
    for (const std::string& line : run.lines) {
      if (!line.empty() && line[0] != '#') {
        const auto space = line.rfind(' ');
        samples[line.substr(0, space)] = line.substr(space + 1);
      }
    }
    return samples;
  }
};

TEST_F(Monitor, MetricsCountWhatArrivedAndWhatWasLost) {
  auto talker = member("Lights", "Lighting");
  auto listener = member("Sound", "Sound");
  const std::string talkerID = "{id=\"1\"}";
  const auto before = metrics();
  EXPECT_EQ(before.at("parlavox_peers{state=\"joined\"}"), "2");
  EXPECT_EQ(before.at("parlavox_audio_datagrams_received_total"), "0");
  EXPECT_EQ(before.at("parlavox_calls_total"), "0");

  // 4 never comes; 7 comes late and 8 twice: neither of those is a loss.
  const std::vector<std::uint8_t> samples(wire::kFrameBytes, 0x10);
  for (const int seq : {1, 2, 3, 5, 6, 8, 7, 8, 9, 10}) {
    talker->sendAudio(0, 0x1, static_cast<std::uint16_t>(seq), samples);
  }
  std::size_t heard = 0;
  while (listener->nextAudio(1s)) {
    ++heard;
  }
  EXPECT_EQ(heard, 10U);
  talker->sendControl({{"t", "call"}, {"mask", 0x1}});
  ASSERT_TRUE(server->waitForLine("📞 Lights (Lighting) called Main"));
  const auto after = metrics();
  EXPECT_EQ(after.at("parlavox_calls_total"), "1");
  EXPECT_EQ(after.at("parlavox_peer_audio_received_total" + talkerID), "9");
  EXPECT_EQ(after.at("parlavox_peer_audio_lost_total" + talkerID), "1");
  EXPECT_EQ(after.at("parlavox_audio_datagrams_received_total"), "10");
  EXPECT_EQ(after.at("parlavox_audio_copies_sent_total"), "10");
  EXPECT_EQ(after.count("process_resident_memory_bytes"), 1U);
  EXPECT_EQ(server->standardError(), "");
}

TEST_F(Monitor, TheConsoleWarnsOfATalkerWhoseAudioBreaksUp) {
  auto talker = member("Ann", "Sound");
  const std::vector<std::uint8_t> samples(wire::kFrameBytes, 0x10);
  for (std::uint16_t seq = 1; seq <= 101; ++seq) {
    if (seq % 10 != 0) {  // one in ten lost on the way: 10 of 101
      talker->sendAudio(0, 0x1, seq, samples);
    }
  }
  EXPECT_TRUE(server->waitForLine("⚠️  Ann (Sound): 10% audio lost in the last 10 s", 3s));
  EXPECT_EQ(server->count("audio lost"), 1U);
}

}  // namespace
}  // namespace parlavox::test
