// The server's behaviour seen from its clients, through fake flows, a fake loop and a clock that
// moves only when the test says so.
#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>

#include "fakes/FakeServerPlatform.h"
#include "relay/IntercomServer.h"

namespace parlavox {
namespace {

using json = nlohmann::json;
using test::Datagram;
using test::FakeFlow;

Datagram control(const json& message) {
  const std::string text = message.dump();
  Datagram d(1 + text.size(), 0x01);
  std::copy(text.begin(), text.end(), d.begin() + 1);
  return d;
}

// The control messages a client has received since last asked, decoded; audio is skipped.
std::vector<json> take(FakeFlow& flow) {
  std::vector<json> out;
  for (const auto& d : flow.sent) {
    if (!d.empty() && d[0] == 0x01) {
      out.push_back(json::parse(d.begin() + 1, d.end()));
    }
  }
  flow.sent.clear();
  return out;
}

class IntercomServerTest : public testing::Test {
 protected:
  void SetUp() override { startWith(defaultConfig()); }

  void startWith(Config config) {
    server =
        IntercomServer::create(std::move(config), ServerPlatform{
                                                      .loop = loop,
                                                      .network = network,
                                                      .advertiser = advertiser,
                                                      .clock = clock,
                                                      .console = console,
                                                      .sayCommand = "/nonexistent/say",
                                                      .exit = [this](int s) { exitStatus = s; },
                                                  });
    server->start(50505);
    console.take();
  }

  std::shared_ptr<FakeFlow> connect() {
    clients.push_back(network.flows->connect());
    return clients.back();
  }

  // A client that has joined; everybody's inbox is emptied of the join's welcome and rosters.
  std::shared_ptr<FakeFlow> joined(const std::string& name, const std::string& role) {
    auto flow = connect();
    flow->deliver(control({{"t", "join"}, {"name", name}, {"role", role}}));
    for (const auto& client : clients) {
      client->sent.clear();
    }
    return flow;
  }

  test::FakeEventLoop loop;
  test::FakeNetwork network;
  test::FakeAdvertiser advertiser;
  test::FakeClock clock;
  test::FakeConsole console;
  int exitStatus = -1;
  std::shared_ptr<IntercomServer> server;
  std::vector<std::shared_ptr<FakeFlow>> clients;
};

TEST_F(IntercomServerTest, StartOpensBothPortsAdvertisesAndSweepsEveryTwoSeconds) {
  EXPECT_EQ(network.flowPort, 50505);
  EXPECT_EQ(network.datagrams.ports, (std::vector<std::uint16_t>{47000}));
  ASSERT_EQ(advertiser.advertised.size(), 1U);
  EXPECT_EQ(advertiser.advertised[0].name, "Parlavox");
  EXPECT_EQ(advertiser.advertised[0].type, "_intercom._udp");
  EXPECT_EQ(advertiser.advertised[0].port, 50505);
  EXPECT_EQ(loop.periods, (std::vector<std::chrono::milliseconds>{std::chrono::seconds(2)}));
  network.flows->ready();
  EXPECT_EQ(console.take(),
            (std::vector<std::string>{"✅ Listening on UDP port 50505 and advertising on Bonjour"}));
}

TEST_F(IntercomServerTest, StartPrintsTheOscLineAndFailsWhenTheOscPortIsTaken) {
  test::FakeNetwork busy;
  busy.datagrams.busy = {47000};
  auto other = IntercomServer::create(
      defaultConfig(), ServerPlatform{loop, busy, advertiser, clock, console, "/x", [](int) {}});
  EXPECT_THROW(other->start(50505), std::system_error);
  EXPECT_TRUE(console.take().empty());
  auto fine = IntercomServer::create(
      defaultConfig(), ServerPlatform{loop, network, advertiser, clock, console, "/x", [](int) {}});
  fine->start(50505);
  EXPECT_EQ(console.take(),
            (std::vector<std::string>{"✅ Listening for OSC announcements on UDP port 47000"}));
}

TEST_F(IntercomServerTest, ListenerFailureEndsTheProcessWithStatusOne) {
  network.flows->fail("Network is down");
  EXPECT_EQ(console.take(), (std::vector<std::string>{"❌ Listener failed: Network is down"}));
  EXPECT_EQ(exitStatus, 1);
}

TEST_F(IntercomServerTest, HiGetsTheShowWhetherJoinedOrNot) {
  auto flow = connect();
  flow->deliver(control({{"t", "hi"}}));
  const auto replies = take(*flow);
  ASSERT_EQ(replies.size(), 1U);
  EXPECT_EQ(replies[0]["t"], "config");
  EXPECT_EQ(replies[0]["channels"], json({"Main", "Tech", "Backstage", "Green Room"}));
  EXPECT_EQ(replies[0]["roles"].size(), 6U);
  EXPECT_EQ(replies[0]["roles"][5]["talk"], json::array());
  EXPECT_TRUE(console.lines().empty());
}

TEST_F(IntercomServerTest, JoinWelcomesThenSendsTheRosterToEveryone) {
  auto a = connect();
  a->deliver(control({{"t", "join"}, {"role", "Lighting"}, {"colour", "blue"}}));
  EXPECT_EQ(console.take(), (std::vector<std::string>{"🎧 Crew joined as Lighting"}));
  auto replies = take(*a);
  ASSERT_EQ(replies.size(), 2U);
  EXPECT_EQ(
      replies[0],
      json(
          {{"t", "welcome"}, {"id", 1}, {"role", "Lighting"}, {"talkMask", 3}, {"listenMask", 3}}));
  EXPECT_EQ(replies[1]["users"], json::parse(R"([{"id":1,"name":"Crew","role":"Lighting"}])"));

  auto b = connect();
  auto hiOnly = connect();
  hiOnly->deliver(control({{"t", "hi"}}));
  hiOnly->sent.clear();
  b->deliver(control({{"t", "join"}, {"name", "Bea"}, {"role", "Director (listen only)"}}));
  const json both = json::parse(
      R"j([{"id":1,"name":"Crew","role":"Lighting"},{"id":2,"name":"Bea","role":"Director (listen only)"}])j");
  replies = take(*b);
  ASSERT_EQ(replies.size(), 2U);
  EXPECT_EQ(replies[0]["talkMask"], 0);
  EXPECT_EQ(replies[0]["listenMask"], 7);
  EXPECT_EQ(replies[1]["users"], both);
  replies = take(*a);
  ASSERT_EQ(replies.size(), 1U);
  EXPECT_EQ(replies[0]["users"], both);
  EXPECT_TRUE(hiOnly->sent.empty()) << "an unjoined client gets no roster";
}

TEST_F(IntercomServerTest, RejoinKeepsTheIdAndChangesRoleForEveryone) {
  auto a = joined("Ann", "Sound");
  auto b = joined("Bo", "Sound");
  a->deliver(control({{"t", "join"}, {"name", "Ann"}, {"role", "Stage Manager"}}));
  const auto replies = take(*a);
  ASSERT_EQ(replies.size(), 2U);
  EXPECT_EQ(replies[0]["id"], 1);
  EXPECT_EQ(replies[0]["talkMask"], 15);
  EXPECT_EQ(take(*b).at(0)["users"][0],
            json({{"id", 1}, {"name", "Ann"}, {"role", "Stage Manager"}}));
}

TEST_F(IntercomServerTest, AudioFollowsWhoIsJoinedAndWhatTheirRoleHears) {
  auto talker = joined("Ann", "Stage Manager");
  auto other = joined("Bo", "Sound");
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
      other->deliver(control(step.before));
    }
    other->sent.clear();
    talker->deliver(onTech);
    EXPECT_EQ(other->sent.size(), step.hears ? 1U : 0U) << step.what;
  }
}

TEST_F(IntercomServerTest, FailedJoinAnswersErrorAndChangesNothing) {
  auto a = joined("Ann", "Sound");
  console.take();
  for (const json& bad :
       {json{{"t", "join"}, {"name", "Ann"}}, json{{"t", "join"}, {"role", "sound"}},
        json{{"t", "join"}, {"role", nullptr}}}) {
    a->deliver(control(bad));
    const auto replies = take(*a);
    ASSERT_EQ(replies.size(), 1U) << bad;
    EXPECT_EQ(replies[0],
              json({{"t", "error"}, {"reason", "That role no longer exists. Pick another."}}));
  }
  EXPECT_TRUE(console.lines().empty());
  a->deliver(control({{"t", "ping"}}));
  EXPECT_EQ(take(*a).at(0), json({{"t", "pong"}}));
  EXPECT_EQ(server->peers().begin()->second->role, "Sound");
}

TEST_F(IntercomServerTest, NamesAreCutTo24CharactersAndRolesMatchCanonically) {
  Config config = defaultConfig();
  config.roles.push_back({"R\xC3\xA9gie", {"Main"}, {"Main"}});
  startWith(config);
  auto flow = connect();
  const std::string thirty = "abcdefghijklmnopqrstuvwxyz0123";
  flow->deliver(control({{"t", "join"}, {"name", thirty}, {"role", "Re\xCC\x81gie"}}));
  const auto replies = take(*flow);
  EXPECT_EQ(replies.at(0)["role"], "R\xC3\xA9gie") << "the configured spelling is used";
  EXPECT_EQ(replies.at(1)["users"][0]["name"], thirty.substr(0, 24));

  flow->deliver(control({{"t", "join"}, {"name", ""}, {"role", "Sound"}}));
  EXPECT_EQ(take(*flow).at(1)["users"][0]["name"], "");
}

TEST_F(IntercomServerTest, UnknownOrMalformedControlGetsNoReply) {
  auto flow = connect();
  for (const Datagram& d :
       {Datagram{0x01}, control({{"t", "Hi"}}), control({{"t", "PING"}}), control({{"t", 1}}),
        control(json::array({"hi"})), Datagram{0x01, '{', '"', 't'}}) {
    flow->deliver(d);
  }
  EXPECT_TRUE(flow->sent.empty());
  EXPECT_TRUE(console.lines().empty());
}

TEST_F(IntercomServerTest, ByeFromAJoinedPeerIsAnnouncedAndTheRestGetTheRoster) {
  auto a = joined("Ann", "Sound");
  auto b = joined("Bo", "Lighting");
  auto stranger = connect();
  console.take();
  take(*a);

  stranger->deliver(control({{"t", "bye"}}));
  EXPECT_TRUE(stranger->cancelled);
  EXPECT_TRUE(console.lines().empty()) << "a stranger leaves silently";
  EXPECT_TRUE(a->sent.empty());

  b->deliver(control({{"t", "bye"}}));
  EXPECT_TRUE(b->cancelled);
  EXPECT_EQ(console.take(), (std::vector<std::string>{"👋 Bo (Lighting) left"}));
  EXPECT_EQ(take(*a).at(0)["users"], json::parse(R"([{"id":1,"name":"Ann","role":"Sound"}])"));
  EXPECT_EQ(server->peers().size(), 1U);

  b->end(platform::Flow::End::cancelled);  // the report that follows a cancel finds nobody
  EXPECT_TRUE(console.lines().empty());
  a->deliver(control({{"t", "bye"}}));
  EXPECT_EQ(console.take(), (std::vector<std::string>{"👋 Ann (Sound) left"}));
  EXPECT_TRUE(server->peers().empty());
}

TEST_F(IntercomServerTest, FailedFlowRemovesItsPeer) {
  auto a = joined("Ann", "Sound");
  console.take();
  a->end(platform::Flow::End::failed);
  EXPECT_EQ(console.take(), (std::vector<std::string>{"👋 Ann (Sound) left"}));
  EXPECT_TRUE(server->peers().empty());
}

TEST_F(IntercomServerTest, IdsCountUpAndAreNotReusedSooner) {
  auto one = joined("One", "Sound");
  auto two = joined("Two", "Sound");
  one->deliver(control({{"t", "bye"}}));
  auto three = connect();
  three->deliver(control({{"t", "join"}, {"role", "Sound"}}));
  EXPECT_EQ(take(*three).at(0)["id"], 3);
}

TEST_F(IntercomServerTest, SweepDropsPeersSilentForMoreThanEightSeconds) {
  using namespace std::chrono_literals;
  auto quiet = joined("Quiet", "Sound");
  auto chatty = joined("Chatty", "Lighting");
  auto stranger = connect();
  console.take();

  clock.advance(8s);
  chatty->deliver({0x00});  // any non-empty datagram keeps its sender alive
  stranger->deliver({});    // an empty one does not
  server->sweep();
  EXPECT_EQ(server->peers().size(), 3U) << "exactly 8 s of silence is not more than 8 s";
  EXPECT_TRUE(console.lines().empty());

  clock.advance(1ns);
  chatty->sent.clear();
  server->sweep();
  EXPECT_EQ(console.take(),
            (std::vector<std::string>{"⏱️  Quiet timed out", "👋 Quiet (Sound) left"}));
  EXPECT_EQ(server->peers().size(), 1U) << "the stranger went too, without a word";
  EXPECT_TRUE(quiet->cancelled && stranger->cancelled);
  EXPECT_EQ(take(*chatty).at(0)["users"].size(), 1U);

  // The sweep's timer drives the same sweep.
  clock.advance(9s);
  loop.ticks.at(0)();
  EXPECT_EQ(console.take(),
            (std::vector<std::string>{"⏱️  Chatty timed out", "👋 Chatty (Lighting) left"}));
}

TEST_F(IntercomServerTest, TwoPeersTimingOutTogetherEachGetTheirLinesAndRoster) {
  using namespace std::chrono_literals;
  auto a = joined("A", "Sound");
  auto b = joined("B", "Sound");
  clock.advance(5s);
  auto c = joined("C", "Sound");
  console.take();
  c->sent.clear();
  clock.advance(4s);
  server->sweep();
  const auto lines = console.take();
  ASSERT_EQ(lines.size(), 4U);
  // In the table's own order, each peer's two lines together.
  const std::string first = lines[0] == "⏱️  A timed out" ? "A" : "B";
  const std::string second = first == "A" ? "B" : "A";
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "⏱️  " + first + " timed out", "👋 " + first + " (Sound) left",
                       "⏱️  " + second + " timed out", "👋 " + second + " (Sound) left"}));
  EXPECT_EQ(take(*c).size(), 2U) << "one roster per departure";
}

TEST_F(IntercomServerTest, UnknownChannelsInARoleWarnOnEveryJoin) {
  Config config = defaultConfig();
  config.roles.push_back({"Odd", {"Main", "Foyer"}, {"Foyer", "Tech"}});
  startWith(config);
  auto flow = connect();
  flow->deliver(control({{"t", "join"}, {"role", "Odd"}}));
  EXPECT_EQ(console.take(),
            (std::vector<std::string>{"⚠️  Role refers to unknown channel \"Foyer\"",
                                      "⚠️  Role refers to unknown channel \"Foyer\"",
                                      "🎧 Crew joined as Odd"}));
  EXPECT_EQ(take(*flow).at(0)["talkMask"], 1);
}

TEST_F(IntercomServerTest, OscAddressesChooseChannelsOrAreIgnored) {
  server->handleOSC("/parlavox/say/tech", "hello");
  server->handleOSC("/parlavox/sayx", "hello");
  EXPECT_EQ(console.take(), (std::vector<std::string>{"⚠️  OSC: unknown channel \"tech\""}));
  server->handleOSC("/parlavox/say/Tech", "Places please");
  EXPECT_EQ(console.take().at(0), "📣 Announcing: \"Places please\"");
}

TEST_F(IntercomServerTest, AnnouncementFramesGoToListenersWithTheWholeMaskAndCountingSeq) {
  auto mainOnly = joined("M", "Green Room Parent");  // listens Main + Green Room
  auto tech = joined("T", "Lighting");
  auto stranger = connect();
  const std::vector<std::uint8_t> frame(640, 0x11);
  server->broadcastAnnouncement(frame, 0x0F);
  server->broadcastAnnouncement(frame, 0x08);
  server->broadcastAnnouncement(frame, 0x0F);

  ASSERT_EQ(mainOnly->sent.size(), 3U);
  const Datagram& first = mainOnly->sent[0];
  ASSERT_EQ(first.size(), 649U);
  EXPECT_EQ(Datagram(first.begin(), first.begin() + 9),
            (Datagram{0x02, 0xFF, 0xFF, 0x0F, 0, 0, 0, 0x01, 0x00}));
  EXPECT_EQ(mainOnly->sent[1][7], 2);
  EXPECT_EQ(mainOnly->sent[2][7], 3);
  ASSERT_EQ(tech->sent.size(), 2U) << "the Green Room frame is not Tech's";
  EXPECT_EQ(tech->sent[1][7], 3) << "seq counts every frame, heard or not";
  EXPECT_TRUE(stranger->sent.empty());
}

TEST_F(IntercomServerTest, AnnouncementSeqWrapsToZero) {
  auto flow = joined("M", "Sound");
  const std::vector<std::uint8_t> frame(640, 0);
  for (int i = 0; i < 65536; ++i) {
    server->broadcastAnnouncement(frame, 0x1);
  }
  EXPECT_EQ(flow->sent[65534][7], 0xFF);
  EXPECT_EQ(flow->sent[65534][8], 0xFF);
  EXPECT_EQ(flow->sent[65535][7], 0x00);
  EXPECT_EQ(flow->sent[65535][8], 0x00);
}

}  // namespace
}  // namespace parlavox
