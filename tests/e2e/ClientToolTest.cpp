// parlavox-client against the real server on loopback: info, talk and listen end to end, and the
// messages a user meets when something is wrong.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <thread>

#include "client/IntercomClient.h"
#include "config/Config.h"
#include "config/RolesFile.h"
#include "e2e/ClientProcess.h"
#include "e2e/ServerProcess.h"
#include "platform/AudioFile.h"

namespace parlavox::test {
namespace {

using namespace std::chrono_literals;
using client::Audio;
using client::IntercomClient;
using Samples = std::vector<std::int16_t>;

constexpr std::size_t kFrameSamples = 320;

Samples samplesOf(const platform::AudioReadResult& file) {
  Samples out;
  for (const float value : file.samples) {
    out.push_back(static_cast<std::int16_t>(std::lround(value * 32768.0F)));
  }
  return out;
}

Samples decode(const std::vector<std::uint8_t>& bytes) {
  Samples out(bytes.size() / 2);
  for (std::size_t i = 0; i < out.size(); ++i) {
    out[i] =
        static_cast<std::int16_t>(static_cast<std::uint16_t>(bytes[2 * i] | bytes[2 * i + 1] << 8));
  }
  return out;
}

std::vector<std::uint8_t> encode(const Samples& samples) {
  std::vector<std::uint8_t> out;
  for (const auto sample : samples) {
    out.push_back(static_cast<std::uint8_t>(static_cast<std::uint16_t>(sample)));
    out.push_back(static_cast<std::uint8_t>(static_cast<std::uint16_t>(sample) >> 8));
  }
  return out;
}

// An OSC message with one string argument, as show-control software sends it.
std::vector<std::uint8_t> oscMessage(const std::string& address, const std::string& text) {
  std::vector<std::uint8_t> out;
  auto padded = [&out](const std::string& s) {
    out.insert(out.end(), s.begin(), s.end());
    do {
      out.push_back(0);
    } while (out.size() % 4 != 0);
  };
  padded(address);
  padded(",s");
  padded(text);
  return out;
}

// Runs a program from PATH to its end, without a shell: its exit status, or -1.
int runTool(const std::vector<std::string>& args) {
  std::vector<std::string> copies = args;
  std::vector<char*> argv;
  argv.reserve(copies.size() + 1);
  for (auto& arg : copies) {
    argv.push_back(arg.data());
  }
  argv.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
    return -1;
  }
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
    return -1;
  }
  return WEXITSTATUS(status);
}

bool contains(const std::vector<std::string>& lines, const std::string& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

std::string joinedLines(const std::vector<std::string>& lines) {
  std::string out;
  for (const auto& line : lines) {
    out += line + "\n";
  }
  return out;
}

class ClientTool : public testing::Test {
 protected:
  void startWith(const Config& config) {
    std::ofstream(dir_.path() / "roles.json", std::ios::binary) << encodeConfig(config);
    server_ = std::make_unique<ServerProcess>(dir_.path());
    ASSERT_TRUE(server_->waitForLine("✅ Listening on UDP port 50505"));
  }

  std::unique_ptr<IntercomClient> member(const std::string& name, const std::string& role) {
    auto client = std::make_unique<IntercomClient>("127.0.0.1");
    const auto welcome = client->join(name, role);
    EXPECT_TRUE(welcome && (*welcome)["t"] == "welcome") << name;
    client->collect(300ms);  // the rosters
    while (client->nextControl(0ms)) {
    }
    return client;
  }

  // An audio file made by sox: `format` describes the file, `synth` what follows "synth".
  std::string makeAudio(const std::string& name, std::vector<std::string> format,
                        const std::vector<std::string>& synth) {
    std::string path = (dir_ / name).string();
    std::vector<std::string> argv{"sox", "-n"};
    argv.insert(argv.end(), format.begin(), format.end());
    argv.push_back(path);
    argv.emplace_back("synth");
    argv.insert(argv.end(), synth.begin(), synth.end());
    EXPECT_EQ(runTool(argv), 0) << "sox failed for " << name;
    return path;
  }

  // Every audio datagram that arrives until `quiet` passes without one.
  static std::vector<Audio> everyFrame(IntercomClient& client,
                                       std::chrono::milliseconds quiet = 1500ms) {
    std::vector<Audio> frames;
    while (auto audio = client.nextAudio(quiet)) {
      frames.push_back(std::move(*audio));
    }
    return frames;
  }

  TempDir dir_;
  std::unique_ptr<ServerProcess> server_;
};

TEST_F(ClientTool, InfoPrintsTheShowOfTheServerAtAnAddress) {
  startWith(Config{"Deck",
                   {"Deck", "Fly", "Comms"},
                   {{"Rail", {"Fly"}, {"Deck", "Fly"}}, {"Observer", {}, {"Comms"}}},
                   47000});
  const auto run = runClient(dir_.path(), {"127.0.0.1", "info"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.lines, (std::vector<std::string>{
                           "🎭 The show at 127.0.0.1",
                           "   Channels: Deck, Fly, Comms",
                           "   Roles:",
                           "     • Rail: talks on Fly; hears Deck, Fly",
                           "     • Observer: listen only; hears Comms",
                       }));
  EXPECT_EQ(run.standardError, "");
  EXPECT_EQ(server_->count("joined"), 0U) << "info does not join";
}

struct Failure {
  std::vector<std::string> args;
  int status;
  std::string line;  // the start of the last line printed
};

TEST_F(ClientTool, ExplainsEveryFailureInOneLineWithAStatus) {
  // Without a server.
  const std::vector<Failure> offline{
      {{"lisen"},
       2,
       "❌ no command after the host \"lisen\" (info, listen or talk) (see parlavox-client --help)"},
      {{"::1", "lisen"},
       2,
       "❌ unknown command \"lisen\" (info, listen or talk) (see parlavox-client --help)"},
      {{"listen", "--role", "Sound"},
       2,
       "❌ listen needs --out FILE.wav (see parlavox-client --help)"},
      {{"127.0.0.1", "talk", "--role", "Sound", "--in", "missing.wav"},
       1,
       "❌ Can't read missing.wav: "},
      {{"127.0.0.1", "info"}, 1, "❌ No answer from 127.0.0.1: is parlavox running there?"},
      {{"info"},
       1,
       "❌ No server found: there is no Avahi daemon to ask (give the server's address"},
  };
  // A bus that is not there, so discovery asks no daemon of the host's.
  const std::vector<std::string> noBus{"DBUS_SYSTEM_BUS_ADDRESS=unix:path=" +
                                       (dir_ / "no-bus").string()};
  for (const auto& row : offline) {
    const auto run = runClient(dir_.path(), row.args, noBus);
    EXPECT_EQ(run.status, row.status) << row.line;
    ASSERT_FALSE(run.lines.empty()) << row.line;
    EXPECT_TRUE(run.lines.back().starts_with(row.line))
        << run.lines.back() << "\nwanted " << row.line;
    EXPECT_EQ(run.standardError, "");
  }

  const auto help = runClient(dir_.path(), {"listen", "--help"});
  EXPECT_EQ(help.status, 0);
  ASSERT_FALSE(help.lines.empty());
  EXPECT_TRUE(help.lines[0].starts_with("usage: parlavox-client [HOST] info"));

  startWith(defaultConfig());
  const std::string tone =
      makeAudio("tone.wav", {"-r", "16000", "-c", "1", "-b", "16"}, {"0.2", "sine", "440"});
  std::ofstream(dir_ / "notes.txt") << "not audio\n";
  const std::vector<Failure> online{
      {{"127.0.0.1", "listen", "--role", "Juggler", "--out", "x.wav"},
       1,
       "❌ Unknown role \"Juggler\" (roles on this show: Stage Manager, Lighting, Sound, Backstage "
       "Crew, Green Room Parent, Director (listen only))"},
      {{"127.0.0.1", "talk", "--role", "Director (listen only)", "--in", tone},
       1,
       "❌ Director (listen only) is a listen-only role: it cannot talk"},
      {{"127.0.0.1", "talk", "--role", "Sound", "--mask", "Main,Wings", "--in", tone},
       1,
       "❌ unknown channel \"Wings\" (channels: Main, Tech, Backstage, Green Room)"},
      {{"127.0.0.1", "talk", "--role", "Sound", "--mask", "Green Room", "--in", tone},
       1,
       "❌ Sound may not talk on Green Room; it talks on Main, Tech"},
      {{"127.0.0.1", "talk", "--role", "Sound", "--in", "notes.txt"},
       1,
       "❌ Can't read notes.txt: "},
      {{"127.0.0.1", "listen", "--role", "Sound", "--out", "no/such/dir/x.wav"},
       1,
       "❌ Can't write no/such/dir/x.wav: "},
  };
  for (const auto& row : online) {
    const auto run = runClient(dir_.path(), row.args);
    EXPECT_EQ(run.status, row.status) << row.line;
    ASSERT_FALSE(run.lines.empty()) << row.line;
    EXPECT_TRUE(run.lines.back().starts_with(row.line))
        << run.lines.back() << "\nwanted " << row.line;
  }
  EXPECT_FALSE(std::filesystem::exists(dir_ / "x.wav"))
      << "no file for a listener that never joined";
  // Whoever joined before failing said goodbye.
  EXPECT_EQ(server_->count("joined as"), 3U);
  const auto deadline = std::chrono::steady_clock::now() + 2s;
  while (server_->count("left") < 3 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_EQ(server_->count("left"), 3U);
}

TEST_F(ClientTool, TalkStreamsAFileThatAListeningClientReceivesWhole) {
  startWith(defaultConfig());
  const std::string tone = makeAudio("tone.wav", {"-r", "16000", "-c", "1", "-b", "16"},
                                     {"1.5", "sine", "500", "vol", "0.5"});
  const Samples expected = samplesOf(platform::readAudioFile(tone));
  ASSERT_EQ(expected.size(), 24000U);
  auto bo = member("Bo", "Lighting");

  ClientProcess talk(dir_.path(),
                     {"127.0.0.1", "talk", "--role", "Sound", "--name", "Ann", "--in", tone});
  const auto frames = everyFrame(*bo);
  EXPECT_EQ(talk.waitForExit(), 0);
  const auto lines = talk.lines();
  EXPECT_TRUE(contains(lines, "🎙️  Talking as Sound on Main, Tech: " + tone + " (1.5 s)"))
      << joinedLines(lines);
  EXPECT_TRUE(contains(lines, "▶️  1.0 s of 1.5 s (67%)")) << joinedLines(lines);
  EXPECT_TRUE(contains(lines, "✅ Played " + tone + " (75 frames, 1.5 s)")) << joinedLines(lines);
  EXPECT_TRUE(server_->waitForLine("👋 Ann (Sound) left", 2s)) << "talk says bye";

  ASSERT_EQ(frames.size(), 75U);
  Samples heard;
  for (std::size_t i = 0; i < frames.size(); ++i) {
    EXPECT_EQ(frames[i].seq, i);
    EXPECT_EQ(frames[i].senderID, 2) << "Ann joined second";
    EXPECT_EQ(frames[i].mask, 0x3U) << "Sound talks on Main and Tech, both of which Bo hears";
    ASSERT_EQ(frames[i].samples.size(), 2 * kFrameSamples);
    const auto samples = decode(frames[i].samples);
    heard.insert(heard.end(), samples.begin(), samples.end());
  }
  EXPECT_EQ(heard, expected) << "16-bit audio at 16 kHz goes through untouched";
}

TEST_F(ClientTool, TalkConvertsAnyFileAndTalksOnlyOnTheChannelsAsked) {
  startWith(defaultConfig());
  // Half a second of stereo FLAC at 44.1 kHz, louder on the left.
  const std::string flac =
      makeAudio("cue.flac", {"-r", "44100", "-c", "2", "-b", "16"},
                {"0.5", "sine", "300", "sine", "300", "remix", "1v0.8", "2v0.2"});
  auto tech = member("Bo", "Lighting");           // hears Main and Tech
  auto main = member("Cy", "Green Room Parent");  // hears Main and Green Room

  ClientProcess talk(dir_.path(), {"127.0.0.1", "talk", "--role", "Sound", "--mask",
                                   " Tech,Backstage", "--in", flac});
  const auto frames = everyFrame(*tech);
  EXPECT_EQ(talk.waitForExit(), 0);
  EXPECT_TRUE(
      contains(talk.lines(), "⚠️  Sound may not talk on Backstage; talking on Tech only"))
      << joinedLines(talk.lines());
  EXPECT_FALSE(main->nextAudio(0ms)) << "nothing on Main";

  // 8000 samples at 16 kHz, give or take the resampler's edge.
  ASSERT_GE(frames.size(), 24U);
  ASSERT_LE(frames.size(), 26U);
  double energy = 0;
  for (const auto& frame : frames) {
    EXPECT_EQ(frame.mask, 0x2U);
    EXPECT_EQ(frame.samples.size(), 2 * kFrameSamples);
    for (const auto sample : decode(frame.samples)) {
      energy += static_cast<double>(sample) * sample;
    }
  }
  // The channels averaged: a sine of amplitude 0.5, RMS about 0.35 of full scale.
  const double rms = std::sqrt(energy / static_cast<double>(frames.size() * kFrameSamples)) / 32768;
  EXPECT_NEAR(rms, 0.35, 0.05);
}

TEST_F(ClientTool, ListenWritesWhatATalkerSaysIntoAWavOfTheLengthAsked) {
  startWith(defaultConfig());
  ClientProcess listen(dir_.path(), {"127.0.0.1", "listen", "--role", "Lighting", "--name", "Lis",
                                     "--seconds", "3", "--out", "heard.wav"});
  ASSERT_TRUE(listen.waitForLine("🎧 Listening as Lighting to Main, Tech into heard.wav for 3 s"))
      << joinedLines(listen.lines());
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
    ann->sendAudio(0, 0x1, static_cast<std::uint16_t>(500 + f), encode(frame));
  }
  ann->sendControl({{"t", "bye"}});

  EXPECT_EQ(listen.waitForExit(), 0);
  const auto lines = listen.lines();
  EXPECT_TRUE(contains(lines, "👋 Ann (Sound) left")) << joinedLines(lines);
  EXPECT_TRUE(contains(lines, "📝 Wrote heard.wav (3.0 s, 1 sender heard)")) << joinedLines(lines);
  EXPECT_TRUE(server_->waitForLine("👋 Lis (Lighting) left", 2s));

  const auto wav = platform::readAudioFile((dir_ / "heard.wav").string());
  ASSERT_EQ(wav.status, platform::AudioReadResult::Status::ok) << wav.error;
  EXPECT_EQ(wav.sampleRate, 16000);
  EXPECT_EQ(wav.channels, 1);
  const Samples recorded = samplesOf(wav);
  EXPECT_EQ(recorded.size(), 48000U);
  const auto first = std::find_if(recorded.begin(), recorded.end(), [](auto s) { return s != 0; });
  ASSERT_GE(recorded.end() - first, static_cast<std::ptrdiff_t>(said.size()));
  EXPECT_EQ(static_cast<std::size_t>(first - recorded.begin()) % kFrameSamples, 0U)
      << "frames start on a 20 ms slot";
  EXPECT_TRUE(std::equal(said.begin(), said.end(), first)) << "the talk, end to end, unchanged";
  EXPECT_TRUE(std::all_of(first + static_cast<std::ptrdiff_t>(said.size()), recorded.end(),
                          [](auto s) { return s == 0; }));
}

TEST_F(ClientTool, ListenRecordsAnAnnouncement) {
  startWith(defaultConfig());
  ClientProcess listen(dir_.path(), {"127.0.0.1", "listen", "--role", "Backstage Crew", "--seconds",
                                     "4", "--out", "cue.wav"});
  ASSERT_TRUE(listen.waitForLine("🎧 Listening as Backstage Crew")) << joinedLines(listen.lines());
  IntercomClient osc("127.0.0.1", 47000);
  osc.sendRaw(oscMessage("/parlavox/say", "Places please"));
  ASSERT_TRUE(server_->waitForLine("📣 Announcing: \"Places please\""));

  EXPECT_EQ(listen.waitForExit(), 0);
  EXPECT_TRUE(contains(listen.lines(), "📝 Wrote cue.wav (4.0 s, 1 sender heard)"))
      << joinedLines(listen.lines());
  const auto wav = platform::readAudioFile((dir_ / "cue.wav").string());
  ASSERT_EQ(wav.status, platform::AudioReadResult::Status::ok) << wav.error;
  const Samples recorded = samplesOf(wav);
  EXPECT_EQ(recorded.size(), 64000U);
  auto loud = [](auto s) { return std::abs(s) > 500; };
  const auto first = std::find_if(recorded.begin(), recorded.end(), loud);
  const auto last = std::find_if(recorded.rbegin(), recorded.rend(), loud);
  ASSERT_NE(first, recorded.end()) << "the recording is silent";
  // "Places please" takes most of a second to say.
  EXPECT_GT(recorded.rend() - last - (first - recorded.begin()), 8000);
}

TEST_F(ClientTool, CtrlCFinishesTheWavAndSaysBye) {
  startWith(defaultConfig());
  ClientProcess listen(dir_.path(), {"127.0.0.1", "listen", "--role", "Lighting", "--name", "Lis",
                                     "--out", "heard.wav"});
  ASSERT_TRUE(
      listen.waitForLine("🎧 Listening as Lighting to Main, Tech into heard.wav; Ctrl-C stops"));
  auto ann = member("Ann", "Sound");
  const Samples frame(kFrameSamples, 1234);
  for (std::uint16_t seq = 0; seq < 10; ++seq) {
    ann->sendAudio(0, 0x3, seq, encode(frame));
  }
  // Wait until the listener has certainly received them: it tells of Ann's leaving after them.
  ann->sendControl({{"t", "bye"}});
  ASSERT_TRUE(listen.waitForLine("👋 Ann (Sound) left"));

  listen.signal(SIGINT);
  EXPECT_EQ(listen.waitForExit(), 0);
  EXPECT_TRUE(server_->waitForLine("👋 Lis (Lighting) left", 2s)) << "a bye, not a time-out";
  const auto wrote = listen.waitForLine("📝 Wrote heard.wav (", 0ms);
  ASSERT_TRUE(wrote) << joinedLines(listen.lines());
  EXPECT_NE(wrote->find("1 sender heard"), std::string::npos);

  const auto wav = platform::readAudioFile((dir_ / "heard.wav").string());
  ASSERT_EQ(wav.status, platform::AudioReadResult::Status::ok) << wav.error;
  const Samples recorded = samplesOf(wav);
  EXPECT_EQ(std::count(recorded.begin(), recorded.end(), 1234), 10 * 320)
      << "everything heard is in the file, the last frames too";
}

TEST_F(ClientTool, ListenerJoinsAgainWhenTheServerForgetsIt) {
  startWith(defaultConfig());
  ClientProcess listen(dir_.path(), {"127.0.0.1", "listen", "--role", "Lighting", "--name", "Lis",
                                     "--out", "heard.wav"});
  ASSERT_TRUE(listen.waitForLine("🎧 Listening as Lighting"));
  ASSERT_TRUE(server_->waitForLine("🎧 Lis joined as Lighting"));

  // A new server knows nothing of Lis; its next ping is answered "rejoin".
  server_.reset();
  server_ = std::make_unique<ServerProcess>(dir_.path());
  ASSERT_TRUE(server_->waitForLine("✅ Listening on UDP port 50505"));
  EXPECT_TRUE(server_->waitForLine("🎧 Lis joined as Lighting", 10s));
  EXPECT_TRUE(listen.waitForLine("⚠️  127.0.0.1 had lost track of us; joining again", 2s))
      << joinedLines(listen.lines());

  listen.signal(SIGINT);
  EXPECT_EQ(listen.waitForExit(), 0);
  EXPECT_TRUE(server_->waitForLine("👋 Lis (Lighting) left", 2s));
}

}  // namespace
}  // namespace parlavox::test
