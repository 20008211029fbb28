// The real parlavox binary from start-up to the first datagram.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "client/IntercomClient.h"
#include "config/Config.h"
#include "config/RolesFile.h"
#include "e2e/ServerProcess.h"

namespace parlavox::test {
namespace {

using namespace std::chrono_literals;

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void writeFile(const std::filesystem::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

std::string channelsFile(int count) {
  std::string channels;
  for (int i = 0; i < count; ++i) {
    channels += (i ? ",\"ch" : "\"ch") + std::to_string(i) + "\"";
  }
  return R"({"channels":[)" + channels + R"(],"roles":[{"name":"All","talk":["ch0"],"listen":["ch0"]}]})";
}

// A UDP port held by someone else.
class HeldPort {
 public:
  explicit HeldPort(std::uint16_t port) : fd_(socket(AF_INET, SOCK_DGRAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      ADD_FAILURE() << "can't hold port " << port;
    }
  }
  ~HeldPort() { close(fd_); }

 private:
  int fd_;
};

TEST(Startup, InAnEmptyDirectoryWritesTheDefaultShowAndReports) {
  TempDir dir;
  ServerProcess server(dir.path());
  ASSERT_TRUE(server.waitForLine("Press Ctrl-C to stop."));
  ASSERT_TRUE(server.waitForLine("✅ Listening on UDP port 50505 and advertising on Bonjour"));

  EXPECT_EQ(readFile(dir / "roles.json"), encodeConfig(defaultConfig()));
  const auto lines = server.lines();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0], "📝 Wrote default roles to " + (dir / "roles.json").string() +
                          ". Edit it and restart the server to customize.");
  std::vector<std::string> report;
  bool inReport = false;
  for (const auto& line : lines) {
    inReport = inReport || line == "🎭 Parlavox";
    if (inReport && line.rfind("✅", 0) != 0 && line.find("Manual connect address") == std::string::npos &&
        line.rfind("⚠️", 0) != 0) {
      report.push_back(line);
    }
  }
  EXPECT_EQ(report, (std::vector<std::string>{
                        "🎭 Parlavox",
                        "   Channels: Main, Tech, Backstage, Green Room",
                        "   Roles:    Stage Manager, Lighting, Sound, Backstage Crew, Green Room "
                        "Parent, Director (listen only)",
                        "   QLab / OSC: point a Network (OSC) cue at this Mac, port 47000,",
                        "               address /parlavox/say with a string argument to announce.",
                        "   Press Ctrl-C to stop.",
                        ""}));
  EXPECT_EQ(server.count("✅ Listening for OSC announcements on UDP port 47000"), 1U);

  // It serves: a datagram on the intercom port files a peer, which answers for itself.
  client::IntercomClient crew("127.0.0.1");
  crew.sendControl({{"t", "ping"}});
  EXPECT_EQ(crew.nextControl(2s), nlohmann::json({{"t", "rejoin"}}));
  EXPECT_FALSE(server.waitForExit(200ms)) << "the server keeps running";
  EXPECT_EQ(server.standardError(), "");
}

TEST(Startup, ABadRolesFileIsLeftAloneAndTheDefaultsAreUsed) {
  for (const std::string bad : {"", "{not json", R"({"channels":["A"],"roles":[],"oscPort":70000})",
                                R"({"channels":["A"],"roles":[{"name":"X","listen":[]}]})"}) {
    TempDir dir;
    writeFile(dir / "roles.json", bad);
    ServerProcess server(dir.path());
    ASSERT_TRUE(server.waitForLine("Press Ctrl-C to stop.")) << bad;
    const auto lines = server.lines();
    EXPECT_EQ(lines.at(0).rfind("⚠️  Couldn't read " + (dir / "roles.json").string() + ": ", 0), 0U)
        << lines.at(0);
    EXPECT_EQ(lines.at(1), "    Using built-in defaults instead.");
    EXPECT_TRUE(server.waitForLine("   Channels: Main, Tech, Backstage, Green Room", 0ms));
    EXPECT_EQ(readFile(dir / "roles.json"), bad) << "never replaced";
  }
}

TEST(Startup, TheFirstArgumentNamesTheRolesFileAndTheRestAreIgnored) {
  TempDir dir;
  std::filesystem::create_directories(dir / "shows");
  writeFile(dir / "shows/hamlet.json",
            R"({"show":"Hamlet","channels":[],"roles":[{"name":"Ghost","talk":[],"listen":[]}],"oscPort":9000})");
  ServerProcess server(dir.path(), {"shows/hamlet.json", "ignored", "--also-ignored"});
  ASSERT_TRUE(server.waitForLine("Press Ctrl-C to stop."));
  EXPECT_TRUE(server.waitForLine("🎭 Hamlet", 0ms));
  EXPECT_TRUE(server.waitForLine("✅ Listening for OSC announcements on UDP port 9000", 0ms));
  EXPECT_EQ(server.count("   Channels: "), 1U);
  EXPECT_TRUE(server.waitForLine("   QLab / OSC: point a Network (OSC) cue at this Mac, port 9000,", 0ms));
  EXPECT_FALSE(std::filesystem::exists(dir / "roles.json"));
  const auto lines = server.lines();
  EXPECT_NE(std::find(lines.begin(), lines.end(), "   Channels: "), lines.end());
}

TEST(Startup, ThirtyTwoChannelsStartAndThirtyThreeDoNot) {
  {
    TempDir dir;
    writeFile(dir / "roles.json", channelsFile(32));
    ServerProcess server(dir.path());
    EXPECT_TRUE(server.waitForLine("✅ Listening on UDP port 50505"));
  }
  TempDir dir;
  writeFile(dir / "roles.json", channelsFile(33));
  ServerProcess server(dir.path());
  EXPECT_EQ(server.waitForExit(), 1);
  EXPECT_EQ(server.lines(), (std::vector<std::string>{"❌ Max 32 channels."}));
  EXPECT_EQ(server.standardError(), "");
}

TEST(Startup, ATakenPortEndsTheProcessWithStatusOne) {
  for (const std::uint16_t port : {std::uint16_t{50505}, std::uint16_t{47000}}) {
    TempDir dir;
    HeldPort held(port);
    ServerProcess server(dir.path());
    EXPECT_EQ(server.waitForExit(), 1) << port;
    const auto line = server.waitForLine("❌ Couldn't start: ", 0ms);
    ASSERT_TRUE(line) << port;
    EXPECT_NE(line->find("in use"), std::string::npos) << *line;
    EXPECT_EQ(server.standardError(), "");
  }
}

TEST(Startup, ASecondServerOnTheSamePortsIsRefused) {
  TempDir first;
  ServerProcess running(first.path());
  ASSERT_TRUE(running.waitForLine("✅ Listening on UDP port 50505"));
  TempDir second;
  ServerProcess another(second.path());
  EXPECT_EQ(another.waitForExit(), 1);
  EXPECT_TRUE(another.waitForLine("❌ Couldn't start: ", 0ms));
  // The first one still has all the traffic.
  client::IntercomClient crew("127.0.0.1");
  crew.sendControl({{"t", "ping"}});
  EXPECT_EQ(crew.nextControl(2s), nlohmann::json({{"t", "rejoin"}}));
}

}  // namespace
}  // namespace parlavox::test
