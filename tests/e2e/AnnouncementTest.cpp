// Spoken announcements, from a real OSC sender (liblo's oscsend) to crew clients on loopback.
#include <gtest/gtest.h>
#include <sndfile.h>

#include <cmath>
#include <fstream>
#include <memory>
#include <thread>

#include "client/IntercomClient.h"
#include "config/Config.h"
#include "config/RolesFile.h"
#include "e2e/ServerProcess.h"
#include "platform/AudioFile.h"

namespace parlavox::test {
namespace {

using namespace std::chrono_literals;
using client::Audio;
using client::IntercomClient;

class Announcements : public testing::Test {
 protected:
  void SetUp() override {
    std::ofstream(dir.path() / "roles.json", std::ios::binary) << encodeConfig(defaultConfig());
    server = std::make_unique<ServerProcess>(dir.path());
    ASSERT_TRUE(server->waitForLine("✅ Listening on UDP port 50505"));
  }

  std::unique_ptr<IntercomClient> member(const std::string& role) {
    auto client = std::make_unique<IntercomClient>("127.0.0.1");
    EXPECT_EQ(client->join(role, role).value()["t"], "welcome");
    while (client->nextControl(200ms)) {
      // rosters
    }
    return client;
  }

  static int oscsend(const std::string& address, const std::string& text) {
    return runProgram({"oscsend", "127.0.0.1", "47000", address, "s", text});
  }

  // Every announcement frame that reaches `client` until `quiet` passes without one.
  static std::vector<Audio> frames(IntercomClient& client, std::chrono::milliseconds first = 10s,
                                   std::chrono::milliseconds quiet = 1s) {
    std::vector<Audio> out;
    auto wait = first;
    while (auto audio = client.nextAudio(wait)) {
      out.push_back(std::move(*audio));
      wait = quiet;
    }
    return out;
  }

  TempDir dir;
  std::unique_ptr<ServerProcess> server;
};

// The frames the server should send for `text`: what parlavox-say writes, at 16 kHz, in 320s.
std::size_t expectedFrames(const std::string& text, const TempDir& dir) {
  const auto path = (dir / "expected.aiff").string();
  EXPECT_EQ(runProgram({(binaryDirectory() / "parlavox-say").string(), "-o", path, text}), 0);
  const auto audio = platform::readAudioFile(path);
  EXPECT_EQ(audio.status, platform::AudioReadResult::Status::ok);
  return static_cast<std::size_t>(std::floor(audio.frames * 16000.0 / audio.sampleRate)) / 320;
}

TEST_F(Announcements, AllChannelsHearSpeechFromTheAnnouncer) {
  auto sm = member("Stage Manager");
  auto green = member("Green Room Parent");
  const auto began = std::chrono::steady_clock::now();
  ASSERT_EQ(oscsend("/parlavox/say", "Places please, this is your five minute call"), 0);
  // Both listeners read as the frames come, as devices would; a socket left unread overflows.
  std::vector<Audio> heardBySm;
  std::thread smReader([&] { heardBySm = frames(*sm); });
  const auto heard = frames(*green);
  smReader.join();
  const auto took = std::chrono::steady_clock::now() - began;
  ASSERT_FALSE(heard.empty());
  EXPECT_TRUE(server->waitForLine("📣 Announcing: \"Places please, this is your five minute call\""));
  const auto finished = server->waitForLine("📣 Announcement finished (");
  ASSERT_TRUE(finished);

  const std::size_t expected = expectedFrames("Places please, this is your five minute call", dir);
  EXPECT_NEAR(static_cast<double>(heard.size()), static_cast<double>(expected), 1.0);
  for (std::size_t i = 0; i < heard.size(); ++i) {
    EXPECT_EQ(heard[i].senderID, 0xFFFF);
    EXPECT_EQ(heard[i].mask, 0x0FU) << "the whole mask, not the listener's share";
    EXPECT_EQ(heard[i].seq, i + 1);
    EXPECT_EQ(heard[i].samples.size(), 640U);
  }
  EXPECT_EQ(heardBySm.size(), heard.size()) << "every listener gets every frame";
  // Real-time pacing, loosely: the frames of an n·20 ms announcement take about that long.
  const double seconds = static_cast<double>(heard.size()) * 0.02;
  EXPECT_GT(std::chrono::duration<double>(took).count(), seconds * 0.75);
  EXPECT_LT(std::chrono::duration<double>(took).count(), seconds * 1.5 + 5.0);

  // Write what the Green Room heard and check it sounds like speech: loud enough, not noise.
  std::vector<std::int16_t> samples;
  for (const auto& frame : heard) {
    for (std::size_t i = 0; i + 1 < frame.samples.size(); i += 2) {
      samples.push_back(static_cast<std::int16_t>(frame.samples[i] | frame.samples[i + 1] << 8));
    }
  }
  SF_INFO info{};
  info.samplerate = 16000;
  info.channels = 1;
  info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
  const auto wav = (dir / "heard.wav").string();
  SNDFILE* file = sf_open(wav.c_str(), SFM_WRITE, &info);
  ASSERT_NE(file, nullptr);
  sf_write_short(file, samples.data(), static_cast<sf_count_t>(samples.size()));
  sf_close(file);
  const auto back = platform::readAudioFile(wav);
  ASSERT_EQ(back.frames, samples.size());

  double energy = 0;
  std::size_t crossings = 0;
  for (std::size_t i = 0; i < back.samples.size(); ++i) {
    const double s = back.samples[i];
    energy += s * s;
    crossings += i > 0 && (back.samples[i - 1] < 0) != (s < 0) ? 1U : 0U;
  }
  std::vector<double> frameEnergy(back.samples.size() / 320);
  for (std::size_t f = 0; f < frameEnergy.size(); ++f) {
    double e = 0;
    for (std::size_t i = f * 320; i < (f + 1) * 320; ++i) {
      e += back.samples[i] * back.samples[i];
    }
    frameEnergy[f] = e / 320;
  }
  const double rms = std::sqrt(energy / static_cast<double>(back.samples.size()));
  const double zeroCrossingRate = static_cast<double>(crossings) / static_cast<double>(back.samples.size());
  double mean = 0;
  for (double e : frameEnergy) {
    mean += e;
  }
  mean /= static_cast<double>(frameEnergy.size());
  double variance = 0;
  for (double e : frameEnergy) {
    variance += (e - mean) * (e - mean);
  }
  const double energySpread = std::sqrt(variance / static_cast<double>(frameEnergy.size())) / mean;
  EXPECT_GT(rms, 0.01) << "not silence";
  EXPECT_LT(zeroCrossingRate, 0.25) << "white noise crosses zero about every other sample";
  EXPECT_GT(energySpread, 0.5) << "speech comes in syllables and pauses; steady noise does not";
}

TEST_F(Announcements, OneChannelReachesOnlyItsListeners) {
  auto tech = member("Lighting");       // Main + Tech
  auto green = member("Green Room Parent");  // Main + Green Room
  ASSERT_EQ(oscsend("/parlavox/say/Tech", "Standby lights"), 0);
  const auto heard = frames(*tech);
  ASSERT_FALSE(heard.empty());
  EXPECT_EQ(heard.front().mask, 0x2U);
  EXPECT_EQ(heard.front().seq, 1);
  const auto stray = green->nextAudio(0ms);
  EXPECT_FALSE(stray) << "the Green Room does not listen on Tech: got mask " << stray->mask
                      << " seq " << stray->seq;
  EXPECT_TRUE(server->waitForLine("📣 Announcement finished ("));

  // The sequence runs on from one announcement to the next.
  ASSERT_EQ(oscsend("/parlavox/say/Green Room", "Quiet please"), 0);
  const auto next = frames(*green);
  ASSERT_FALSE(next.empty());
  EXPECT_EQ(next.front().mask, 0x8U);
  EXPECT_EQ(next.front().seq, heard.size() + 1);
}

TEST_F(Announcements, UnknownChannelsAndOtherAddressesSpeakNothing) {
  auto sm = member("Stage Manager");
  ASSERT_EQ(oscsend("/parlavox/say/tech", "nothing"), 0);
  EXPECT_TRUE(server->waitForLine("⚠️  OSC: unknown channel \"tech\""));
  for (const auto* address : {"/parlavox/sayx", "/PARLAVOX/say", "/other"}) {
    ASSERT_EQ(oscsend(address, "nothing"), 0);
  }
  ASSERT_EQ(runProgram({"oscsend", "127.0.0.1", "47000", "/parlavox/say", "i", "42"}), 0);
  EXPECT_FALSE(sm->nextAudio(3s));
  EXPECT_EQ(server->count("📣"), 0U);
  EXPECT_EQ(server->standardError(), "");
}

TEST_F(Announcements, OptionLookingTextIsSpokenAsWords) {
  auto sm = member("Stage Manager");
  ASSERT_EQ(oscsend("/parlavox/say", "-f /etc/passwd"), 0);
  EXPECT_FALSE(frames(*sm).empty());
  EXPECT_TRUE(server->waitForLine("📣 Announcing: \"-f /etc/passwd\""));
  EXPECT_EQ(server->count("⚠️"), server->count("⚠️  Bonjour"));
}

}  // namespace
}  // namespace parlavox::test
