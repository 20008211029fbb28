// The operator's actions over HTTP, as the monitor page and show control post them: curl against
// the real binary, with UDP crew and a browser's session on loopback.
#include <gtest/gtest.h>

#include "devkit/StationSession.h"
#include "e2e/ServerFixture.h"
#include "wire/Audio.h"

namespace parlavox::test {
namespace {

using devkit::ChildRun;
using devkit::runToEnd;

using namespace std::chrono_literals;

const std::string kPassword = "Places please 5";

class OperatorActions : public ServerFixture {
 protected:
  void SetUp() override { startWith(defaultConfig()); }

  void setPassword() {
    const ChildRun set = runToEnd("sh",
                                  {"-c", R"(printf '%s\n' "$1" | "$2" --operator-password)", "sh",
                                   kPassword, parlavoxBinary()},
                                  dir.path());
    ASSERT_EQ(set.status, 0) << set.standardError;
    ASSERT_TRUE(server->waitForLine("🔑 Operator password set"));
  }

  // "STATUS BODY" of a POST of `body` to `path`, from the local address `from` when given.
  std::string post(const std::string& path, const std::string& body,
                   const std::string& password = kPassword, const std::string& from = "") {
    std::vector<std::string> args = {
        "-sk", "-m", "2", "-u", ":" + password, "-w", "\n%{http_code}\n", "--data-binary", body};
    if (!from.empty()) {
      args.insert(args.end(), {"--interface", from});
    }
    args.push_back("https://127.0.0.1:50505" + path);
    const ChildRun run = runToEnd("curl", args, dir.path());
    std::string answer;
    for (std::size_t i = 0; i + 1 < run.lines.size(); ++i) {
      answer += (i == 0 ? "" : "\n") + run.lines[i];
    }
    while (!answer.empty() && answer.back() == '\n') {
      answer.pop_back();
    }
    const std::string status = run.lines.empty() ? "" : run.lines.back();
    return answer.empty() ? status : status + " " + answer;
  }
};

// Never open: refused until a password is set, then only with it, and each refusal says why.
TEST_F(OperatorActions, AskForThePasswordAndSayWhatIsWrong) {
  const std::string setOne =
      "403 This needs an operator password, and none is set: run parlavox --operator-password on "
      "the server.";
  for (const char* path :
       {"/operator/announce", "/operator/stop", "/operator/call", "/operator/remove"}) {
    EXPECT_EQ(post(path, R"({"text":"Go"})"), setOne) << path;
  }
  setPassword();
  EXPECT_EQ(post("/operator/stop", "{}", "wrong password").substr(0, 3), "401");
  const struct {
    std::string path, body, answer;
  } cases[] = {
      {"/operator/announce", R"({"text":"Go","channel":"Nowhere"})",
       "400 Unknown channel \"Nowhere\""},
      {"/operator/announce", R"({"text":")" + std::string(1001, 'a') + "\"}",
       "400 Announcement of 1001 characters refused (at most 1000)"},
      {"/operator/announce", R"({"text":"  "})", "400 Announcement without words refused"},
      {"/operator/announce", "{\"text\":",
       "400 Expected a JSON object: {\"text\": \"…\", "
       "\"channel\": \"…\"}"},
      {"/operator/announce", R"({"text":")" + std::string(9000, 'a') + "\"}",
       "413 At most 8192 bytes, please"},
      {"/operator/call", R"({"channel":"Nowhere"})", "400 Unknown channel \"Nowhere\""},
      {"/operator/remove", R"({"id":7})", "404 No crew member has id 7"},
      {"/operator/remove", R"({"id":"7"})",
       "400 Expected a JSON object: {\"id\": N, \"refuse\": true}"},
      {"/operator/stop", "", "202 {\"stopped\":true}"},
      {"/operator/call", R"({"channel":"Tech"})", "202 {\"called\":\"Tech\"}"},
  };
  for (const auto& each : cases) {
    EXPECT_EQ(post(each.path, each.body), each.answer)
        << each.path << " " << each.body.substr(0, 40);
  }
  EXPECT_TRUE(server->waitForLine("🎛️  Operator at 127.0.0.1: stop the announcements"));
  EXPECT_TRUE(server->waitForLine("📞 Show control called Tech"));
  EXPECT_TRUE(server->waitForLine("🎛️  Operator at 127.0.0.1: call Tech"));
  EXPECT_EQ(server->count("🎛️"), 2U) << "a refused action does nothing";
  EXPECT_EQ(server->count(kPassword), 0U);
}

// Typed on the page, spoken as an OSC announcement is: the announcer's frames on its channel.
TEST_F(OperatorActions, AnAnnouncementReachesItsChannelAsTheAnnouncersFrames) {
  setPassword();
  auto backstage = member("Fly", "Backstage Crew");
  auto tech = member("Tech", "Lighting");
  EXPECT_EQ(post("/operator/announce", R"({"text":"Places please","channel":"Backstage"})"),
            R"(202 {"announced":"Places please","channel":"Backstage"})");
  const auto heard = audioUntilQuiet(*backstage);
  ASSERT_FALSE(heard.empty());
  for (const auto& frame : heard) {
    EXPECT_EQ(frame.senderID, 0xFFFF);
    EXPECT_EQ(frame.mask, 0x4U);
  }
  EXPECT_FALSE(tech->nextAudio(0ms)) << "Tech does not listen on Backstage";
  EXPECT_TRUE(server->waitForLine("📣 Announcing: \"Places please\""));
  EXPECT_TRUE(server->waitForLine(
      "🎛️  Operator at 127.0.0.1: announce \"Places please\" on Backstage"));
}

// A browser's station is told why and its session ends; a UDP client of the original protocol
// just stops being a member; everyone else gets the new roster.
TEST_F(OperatorActions, RemoveEndsAStationsSessionAndAUdpPeersMembership) {
  setPassword();
  boost::asio::io_context io;
  boost::asio::ssl::context tls(boost::asio::ssl::context::tls_client);
  devkit::StationSession station(io, tls, "127.0.0.1", 50505);
  std::vector<std::string> said;
  bool ended = false;
  station.start([&](auto message) { said.emplace_back(message.begin() + 1, message.end()); },
                [&] { ended = true; });
  wire::Features removed;
  removed.add(wire::Feature::removed);
  const std::string join = wire::encodeControl(wire::Incoming::join("Ann", "Sound", removed));
  station.send({join.begin(), join.end()});
  for (int i = 0; i < 50 && server->count("🎧 Ann joined as Sound") == 0; ++i) {
    io.run_for(100ms);
  }
  auto udp = member("Bob", "Lighting");  // id 2
  auto watcher = member("Cy", "Stage Manager");

  EXPECT_EQ(post("/operator/remove", R"({"id":1})"),
            R"x(200 {"refused":null,"removed":["Ann (Sound)"]})x");
  for (int i = 0; i < 50 && !ended; ++i) {
    io.run_for(100ms);
  }
  EXPECT_TRUE(ended);
  ASSERT_FALSE(said.empty());
  EXPECT_EQ(
      said.back(),
      R"({"t":"error","reason":"The operator removed you from the intercom. You may join again."})");
  EXPECT_TRUE(server->waitForLine("🎛️  Operator at 127.0.0.1 removed Ann (Sound)"));

  while (udp->nextControl(300ms)) {
    // the rosters so far
  }
  EXPECT_EQ(post("/operator/remove", R"({"id":2})"),
            R"x(200 {"refused":null,"removed":["Bob (Lighting)"]})x");
  EXPECT_TRUE(server->waitForLine("🎛️  Operator at 127.0.0.1 removed Bob (Lighting)"));
  EXPECT_FALSE(udp->nextControl(500ms)) << "nothing the original protocol does not define";
  udp->sendControl({{"t", "ping"}});
  EXPECT_EQ((*udp->nextControl(2s))["t"], "rejoin");
  std::optional<nlohmann::json> roster;
  while (auto message = watcher->nextControl(1s)) {
    roster = message;
  }
  ASSERT_TRUE(roster);
  EXPECT_EQ((*roster)["users"].size(), 1U);
  EXPECT_EQ(server->count(" left"), 0U) << "the operator's line says it";
}

// Refused: everyone joined from that address goes, and it gets no answer at all, UDP or TCP.
TEST_F(OperatorActions, ARefusedAddressGetsNoAnswer) {
  setPassword();
  client::IntercomClient ann("127.0.0.1", wire::kIntercomPort, "127.0.0.2");
  client::IntercomClient bob("127.0.0.1", wire::kIntercomPort, "127.0.0.2");
  const auto welcome = ann.join("Ann", "Sound");
  ASSERT_TRUE(welcome && (*welcome)["t"] == "welcome");
  ASSERT_TRUE(bob.join("Bob", "Lighting"));
  EXPECT_EQ(post("/operator/stop", "{}", kPassword, "127.0.0.2").substr(0, 4), "202 ");

  EXPECT_EQ(post("/operator/remove", R"({"id":)" + (*welcome)["id"].dump() + R"(,"refuse":true})"),
            R"x(200 {"refused":"127.0.0.2","removed":["Ann (Sound)","Bob (Lighting)"]})x");
  EXPECT_TRUE(
      server->waitForLine("🎛️  Operator at 127.0.0.1 removed Ann (Sound) and Bob (Lighting), "
                          "and refused 127.0.0.2"));
  while (ann.nextControl(300ms)) {
    // what came before
  }
  EXPECT_FALSE(ann.hi(1s)) << "UDP";
  client::IntercomClient newcomer("127.0.0.1", wire::kIntercomPort, "127.0.0.2");
  EXPECT_FALSE(newcomer.hi(1s)) << "another port of the same address";
  EXPECT_EQ(post("/operator/stop", "{}", kPassword, "127.0.0.2"), "000") << "TCP";
  EXPECT_EQ(post("/operator/stop", "{}").substr(0, 4), "202 ") << "everyone else as before";
  EXPECT_TRUE(member("Cy", "Sound"));
}

}  // namespace
}  // namespace parlavox::test
