// The crew station's side of the server: a WebSocket client (Beast's) and curl against the real
// binary, beside UDP crew, on loopback.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "client/StationClient.h"
#include "e2e/ServerFixture.h"
#include "wire/Audio.h"

namespace parlavox::test {
namespace {

using devkit::ChildProcess;
using devkit::ChildRun;
using devkit::runProgram;
using devkit::runToEnd;
using devkit::TempDir;

using namespace std::chrono_literals;
using client::Audio;
using client::StationClient;

class Station : public ServerFixture {
 protected:
  void SetUp() override { startWith(defaultConfig()); }

  static void sendControl(StationClient& station, const wire::Incoming& message) {
    const std::string datagram = wire::encodeControl(message);
    station.send(asBytes(datagram));
  }

  // The next control message of type `t`, skipping others (and audio).
  static std::optional<wire::ServerMessage> next(StationClient& station, const std::string& t) {
    for (int i = 0; i < 50; ++i) {
      const auto message = station.receive(3s);
      if (!message) {
        return std::nullopt;
      }
      if (!message->empty() && message->front() == wire::kControlKind) {
        auto decoded = wire::decodeServerMessage(Bytes(*message).subspan(1));
        if (decoded && wire::nameOf(wire::typeOf(*decoded)) == t) {
          return decoded;
        }
      }
    }
    return std::nullopt;
  }

  static std::optional<Audio> nextAudio(StationClient& station) {
    for (int i = 0; i < 50; ++i) {
      const auto message = station.receive(5s);
      if (!message) {
        return std::nullopt;
      }
      if (auto audio = Audio::parse(*message)) {
        return audio;
      }
    }
    return std::nullopt;
  }
};

std::vector<std::uint8_t> ramp() {
  std::vector<std::uint8_t> samples(wire::kFrameBytes);
  for (std::size_t i = 0; i < samples.size(); ++i) {
    samples[i] = static_cast<std::uint8_t>(i * 7);
  }
  return samples;
}

// The browser's crew member is a peer like any other: joined, heard and hearing across transports
// with the same rewriting, reached by announcements, and gone when its socket closes.
TEST_F(Station, BrowserAndUdpCrewHearEachOther) {
  StationClient station("127.0.0.1");
  sendControl(station, wire::Incoming::of(wire::MessageType::hi));
  const auto config = next(station, "config");
  ASSERT_TRUE(config);
  EXPECT_EQ(std::get<wire::ConfigMsg>(*config).channels.size(), 4U);
  sendControl(station, wire::Incoming::join("Fly Floor", "Backstage Crew"));  // Main + Backstage
  const auto welcome = next(station, "welcome");
  ASSERT_TRUE(welcome);
  const std::uint16_t stationID = std::get<wire::WelcomeMsg>(*welcome).id;
  EXPECT_TRUE(server->waitForLine("🎧 Fly Floor joined as Backstage Crew"));

  auto lights = member("Lights", "Lighting");  // Main + Tech
  const auto samples = ramp();
  lights->sendAudio(999, 0xFFFFFFFF, 7, samples);
  const auto heard = nextAudio(station);
  ASSERT_TRUE(heard);
  EXPECT_NE(heard->senderID, 999);
  EXPECT_NE(heard->senderID, stationID);
  EXPECT_EQ(heard->mask, 0x1U) << "Main: what Lighting talks on and the station listens to";
  EXPECT_EQ(heard->seq, 7);
  EXPECT_EQ(heard->samples, samples);

  station.send(wire::encodeAudio({.senderID = 4242, .mask = 0xFFFFFFFF, .seq = 9}, samples));
  const auto fromStation = lights->nextAudio(5s);
  ASSERT_TRUE(fromStation);
  EXPECT_EQ(fromStation->senderID, stationID);
  EXPECT_EQ(fromStation->mask, 0x1U);
  EXPECT_EQ(fromStation->samples, samples);

  ASSERT_EQ(
      runProgram({"oscsend", "127.0.0.1", "47000", "/parlavox/say/Backstage", "s", "Fly cue"}), 0);
  const auto announcement = nextAudio(station);
  ASSERT_TRUE(announcement);
  EXPECT_EQ(announcement->senderID, wire::announcerID);
  EXPECT_EQ(announcement->mask, 0x4U);

  station.close();
  EXPECT_TRUE(server->waitForLine("👋 Fly Floor (Backstage Crew) left"));
  bool sawRosterWithoutIt = false;
  while (const auto message = lights->nextControl(2s)) {
    if ((*message)["t"] == "roster" && (*message)["users"].size() == 1) {
      sawRosterWithoutIt = true;
      break;
    }
  }
  EXPECT_TRUE(sawRosterWithoutIt);
  EXPECT_EQ(server->standardError(), "");
}

std::string readAll(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// The page over HTTPS, plain HTTP sent there, and one certificate for the life of the install.
TEST_F(Station, ServesThePageOverHttpsAndKeepsItsCertificate) {
  const auto fetch = [&](const std::string& url) {
    const ChildRun run = runToEnd(
        "curl",
        {"-sk", "-o", "/dev/null", "-w", "%{http_code} %{content_type} %{redirect_url}\n", url},
        dir.path());
    return run.lines.empty() ? std::string() : run.lines.front();
  };
  EXPECT_EQ(fetch("https://127.0.0.1:50505/"), "200 text/html; charset=utf-8 ");
  EXPECT_EQ(fetch("http://127.0.0.1:50505/station.js?v=1"),
            "301  https://127.0.0.1:50505/station.js?v=1");

  const auto fingerprint = server->waitForLine("   Certificate SHA-256: ");
  ASSERT_TRUE(fingerprint);
  const std::string certificate = readAll(dir / "parlavox-cert.pem");
  EXPECT_NE(certificate.find("BEGIN CERTIFICATE"), std::string::npos);
  server->stop();
  server = std::make_unique<ChildProcess>(parlavoxBinary(), std::vector<std::string>{}, dir.path());
  EXPECT_EQ(server->waitForLine("   Certificate SHA-256: "), fingerprint);
  EXPECT_EQ(readAll(dir / "parlavox-cert.pem"), certificate);
}

// Someone else holds the TCP port: the intercom runs on without the station, and says so once.
TEST(StationPortTaken, TheIntercomRunsOnWithoutIt) {
  boost::asio::io_context context;
  boost::asio::ip::tcp::acceptor squatter(context, {boost::asio::ip::tcp::v6(), 50505});
  TempDir dir;
  ChildProcess server(parlavoxBinary(), {}, dir.path());
  EXPECT_TRUE(server.waitForLine(
      "⚠️  Crew station unavailable: TCP port 50505: bind: Address already in use"));
  ASSERT_TRUE(server.waitForLine("✅ Listening on UDP port 50505"));
  client::IntercomClient crew("127.0.0.1");
  EXPECT_EQ((*crew.join("Lights", "Lighting"))["t"], "welcome");
  EXPECT_EQ(server.count("Crew station: "), 0U);
}

}  // namespace
}  // namespace parlavox::test
