// The real parlavox binary from start-up to the first datagram.
#include <gtest/gtest.h>

#include <filesystem>

#include "client/IntercomClient.h"
#include "config/Config.h"
#include "config/RolesFile.h"
#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace parlavox::test {
namespace {

using namespace std::chrono_literals;

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
