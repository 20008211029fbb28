// Spoken announcements, from a real OSC sender (liblo's oscsend) to crew clients on loopback.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cmath>
#include <thread>

#include "e2e/ServerFixture.h"
#include "platform/AudioFile.h"
#include "support/Samples.h"

namespace parlavox::test {
namespace {

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

// One channel first: only its listeners hear it. Then all channels, in real time, and as speech in
// the WAV that parlavox-client records of it.
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

  ChildProcess recorder(
      parlavoxClientBinary(),
      {"127.0.0.1", "listen", "--role", "Green Room Parent", "--name", "Rec", "--out", "heard.wav"},
      dir.path());
  ASSERT_TRUE(recorder.waitForLine("🎧 Listening as Green Room Parent", 5s));
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

  // What the recorder heard, as a WAV file a person could play.
  recorder.signal(SIGINT);
  ASSERT_EQ(recorder.waitForExit(), 0) << testing::PrintToString(recorder.lines());
  const auto file = platform::readAudioFile(dir / "heard.wav");
  ASSERT_TRUE(file) << file.error();
  EXPECT_EQ(file->sampleRate, 16000);
  // Silence until the announcement, then the frames the Green Room heard, sample for sample.
  std::vector<std::int16_t> said;
  for (const auto& frame : heard) {
    const auto samples = wire::samplesOf(frame.samples);
    said.insert(said.end(), samples.begin(), samples.end());
  }
  const auto recorded = toInt16(file->samples);
  // Found by its first frame that is not silence: speech may begin with some.
  auto sound = said.begin();
  while (sound != said.end() && std::all_of(sound, sound + 320, [](auto v) { return v == 0; })) {
    sound += 320;
  }
  ASSERT_NE(sound, said.end()) << "the announcement is silent";
  const auto found = std::search(recorded.begin(), recorded.end(), sound, sound + 320);
  ASSERT_GE(found - recorded.begin(), sound - said.begin());
  const auto at = found - (sound - said.begin());
  ASSERT_GE(recorded.end() - at, static_cast<std::ptrdiff_t>(said.size())) << "not all recorded";
  EXPECT_TRUE(std::equal(said.begin(), said.end(), at)) << "the announcement, unchanged";
  EXPECT_TRUE(std::all_of(recorded.begin(), at, [](auto v) { return v == 0; }));
  const auto first = file->samples.begin() + (at - recorded.begin());
  const auto last = first + static_cast<std::ptrdiff_t>(said.size());

  // Loud enough, and not noise (which byte-swapped samples would be): white noise crosses zero
  // about every other sample, speech far less often.
  double energy = 0;
  std::size_t crossings = 0;
  double previous = 0;
  for (auto it = first; it != last; ++it) {
    const float s = *it;
    energy += static_cast<double>(s) * s;
    crossings += (previous < 0) != (s < 0) ? 1U : 0U;
    previous = s;
  }
  const auto samples = static_cast<double>(last - first);
  EXPECT_GT(std::sqrt(energy / samples), 0.01) << "not silence";
  EXPECT_LT(static_cast<double>(crossings) / samples, 0.25) << "not noise";
}

}  // namespace
}  // namespace parlavox::test
