// The real parlavox binary from start-up to the first datagram.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <filesystem>

#include "client/IntercomClient.h"
#include "config/Config.h"
#include "config/RolesFile.h"
#include "devkit/ChildProcess.h"
#include "devkit/TempDir.h"
#include "support/Programs.h"

namespace parlavox::test {
namespace {

using devkit::ChildProcess;
using devkit::ChildRun;
using devkit::readFile;
using devkit::runToEnd;
using devkit::TempDir;
using devkit::writeFile;

using namespace std::chrono_literals;

std::string channelsFile(int count) {
  std::string channels;
  for (int i = 0; i < count; ++i) {
    channels += (i ? ",\"ch" : "\"ch") + std::to_string(i) + "\"";
  }
  return R"({"channels":[)" + channels +
         R"(],"roles":[{"name":"All","talk":["ch0"],"listen":["ch0"]}]})";
}

std::string hostName() {
  std::array<char, 256> name{};
  return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

// The server answers a datagram from a stranger with "rejoin".
void expectServing() {
  client::IntercomClient crew("127.0.0.1");
  crew.sendControl({{"t", "ping"}});
  EXPECT_EQ(crew.nextControl(2s), nlohmann::json({{"t", "rejoin"}}));
}

TEST(Startup, InAnEmptyDirectoryWritesTheDefaultShowAndReports) {
  TempDir dir;
  ChildProcess server(parlavoxBinary(), {}, dir.path());
  ASSERT_TRUE(server.waitForLine("Press Ctrl-C to stop."));
  // No Avahi daemon in the test's namespace: the line must not claim an advertisement.
  ASSERT_TRUE(server.waitForLine("✅ Listening on UDP port 50505"));
  EXPECT_EQ(server.count("advertising on Bonjour"), 0U);

  EXPECT_EQ(readFile(dir / "roles.json"), encodeConfig(defaultConfig()));
  const auto lines = server.lines();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0], "📝 Wrote default roles to " + (dir / "roles.json") +
                          ". Edit it and restart the server to customize.");
  std::vector<std::string> report;
  bool inReport = false;
  for (const auto& line : lines) {
    inReport = inReport || line == "🎭 Parlavox";
    // The namespace has no address but loopback; the certificates' fingerprints are their own
    // test's.
    if (inReport && line.rfind("✅", 0) != 0 &&
        line.find("Manual connect address") == std::string::npos && line.rfind("⚠️", 0) != 0 &&
        line.rfind("   Certificate ", 0) != 0) {
      report.push_back(line);
    }
  }
  EXPECT_EQ(report, (std::vector<std::string>{
                        "🎭 Parlavox", "   Channels: Main, Tech, Backstage, Green Room",
                        "   Roles:    Stage Manager, Lighting, Sound, Backstage Crew, Green Room "
                        "Parent, Director (listen only)",
                        "   Crew station: https://" + hostName() + ".local:50505/",
                        "   Trust once: http://" + hostName() + ".local:50505/trust",
                        "   Monitor open: no operator password (parlavox --operator-password "
                        "sets one)",
                        "   QLab / OSC: point a Network (OSC) cue at this computer, port 47000,",
                        "               address /parlavox/say with a string argument to announce.",
                        "   Press Ctrl-C to stop.", ""}));
  EXPECT_EQ(server.count("✅ Listening for OSC announcements on UDP port 47000"), 1U);

  expectServing();
  EXPECT_FALSE(server.waitForExit(200ms)) << "the server keeps running";
  EXPECT_EQ(server.standardError(), "");
}

TEST(Startup, TheFirstArgumentNamesTheRolesFileAndTheRestAreIgnored) {
  TempDir dir;
  std::filesystem::create_directories(dir / "shows");
  writeFile(
      dir / "shows/hamlet.json",
      R"({"show":"Hamlet","channels":[],"roles":[{"name":"Ghost","talk":[],"listen":[]}],"oscPort":9000})");
  ChildProcess server(parlavoxBinary(), {"shows/hamlet.json", "ignored", "--also-ignored"},
                      dir.path());
  ASSERT_TRUE(server.waitForLine("Press Ctrl-C to stop."));
  EXPECT_TRUE(server.waitForLine("🎭 Hamlet", 0ms));
  EXPECT_TRUE(server.waitForLine("✅ Listening for OSC announcements on UDP port 9000", 0ms));
  EXPECT_TRUE(server.waitForLine(
      "   QLab / OSC: point a Network (OSC) cue at this computer, port 9000,", 0ms));
  const auto lines = server.lines();
  EXPECT_NE(std::find(lines.begin(), lines.end(), "   Channels: "), lines.end());
  EXPECT_FALSE(std::filesystem::exists(dir / "roles.json"));
}

// --help and --version answer and end; they are never taken for a roles file.
TEST(Startup, HelpAndVersionPrintAndEndWithoutServing) {
  TempDir dir;
  const ChildRun help = runToEnd(parlavoxBinary(), {"--help"}, dir.path());
  EXPECT_EQ(help.status, 0);
  ASSERT_FALSE(help.lines.empty());
  EXPECT_EQ(help.lines[0], "usage: parlavox [ROLES_FILE]");
  for (const char* mentioned : {"ROLES_FILE", "STATE_DIRECTORY", "PARLAVOX_VOICE",
                                "parlavox-cert.pem", "--operator-password"}) {
    EXPECT_TRUE(std::any_of(help.lines.begin(), help.lines.end(), [&](const std::string& line) {
      return line.find(mentioned) != std::string::npos;
    })) << mentioned;
  }
  const ChildRun version = runToEnd(parlavoxBinary(), {"--version"}, dir.path());
  EXPECT_EQ(version.status, 0);
  ASSERT_EQ(version.lines.size(), 1U);
  EXPECT_TRUE(version.lines[0].starts_with("parlavox ")) << version.lines[0];
  EXPECT_EQ(help.standardError + version.standardError, "");
  EXPECT_EQ(dir.entries(), std::vector<std::string>{}) << "nothing written";
}

TEST(Startup, ThirtyTwoChannelsStartAndThirtyThreeDoNot) {
  {
    TempDir dir;
    writeFile(dir / "roles.json", channelsFile(32));
    ChildProcess server(parlavoxBinary(), {}, dir.path());
    EXPECT_TRUE(server.waitForLine("✅ Listening on UDP port 50505"));
  }
  TempDir dir;
  writeFile(dir / "roles.json", channelsFile(33));
  ChildProcess server(parlavoxBinary(), {}, dir.path());
  EXPECT_EQ(server.waitForExit(), 1);
  EXPECT_EQ(server.lines(), (std::vector<std::string>{"❌ Max 32 channels."}));
  EXPECT_EQ(server.standardError(), "");

  // Under systemd, standard output is the journal (JOURNAL_STREAM names the stream): errors and
  // warnings go in at their own priority.
  writeFile(dir / "roles.json", R"({"oscPort":0,)" + channelsFile(33).substr(1));
  const ChildRun journal = runToEnd(
      "sh",
      {"-c", R"(: >out && JOURNAL_STREAM=$(stat -c %d:%i out) exec "$0" >out)", parlavoxBinary()},
      dir.path());
  EXPECT_EQ(journal.status, 1);
  EXPECT_EQ(readFile(dir / "out"), "<4>⚠️  oscPort 0 in " + (dir / "roles.json") +
                                       " would listen on a random port; using 47000\n"
                                       "<3>❌ Max 32 channels.\n");
}

// What is under `dir`: each path with its type, size, mode and link target.
std::vector<std::string> listing(const std::string& dir) {
  return runToEnd("find", {".", "-printf", "%p %y %s %m %l\n"}, dir).lines;
}

// Whatever is at the path stays as it was, the built-in show runs, and the first line says why.
TEST(Startup, ARolesFileThatCannotBeUsedIsLeftAsItWasAndTheWarningSaysWhy) {
  const std::string unread = "⚠️  Couldn't read @: ",
                    unwritten = "⚠️  Couldn't write default roles to @: ";
  struct Case {
    std::string file, make, firstLine;  // "@" in the first line stands for the path
  };
  const Case cases[] = {
      {"roles.json", "mkfifo roles.json", unread + "a FIFO, not a regular file"},
      {"roles.json", "mkdir roles.json", unread + "a directory, not a regular file"},
      {"roles.json", "ln -s /dev/null roles.json",
       unread + "a character device, not a regular file"},
      {"roles.json", "ln -s gone.json roles.json", unread + "a symbolic link to nothing"},
      {"roles.json", "echo {} >roles.json && chmod 0 roles.json", unread + "Permission denied"},
      {"gone/roles.json", "", unwritten + "No such file or directory"},
      {"shut/roles.json", "mkdir -m 500 shut", unwritten + "Permission denied"},
      {"roles.json", R"(echo '{"channels":[],"roles":[],"oscPort":70000}' >roles.json)",
       unread + "oscPort: expected an integer from 0 to 65535"},
      {"roles.json", R"(echo '{"channels":[],"roles":[],"oscPort":0}' >roles.json)",
       "⚠️  oscPort 0 in @ would listen on a random port; using 47000"},
  };
  for (const auto& c : cases) {
    TempDir dir;
    ASSERT_EQ(runToEnd("sh", {"-c", c.make}, dir.path()).status, 0) << c.make;
    const auto before = listing(dir.path());
    const std::string path = dir / c.file;
    std::vector<std::string> argv = {parlavoxBinary(), path};
    if (::geteuid() == 0) {
      // Root reads and writes past permissions; without these two capabilities it cannot.
      argv.insert(argv.begin(), {"setpriv", "--bounding-set=-dac_override,-dac_read_search",
                                 "--inh-caps=-dac_override,-dac_read_search"});
    }
    ChildProcess server(argv[0], {argv.begin() + 1, argv.end()}, dir.path());
    ASSERT_TRUE(server.waitForLine("Press Ctrl-C to stop.", 20s)) << c.make;
    std::string first = c.firstLine;
    EXPECT_EQ(server.lines()[0], first.replace(first.find('@'), 1, path));
    EXPECT_TRUE(server.waitForLine("🎭 Parlavox", 0ms)) << c.make;
    EXPECT_TRUE(server.waitForLine("✅ Listening for OSC announcements on UDP port 47000", 0ms));
    EXPECT_EQ(server.count("📝"), 0U) << c.make;
    // The crew station's certificate may be made beside it; nothing else is.
    auto after = listing(dir.path());
    std::erase_if(after, [](const std::string& entry) {
      return entry.find("/parlavox-") != std::string::npos;
    });
    EXPECT_EQ(after, before) << c.make;
    EXPECT_EQ(server.standardError(), "");
  }
}

// A second server cannot take the intercom port from a running one, which keeps all the traffic.
TEST(Startup, ATakenPortEndsTheProcessWithStatusOne) {
  TempDir first;
  ChildProcess running(parlavoxBinary(), {}, first.path());
  ASSERT_TRUE(running.waitForLine("✅ Listening on UDP port 50505"));
  TempDir second;
  ChildProcess another(parlavoxBinary(), {}, second.path());
  EXPECT_EQ(another.waitForExit(), 1);
  const auto line = another.waitForLine("❌ Couldn't start: ", 0ms);
  ASSERT_TRUE(line);
  EXPECT_NE(line->find("in use"), std::string::npos) << *line;
  EXPECT_EQ(another.standardError(), "");
  expectServing();
}

}  // namespace
}  // namespace parlavox::test
