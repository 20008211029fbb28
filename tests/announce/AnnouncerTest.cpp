#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "announce/Announcer.h"
#include "fakes/FakeClock.h"
#include "fakes/FakeConsole.h"
#include "platform/AudioFile.h"
#include "wire/Audio.h"
#include "platform/Process.h"
#include "support/ChildProcess.h"
#include "support/Samples.h"
#include "support/TempDir.h"

namespace parlavox {
namespace {

using std::chrono::milliseconds;
using test::FakeClock;
using test::TempDir;
using test::writeScript;
using Frame = std::vector<std::uint8_t>;
using Lines = std::vector<std::string>;

// Splits NUL-terminated fields, as `printf '%s\0' "$@"` writes them.
std::vector<std::string> splitNul(const std::string& text) {
  std::vector<std::string> fields;
  for (std::size_t from = 0, end = 0; from < text.size(); from = end + 1) {
    end = std::min(text.find('\0', from), text.size());
    fields.push_back(text.substr(from, end - from));
  }
  return fields;
}

// The announcer as the server makes it: its speech files go to $TMPDIR, here a directory of the
// test's, which must be empty again however an announcement ended.
class AnnouncerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // No announcer thread runs while the environment changes.
    if (const char* before = std::getenv("TMPDIR")) {
      savedTmpdir_ = before;
    }
    ::setenv("TMPDIR", tmp_.path().c_str(), 1);
  }
  void TearDown() override {
    savedTmpdir_ ? ::setenv("TMPDIR", savedTmpdir_->c_str(), 1) : ::unsetenv("TMPDIR");
    EXPECT_EQ(tmp_.entries(), std::vector<std::string>{});
  }

  // Renders an audio file with sox; `effect` is what follows the output file on sox's command line.
  std::string makeAudio(const std::string& name, int rate, int channels,
                        const std::vector<std::string>& effect) {
    std::string path = files_ / name;
    // Rate and channels go before -n: synth counts its length in the input's samples.
    std::vector<std::string> argv = {PARLAVOX_SOX_PATH,
                                     "-r",
                                     std::to_string(rate),
                                     "-c",
                                     std::to_string(channels),
                                     "-n",
                                     "-b",
                                     "16",
                                     path};
    argv.insert(argv.end(), effect.begin(), effect.end());
    EXPECT_EQ(test::runProgram(argv), 0) << "sox failed for " << name;
    return path;
  }

  // A stand-in speech command that copies `audio` to the path it is given, after `first`.
  std::string copyingCommand(const std::string& audio, const std::string& first = "") {
    return writeScript(bin_ / "say-copy", first + "cp '" + audio + "' \"$2\"");
  }

  // Speaks one text with `command`, waiting for the announcement to end; returns its frames.
  std::vector<Frame> announce(const std::string& command, const std::string& text) {
    std::vector<Frame> frames;
    {
      Announcer announcer(command, console_, clock_);
      announcer.speak(text, [&](Bytes frame) { frames.emplace_back(frame.begin(), frame.end()); });
    }  // the destructor finishes the queued announcement
    return frames;
  }

  TempDir bin_;    // stand-in commands
  TempDir files_;  // audio the stand-ins hand over, and their records
  TempDir tmp_;    // $TMPDIR
  std::optional<std::string> savedTmpdir_;
  test::FakeConsole console_;
  FakeClock clock_;
};

// Why a program cannot start, and how a status is counted, is runProcess's business (its own
// tests); here, that the announcer says so in one line and sends nothing.
TEST_F(AnnouncerTest, ReportsACommandThatCannotBeLaunchedOrFails) {
  EXPECT_TRUE(announce(bin_ / "no-such-say", "Places please").empty());
  EXPECT_EQ(console_.take(),
            Lines{std::string("⚠️  Couldn't run `say`: ") + std::strerror(ENOENT)});
  // What it wrote before failing is not read.
  const auto failing = writeScript(bin_ / "say-fails", "echo partial > \"$2\"; exit 3");
  EXPECT_TRUE(announce(failing, "Places please").empty());
  EXPECT_EQ(console_.take(), Lines{"⚠️  `say` failed (status 3)"});
}

TEST_F(AnnouncerTest, ReportsSpeechThatCannotBeRead) {
  const std::string prefix = "⚠️  Announcer couldn't read synthesized audio: ";
  for (const std::string body : {"echo 'not audio at all' > \"$2\"", "exit 0", ": > \"$2\""}) {
    EXPECT_TRUE(announce(writeScript(bin_ / "say-bad", body), "Places please").empty()) << body;
    const auto lines = console_.take();
    ASSERT_EQ(lines.size(), 1U) << body;
    EXPECT_TRUE(lines[0].starts_with(prefix) && lines[0].size() > prefix.size()) << lines[0];
  }
}

TEST_F(AnnouncerTest, SendsExactlyTheWholeFramesOfNetworkRateAudioUnchanged) {
  // 20 frames and 100 samples more, already 16-bit mono at 16 kHz: nothing to convert.
  const std::string audio = makeAudio("exact.aiff", 16000, 1, {"synth", "6500s", "sine", "440"});
  auto expected = test::toInt16(platform::readAudioFile(audio)->samples);
  ASSERT_EQ(expected.size(), 6500U);
  expected.resize(20 * 320);

  const auto frames = announce(copyingCommand(audio), "Places please");
  ASSERT_EQ(frames.size(), 20U);
  std::vector<std::int16_t> sent;
  for (const auto& frame : frames) {
    ASSERT_EQ(frame.size(), 640U);
    const auto samples = wire::samplesOf(frame);
    sent.insert(sent.end(), samples.begin(), samples.end());
  }
  EXPECT_EQ(sent, expected);
  // Paced on the clock it was given: the last frame's slot ends 400 ms on.
  ASSERT_EQ(clock_.deadlines().size(), 20U);
  EXPECT_EQ(clock_.deadlines().back(), FakeClock::kStart + milliseconds(400));
  EXPECT_EQ(console_.take(), Lines{"📣 Announcement finished (0.4s)"});

  // Speech shorter than a frame sends nothing, and still finishes.
  const std::string tiny = makeAudio("short.aiff", 16000, 1, {"synth", "319s", "sine", "440"});
  EXPECT_TRUE(announce(copyingCommand(tiny), "Go").empty());
  EXPECT_EQ(clock_.deadlines().size(), 20U) << "no sleep";
  EXPECT_EQ(console_.take(), Lines{"📣 Announcement finished (0.0s)"});
}

TEST_F(AnnouncerTest, ConvertsStereo44kToNetworkRateMono) {
  // 1.01 s: 16,160 samples at 16 kHz, 50 frames with half a frame to spare for the resampler's
  // rounding either way. Left and right carry the same tone, so folding must not cancel it.
  const std::string audio =
      makeAudio("stereo.aiff", 44100, 2, {"synth", "44541s", "sine", "440", "gain", "-6"});
  const auto frames = announce(copyingCommand(audio), "Stand by");
  ASSERT_EQ(frames.size(), 50U);
  double sumSquares = 0;
  for (const auto& frame : frames) {
    for (const int v : wire::samplesOf(frame)) {
      sumSquares += static_cast<double>(v) * v;
    }
  }
  // A sine of amplitude 0.5 has an RMS of 0.354 of full scale (11,585).
  EXPECT_NEAR(std::sqrt(sumSquares / (50.0 * 320.0)), 11585.0, 600.0);
  EXPECT_EQ(console_.take(), Lines{"📣 Announcement finished (1.0s)"});
}

// The text goes as one argument, untouched by any shell; the speech file is a fresh
// "parlavox-announce-{UUID}.aiff" in $TMPDIR.
TEST_F(AnnouncerTest, RunsTheCommandWithAFreshSpeechFileAndTheTextUnchanged) {
  const std::string audio = makeAudio("tiny.aiff", 16000, 1, {"synth", "10s", "sine", "440"});
  const std::string record = files_ / "args";
  const std::string command = copyingCommand(audio, "printf '%s\\0' \"$@\" > '" + record + "'; ");
  const std::string prefix = tmp_.path() + "/parlavox-announce-";
  std::string previous;
  for (const std::string& text : std::vector<std::string>{
           "-f /etc/passwd", "", "$(touch '" + (files_ / "pwned") + "') \"*\""}) {
    announce(command, text);
    const auto args = splitNul(test::readFile(record));
    ASSERT_EQ(args.size(), 3U) << text;
    EXPECT_EQ(args[0], "-o");
    EXPECT_TRUE(args[1].starts_with(prefix) && args[1].ends_with(".aiff") &&
                args[1].size() == prefix.size() + 36 + 5)
        << args[1];
    EXPECT_NE(args[1], previous);
    previous = args[1];
    EXPECT_EQ(args[2], text);
    EXPECT_EQ(console_.take(), Lines{"📣 Announcement finished (0.0s)"});
  }
  EXPECT_NE(::access((files_ / "pwned").c_str(), F_OK), 0);
}

TEST_F(AnnouncerTest, AnnouncementsRunOneAtATimeInOrder) {
  // Each frame notes which commands had run by then: the second may not start before the first
  // has sent its last frame.
  const std::string audio = makeAudio("three.aiff", 16000, 1, {"synth", "960s", "sine", "440"});
  const std::string log = files_ / "log";
  const std::string command = copyingCommand(audio, "printf '%s;' \"$3\" >> '" + log + "'; ");
  std::mutex mutex;
  Lines events;
  {
    Announcer announcer(command, console_, clock_);
    for (const std::string text : {"first", "second"}) {
      announcer.speak(text, [&events, &mutex, &log, text](Bytes frame) {
        const std::lock_guard lock(mutex);
        events.push_back(text + " " + std::to_string(frame.size()) + " " + test::readFile(log));
      });
    }
  }
  EXPECT_EQ(events, (Lines{"first 640 first;", "first 640 first;", "first 640 first;",
                           "second 640 first;second;", "second 640 first;second;",
                           "second 640 first;second;"}));
  EXPECT_EQ(console_.take(), Lines(2, "📣 Announcement finished (0.1s)"));
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
