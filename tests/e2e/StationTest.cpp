// The crew station's side of the server: a WebSocket client (Beast's) and curl against the real
// binary, beside UDP crew, on loopback.
#include <gtest/gtest.h>

#include <map>

#include "client/StationClient.h"
#include "devkit/StationSession.h"
#include "e2e/ServerFixture.h"
#include "wire/Audio.h"

namespace parlavox::test {
namespace {

using devkit::ChildProcess;
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

  // The first of the next messages that `parse` makes something of, skipping the others.
  template <typename Parse>
  static auto first(StationClient& station, Parse parse) {
    decltype(parse(std::vector<std::uint8_t>())) found;
    for (int i = 0; i < 50 && !found; ++i) {
      const auto message = station.receive(5s);
      if (!message) {
        break;
      }
      found = parse(*message);
    }
    return found;
  }

  // The next control message of type `t`.
  static std::optional<wire::ServerMessage> next(StationClient& station, const std::string& t) {
    return first(station, [&](const std::vector<std::uint8_t>& message) {
      auto decoded = message.empty() || message.front() != wire::kControlKind
                         ? std::nullopt
                         : wire::decodeServerMessage(Bytes(message).subspan(1));
      return decoded && wire::nameOf(wire::typeOf(*decoded)) == t ? decoded : std::nullopt;
    });
  }

  static std::optional<Audio> nextAudio(StationClient& station) {
    return first(station,
                 [](const std::vector<std::uint8_t>& message) { return Audio::parse(message); });
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

// Each device trusts the server's own authority once: offered over plain HTTP, kept for the life
// of the install, and issuing the station's certificate again, by itself, for a new address.
TEST_F(Station, TrustOnceAuthorityIsOfferedKeptAndIssuesForNewAddresses) {
  const std::string prefix = "   Certificate authority SHA-256: ";
  const auto authority = server->waitForLine(prefix);
  ASSERT_TRUE(authority);
  const std::string fingerprint = authority->substr(prefix.size());
  const auto sh = [&](const std::string& command) {
    const auto lines = runToEnd("sh", {"-c", command}, dir.path()).lines;
    return lines.empty() ? "" : lines.back();
  };
  EXPECT_EQ(sh("curl -s http://127.0.0.1:50505/trust/parlavox-ca.crt | openssl x509 -inform DER "
               "-noout -fingerprint -sha256"),
            "sha256 Fingerprint=" + fingerprint);
  EXPECT_EQ(sh("curl -s http://127.0.0.1:50505/trust | grep -c '>" + fingerprint + "<'"), "1");
  const std::string verified =
      "curl -so /dev/null -w '%{http_code}\\n' --cacert parlavox-ca.pem https://";
  EXPECT_EQ(sh(verified + "127.0.0.1:50505/"), "200");
  const std::string kept = devkit::readFile(dir / "parlavox-ca.pem");

  if (sh("ip -o link | grep -vc ': lo:'") != "0") {
    GTEST_SKIP() << "not in a network namespace of the test's own";
  }
  ASSERT_EQ(sh("ip link add b0 type bridge && ip addr add 10.9.0.1/32 dev b0 && ip link set b0 up"),
            "");
  EXPECT_TRUE(server->waitForLine("🔐 Station certificate issued for localhost, ", 0ms));
  EXPECT_TRUE(server->waitForLine("127.0.0.1, 10.9.0.1", 20s));
  EXPECT_EQ(sh(verified + "10.9.0.1:50505/"), "200");
  EXPECT_EQ(sh("curl -skI https://10.9.0.1:50505/ | grep -c 'wss://10.9.0.1:50505;'"), "1");

  server->stop();
  server = std::make_unique<ChildProcess>(parlavoxBinary(), std::vector<std::string>{}, dir.path());
  EXPECT_EQ(server->waitForLine(prefix), authority);
  EXPECT_EQ(server->count("🔐"), 0U) << "the certificate covers the names: kept";
  EXPECT_EQ(devkit::readFile(dir / "parlavox-ca.pem"), kept);
}

// The page over HTTPS, and plain HTTP sent to the address it came to, whatever Host it names.
// Every answer, refusals and redirects included, carries the pages' policies; a refusal says why.
TEST_F(Station, ServesThePageOverHttpsWithItsPoliciesAndRefusalsSayWhy) {
  struct Case {
    std::vector<std::string> curl;
    std::string status;
    std::string location;  // or for the page, its type
  };
  const Case cases[] = {
      {{"https://127.0.0.1:50505/"}, "200", "text/html; charset=utf-8"},
      {{"https://127.0.0.1:50505/nope"}, "404", ""},
      {{"-X", "POST", "https://127.0.0.1:50505/"}, "405", ""},
      {{"https://127.0.0.1:50505/" + std::string(3000, 'a')}, "414", ""},
      {{"-H", "X-Big: " + std::string(9000, 'a'), "https://127.0.0.1:50505/"}, "431", ""},
      {{"-H", "Host: evil.example", "http://127.0.0.1:50505/a.js?v=1"},
       "301",
       "https://127.0.0.1:50505/a.js?v=1"},
      {{"http://[::1]:50505/x"}, "301", "https://[::1]:50505/x"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args{"-sk", "-o", "/dev/null", "-D", "-"};
    args.insert(args.end(), c.curl.begin(), c.curl.end());
    std::map<std::string, std::string> headers;  // and the status line's code, under ""
    for (std::string line : runToEnd("curl", args, dir.path()).lines) {
      line = line.substr(0, line.find('\r'));
      if (const auto colon = line.find(": "); colon != std::string::npos) {
        headers[line.substr(0, colon)] = line.substr(colon + 2);
      } else if (line.starts_with("HTTP/")) {
        headers[""] = line.substr(9, 3);
      }
    }
    const std::string what = c.curl.front().substr(0, 40);
    EXPECT_EQ(headers[""], c.status) << what;
    EXPECT_EQ(headers[c.status == "200" ? "Content-Type" : "Location"], c.location) << what;
    const std::string& policy = headers["Content-Security-Policy"];
    EXPECT_TRUE(policy.starts_with("default-src 'self'; connect-src 'self' wss://localhost:50505 "))
        << what << ": " << policy;
    EXPECT_TRUE(policy.ends_with(" wss://127.0.0.1:50505; frame-ancestors 'none'")) << policy;
    EXPECT_EQ(headers["Referrer-Policy"], "no-referrer") << what;
    EXPECT_EQ(headers["Permissions-Policy"], "microphone=(self)") << what;
  }
}

// A crew session that never speaks is unknown to the relay: it ends after 10 s. The monitor's
// feed, which never speaks, stays while its reader answers the server's pings, and goes when not.
TEST_F(Station, SilentSocketsEndUnlessTheyAnswerPings) {
  boost::asio::io_context io;
  boost::asio::ssl::context tls(boost::asio::ssl::context::tls_client);
  const auto opened = std::chrono::steady_clock::now();
  std::map<std::string, double> ended;  // seconds after opening
  const auto open = [&](const std::string& path) {
    return std::make_unique<devkit::StationSession>(io, tls, "127.0.0.1", 50505, "", path);
  };
  const auto read = [&](devkit::StationSession& socket, const std::string& name) {
    socket.start(
        [](auto) {},
        [&, name] {
          ended[name] =
              std::chrono::duration<double>(std::chrono::steady_clock::now() - opened).count();
        });
  };
  const auto crew = open("/intercom");
  const auto reader = open("/monitor/events");
  const auto deaf = open("/monitor/events");  // read only from 25 s on: no pong before
  read(*crew, "crew");
  read(*reader, "reader");
  io.run_for(25s);
  read(*deaf, "deaf");
  io.run_for(1s);
  EXPECT_GE(ended.at("crew"), 9.0);
  EXPECT_EQ(ended.count("deaf"), 1U) << "ended for want of a pong";
  EXPECT_EQ(ended.count("reader"), 0U);
}

// A message no UDP crew member could receive ends the browser's session; the largest one is
// relayed.
TEST_F(Station, AudioLargerThanADatagramEndsTheSession) {
  StationClient station("127.0.0.1");
  sendControl(station, wire::Incoming::join("Big", "Sound"));
  ASSERT_TRUE(next(station, "welcome"));
  auto listener = member("Ears", "Sound");
  for (const std::size_t size : {wire::kMaxDatagram, wire::kMaxDatagram + 1}) {
    const std::vector<std::uint8_t> samples(size - wire::AudioHeader::kSize, 0x33);
    station.send(wire::encodeAudio({.senderID = 0, .mask = 0x1, .seq = 1}, samples));
  }
  const auto heard = listener->nextAudio(5s);
  ASSERT_TRUE(heard);
  EXPECT_EQ(heard->samples.size(), wire::kMaxDatagram - wire::AudioHeader::kSize);
  while (station.receive(3s)) {
    // the rosters, then the server's close, answered as a browser does
  }
  EXPECT_TRUE(server->waitForLine("👋 Big (Sound) left"));
  EXPECT_FALSE(listener->nextAudio(1s)) << "nothing more";
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
