// Crew clients on loopback against the real server: joining, hearing, the roster, leaving.
#include <gtest/gtest.h>

#include <fstream>
#include <memory>

#include "client/IntercomClient.h"
#include "config/Config.h"
#include "config/RolesFile.h"
#include "e2e/ServerProcess.h"

namespace parlavox::test {
namespace {

using namespace std::chrono_literals;
using client::IntercomClient;
using json = nlohmann::json;

class Crew : public testing::Test {
 protected:
  void startWith(const Config& config) {
    std::ofstream(dir.path() / "roles.json", std::ios::binary) << encodeConfig(config);
    server = std::make_unique<ServerProcess>(dir.path());
    ASSERT_TRUE(server->waitForLine("✅ Listening on UDP port 50505"));
  }

  std::unique_ptr<IntercomClient> member(const std::string& name, const std::string& role) {
    auto client = std::make_unique<IntercomClient>("127.0.0.1");
    const auto welcome = client->join(name, role);
    EXPECT_TRUE(welcome && (*welcome)["t"] == "welcome") << name;
    return client;
  }

  TempDir dir;
  std::unique_ptr<ServerProcess> server;
};

// Every roster message that arrives within a short window, last one last.
std::vector<json> rosters(IntercomClient& client) {
  std::vector<json> out;
  while (auto message = client.nextControl(300ms)) {
    if ((*message)["t"] == "roster") {
      out.push_back((*message)["users"]);
    }
  }
  return out;
}

TEST_F(Crew, AudioReachesExactlyWhoTheRolesAllowByteForByte) {
  startWith(Config{"Relay", {"Main", "Tech", "Backstage"},
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
    rosters(*client);
  }
  const std::vector<std::uint8_t> samples{0xDE, 0xAD, 0xBE, 0xEF, 0x00, 0x01};
  std::vector<std::uint8_t> sent{0x02, 0x00, 0x00, 0x07, 0x00, 0x00, 0x00, 0x2A, 0x00};
  sent.insert(sent.end(), samples.begin(), samples.end());
  a->sendRaw(sent);

  auto expect = [&](IntercomClient& who, std::vector<std::uint8_t> header) {
    header.insert(header.end(), samples.begin(), samples.end());
    EXPECT_EQ(who.receive(2s), header);
  };
  expect(*b, {0x02, 0x01, 0x00, 0x01, 0x00, 0x00, 0x00, 0x2A, 0x00});
  expect(*c, {0x02, 0x01, 0x00, 0x02, 0x00, 0x00, 0x00, 0x2A, 0x00});
  EXPECT_FALSE(d->receive(300ms)) << "Backstage is not A's to talk on";
  EXPECT_FALSE(a->receive(0ms)) << "nobody hears themselves";

  // Lengths: a bare header with nothing after it goes nowhere; one sample byte is enough.
  a->sendRaw(std::vector<std::uint8_t>{0x02, 0, 0, 0x01, 0, 0, 0, 1, 0});
  a->sendRaw(std::vector<std::uint8_t>{0x02, 0, 0, 0x01, 0, 0, 0, 2, 0, 0x7F});
  const auto ten = b->receive(2s);
  ASSERT_TRUE(ten);
  EXPECT_EQ(ten->size(), 10U);
  EXPECT_EQ((*ten)[7], 2);

  // Listen-only roles and masks outside the talk mask never get through.
  b->sendAudio(0, 0x1, 3, samples);
  a->sendAudio(0, 0x4, 4, samples);
  EXPECT_FALSE(a->receive(300ms));
  EXPECT_FALSE(d->receive(0ms));

  // An unjoined client cannot talk either.
  IntercomClient stranger("127.0.0.1");
  stranger.sendAudio(0, 0x7, 5, samples);
  EXPECT_FALSE(b->receive(300ms));
}

TEST_F(Crew, TheRosterFollowsJoinsRejoinsAndDepartures) {
  startWith(defaultConfig());
  IntercomClient ann("127.0.0.1");
  EXPECT_EQ(ann.join("Ann", "Sound"),
            json({{"t", "welcome"}, {"id", 1}, {"role", "Sound"}, {"talkMask", 3}, {"listenMask", 3}}));
  EXPECT_EQ(rosters(ann), (std::vector<json>{json::parse(R"([{"id":1,"name":"Ann","role":"Sound"}])")}));

  IntercomClient onlyHi("127.0.0.1");
  ASSERT_TRUE(onlyHi.hi());
  auto bo = member("Bo", "Lighting");
  const json both =
      json::parse(R"([{"id":1,"name":"Ann","role":"Sound"},{"id":2,"name":"Bo","role":"Lighting"}])");
  EXPECT_EQ(rosters(*bo), std::vector<json>{both});
  EXPECT_EQ(rosters(ann), std::vector<json>{both});

  // Joining again keeps the id and tells everyone about the new role.
  const auto again = ann.join("Ann", "Stage Manager");
  EXPECT_EQ((*again)["id"], 1);
  const json changed = json::parse(
      R"([{"id":1,"name":"Ann","role":"Stage Manager"},{"id":2,"name":"Bo","role":"Lighting"}])");
  EXPECT_EQ(rosters(ann), std::vector<json>{changed});
  EXPECT_EQ(rosters(*bo), std::vector<json>{changed});

  bo->sendControl({{"t", "bye"}});
  EXPECT_TRUE(server->waitForLine("👋 Bo (Lighting) left"));
  EXPECT_EQ(rosters(ann), (std::vector<json>{
                              json::parse(R"([{"id":1,"name":"Ann","role":"Stage Manager"}])")}));
  EXPECT_FALSE(onlyHi.receive(0ms)) << "a client that only said hi gets no roster";
  EXPECT_TRUE(server->waitForLine("🎧 Ann joined as Sound", 0ms));
  EXPECT_EQ(server->count("🎧 Ann joined as"), 2U);
}

TEST_F(Crew, JoiningRulesAndReplies) {
  Config config = defaultConfig();
  config.roles.push_back({"R\xC3\xA9gie", {"Main"}, {"Main"}});  // precomposed é
  startWith(config);
  IntercomClient client("127.0.0.1");
  client.sendControl({{"t", "ping"}});
  EXPECT_EQ(client.nextControl(2s), json({{"t", "rejoin"}}));

  const json error{{"t", "error"}, {"reason", "That role no longer exists. Pick another."}};
  EXPECT_EQ(client.join("X", "sound"), error);
  client.sendControl({{"t", "join"}, {"name", "X"}});
  EXPECT_EQ(client.nextControl(2s), error);
  client.sendControl({{"t", "ping"}});
  EXPECT_EQ(client.nextControl(2s), json({{"t", "rejoin"}})) << "a failed join changes nothing";

  // Decomposed spelling of the same role; the configured spelling comes back.
  const auto welcome = client.join("Émile 👍🏽👨‍👩‍👧‍👦🇫🇷", "Re\xCC\x81gie");
  EXPECT_EQ((*welcome)["role"], "R\xC3\xA9gie");
  client.sendControl({{"t", "ping"}});
  auto next = client.nextControl(2s);
  if (next && (*next)["t"] == "roster") {
    EXPECT_EQ((*next)["users"][0]["name"], "Émile 👍🏽👨‍👩‍👧‍👦🇫🇷");
    next = client.nextControl(2s);
  }
  EXPECT_EQ(next, json({{"t", "pong"}}));

  struct NameCase {
    json given;
    std::string listed;
  };
  const std::string thirty = "abcdefghijklmnopqrstuvwxyz0123";
  for (const auto& [given, listed] :
       {NameCase{thirty, thirty.substr(0, 24)}, NameCase{"", ""}, NameCase{nullptr, "Crew"},
        NameCase{std::string(24, 'x') + "👍🏽", std::string(24, 'x')},
        NameCase{std::string(23, 'x') + "👍🏽!", std::string(23, 'x') + "👍🏽"}}) {
    json join{{"t", "join"}, {"role", "Sound"}, {"name", given}};
    client.sendControl(join);
    ASSERT_EQ(client.nextControl(2s).value()["t"], "welcome");
    EXPECT_EQ(client.nextControl(2s).value()["users"][0]["name"], listed) << given;
  }
  EXPECT_EQ(server->standardError(), "");
}

TEST_F(Crew, HostileControlPayloadsAreDroppedSilently) {
  startWith(defaultConfig());
  IntercomClient client("127.0.0.1");
  std::vector<std::vector<std::uint8_t>> hostile;
  auto text = [](const std::string& s) {
    std::vector<std::uint8_t> d{0x01};
    d.insert(d.end(), s.begin(), s.end());
    return d;
  };
  hostile.push_back(text(std::string(50000, '[') + std::string(50000, ']')));
  std::string deepObject;
  for (int i = 0; i < 20000; ++i) {
    deepObject += R"({"a":)";
  }
  hostile.push_back(text(deepObject));
  hostile.push_back(text("{\"t\":\"hi\",\"name\":\"\xFF\xFE\"}"));
  // 64 KiB, and a number where a string belongs.
  hostile.push_back(text("{\"t\":\"hi\",\"name\":12,\"pad\":\"" + std::string(65000, 'x') + "\"}"));
  hostile.push_back(text(R"({"t":"join","role":7})"));
  hostile.push_back(text(R"({"t":"hi"} trailing)"));
  hostile.push_back({0x01});
  hostile.push_back({0x07, 1, 2, 3});
  for (const auto& d : hostile) {
    client.sendRaw(d);
  }
  EXPECT_FALSE(client.receive(500ms)) << "no reply to anything malformed";
  client.sendControl({{"t", "ping"}});
  EXPECT_EQ(client.nextControl(2s), json({{"t", "rejoin"}})) << "and the server is still there";
  EXPECT_EQ(server->count("⚠️"), server->count("⚠️  Bonjour")) << "nothing printed about it";
}

TEST_F(Crew, ASilentClientIsDroppedBetweenEightAndTenSeconds) {
  startWith(defaultConfig());
  auto quiet = member("Quiet", "Sound");
  auto keeper = member("Keeper", "Lighting");
  rosters(*keeper);
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
  bool gotRoster = false;
  while (auto message = keeper->nextControl(500ms)) {
    if ((*message)["t"] == "roster") {
      EXPECT_EQ((*message)["users"], json::parse(R"([{"id":2,"name":"Keeper","role":"Lighting"}])"));
      gotRoster = true;
    }
  }
  EXPECT_TRUE(gotRoster);
  // Heard from again, the dropped client is a stranger and is told to join again.
  while (quiet->nextControl(0ms)) {
    // the rosters it was sent before it went quiet
  }
  quiet->sendControl({{"t", "ping"}});
  EXPECT_EQ(quiet->nextControl(2s), json({{"t", "rejoin"}}));
}

}  // namespace
}  // namespace parlavox::test
