// parlavox-client against the real server on loopback: info, talk and listen end to end, and the
// messages a user meets when something is wrong.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <thread>

#include "e2e/ServerFixture.h"
#include "platform/AudioFile.h"
#include "support/Samples.h"

namespace parlavox::test {
namespace {

using devkit::ChildProcess;
using devkit::runToEnd;
using devkit::writeFile;

using namespace std::chrono_literals;
using testing::Contains;
using Samples = std::vector<std::int16_t>;

constexpr std::size_t kFrameSamples = 320;

using ClientTool = ServerFixture;

// Every failure a user can meet, each in one line with a status; and info, once there is a server.
TEST_F(ClientTool, ExplainsEveryFailureInOneLineWithAStatus) {
  // Ends with `status`, its last line starting with `line`, standard error empty.
  auto expectFailure = [this](const std::vector<std::string>& args, int status,
                              const std::string& line, const std::vector<std::string>& env = {}) {
    const auto run = runToEnd(parlavoxClientBinary(), args, dir.path(), env);
    EXPECT_EQ(run.status, status) << line;
    ASSERT_FALSE(run.lines.empty()) << line;
    EXPECT_TRUE(run.lines.back().starts_with(line)) << run.lines.back() << "\nwanted " << line;
    EXPECT_EQ(run.standardError, "");
  };
  // Without a server, and with a bus that is not there, so discovery asks no daemon of the host's.
  const std::vector<std::string> noBus{"DBUS_SYSTEM_BUS_ADDRESS=unix:path=" + (dir / "no-bus")};
  expectFailure({"listen", "--role", "Sound"}, 2,
                "❌ listen needs --out FILE.wav (see parlavox-client --help)");
  expectFailure({"127.0.0.1", "talk", "--role", "Sound", "--in", "missing.wav"}, 1,
                "❌ Can't read missing.wav: ");
  expectFailure({"127.0.0.1", "info"}, 1, "❌ No answer from 127.0.0.1: is parlavox running there?");
  expectFailure({"info"}, 1,
                "❌ No server found: there is no Avahi daemon to ask (give the server's address",
                noBus);
  const auto help = runToEnd(parlavoxClientBinary(), {"listen", "--help"}, dir.path());
  EXPECT_EQ(help.status, 0);
  ASSERT_FALSE(help.lines.empty());
  EXPECT_TRUE(help.lines[0].starts_with("usage: parlavox-client [HOST] info"));

  startWith(defaultConfig());
  // info prints the show it is sent, its lines as ShowInfo's tests spell them, and joins nothing.
  const auto info = runToEnd(parlavoxClientBinary(), {"127.0.0.1", "info"}, dir.path());
  EXPECT_EQ(info.status, 0);
  ASSERT_EQ(info.lines.size(), 9U);
  EXPECT_EQ(info.lines[0], "🎭 The show at 127.0.0.1");
  EXPECT_EQ(info.lines[8],
            "     • Director (listen only): listen only; hears Main, Tech, Backstage");
  EXPECT_EQ(info.standardError, "");
  EXPECT_EQ(server->count("joined"), 0U) << "info does not join";

  const std::string tone = makeAudio(dir / "tone.wav", 16000, 1, {"0.2", "sine", "440"});
  writeFile(dir / "notes.txt", "not audio\n");
  expectFailure({"127.0.0.1", "listen", "--role", "Juggler", "--out", "x.wav"}, 1,
                "❌ Unknown role \"Juggler\" (roles on this show: Stage Manager, Lighting, Sound, "
                "Backstage Crew, Green Room Parent, Director (listen only))");
  expectFailure({"127.0.0.1", "talk", "--role", "Director (listen only)", "--in", tone}, 1,
                "❌ Director (listen only) is a listen-only role: it cannot talk");
  expectFailure({"127.0.0.1", "talk", "--role", "Sound", "--mask", "Main,Wings", "--in", tone}, 1,
                "❌ unknown channel \"Wings\" (channels: Main, Tech, Backstage, Green Room)");
  expectFailure({"127.0.0.1", "talk", "--role", "Sound", "--mask", "Green Room", "--in", tone}, 1,
                "❌ Sound may not talk on Green Room; it talks on Main, Tech");
  expectFailure({"127.0.0.1", "call", "Green Room", "--role", "Lighting"}, 1,
                "❌ Lighting may not talk on Green Room; it talks on Main, Tech");
  expectFailure({"127.0.0.1", "talk", "--role", "Sound", "--in", "notes.txt"}, 1,
                "❌ Can't read notes.txt: ");
  expectFailure({"127.0.0.1", "listen", "--role", "Sound", "--out", "no/such/dir/x.wav"}, 1,
                "❌ Can't write no/such/dir/x.wav: ");
  EXPECT_FALSE(std::filesystem::exists(dir / "x.wav"))
      << "no file for a listener that never joined";
  // Whoever joined before failing said goodbye.
  EXPECT_EQ(server->count("joined as"), 4U);
  const auto deadline = std::chrono::steady_clock::now() + 2s;
  while (server->count("left") < 4 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_EQ(server->count("left"), 4U);
}

// A file of network audio reaches each listener whole, under the talker's id, with that listener's
// share of the channels; any other file is converted, and --mask narrows what it talks on.
TEST_F(ClientTool, TalkStreamsAFileThatListeningClientsReceive) {
  startWith(defaultConfig());
  const std::string tone =
      makeAudio(dir / "tone.wav", 16000, 1, {"1.5", "sine", "500", "vol", "0.5"});
  const Samples expected = toInt16(platform::readAudioFile(tone)->samples);
  ASSERT_EQ(expected.size(), 24000U);
  // Half a second of stereo FLAC at 44.1 kHz, louder on the left.
  const std::string flac = makeAudio(
      dir / "cue.flac", 44100, 2, {"0.5", "sine", "300", "sine", "300", "remix", "1v0.8", "2v0.2"});
  auto bo = member("Bo", "Lighting");           // hears Main and Tech
  auto cy = member("Cy", "Green Room Parent");  // hears Main and Green Room

  ChildProcess talk(parlavoxClientBinary(),
                    {"127.0.0.1", "talk", "--role", "Sound", "--name", "Ann", "--in", tone},
                    dir.path());
  const auto frames = audioUntilQuiet(*bo);
  EXPECT_EQ(talk.waitForExit(), 0);
  const auto lines = talk.lines();
  EXPECT_THAT(lines, Contains("🎙️  Talking as Sound on Main, Tech: " + tone + " (1.5 s)"));
  EXPECT_THAT(lines, Contains("▶️  1.0 s of 1.5 s (67%)"));
  EXPECT_THAT(lines, Contains("✅ Played " + tone + " (75 frames, 1.5 s)"));
  EXPECT_TRUE(server->waitForLine("👋 Ann (Sound) left", 2s)) << "talk says bye";
  ASSERT_EQ(frames.size(), 75U);
  Samples heard;
  for (std::size_t i = 0; i < frames.size(); ++i) {
    EXPECT_EQ(frames[i].seq, i);
    EXPECT_EQ(frames[i].senderID, 3) << "Ann joined third";
    EXPECT_EQ(frames[i].mask, 0x3U) << "Sound talks on Main and Tech, both of which Bo hears";
    ASSERT_EQ(frames[i].samples.size(), 2 * kFrameSamples);
    const auto samples = wire::samplesOf(frames[i].samples);
    heard.insert(heard.end(), samples.begin(), samples.end());
  }
  EXPECT_EQ(heard, expected) << "16-bit audio at 16 kHz goes through untouched";
  const auto cyHeard = audioUntilQuiet(*cy, 0ms, 0ms);
  ASSERT_EQ(cyHeard.size(), 75U);
  EXPECT_EQ(cyHeard.front().mask, 0x1U) << "Cy's share: Main only";

  ChildProcess narrowed(
      parlavoxClientBinary(),
      {"127.0.0.1", "talk", "--role", "Sound", "--mask", " Tech,Backstage", "--in", flac},
      dir.path());
  const auto converted = audioUntilQuiet(*bo);
  EXPECT_EQ(narrowed.waitForExit(), 0);
  EXPECT_THAT(narrowed.lines(),
              Contains("⚠️  Sound may not talk on Backstage; talking on Tech only"));
  EXPECT_FALSE(cy->nextAudio(0ms)) << "nothing on Main";
  // 8000 samples at 16 kHz, give or take the resampler's edge: the stereo file was read as such
  // and converted (the converter's own tests check the sound).
  ASSERT_GE(converted.size(), 24U);
  ASSERT_LE(converted.size(), 26U);
  for (const auto& frame : converted) {
    EXPECT_EQ(frame.mask, 0x2U);
    EXPECT_EQ(frame.samples.size(), 2 * kFrameSamples);
  }
}

TEST_F(ClientTool, ListenWritesWhatATalkerSaysIntoAWavOfTheLengthAsked) {
  startWith(defaultConfig());
  ChildProcess listen(parlavoxClientBinary(),
                      {"127.0.0.1", "listen", "--role", "Lighting", "--name", "Lis", "--seconds",
                       "3", "--out", "heard.wav"},
                      dir.path());
  ASSERT_TRUE(listen.waitForLine("🎧 Listening as Lighting to Main, Tech into heard.wav for 3 s"))
      << testing::PrintToString(listen.lines());
  auto ann = member("Ann", "Sound");
  ASSERT_TRUE(listen.waitForLine("🎧 Ann joined as Sound"));

  // Half a second in 25 frames, paced as a device would; no sample is 0, so the start shows.
  Samples said(25 * kFrameSamples);
  for (std::size_t i = 0; i < said.size(); ++i) {
    said[i] = static_cast<std::int16_t>(1 + (i * 37) % 20000);
  }
  const auto start = std::chrono::steady_clock::now();
  for (std::size_t f = 0; f < 25; ++f) {
    std::this_thread::sleep_until(start + f * 20ms);
    const Samples frame(said.begin() + static_cast<std::ptrdiff_t>(f * kFrameSamples),
                        said.begin() + static_cast<std::ptrdiff_t>((f + 1) * kFrameSamples));
    ann->sendAudio(0, 0x1, static_cast<std::uint16_t>(500 + f), wire::sampleBytes(frame));
  }
  ann->sendControl({{"t", "bye"}});
  // A call on Tech, from whichever role may make it, reaches the listener as a line of its own.
  const auto call =
      runToEnd(parlavoxClientBinary(), {"127.0.0.1", "call", "Tech", "--name", "Cal"}, dir.path());
  EXPECT_EQ(call.status, 0);
  EXPECT_THAT(call.lines, Contains("📞 Called Tech as Stage Manager"));
  EXPECT_TRUE(listen.waitForLine("📞 Cal (Stage Manager) called Tech"))
      << testing::PrintToString(listen.lines());

  EXPECT_EQ(listen.waitForExit(), 0);
  const auto lines = listen.lines();
  EXPECT_THAT(lines, Contains("👋 Ann (Sound) left"));
  EXPECT_THAT(lines, Contains("📝 Wrote heard.wav (3.0 s, 1 sender heard)"));
  EXPECT_TRUE(server->waitForLine("👋 Lis (Lighting) left", 2s));

  const auto wav = platform::readAudioFile(dir / "heard.wav");
  ASSERT_TRUE(wav) << wav.error();
  EXPECT_EQ(wav->sampleRate, 16000);
  EXPECT_EQ(wav->channels, 1);
  const Samples recorded = toInt16(wav->samples);
  EXPECT_EQ(recorded.size(), 48000U);
  const auto first = std::find_if(recorded.begin(), recorded.end(), [](auto s) { return s != 0; });
  ASSERT_GE(recorded.end() - first, static_cast<std::ptrdiff_t>(said.size()));
  EXPECT_EQ(static_cast<std::size_t>(first - recorded.begin()) % kFrameSamples, 0U)
      << "frames start on a 20 ms slot";
  EXPECT_TRUE(std::equal(said.begin(), said.end(), first)) << "the talk, end to end, unchanged";
  EXPECT_TRUE(std::all_of(first + static_cast<std::ptrdiff_t>(said.size()), recorded.end(),
                          [](auto s) { return s == 0; }));
}

// Heard from after a server restart, the listener joins again; Ctrl-C then finishes its file,
// the last frames too, and it says bye.
TEST_F(ClientTool, ListenerJoinsAgainWhenTheServerForgetsItAndStopsCleanlyOnCtrlC) {
  startWith(defaultConfig());
  ChildProcess listen(
      parlavoxClientBinary(),
      {"127.0.0.1", "listen", "--role", "Lighting", "--name", "Lis", "--out", "heard.wav"},
      dir.path());
  ASSERT_TRUE(
      listen.waitForLine("🎧 Listening as Lighting to Main, Tech into heard.wav; Ctrl-C stops"));
  ASSERT_TRUE(server->waitForLine("🎧 Lis joined as Lighting"));

  // A new server knows nothing of Lis; its next ping is answered "rejoin".
  server.reset();
  server = std::make_unique<ChildProcess>(parlavoxBinary(), std::vector<std::string>{}, dir.path());
  ASSERT_TRUE(server->waitForLine("✅ Listening on UDP port 50505"));
  EXPECT_TRUE(server->waitForLine("🎧 Lis joined as Lighting", 10s));
  EXPECT_TRUE(listen.waitForLine("⚠️  127.0.0.1 had lost track of us; joining again", 2s))
      << testing::PrintToString(listen.lines());

  auto ann = member("Ann", "Sound");
  const Samples frame(kFrameSamples, 1234);
  for (std::uint16_t seq = 0; seq < 10; ++seq) {
    ann->sendAudio(0, 0x3, seq, wire::sampleBytes(frame));
  }
  // Wait until the listener has certainly received them: it tells of Ann's leaving after them.
  ann->sendControl({{"t", "bye"}});
  ASSERT_TRUE(listen.waitForLine("👋 Ann (Sound) left"));

  listen.signal(SIGINT);
  EXPECT_EQ(listen.waitForExit(), 0);
  EXPECT_TRUE(server->waitForLine("👋 Lis (Lighting) left", 2s)) << "a bye, not a time-out";
  const auto wrote = listen.waitForLine("📝 Wrote heard.wav (", 0ms);
  ASSERT_TRUE(wrote) << testing::PrintToString(listen.lines());
  EXPECT_NE(wrote->find("1 sender heard"), std::string::npos);
  const Samples recorded = toInt16(platform::readAudioFile(dir / "heard.wav")->samples);
  EXPECT_EQ(std::count(recorded.begin(), recorded.end(), 1234), 10 * 320)
      << "everything heard is in the file, the last frames too";
}

}  // namespace
}  // namespace parlavox::test
