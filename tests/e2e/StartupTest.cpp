// The real parlavox binary from start-up to the first datagram.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <map>

#include "client/IntercomClient.h"
#include "config/Config.h"
#include "config/RolesFile.h"
#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace parlavox::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

std::string channelsFile(int count) {
  std::string channels;
  for (int i = 0; i < count; ++i) {
    channels += (i ? ",\"ch" : "\"ch") + std::to_string(i) + "\"";
  }
  return R"({"channels":[)" + channels +
         R"(],"roles":[{"name":"All","talk":["ch0"],"listen":["ch0"]}]})";
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
  ASSERT_TRUE(server.waitForLine("✅ Listening on UDP port 50505 and advertising on Bonjour"));

  EXPECT_EQ(readFile(dir / "roles.json"), encodeConfig(defaultConfig()));
  const auto lines = server.lines();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0], "📝 Wrote default roles to " + (dir / "roles.json") +
                          ". Edit it and restart the server to customize.");
  std::vector<std::string> report;
  bool inReport = false;
  for (const auto& line : lines) {
    inReport = inReport || line == "🎭 Parlavox";
    if (inReport && line.rfind("✅", 0) != 0 &&
        line.find("Manual connect address") == std::string::npos && line.rfind("⚠️", 0) != 0) {
      report.push_back(line);
    }
  }
  EXPECT_EQ(report, (std::vector<std::string>{
                        "🎭 Parlavox", "   Channels: Main, Tech, Backstage, Green Room",
                        "   Roles:    Stage Manager, Lighting, Sound, Backstage Crew, Green Room "
                        "Parent, Director (listen only)",
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
}

// Everything under `dir`: each path's type, and a regular file's bytes.
std::map<std::string, std::string> snapshot(const std::string& dir) {
  std::map<std::string, std::string> found;
  for (const auto& entry : fs::recursive_directory_iterator(dir)) {
    const auto type = entry.symlink_status().type();
    found[entry.path()] = std::to_string(static_cast<int>(type)) +
                          (type == fs::file_type::regular ? readFile(entry.path()) : "");
  }
  return found;
}

// Whatever is at the path stays as it was, the built-in show runs, and the first line says why.
TEST(Startup, ARolesFileThatCannotBeUsedIsLeftAsItWasAndTheWarningSaysWhy) {
  const auto unusable = [](const std::string& what, const std::string& why) {
    return std::vector<std::string>{"⚠️  Couldn't " + what + " @: " + why,
                                    "    Using built-in defaults instead."};
  };
  struct Case {
    std::string file;
    std::function<void(const std::string& path)> make;
    std::vector<std::string> lines;  // the first lines; "@" in the first stands for the path
  };
  const std::string roles = "/roles.json";
  const Case cases[] = {
      {roles, [](auto& p) { ::mkfifo(p.c_str(), 0644); },
       unusable("read", "a FIFO, not a regular file")},
      {roles, [](auto& p) { fs::create_directory(p); },
       unusable("read", "a directory, not a regular file")},
      {roles, [](auto& p) { fs::create_symlink("/dev/null", p); },
       unusable("read", "a character device, not a regular file")},
      {roles, [](auto& p) { fs::create_symlink(p + ".gone", p); },
       unusable("read", "a symbolic link to nothing")},
      {roles,
       [](auto& p) {
         writeFile(p, "{}");
         fs::permissions(p, fs::perms::none);
       },
       unusable("read", "Permission denied")},
      {"/gone/roles.json", [](auto&) {},
       unusable("write default roles to", "No such file or directory")},
      {"/shut/roles.json",
       [](auto& p) {
         const auto shut = fs::path(p).parent_path();
         fs::create_directory(shut);
         fs::permissions(shut, fs::perms::owner_read | fs::perms::owner_exec);
       },
       unusable("write default roles to", "Permission denied")},
      {roles,
       [](auto& p) { writeFile(p, R"({"channels":[],"roles":[],"oscPort":0})"); },
       {"⚠️  oscPort 0 in @ would listen on a random port; using 47000"}},
  };
  for (const auto& c : cases) {
    TempDir dir;
    const std::string path = dir.path() + c.file;
    c.make(path);
    const auto before = snapshot(dir.path());
    std::vector<std::string> argv = {parlavoxBinary(), path};
    if (::geteuid() == 0) {
      // Root reads and writes past permissions; without these two capabilities it cannot.
      argv.insert(argv.begin(), {"setpriv", "--bounding-set=-dac_override,-dac_read_search",
                                 "--inh-caps=-dac_override,-dac_read_search"});
    }
    ChildProcess server(argv[0], {argv.begin() + 1, argv.end()}, dir.path());
    ASSERT_TRUE(server.waitForLine("Press Ctrl-C to stop.", 20s)) << path;
    auto expected = c.lines;
    expected[0].replace(expected[0].find('@'), 1, path);
    auto lines = server.lines();
    lines.resize(expected.size());
    EXPECT_EQ(lines, expected);
    EXPECT_TRUE(server.waitForLine("🎭 Parlavox", 0ms)) << path;
    EXPECT_TRUE(server.waitForLine("✅ Listening for OSC announcements on UDP port 47000", 0ms))
        << path;
    EXPECT_EQ(server.count("📝"), 0U) << path;
    EXPECT_EQ(snapshot(dir.path()), before) << path;
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
