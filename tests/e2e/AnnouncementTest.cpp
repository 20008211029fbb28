// Spoken announcements, from a real OSC sender (liblo's oscsend) to crew clients on loopback.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <thread>

#include "e2e/ServerFixture.h"
#include "platform/AudioFile.h"
#include "wire/Audio.h"

namespace parlavox::test {
namespace {

using devkit::runProgram;
using devkit::TempDir;

using namespace std::chrono_literals;
using client::Audio;

class Announcements : public ServerFixture {
 protected:
  void SetUp() override { startWith(defaultConfig()); }

  static int oscsend(const std::string& address, const std::string& text) {
    return runProgram({"oscsend", "127.0.0.1", "47000", address, "s", text});
  }
};

// The frames the server should send for `text`: what parlavox-say writes, at 16 kHz, in 320s.
std::size_t expectedFrames(const std::string& text, const TempDir& dir) {
  const auto path = dir / "expected.aiff";
  EXPECT_EQ(runProgram({parlavoxSayBinary(), "-o", path, text}), 0);
  const auto audio = platform::readAudioFile(path);
  EXPECT_TRUE(audio) << audio.error();
  return audio ? static_cast<std::size_t>(std::floor(audio->frames * 16000.0 / audio->sampleRate)) /
                     320
               : 0;
}

// One channel first: only its listeners hear it. Then all channels, in real time, and as speech.
// (That parlavox-client records what it hears unchanged is the client's own test.)
TEST_F(Announcements, ReachTheListenersOfTheirChannelsAsSpeech) {
  auto tech = member("Tech", "Lighting");             // Main + Tech
  auto green = member("Green", "Green Room Parent");  // Main + Green Room
  ASSERT_EQ(oscsend("/parlavox/say/Tech", "Standby lights"), 0);
  const auto techHeard = audioUntilQuiet(*tech);
  ASSERT_FALSE(techHeard.empty());
  EXPECT_EQ(techHeard.front().mask, 0x2U);
  EXPECT_EQ(techHeard.front().seq, 1);
  const auto stray = green->nextAudio(0ms);
  EXPECT_FALSE(stray) << "the Green Room does not listen on Tech: got mask " << stray->mask;

  for (auto* crew : {tech.get(), green.get()}) {
    crew->sendControl({{"t", "ping"}});  // a loaded machine may take 8 s to get this far
  }
  const std::string text = "Places please, this is your five minute call";
  const auto began = std::chrono::steady_clock::now();
  ASSERT_EQ(oscsend("/parlavox/say", text), 0);
  // Both listeners read as the frames come, as devices would; a socket left unread overflows.
  std::vector<Audio> heardByTech;
  std::thread techReader([&] { heardByTech = audioUntilQuiet(*tech); });
  const auto heard = audioUntilQuiet(*green);
  techReader.join();
  const auto took = std::chrono::steady_clock::now() - began;
  ASSERT_FALSE(heard.empty());
  EXPECT_TRUE(server->waitForLine("📣 Announcing: \"" + text + "\""));
  EXPECT_EQ(server->count("📣 Announcement finished ("), 2U);
  EXPECT_EQ(server->standardError(), "");

  const std::size_t expected = expectedFrames(text, dir);
  EXPECT_NEAR(static_cast<double>(heard.size()), static_cast<double>(expected), 1.0);
  for (std::size_t i = 0; i < heard.size(); ++i) {
    EXPECT_EQ(heard[i].senderID, 0xFFFF);
    EXPECT_EQ(heard[i].mask, 0x0FU) << "the whole mask, not the listener's share";
    EXPECT_EQ(heard[i].seq, techHeard.size() + i + 1) << "numbered on from the first";
    EXPECT_EQ(heard[i].samples.size(), 640U);
  }
  EXPECT_EQ(heardByTech.size(), heard.size()) << "every listener gets every frame";
  // Real-time pacing, loosely: the frames of an n·20 ms announcement take about that long.
  const double seconds = static_cast<double>(heard.size()) * 0.02;
  EXPECT_GT(std::chrono::duration<double>(took).count(), seconds * 0.75);
  EXPECT_LT(std::chrono::duration<double>(took).count(), seconds * 1.5 + 5.0);

  std::vector<std::int16_t> said;
  for (const auto& frame : heard) {
    const auto samples = wire::samplesOf(frame.samples);
    said.insert(said.end(), samples.begin(), samples.end());
  }

  // Loud enough, and not noise (which byte-swapped samples would be): white noise crosses zero
  // about every other sample, speech far less often.
  double energy = 0;
  std::size_t crossings = 0;
  double previous = 0;
  for (const std::int16_t sample : said) {
    const double s = sample / 32768.0;
    energy += s * s;
    crossings += (previous < 0) != (s < 0) ? 1U : 0U;
    previous = s;
  }
  const auto samples = static_cast<double>(said.size());
  EXPECT_GT(std::sqrt(energy / samples), 0.01) << "not silence";
  EXPECT_LT(static_cast<double>(crossings) / samples, 0.25) << "not noise";
}

}  // namespace
}  // namespace parlavox::test
