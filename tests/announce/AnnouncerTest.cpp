#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "announce/Announcer.h"
#include "devkit/TempDir.h"
#include "fakes/FakeClock.h"
#include "fakes/FakeConsole.h"
#include "platform/AudioFile.h"
#include "platform/Process.h"
#include "support/Samples.h"
#include "wire/Audio.h"

namespace parlavox {
namespace {

using devkit::TempDir;
using devkit::writeScript;
using std::chrono::milliseconds;
using test::FakeClock;
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

// The announcer with its speech files in a directory of the test's, which must be empty again
// however an announcement ended.
class AnnouncerTest : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(tmp_.entries(), std::vector<std::string>{}); }

  // A stand-in speech command that copies `audio` to the path it is given, after `first`.
  std::string copyingCommand(const std::string& audio, const std::string& first = "") {
    return writeScript(files_ / "say-copy", first + "cp '" + audio + "' \"$2\"");
  }

  // Speaks one text with `command`, waiting for the announcement to end; returns its frames.
  std::vector<Frame> announce(const std::string& command, const std::string& text) {
    std::vector<Frame> frames;
    {
      Announcer announcer(command, console_, clock_, tmp_.path());
      announcer.speak(text, [&](Bytes frame) { frames.emplace_back(frame.begin(), frame.end()); },
                      {});
    }  // the destructor finishes the queued announcement
    return frames;
  }

  TempDir files_;  // stand-in commands, the audio they hand over and their records
  TempDir tmp_;    // speech files
  test::FakeConsole console_;
  FakeClock clock_;
};

// Every failure says so in one line, sends nothing, and leaves no speech file behind.
TEST_F(AnnouncerTest, ReportsEachWayTheSpeechCanFail) {
  const std::string unreadable = "⚠️  Announcer couldn't read synthesized audio: ";
  const std::pair<std::string, std::string> cases[] = {
      {"", std::string("⚠️  Couldn't run `say`: ") + std::strerror(ENOENT)},
      {"echo partial > \"$2\"; exit 3", "⚠️  `say` failed (status 3)"},
      {"echo 'not audio at all' > \"$2\"", unreadable},
      {"exit 0", unreadable},
      {": > \"$2\"", unreadable},
  };
  for (const auto& [body, line] : cases) {
    const auto command = body.empty() ? files_ / "no-such-say" : writeScript(files_ / "say", body);
    EXPECT_TRUE(announce(command, "Places please").empty()) << body;
    const auto lines = console_.take();
    ASSERT_EQ(lines.size(), 1U) << body;
    EXPECT_TRUE(lines[0].starts_with(line) && lines[0] != unreadable) << lines[0];
  }
}

TEST_F(AnnouncerTest, SendsExactlyTheWholeFramesOfNetworkRateAudioUnchanged) {
  // 20 frames and 100 samples more, already 16-bit mono at 16 kHz: nothing to convert.
  const std::string audio =
      test::makeAudio(files_ / "exact.aiff", 16000, 1, {"6500s", "sine", "440"});
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
  const std::string tiny =
      test::makeAudio(files_ / "short.aiff", 16000, 1, {"319s", "sine", "440"});
  EXPECT_TRUE(announce(copyingCommand(tiny), "Go").empty());
  EXPECT_EQ(clock_.deadlines().size(), 20U) << "no sleep";
  EXPECT_EQ(console_.take(), Lines{"📣 Announcement finished (0.0s)"});
}

// The text goes as one argument, untouched by any shell; the speech file is a fresh
// "parlavox-announce-{UUID}.aiff".
TEST_F(AnnouncerTest, RunsTheCommandWithAFreshSpeechFileAndTheTextUnchanged) {
  const std::string audio = test::makeAudio(files_ / "tiny.aiff", 16000, 1, {"10s", "sine", "440"});
  const std::string record = files_ / "args";
  const std::string command = copyingCommand(audio, "printf '%s\\0' \"$@\" > '" + record + "'; ");
  const std::string prefix = tmp_.path() + "/parlavox-announce-";
  std::string previous;
  for (const std::string& text : std::vector<std::string>{
           "-f /etc/passwd", "", "$(touch '" + (files_ / "pwned") + "') \"*\""}) {
    announce(command, text);
    const auto args = splitNul(devkit::readFile(record));
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

// Announcements and clips take turns on the one voice: each waits for the one before to end, and a
// clip that could not start in time is dropped.
TEST_F(AnnouncerTest, AnnouncementsAndClipsRunOneAtATimeInOrder) {
  // Each frame notes which commands had run by then: the second may not start before the first
  // has sent its last frame.
  const std::string audio =
      test::makeAudio(files_ / "three.aiff", 16000, 1, {"960s", "sine", "440"});
  const std::string log = files_ / "log";
  const std::string command = copyingCommand(audio, "printf '%s;' \"$3\" >> '" + log + "'; ");
  std::mutex mutex;
  Lines events;
  const auto note = [&](const std::string& event) {
    const std::lock_guard lock(mutex);
    events.push_back(event);
  };
  const auto clip = std::make_shared<const std::vector<std::int16_t>>(2 * wire::kFrameSamples);
  std::promise<void> finished;
  {
    Announcer announcer(command, console_, clock_, tmp_.path());
    const auto speak = [&](const std::string& text) {
      announcer.speak(
          text,
          [&, text](Bytes frame) {
            note(text + " " + std::to_string(frame.size()) + " " + devkit::readFile(log));
          },
          [&, text] {
            note(text + " done");
            if (text == "second") {
              finished.set_value();
            }
          });
    };
    speak("first");
    announcer.play(clip, std::chrono::seconds(10), [&](Bytes) { note("chime"); });
    announcer.play(clip, milliseconds(0), [&](Bytes) { note("late chime"); });
    speak("second");
    // Waited for here: the destructor would drop the clips still queued.
    EXPECT_EQ(finished.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
  }
  EXPECT_EQ(events, (Lines{"first 640 first;", "first 640 first;", "first 640 first;", "first done",
                           "chime", "chime", "second 640 first;second;", "second 640 first;second;",
                           "second 640 first;second;", "second done"}));
  EXPECT_EQ(console_.take(), Lines(2, "📣 Announcement finished (0.1s)"));
}

}  // namespace
}  // namespace parlavox
