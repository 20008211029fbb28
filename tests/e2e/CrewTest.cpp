// Crew clients on loopback against the real server: hostile input, falling silent. The rules
// themselves are checked in the relay's unit tests; parlavox-client's tests show audio, joins and
// departures reaching other clients over real sockets.
#include <gtest/gtest.h>

#include "e2e/ServerFixture.h"

namespace parlavox::test {
namespace {

using namespace std::chrono_literals;
using client::IntercomClient;
using json = nlohmann::json;

using Crew = ServerFixture;

// Each fits one datagram (at most 65,507 bytes), or it would never reach the server.
TEST_F(Crew, HostileControlPayloadsAreDroppedSilently) {
  startWith(defaultConfig());
  IntercomClient client("127.0.0.1");
  std::string deepObject;
  for (int i = 0; i < 10000; ++i) {
    deepObject += R"({"a":)";
  }
  for (const std::string& payload :
       {std::string(32000, '[') + std::string(32000, ']'), deepObject,
        std::string("{\"t\":\"hi\",\"name\":\"\xFF\xFE\"}"),
        "{\"t\":\"hi\",\"name\":12,\"pad\":\"" + std::string(65000, 'x') + "\"}", std::string()}) {
    std::vector<std::uint8_t> datagram{0x01};
    datagram.insert(datagram.end(), payload.begin(), payload.end());
    ASSERT_LE(datagram.size(), 65507U);
    client.sendRaw(datagram);
  }
  client.sendRaw(std::vector<std::uint8_t>{0x07, 1, 2});
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
