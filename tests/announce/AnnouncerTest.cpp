#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "AnnounceTestSupport.h"
#include "announce/Announcer.h"
#include "fakes/FakeClock.h"
#include "fakes/FakeConsole.h"
#include "platform/AudioFile.h"
#include "platform/Process.h"
#include "support/Samples.h"

namespace parlavox {
namespace {

using std::chrono::milliseconds;
using test::FakeClock;
using test::FakeConsole;
using test::TempDir;
using test::writeScript;

using Frame = std::vector<std::uint8_t>;

constexpr const char* kSox = PARLAVOX_SOX_PATH;

bool isTempName(const std::string& name) {
  return test::matchesHexPattern(name,
                                 "parlavox-announce-" + std::string(test::kUuidPattern) + ".aiff");
}

class AnnouncerTest : public ::testing::Test {
 protected:
  void TearDown() override {
    // Whatever way the announcement ended, its speech file is gone.
    EXPECT_EQ(tmp_.entries(), std::vector<std::string>{});
  }

  // Renders an audio file with sox; `effect` is what follows the output file on sox's command line.
  std::string makeAudio(const std::string& name, int rate, int channels,
                        const std::vector<std::string>& effect) {
    std::string path = files_ / name;
    // Rate and channels go before -n: synth counts its length in the input's samples.
    std::vector<std::string> argv = {
        kSox, "-r", std::to_string(rate), "-c", std::to_string(channels), "-n", "-b", "16", path};
    argv.insert(argv.end(), effect.begin(), effect.end());
    const auto run = platform::runProcess(argv);
    EXPECT_TRUE(run.launched && run.status == 0) << "sox failed for " << name;
    return path;
  }

  // A stand-in speech command that copies `audio` to the path it is given.
  std::string copyingCommand(const std::string& audio) {
    return writeScript(bin_ / "say-copy", "cp '" + audio + "' \"$2\"");
  }

  // Speaks one text with `command`, waiting for the announcement to end; returns its frames.
  std::vector<Frame> announce(const std::string& command, const std::string& text) {
    std::vector<Frame> frames;
    {
      Announcer announcer(command, console_, clock_, tmp_.path());
      announcer.speak(text, [&](Bytes frame) { frames.emplace_back(frame.begin(), frame.end()); });
    }  // the destructor finishes the queued announcement
    return frames;
  }

  TempDir bin_;    // stand-in commands
  TempDir files_;  // audio the stand-ins hand over, and their records
  TempDir tmp_;    // the announcer's temporary directory
  FakeConsole console_;
  FakeClock clock_;
};

// Why a program cannot start, and how a status is counted, is runProcess's business (its own
// tests); here, that the announcer says so in one line and sends nothing.
TEST_F(AnnouncerTest, ReportsACommandThatCannotBeLaunchedOrFails) {
  EXPECT_TRUE(announce(bin_ / "no-such-say", "Places please").empty());
  EXPECT_EQ(console_.take(), std::vector<std::string>{std::string("⚠️  Couldn't run `say`: ") +
                                                      std::strerror(ENOENT)});
  // What it wrote before failing is not read.
  const auto failing = writeScript(bin_ / "say-fails", "echo partial > \"$2\"; exit 3");
  EXPECT_TRUE(announce(failing, "Places please").empty());
  EXPECT_EQ(console_.take(), std::vector<std::string>{"⚠️  `say` failed (status 3)"});
}

TEST_F(AnnouncerTest, ReportsSpeechThatCannotBeRead) {
  const std::string prefix = "⚠️  Announcer couldn't read synthesized audio: ";
  for (const std::string body : {"echo 'not audio at all' > \"$2\"", "exit 0", ": > \"$2\""}) {
    const auto frames = announce(writeScript(bin_ / "say-bad", body), "Places please");
    EXPECT_TRUE(frames.empty()) << body;
    const auto lines = console_.take();
    ASSERT_EQ(lines.size(), 1U) << body;
    EXPECT_EQ(lines[0].rfind(prefix, 0), 0U) << lines[0];
    EXPECT_GT(lines[0].size(), prefix.size()) << "no reason given: " << lines[0];
  }
}

TEST_F(AnnouncerTest, SendsExactlyTheWholeFramesOfNetworkRateAudioUnchanged) {
  // 20 frames and 100 samples more, already 16-bit mono at 16 kHz: nothing to convert.
  const std::string audio = makeAudio("exact.aiff", 16000, 1, {"synth", "6500s", "sine", "440"});
  const auto reference = platform::readAudioFile(audio);
  ASSERT_EQ(reference.status, platform::AudioReadResult::Status::ok);
  ASSERT_EQ(reference.frames, 6500U);

  const auto frames = announce(copyingCommand(audio), "Places please");

  ASSERT_EQ(frames.size(), 20U);
  auto expected = test::toInt16(reference.samples);
  expected.resize(20 * 320);
  std::vector<std::int16_t> sent;
  for (const auto& frame : frames) {
    ASSERT_EQ(frame.size(), 640U);
    const auto samples = test::fromWire(frame);
    sent.insert(sent.end(), samples.begin(), samples.end());
  }
  EXPECT_EQ(sent, expected);
  // Paced on the clock it was given: the last frame's slot ends 400 ms on.
  ASSERT_EQ(clock_.deadlines().size(), 20U);
  EXPECT_EQ(clock_.deadlines().back(), FakeClock::kStart + milliseconds(400));
  EXPECT_EQ(console_.take(), std::vector<std::string>{"📣 Announcement finished (0.4s)"});
}

TEST_F(AnnouncerTest, SpeechShorterThanAFrameSendsNothingButFinishes) {
  const std::string audio = makeAudio("short.aiff", 16000, 1, {"synth", "319s", "sine", "440"});
  const auto frames = announce(copyingCommand(audio), "Go");
  EXPECT_TRUE(frames.empty());
  EXPECT_TRUE(clock_.deadlines().empty());
  EXPECT_EQ(console_.take(), std::vector<std::string>{"📣 Announcement finished (0.0s)"});
}

TEST_F(AnnouncerTest, ConvertsStereo44kToNetworkRateMono) {
  // 1.01 s: 16,160 samples at 16 kHz, 50 frames with half a frame to spare for the resampler's
  // rounding either way. Left and right carry the same tone, so folding must not cancel it.
  const std::string audio =
      makeAudio("stereo.aiff", 44100, 2, {"synth", "44541s", "sine", "440", "gain", "-6"});
  const auto frames = announce(copyingCommand(audio), "Stand by");

  ASSERT_EQ(frames.size(), 50U);
  double sumSquares = 0;
  int peak = 0;
  for (const auto& frame : frames) {
    for (const int v : test::fromWire(frame)) {
      sumSquares += static_cast<double>(v) * v;
      peak = std::max(peak, std::abs(v));
    }
  }
  const double rms = std::sqrt(sumSquares / (50.0 * 320.0));
  // A sine of amplitude 0.5 has an RMS of 0.354 of full scale (11,585).
  EXPECT_NEAR(rms, 11585.0, 600.0);
  EXPECT_LT(peak, 17500);
  EXPECT_EQ(console_.take(), std::vector<std::string>{"📣 Announcement finished (1.0s)"});
}

TEST_F(AnnouncerTest, PassesTheTextAsTheLastArgumentUnchanged) {
  const std::string audio = makeAudio("tiny.aiff", 16000, 1, {"synth", "10s", "sine", "440"});
  const std::string record = files_ / "args";
  const std::string command = writeScript(
      bin_ / "say-records", "printf '%s\\0' \"$@\" > '" + record + "'; cp '" + audio + "' \"$2\"");
  for (const std::string text : {"-f /etc/passwd", "", "Places, please: \"Act 2\" in $HOME"}) {
    announce(command, text);
    const auto args = test::splitNul(test::readFile(record));
    ASSERT_EQ(args.size(), 3U) << text;
    EXPECT_EQ(args[0], "-o");
    const std::string dir = tmp_.path() + "/";
    ASSERT_EQ(args[1].rfind(dir, 0), 0U) << args[1];
    EXPECT_TRUE(isTempName(args[1].substr(dir.size()))) << args[1];
    EXPECT_EQ(args[2], text);
    EXPECT_EQ(console_.take(), std::vector<std::string>{"📣 Announcement finished (0.0s)"});
  }
}

TEST_F(AnnouncerTest, UsesTmpdirWhenGivenNoDirectory) {
  const std::string record = files_ / "args";
  const std::string command =
      writeScript(bin_ / "say-records", "printf '%s\\0' \"$@\" > '" + record + "'; exit 1");
  // No announcer thread runs while the environment changes.
  ASSERT_EQ(::setenv("TMPDIR", tmp_.path().c_str(), 1), 0);
  {
    Announcer announcer(command, console_, clock_);
    announcer.speak("Beginners please", [](Bytes) {});
  }
  ::unsetenv("TMPDIR");
  const auto args = test::splitNul(test::readFile(record));
  ASSERT_EQ(args.size(), 3U);
  const std::string dir = tmp_.path() + "/";
  ASSERT_EQ(args[1].rfind(dir, 0), 0U) << args[1];
  EXPECT_TRUE(isTempName(args[1].substr(dir.size()))) << args[1];
  EXPECT_EQ(console_.take(), std::vector<std::string>{"⚠️  `say` failed (status 1)"});
}

// Records console lines together with what the stand-in command had logged by then.
class LoggingConsole final : public platform::Console {
 public:
  explicit LoggingConsole(std::string log, std::vector<std::string>& events, std::mutex& mutex)
      : log_(std::move(log)), events_(events), mutex_(mutex) {}
  void print(std::string_view message) override {
    std::lock_guard lock(mutex_);
    events_.push_back(std::string(message) + " | ran: " + test::readFile(log_));
  }

 private:
  std::string log_;
  std::vector<std::string>& events_;
  std::mutex& mutex_;
};

TEST_F(AnnouncerTest, AnnouncementsRunOneAtATimeInOrder) {
  const std::string audio = makeAudio("three.aiff", 16000, 1, {"synth", "960s", "sine", "440"});
  const std::string log = files_ / "log";
  const std::string paths = files_ / "paths";
  test::writeFile(log, "");
  const std::string command = writeScript(
      bin_ / "say-logs", "printf '%s;' \"$3\" >> '" + log + "'; printf '%s\\0' \"$2\" >> '" +
                             paths + "'; cp '" + audio + "' \"$2\"");
  std::mutex mutex;
  std::vector<std::string> events;
  LoggingConsole console(log, events, mutex);
  {
    Announcer announcer(command, console, clock_, tmp_.path());
    for (const std::string text : {"first", "second"}) {
      announcer.speak(text, [&events, &mutex, text](Bytes frame) {
        std::lock_guard lock(mutex);
        events.push_back(text + " frame " + std::to_string(frame.size()));
      });
    }
  }
  const std::vector<std::string> expected = {
      "first frame 640",  "first frame 640",
      "first frame 640",  "📣 Announcement finished (0.1s) | ran: first;",
      "second frame 640", "second frame 640",
      "second frame 640", "📣 Announcement finished (0.1s) | ran: first;second;",
  };
  EXPECT_EQ(events, expected);
  const auto files = test::splitNul(test::readFile(paths));
  ASSERT_EQ(files.size(), 2U);
  EXPECT_NE(files[0], files[1]);
}

TEST(DefaultSayCommand, PrefersTheHostCommandElseTheOneBesideThisProgram) {
  const std::string command = defaultSayCommand();
  if (platform::isExecutableFile("/usr/bin/say")) {
    EXPECT_EQ(command, "/usr/bin/say");
    return;
  }
  EXPECT_EQ(command, platform::executableDirectory() + "/parlavox-say");
  // The build puts parlavox-say in the same directory as every program, tests included.
  EXPECT_TRUE(platform::isExecutableFile(command)) << command;
}

}  // namespace
}  // namespace parlavox
