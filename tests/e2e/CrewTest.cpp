// Crew clients on loopback against the real server, falling silent. The rules themselves are
// checked in the relay's unit tests, hostile datagrams by the fuzz targets' replays (ctest runs
// them) and tests/e2e/HardeningTest.cpp; parlavox-client's tests show audio, joins and departures
// reaching other clients over real sockets.
#include <gtest/gtest.h>

#include "e2e/ServerFixture.h"

namespace parlavox::test {
namespace {

using namespace std::chrono_literals;
using client::IntercomClient;
using json = nlohmann::json;

using Crew = ServerFixture;

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
