// The relay seen from its clients: datagrams delivered through a fake transport, time on a
// simulated loop.
#include <gtest/gtest.h>

#include <array>
#include <nlohmann/json.hpp>
#include <string>

#include "fakes/FakeConsole.h"
#include "fakes/FakeNetwork.h"
#include "fakes/SimulatedLoop.h"
#include "relay/IntercomServer.h"
#include "wire/Protocol.h"

namespace parlavox {
namespace {

using namespace std::chrono_literals;
using json = nlohmann::json;
using test::Datagram;
using Lines = std::vector<std::string>;

Datagram control(const json& message) {
  const std::string text = wire::controlDatagram(message.dump());
  return {text.begin(), text.end()};
}

class IntercomServerTest : public testing::Test {
 protected:
  void SetUp() override { startWith(defaultConfig()); }

  void startWith(Config config) {
    server = IntercomServer::create(Show(std::move(config)),
                                    ServerPlatform{loop, advertiser, clock, console},
                                    [this](int status) { exitStatus = status; });
    server->start(*port);
    console.take();
  }

  void send(std::uint64_t client, const json& message) { port->deliver(client, control(message)); }

  // The control messages `client` has received since last asked; audio is left out.
  std::vector<json> take(std::uint64_t client) {
    std::vector<json> out;
    for (const auto& d : port->sent[client]) {
      if (d.at(0) == 0x01) {
        out.push_back(json::parse(d.begin() + 1, d.end()));
      }
    }
    port->sent[client].clear();
    return out;
  }

  // Lets a roster held back by an earlier one go out.
  void settle() { loop.advance(IntercomServer::kRosterPeriod); }

  // A joined client; everybody's inbox and the console are emptied of the join.
  void joined(std::uint64_t client, const std::string& name, const std::string& role,
              const json& features = nullptr) {
    json join = {{"t", "join"}, {"name", name}, {"role", role}};
    if (!features.is_null()) {
      join["features"] = features;
    }
    send(client, join);
    settle();
    port->sent.clear();
    console.take();
  }

  test::FakeClock clock;
  test::SimulatedLoop loop{clock};
  test::FakeAdvertiser advertiser;
  test::FakeConsole console;
  int exitStatus = -1;
  std::shared_ptr<IntercomServer> server;
  std::unique_ptr<test::FakePeerListener> intercom = std::make_unique<test::FakePeerListener>();
  test::FakePeerListener* port = intercom.get();
};

// The ready line says the port listens, and says it is advertised only while it is.
TEST_F(IntercomServerTest, TheListeningLineTellsWhetherTheIntercomIsAdvertised) {
  const std::string listening = "✅ Listening on UDP port 50505";
  const std::string advertised = listening + " and advertising on Bonjour";
  const auto advertise = [this](bool on) {
    advertiser.onChange(on);
    loop.runPosted();
  };
  port->ready();
  EXPECT_EQ(console.take(), Lines{listening});
  advertise(true);  // the daemon answered, later
  advertise(false);
  advertise(true);  // back after an outage
  EXPECT_EQ(console.take(), (Lines{advertised, advertised}));

  // Advertised before the port answers: one line says both.
  startWith(defaultConfig());
  advertise(true);
  EXPECT_EQ(console.take(), Lines{});
  port->ready();
  EXPECT_EQ(console.take(), Lines{advertised});
}

// Advertising is seen end to end; losing the port is not.
TEST_F(IntercomServerTest, LosingTheIntercomPortEndsTheProcess) {
  port->fail("Network is down");
  EXPECT_EQ(console.take(), Lines{"❌ Listener failed: Network is down"});
  EXPECT_EQ(exitStatus, 1);
}

TEST_F(IntercomServerTest, JoinWelcomesThenSendsTheRosterToEveryJoinedClient) {
  send(1, {{"t", "join"}, {"role", "Lighting"}, {"colour", "blue"}});
  EXPECT_EQ(console.take(), Lines{"🎧 Crew joined as Lighting"});
  EXPECT_EQ(
      take(1),
      (std::vector<json>{
          {{"t", "welcome"}, {"id", 1}, {"role", "Lighting"}, {"talkMask", 3}, {"listenMask", 3}},
          json::parse(R"({"t":"roster","users":[{"id":1,"name":"Crew",
                                        "role":"Lighting"}]})"),
      }));
  send(3, {{"t", "hi"}});
  port->sent.clear();
  send(2, {{"t", "join"}, {"name", "Bea"}, {"role", "Director (listen only)"}});
  settle();
  const json both = json::parse(R"j([{"id":1,"name":"Crew","role":"Lighting"},
                                    {"id":2,"name":"Bea","role":"Director (listen only)"}])j");
  const auto replies = take(2);
  ASSERT_EQ(replies.size(), 2U);
  EXPECT_EQ(replies[0]["talkMask"], 0);
  EXPECT_EQ(replies[0]["listenMask"], 7);
  EXPECT_EQ(replies[1]["users"], both);
  EXPECT_EQ(take(1), std::vector<json>{json({{"t", "roster"}, {"users", both}})});
  EXPECT_TRUE(take(3).empty()) << "a client that has not joined gets no roster";

  // Joining again keeps the id, and everyone hears of the new role.
  send(1, {{"t", "join"}, {"name", "Ann"}, {"role", "Stage Manager"}});
  settle();
  EXPECT_EQ(take(1).at(0)["id"], 1);
  EXPECT_EQ(take(2).at(0)["users"][0],
            json({{"id", 1}, {"name", "Ann"}, {"role", "Stage Manager"}}));
}

// Names are cut to 24 characters, roles match in any canonically equivalent spelling and are
// reported in the show's, and a role's unknown channels are reported at every join.
TEST_F(IntercomServerTest, JoinsTakeTheShowsRulesAndWarnings) {
  Config config = defaultConfig();
  config.roles.push_back({"R\xC3\xA9gie", {"Main", "Foyer"}, {"Foyer", "Tech"}});
  startWith(config);
  const std::string thirty = "abcdefghijklmnopqrstuvwxyz0123";
  for (const std::string& name : {thirty, std::string()}) {
    send(1, {{"t", "join"}, {"name", name}, {"role", "Re\xCC\x81gie"}});
    settle();
    const auto replies = take(1);
    EXPECT_EQ(replies.at(0)["role"], "R\xC3\xA9gie");
    EXPECT_EQ(replies.at(0)["talkMask"], 1);
    EXPECT_EQ(replies.at(1)["users"][0]["name"], name.substr(0, 24));
    EXPECT_EQ(console.take(), (Lines{"⚠️  Role refers to unknown channel \"Foyer\"",
                                     "⚠️  Role refers to unknown channel \"Foyer\"",
                                     "🎧 " + name.substr(0, 24) + " joined as R\xC3\xA9gie"}));
  }
}

TEST_F(IntercomServerTest, JoinsThatFailAnswerErrorAndChangeNothing) {
  joined(1, "Ann", "Sound");
  for (const json& bad :
       {json{{"t", "join"}, {"name", "Ann"}}, json{{"t", "join"}, {"role", "sound"}},
        json{{"t", "join"}, {"role", nullptr}}}) {
    send(1, bad);
    EXPECT_EQ(take(1),
              std::vector<json>{
                  json({{"t", "error"}, {"reason", "That role no longer exists. Pick another."}})})
        << bad;
  }
  EXPECT_TRUE(console.lines().empty());
}

TEST_F(IntercomServerTest, AudioFollowsWhoIsJoinedAndWhatTheirRoleHears) {
  joined(1, "Ann", "Stage Manager");
  joined(2, "Bo", "Sound");
  const Datagram onTech{0x02, 0, 0, 0x02, 0, 0, 0, 1, 0, 0xAB};
  struct Step {
    const char* what;
    json before;  // what Bo does first (null: nothing)
    bool hears;
  };
  const Step steps[] = {
      {"Sound hears Tech", nullptr, true},
      {"rejoined as a role that does not",
       {{"t", "join"}, {"name", "Bo"}, {"role", "Green Room Parent"}},
       false},
      {"rejoined as one that does", {{"t", "join"}, {"name", "Bo"}, {"role", "Lighting"}}, true},
      {"gone", {{"t", "bye"}}, false},
  };
  for (const Step& step : steps) {
    if (!step.before.is_null()) {
      send(2, step.before);
    }
    port->sent.clear();
    port->deliver(1, onTech);
    EXPECT_EQ(port->sent[2].size(), step.hears ? 1U : 0U) << step.what;
    EXPECT_TRUE(port->sent[1].empty()) << "nobody hears themselves";
  }
}

TEST_F(IntercomServerTest, DeparturesAreAnnouncedOnlyForJoinedClients) {
  joined(1, "Ann", "Sound");
  joined(2, "Bo", "Lighting");
  joined(3, "Cy", "Sound");
  send(4, {{"t", "hi"}});
  port->sent.clear();

  send(4, {{"t", "bye"}});
  EXPECT_TRUE(console.lines().empty()) << "a stranger leaves silently";
  EXPECT_TRUE(port->sent[1].empty());
  send(2, {{"t", "bye"}});
  port->close(3);  // its connection closed
  port->close(3);  // and a second report finds nobody
  settle();
  EXPECT_EQ(console.take(), (Lines{"👋 Bo (Lighting) left", "👋 Cy (Sound) left"}));
  EXPECT_EQ(take(1).back()["users"], json::parse(R"([{"id":1,"name":"Ann","role":"Sound"}])"));
  EXPECT_EQ(port->ended, (std::vector<std::uint64_t>{4, 2, 3})) << "the transport lets each go";

  // Heard from again, a departed client is a stranger; ids are not given out again sooner.
  send(2, {{"t", "ping"}});
  EXPECT_EQ(take(2).back(), json({{"t", "rejoin"}}));
  send(2, {{"t", "join"}, {"role", "Sound"}});
  EXPECT_EQ(take(2).at(0)["id"], 4);
}

TEST_F(IntercomServerTest, TheSweepDropsClientsSilentForMoreThanEightSeconds) {
  joined(1, "Quiet", "Sound");
  joined(2, "Chatty", "Lighting");
  port->deliver(3, {});  // a stranger whose datagram says nothing
  loop.advance(8s);      // swept every 2 s; exactly 8 s of silence is not more than 8 s
  EXPECT_TRUE(console.lines().empty());
  EXPECT_TRUE(port->ended.empty());

  port->deliver(2, {0x00});  // any non-empty datagram keeps its sender alive
  port->deliver(3, {});      // an empty one does not
  loop.advance(2s);
  EXPECT_EQ(console.take(), (Lines{"⏱️  Quiet timed out", "👋 Quiet (Sound) left"}));
  EXPECT_EQ(take(2).size(), 1U) << "one roster for the departure";
  std::sort(port->ended.begin(), port->ended.end());  // in the table's own order
  EXPECT_EQ(port->ended, (std::vector<std::uint64_t>{1, 3})) << "the stranger went silently";

  // Two joined clients going in the same sweep each get their lines and their roster.
  joined(4, "Late", "Sound");
  joined(5, "Keeper", "Sound");
  port->deliver(2, {0x00});
  for (int sweep = 0; sweep < 5; ++sweep) {
    loop.advance(2s);
    port->deliver(5, {0x00});
  }
  auto lines = console.take();
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ(lines, (Lines{"⏱️  Chatty timed out", "⏱️  Late timed out",
                          "👋 Chatty (Lighting) left", "👋 Late (Sound) left"}));
  EXPECT_EQ(take(5).size(), 2U);
}

// A client on a machine of its own: bits from 16 up pick the host.
constexpr std::uint64_t machine(std::uint64_t n) {
  return n << 16;
}

TEST_F(IntercomServerTest, StrangersAreBoundedAndNeverCrowdOutTheCrew) {
  joined(1, "Ann", "Sound");
  joined(2, "Bo", "Sound");
  const std::size_t strangers = PeerTable::kUnjoinedLimit + 10;
  for (std::uint64_t i = 1; i <= strangers; ++i) {
    port->deliver(machine(i), {0x07});
  }
  ASSERT_EQ(port->ended.size(), 10U);
  EXPECT_EQ(port->ended.front(), machine(1)) << "the oldest strangers go first";
  EXPECT_EQ(port->ended.back(), machine(10));
  const Datagram onTech{0x02, 0, 0, 0x02, 0, 0, 0, 1, 0, 0xAB};
  port->deliver(1, onTech);
  EXPECT_EQ(port->sent[2].size(), 1U) << "the crew still hears each other";
}

// 24 characters of 63 bytes each, for 500 joined: a roster several times a datagram's size.
TEST_F(IntercomServerTest, AFullIntercomStillSendsARosterThatFits) {
  std::string heavy = "e";
  for (int i = 0; i < 31; ++i) {
    heavy += "\u0301";
  }
  std::string name;
  for (int i = 0; i < 30; ++i) {
    name += heavy + "\u0301";  // each character one mark too many: cut to 63 bytes
  }
  for (std::uint64_t i = 1; i <= PeerTable::kJoinedLimit + 1; ++i) {
    send(machine(i), {{"t", "join"}, {"name", name}, {"role", "Sound"}});
  }
  settle();
  EXPECT_EQ(take(machine(PeerTable::kJoinedLimit + 1)),
            std::vector<json>{json({{"t", "error"}, {"reason", "The intercom is full."}})});
  const Datagram& last = port->sent[machine(1)].back();
  ASSERT_LE(last.size(), wire::kMaxDatagram);
  const json roster = json::parse(last.begin() + 1, last.end());
  ASSERT_EQ(roster["users"].size(), PeerTable::kJoinedLimit);
  for (const json& user : roster["users"]) {
    const auto kept = user["name"].get<std::string>();
    EXPECT_TRUE(!kept.empty() && kept.size() % heavy.size() == 0 &&
                name.starts_with(kept.substr(0, kept.size() - heavy.size())))
        << "whole characters only";
  }
}

// Phones behind one NAT share an address: past the show's peersPerHost its joins are refused
// as a full intercom's, the operator is told once while that host stays at the cap, and other
// hosts and the peers already in are unaffected.
TEST_F(IntercomServerTest, JoinsFromOneHostStopAtPeersPerHost) {
  Config config = defaultConfig();
  config.peersPerHost = 2;
  startWith(config);
  const json full = {{"t", "error"}, {"reason", "The intercom is full."}};
  const std::string atCap =
      "⚠️  Intercom full for ::: 2 crew joined from that address, the most allowed; "
      "\"peersPerHost\" in the roles file raises it";
  const auto reply = [this](std::uint64_t client, const std::string& role) {
    send(client, {{"t", "join"}, {"name", "N"}, {"role", role}});
    const auto replies = take(client);
    return replies.empty() ? json() : replies.front();
  };
  EXPECT_EQ(reply(1, "Sound")["t"], "welcome");
  EXPECT_EQ(reply(2, "Sound")["t"], "welcome");
  EXPECT_EQ(reply(3, "Sound"), full);
  EXPECT_EQ(reply(4, "Sound"), full);
  EXPECT_EQ(console.take(), (Lines{"🎧 N joined as Sound", "🎧 N joined as Sound", atCap}));
  EXPECT_EQ(reply(2, "Lighting")["t"], "welcome") << "a peer already in may rejoin";
  EXPECT_EQ(reply(machine(1), "Sound")["t"], "welcome") << "another host";
  send(1, {{"t", "bye"}});
  EXPECT_EQ(reply(3, "Sound")["t"], "welcome") << "a place freed";
  console.take();
  EXPECT_EQ(reply(4, "Sound"), full);
  EXPECT_EQ(console.take(), Lines{atCap}) << "at the cap again: told again";
  EXPECT_EQ(server->counts().joinsRefused, 3U);
}

// A talker may send kAudioBurst datagrams at once and audioPerTalker after: the rest is dropped
// unanswered and uncounted. (Beside an ordinary talker: end to end.)
TEST_F(IntercomServerTest, AudioBeyondATalkersRateIsDropped) {
  joined(1, "Flood", "Sound");
  joined(2, "Ann", "Sound");
  const Datagram audio{0x02, 0, 0, 0x01, 0, 0, 0, 1, 0, 0xAB};
  for (const auto& [after, heard] : {std::pair{0ms, 50U}, {100ms, 60U}, {1000ms, 110U}}) {
    loop.advance(after);
    for (int i = 0; i < 200; ++i) {
      port->deliver(1, audio);
    }
    EXPECT_EQ(port->sent[2].size(), heard) << after.count();
  }
  EXPECT_EQ(server->counts().audioReceived, 110U);
  EXPECT_EQ(server->counts().audioDropped, 600U - 110U);
  EXPECT_TRUE(port->sent[1].empty()) << "no answer";
}

TEST_F(IntercomServerTest, ConfigRepliesAndJoinsAreRateLimitedPerHost) {
  struct Case {
    json message;
    std::size_t burst;
    std::size_t perSecond;
  };
  for (const Case& c :
       {Case{{{"t", "hi"}}, 20, 5}, Case{{{"t", "join"}, {"role", "Sound"}}, 32, 8}}) {
    startWith(defaultConfig());
    const auto answered = [&](std::uint64_t firstClient, std::size_t count) {
      std::size_t replies = 0;
      for (std::uint64_t i = firstClient; i < firstClient + count; ++i) {
        send(i, c.message);
        replies += take(i).empty() ? 0U : 1U;
      }
      return replies;
    };
    // Programs on one machine share its bucket; another machine has its own.
    EXPECT_EQ(answered(1, c.burst + 10), c.burst) << c.message;
    EXPECT_EQ(answered(machine(1), 3), 3U) << c.message;
    loop.advance(1s);
    EXPECT_EQ(answered(100, c.burst), c.perSecond) << c.message;
  }
}

TEST_F(IntercomServerTest, RostersOfABurstAreCoalesced) {
  joined(1, "Ann", "Sound");
  loop.advance(1s);
  // 1,000 joins at 200 a second: the first roster goes at once, then at most one per 200 ms.
  std::size_t rosters = 0;
  for (std::uint64_t i = 1; i <= 1000; ++i) {
    send(machine(i), {{"t", "join"}, {"role", "Sound"}});
    if (i == 1) {
      EXPECT_EQ(take(1).size(), 1U) << "the first change after a quiet time goes at once";
      rosters = 1;
    }
    loop.advance(5ms);
  }
  rosters += take(1).size();
  EXPECT_LE(rosters, 5U * 5 + 2);
  send(machine(1), {{"t", "bye"}});
  settle();
  const auto last = take(1);
  ASSERT_EQ(last.size(), 1U);
  EXPECT_EQ(last[0]["users"].size(), PeerTable::kJoinedLimit - 1) << "the last is the crew now";
}

// Who hears of a call, and how: those who said they understand calls by a message, the rest by the
// chime (asked of the callback once per call); never the caller, never beyond its talk channels.
TEST_F(IntercomServerTest, CallsReachTheCalledByMessageOrChimeAndTheWordsOnlyThoseWhoRead) {
  std::vector<std::pair<std::uint16_t, std::uint32_t>> chimes;
  server->setChimeCallback(
      [&](std::uint16_t caller, std::uint32_t mask) { chimes.emplace_back(caller, mask); });
  joined(1, "Ann", "Stage Manager", {"call", "beam"});
  joined(2, "Bo", "Sound");                             // Main, Tech
  joined(3, "Cy", "Backstage Crew", {"text", "call"});  // Main, Backstage
  joined(4, "Di", "Green Room Parent");                 // Main, Green Room
  const auto inboxes = [this] {
    return std::vector<std::vector<json>>{take(1), take(2), take(3), take(4)};
  };
  using Inboxes = std::vector<std::vector<json>>;
  const json none = json::array();

  send(1, {{"t", "call"}, {"mask", 0xFFFFFF0C}});  // Backstage, Green Room and bits of no channel
  EXPECT_EQ(inboxes(), (Inboxes{{}, {}, {{{"t", "call"}, {"id", 1}, {"mask", 4}}}, {}}));
  send(2, {{"t", "call"}, {"mask", 4}});  // Sound may not talk on Backstage
  send(9, {{"t", "call"}, {"mask", 1}});  // a stranger
  send(2, {{"t", "call"}});
  server->callFromShowControl(0x1);
  const json fromShowControl = {{"t", "call"}, {"id", 0xFFFF}, {"mask", 1}};
  EXPECT_EQ(inboxes(), (Inboxes{{fromShowControl}, {}, {fromShowControl}, {}}));
  EXPECT_EQ(chimes, (decltype(chimes){{1, 0xC}, {0xFFFF, 0x1}}));
  EXPECT_EQ(console.take(), (Lines{"📞 Ann (Stage Manager) called Backstage, Green Room",
                                   "📞 Show control called Main"}));

  // A chime frame goes to the called who do not understand calls, with each one's share.
  std::array<std::uint8_t, wire::AudioHeader::kSize> head =
      wire::AudioHeader{wire::announcerID, 0xC, 7}.bytes();
  const Datagram samples(640, 1);
  server->sendChime(1, 0xC, head, samples);
  EXPECT_TRUE(port->sent[1].empty() && port->sent[2].empty() && port->sent[3].empty());
  ASSERT_EQ(port->sent[4].size(), 1U);
  EXPECT_EQ(wire::AudioHeader::read(port->sent[4][0]), (wire::AudioHeader{0xFFFF, 0x8, 7}));

  server->sendAnnouncementText("Places, please", 0xF);
  EXPECT_EQ(inboxes(),
            (Inboxes{{}, {}, {{{"t", "announce"}, {"text", "Places, please"}, {"mask", 5}}}, {}}));

  // Leaning on the key: three calls at once (Ann's first was one), then one per two seconds.
  for (int i = 0; i < 5; ++i) {
    send(1, {{"t", "call"}, {"mask", 4}});
  }
  EXPECT_EQ(take(3).size(), 2U);
  loop.advance(2s);
  send(1, {{"t", "call"}, {"mask", 4}});
  send(1, {{"t", "call"}, {"mask", 4}});
  EXPECT_EQ(take(3).size(), 1U);
  EXPECT_EQ(server->counts().calls, 5U);
}

}  // namespace
}  // namespace parlavox
