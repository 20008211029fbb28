// Crew clients on loopback against the real server: hearing, hostile input, falling silent. The
// rules themselves are checked in the relay's unit tests; these prove them over real sockets, and
// parlavox-client's tests show joins and departures reaching other clients.
#include <gtest/gtest.h>

#include "e2e/ServerFixture.h"

namespace parlavox::test {
namespace {

using namespace std::chrono_literals;
using client::IntercomClient;
using json = nlohmann::json;

using Crew = ServerFixture;

// Reads the control messages (rosters) that arrive within a short window.
void drain(IntercomClient& client) {
  while (client.nextControl(300ms)) {
  }
}

TEST_F(Crew, AudioReachesExactlyWhoTheRolesAllowByteForByte) {
  startWith(Config{"Relay",
                   {"Main", "Tech", "Backstage"},
                   {{"A", {"Main", "Tech"}, {"Main", "Tech", "Backstage"}},
                    {"B", {}, {"Main"}},
                    {"C", {}, {"Tech", "Backstage"}},
                    {"D", {}, {"Backstage"}}},
                   47000});
  auto a = member("a", "A");
  auto b = member("b", "B");
  auto c = member("c", "C");
  auto d = member("d", "D");
  for (auto* client : {a.get(), b.get(), c.get(), d.get()}) {
    drain(*client);
  }
  const std::vector<std::uint8_t> samples{0xDE, 0xAD, 0xBE, 0xEF, 0x00, 0x01};
  a->sendAudio(0, 0x7, 42, samples);
  EXPECT_EQ(b->receive(2s), client::encodeAudio(1, 0x1, 42, samples));
  EXPECT_EQ(c->receive(2s), client::encodeAudio(1, 0x2, 42, samples));
  EXPECT_FALSE(d->receive(300ms)) << "Backstage is not A's to talk on";
  EXPECT_FALSE(a->receive(0ms)) << "nobody hears themselves";
}

TEST_F(Crew, HostileControlPayloadsAreDroppedSilently) {
  startWith(defaultConfig());
  IntercomClient client("127.0.0.1");
  auto control = [](const std::string& s) {
    std::vector<std::uint8_t> d{0x01};
    d.insert(d.end(), s.begin(), s.end());
    return d;
  };
  std::string deepObject;
  for (int i = 0; i < 20000; ++i) {
    deepObject += R"({"a":)";
  }
  for (const auto& d :
       {control(std::string(50000, '[') + std::string(50000, ']')), control(deepObject),
        control("{\"t\":\"hi\",\"name\":\"\xFF\xFE\"}"),
        control("{\"t\":\"hi\",\"name\":12,\"pad\":\"" + std::string(65000, 'x') + "\"}"),
        std::vector<std::uint8_t>{0x01}, std::vector<std::uint8_t>{0x07, 1, 2}}) {
    client.sendRaw(d);
  }
  EXPECT_FALSE(client.receive(500ms)) << "no reply to anything malformed";
  client.sendControl({{"t", "ping"}});
  EXPECT_EQ(client.nextControl(2s), json({{"t", "rejoin"}})) << "and the server is still there";
  EXPECT_EQ(server->count("⚠️"), server->count("⚠️  Bonjour"))
      << "nothing printed about it";
}

// The one test of the server's real sweep timer; the exact rule is checked on a fake clock.
TEST_F(Crew, ASilentClientIsDroppedBetweenEightAndTenSeconds) {
  startWith(defaultConfig());
  auto quiet = member("Quiet", "Sound");
  auto keeper = member("Keeper", "Lighting");
  drain(*keeper);
  const auto lastHeard = std::chrono::steady_clock::now();
  std::optional<std::string> timedOut;
  while (!timedOut && std::chrono::steady_clock::now() - lastHeard < 12s) {
    keeper->sendControl({{"t", "ping"}});
    timedOut = server->waitForLine("⏱️  Quiet timed out", 1s);
  }
  const auto after = std::chrono::steady_clock::now() - lastHeard;
  ASSERT_TRUE(timedOut);
  EXPECT_GE(after, 8s);
  EXPECT_LE(after, 11s);  // 8 s of silence plus at most one 2 s sweep, and some slack
  EXPECT_TRUE(server->waitForLine("👋 Quiet (Sound) left"));
  EXPECT_EQ(server->count("Keeper timed out"), 0U);
  // Heard from again, the dropped client is a stranger and is told to join again.
  while (quiet->nextControl(0ms)) {
    // the rosters it was sent before it went quiet
  }
  quiet->sendControl({{"t", "ping"}});
  EXPECT_EQ(quiet->nextControl(2s), json({{"t", "rejoin"}}));
}

}  // namespace
}  // namespace parlavox::test
