// Announcements that cannot wedge the server or garble its console: hostile texts and speech
// commands, the stop cue, the speech command's time limit, and a clean end by signal.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>

#include "e2e/ServerFixture.h"

namespace parlavox::test {
namespace {

using devkit::processEnds;
using devkit::readFile;
using devkit::runProgram;
using devkit::waitForLineIn;
using devkit::writeScript;

using namespace std::chrono_literals;
namespace fs = std::filesystem;

// About nine seconds of speech: some 470 frames.
constexpr std::string_view kLongText =
    "Ladies and gentlemen, this is your fifteen minute call. Please take your seats, the "
    "performance will begin shortly. Ladies and gentlemen, this is your fifteen minute call.";

// A copy of the server beside a stand-in parlavox-say, which it runs for want of /usr/bin/say.
// In the server's working directory, the stand-in notes each text it is given. For "hang…" it
// starts a sleeper and waits for it, for "linger…" it becomes the sleeper, for "fail…" it writes
// hostile output and fails; anything else the real one speaks.
class AnnouncementControl : public ServerFixture {
 protected:
  void SetUp() override {
    fs::create_directories(dir / "bin");
    fs::create_directories(dir / "tmp");
    fs::copy_file(parlavoxBinary(), program_);
    writeScript(
        dir / "bin/parlavox-say",
        "echo \"$3\" >> said\ncase \"$3\" in\n"
        "  hang*) : > \"$2\"; sleep 600 & echo $! > sleeper; wait ;;\n"
        "  linger*) echo $$ > sleeper; exec sleep 600 ;;\n"
        "  fail*) printf 'no voice\\033[2J\\n\\033]0;pwned\\007forged line\\n' >&2; exit 3;;\n"
        "esac\nexec '" +
            parlavoxSayBinary() + "' \"$@\"");
  }
  void start() { startWith(defaultConfig(), program_, {"TMPDIR=" + dir / "tmp"}); }
  static void osc(const std::vector<std::string>& message) {
    std::vector<std::string> argv = {"oscsend", "127.0.0.1", "47000"};
    argv.insert(argv.end(), message.begin(), message.end());
    ASSERT_EQ(runProgram(argv), 0);
  }
  static void say(const std::string& text) { osc({"/parlavox/say", "s", text}); }
  // The sleeper of the speech command running now (std::stoi throws if none comes).
  pid_t sleeper() {
    const pid_t pid = std::stoi(waitForLineIn(dir / "sleeper"));
    fs::remove(dir / "sleeper");
    return pid;
  }
  // Whether `crew` hears a frame within as long as a loaded machine may need to start speaking,
  // kept alive meanwhile (a client silent for 8 s is dropped).
  static bool hears(client::IntercomClient& crew) {
    for (int i = 0; i < 15; ++i) {
      crew.sendControl({{"t", "ping"}});
      if (crew.nextAudio(2s)) {
        return true;
      }
    }
    return false;
  }
  long speechFiles() const { return std::distance(fs::directory_iterator(dir / "tmp"), {}); }

  std::string program_ = dir / "bin/parlavox";
};

TEST_F(AnnouncementControl, TextsAndTheSpeechCommandsWordsReachTheConsoleAsOneCleanLineEach) {
  start();
  say("Go\x1b[2J\nforged");
  osc({"/parlavox/say/\x1b[2J", "s", "x"});
  std::string marked = "a";
  for (int i = 0; i < 1000; ++i) {
    marked += "\xCC\x81";
  }
  say(marked);
  say("fail please");
  ASSERT_TRUE(server->waitForLine("⚠️  `say` failed", 30s));
  const auto lines = server->lines();
  for (const std::string expected :
       {"📣 Announcing: \"Go\uFFFD[2J\uFFFDforged\"", "⚠️  OSC: unknown channel \"\uFFFD[2J\"",
        "⚠️  OSC: announcement of 1001 characters refused (at most 1000)",
        "⚠️  `say` failed (status 3): no voice\uFFFD[2J | \uFFFD]0;pwned\uFFFDforged line"}) {
    EXPECT_EQ(std::count(lines.begin(), lines.end(), expected), 1) << expected;
  }
  for (const auto& line : lines) {
    EXPECT_TRUE(line.find('\x1b') == std::string::npos && !line.starts_with("forged")) << line;
  }
  EXPECT_EQ(server->standardError(), "");
  EXPECT_EQ(readFile(dir / "said"), "Go\x1b[2J\nforged\nfail please\n") << "nothing refused";
}

// "Stop all": what is being spoken ends at once and what waits is dropped; a speech command still
// running is killed with what it started; what comes after is spoken.
TEST_F(AnnouncementControl, TheStopCueSilencesEverythingAskedForBeforeIt) {
  start();
  auto tech = member("Tech", "Lighting");
  say(std::string(kLongText));
  say("Never spoken");
  ASSERT_TRUE(hears(*tech));
  osc({"/parlavox/stop"});
  ASSERT_TRUE(server->waitForLine("📣 Announcements stopped"));
  EXPECT_LT(audioUntilQuiet(*tech, 2s, 1s).size(), 250U) << "some 470 if not stopped";

  say("hang on");
  const pid_t sleeping = sleeper();
  osc({"/parlavox/stop", "i", "1"});
  EXPECT_TRUE(processEnds(sleeping));
  auto later = member("Later", "Lighting");
  say("Go");
  EXPECT_FALSE(audioUntilQuiet(*later).empty());
  EXPECT_TRUE(server->waitForLine("📣 Announcement finished ("));
  EXPECT_EQ(server->count("📣 Announcement finished ("), 1U);
  EXPECT_EQ(server->count("`say`"), 0U);
  EXPECT_EQ(readFile(dir / "said"), std::string(kLongText) + "\nhang on\nGo\n");
}

TEST_F(AnnouncementControl, ASpeechCommandThatHangsIsKilledAfter20sAndTheNextOneIsSpoken) {
  start();
  const auto began = std::chrono::steady_clock::now();
  say("hang forever");
  say("Next");
  const pid_t sleeping = sleeper();
  ASSERT_TRUE(server->waitForLine("⏱️  `say` took longer than 20s and was killed", 60s));
  EXPECT_GT(std::chrono::steady_clock::now() - began, 19s);
  EXPECT_TRUE(processEnds(sleeping));
  auto tech = member("Tech", "Lighting");
  EXPECT_FALSE(audioUntilQuiet(*tech).empty());
  EXPECT_TRUE(server->waitForLine("📣 Announcement finished ("));
}

// SIGTERM and Ctrl-C end the server with status 0, speech command and speech file gone; a server
// killed outright still takes its speech command along.
TEST_F(AnnouncementControl, ASignalEndsTheServerCleanlyMidAnnouncement) {
  start();
  auto tech = member("Tech", "Lighting");
  say(std::string(kLongText));
  ASSERT_TRUE(hears(*tech));
  EXPECT_EQ(speechFiles(), 1);
  server->signal(SIGTERM);
  EXPECT_EQ(server->waitForExit(), 0);
  EXPECT_EQ(speechFiles(), 0);

  start();
  say("hang");
  const pid_t sleeping = sleeper();
  server->signal(SIGINT);
  EXPECT_EQ(server->waitForExit(), 0);
  EXPECT_TRUE(processEnds(sleeping));
  EXPECT_EQ(speechFiles(), 0);

  start();
  say("linger");
  const pid_t lingering = sleeper();
  server->signal(SIGKILL);
  EXPECT_TRUE(processEnds(lingering));
}

}  // namespace
}  // namespace parlavox::test
