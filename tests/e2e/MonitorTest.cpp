// The operator's view from outside: /metrics read with curl while a UDP talker sends a known
// sequence, the console's warning when a talker's audio breaks up, and the operator's password
// before the monitor, its feed and the metrics.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "devkit/StationSession.h"
#include "e2e/ServerFixture.h"
#include "web/Paths.h"
#include "wire/Audio.h"

namespace parlavox::test {
namespace {

using devkit::ChildRun;
using devkit::runToEnd;

using namespace std::chrono_literals;

class Monitor : public ServerFixture {
 protected:
  void SetUp() override { startWith(defaultConfig()); }

  // parlavox --operator-password, as an operator would run it beside the running server.
  ChildRun setPassword(const std::string& password) {
    return runToEnd("sh",
                    {"-c", R"(printf '%s\n' "$1" | "$2" --operator-password)", "sh", password,
                     parlavoxBinary()},
                    dir.path());
  }

  // Every sample of the Prometheus text by its name and labels, as written.
  std::map<std::string, std::string> metrics() {
    const ChildRun run = runToEnd("curl", {"-sk", "https://127.0.0.1:50505/metrics"}, dir.path());
    std::map<std::string, std::string> samples;
    for (const std::string& line : run.lines) {
      if (!line.empty() && line[0] != '#') {
        const auto space = line.rfind(' ');
        samples[line.substr(0, space)] = line.substr(space + 1);
      }
    }
    return samples;
  }
};

TEST_F(Monitor, MetricsCountWhatArrivedAndWhatWasLost) {
  auto talker = member("Lights", "Lighting");
  auto listener = member("Sound", "Sound");
  const std::string talkerID = "{id=\"1\"}";
  const auto before = metrics();
  EXPECT_EQ(before.at("parlavox_peers{state=\"joined\"}"), "2");
  EXPECT_EQ(before.at("parlavox_audio_datagrams_received_total"), "0");
  EXPECT_EQ(before.at("parlavox_calls_total"), "0");

  // 4 never comes; 7 comes late and 8 twice: neither of those is a loss.
  const std::vector<std::uint8_t> samples(wire::kFrameBytes, 0x10);
  for (const int seq : {1, 2, 3, 5, 6, 8, 7, 8, 9, 10}) {
    talker->sendAudio(0, 0x1, static_cast<std::uint16_t>(seq), samples);
  }
  std::size_t heard = 0;
  while (listener->nextAudio(1s)) {
    ++heard;
  }
  EXPECT_EQ(heard, 10U);
  talker->sendControl({{"t", "call"}, {"mask", 0x1}});
  ASSERT_TRUE(server->waitForLine("📞 Lights (Lighting) called Main"));
  const auto after = metrics();
  EXPECT_EQ(after.at("parlavox_calls_total"), "1");
  EXPECT_EQ(after.at("parlavox_peer_audio_received_total" + talkerID), "9");
  EXPECT_EQ(after.at("parlavox_peer_audio_lost_total" + talkerID), "1");
  EXPECT_EQ(after.at("parlavox_audio_datagrams_received_total"), "10");
  EXPECT_EQ(after.at("parlavox_audio_copies_sent_total"), "10");
  EXPECT_EQ(after.count("process_resident_memory_bytes"), 1U);
  EXPECT_EQ(server->standardError(), "");
}

TEST_F(Monitor, TheConsoleWarnsOfATalkerWhoseAudioBreaksUp) {
  auto talker = member("Ann", "Sound");
  const std::vector<std::uint8_t> samples(wire::kFrameBytes, 0x10);
  for (std::uint16_t seq = 1; seq <= 55; ++seq) {  // 50 sent at once: a talker's burst
    if (seq % 10 != 0) {                           // one in ten lost on the way: 5 of 55
      talker->sendAudio(0, 0x1, seq, samples);
    }
  }
  EXPECT_TRUE(server->waitForLine("⚠️  Ann (Sound): 9% audio lost in the last 10 s", 3s));
  EXPECT_EQ(server->count("audio lost"), 1U);
}

// curl's status for `path` with `credentials` ("user:password", or none), and the challenge that
// came with it; a WebSocket's upgrade when `upgrade`, answered 101 when the feed opens.
std::string statusOf(const std::string& path, const std::string& credentials, bool upgrade,
                     const std::filesystem::path& dir) {
  std::vector<std::string> args = {
      "-sk", "--http1.1", "-m", "1",
      "-o",  "/dev/null", "-w", "%{http_code} %header{www-authenticate}\n"};
  if (!credentials.empty()) {
    args.insert(args.end(), {"-u", credentials});
  }
  if (upgrade) {
    for (const char* header :
         {"Connection: Upgrade", "Upgrade: websocket", "Sec-WebSocket-Version: 13",
          "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ=="}) {
      args.insert(args.end(), {"-H", header});
    }
  }
  args.push_back("https://127.0.0.1:50505" + path);
  const ChildRun run = runToEnd("curl", args, dir);
  return run.lines.empty() ? "" : run.lines[0];
}

// Open as before until a password is set; then set while the server runs, it is asked of the
// monitor, its feed and the metrics alike, any user name will do, and guessing soon stops.
TEST_F(Monitor, TheOperatorPasswordGuardsTheMonitorItsFeedAndTheMetrics) {
  EXPECT_TRUE(server->waitForLine(
      "   Monitor open: no operator password (parlavox --operator-password sets one)"));
  const std::string challenge = R"(Basic realm="Parlavox operator", charset="UTF-8")";
  struct Route {
    std::string path;
    bool upgrade;
    std::string opened;
  };
  const std::vector<Route> routes = {
      {"/monitor", false, "200 "}, {"/metrics", false, "200 "}, {"/monitor/events", true, "101 "}};
  for (const Route& route : routes) {
    EXPECT_EQ(statusOf(route.path, "", route.upgrade, dir.path()), route.opened) << route.path;
  }
  boost::asio::io_context io;
  boost::asio::ssl::context tls(boost::asio::ssl::context::tls_client);
  devkit::StationSession reader(io, tls, "127.0.0.1", 50505, "", "/monitor/events");
  bool readerEnded = false;
  reader.start([](auto) {}, [&] { readerEnded = true; });
  io.run_for(1s);
  ASSERT_FALSE(readerEnded);

  const std::string password = "Lime light 42 ✓";
  const ChildRun set = setPassword(password);
  ASSERT_EQ(set.status, 0) << set.standardError;
  EXPECT_EQ(set.lines, std::vector<std::string>{"🔑 Operator password stored (its hash only) in " +
                                                dir / "parlavox-operator"});
  ASSERT_TRUE(server->waitForLine("🔑 Operator password set"));
  for (int i = 0; i < 50 && !readerEnded; ++i) {
    io.run_for(100ms);
  }
  EXPECT_TRUE(readerEnded) << "a monitor open before must give the password too";
  const std::filesystem::path file = dir / "parlavox-operator";
  EXPECT_EQ(std::filesystem::status(file).permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  std::stringstream kept;
  kept << std::ifstream(file).rdbuf();
  EXPECT_EQ(kept.str().rfind("scrypt$", 0), 0U);
  EXPECT_EQ(kept.str().find("Lime"), std::string::npos);

  for (const Route& route : routes) {
    for (const std::string& wrong : {std::string(), "operator:" + password + "x"}) {
      EXPECT_EQ(statusOf(route.path, wrong, route.upgrade, dir.path()), "401 " + challenge)
          << route.path << " " << wrong;
    }
    EXPECT_EQ(statusOf(route.path, "anyone:" + password, route.upgrade, dir.path()), route.opened)
        << route.path;
  }
  // One wrong password (refused again without a check) and one right so far: three more wrong
  // ones, and then not even the right password, under another user name, is checked for a while;
  // the one that got in still passes, and a wrong one tried before is refused as before.
  for (const auto& [guess, expected] : std::vector<std::pair<std::string, std::string>>{
           {"x:1", "401 "}, {"x:2", "401 "}, {"x:3", "401 "}, {"x:4", "429 "}, {"x:1", "401 "}}) {
    EXPECT_EQ(statusOf("/metrics", guess, false, dir.path()).substr(0, 4), expected) << guess;
  }
  EXPECT_EQ(statusOf("/metrics", "other:" + password, false, dir.path()), "429 ");
  EXPECT_EQ(
      server->count("⚠️  Too many wrong operator passwords from 127.0.0.1: it waits before "
                    "its next try"),
      1U);
  EXPECT_EQ(statusOf("/metrics", "anyone:" + password, false, dir.path()), "200 ");
  // A kept hash that is not one closes the monitor rather than opening it; none opens it again.
  devkit::writeFile(file, "scrypt$1$1$1$AAAA$AAAA\n");
  ASSERT_TRUE(
      server->waitForLine("⚠️  Operator password unusable, so the monitor and metrics refuse"));
  EXPECT_EQ(statusOf("/metrics", "anyone:" + password, false, dir.path()), "503 ");
  std::filesystem::remove(file);
  ASSERT_TRUE(
      server->waitForLine("⚠️  Operator password removed: the monitor and metrics are open"));
  EXPECT_EQ(statusOf("/metrics", "", false, dir.path()), "200 ");
  EXPECT_EQ(server->count(password), 0U);
  EXPECT_EQ(server->standardError(), "");
}

// The day's log: on disk as events happen, the report left out, a name with a comma and quotes
// quoted as CSV quotes; and downloaded as the file holds it, with the password only (none set:
// refused, never open), from the links on the monitor page.
TEST_F(Monitor, TheShowsLogIsKeptOnDiskAndDownloadedWithThePassword) {
  auto ann = member("Ann \"Lx\", Deck", "Lighting");
  ASSERT_EQ(devkit::runProgram({"oscsend", "127.0.0.1", "47000", "/parlavox/say", "s", "Places"}),
            0);
  ASSERT_TRUE(server->waitForLine("📣 Announcing: \"Places\""));
  ann->sendControl({{"t", "bye"}});
  ASSERT_TRUE(server->waitForLine("👋 Ann \"Lx\", Deck (Lighting) left"));
  std::vector<std::string> files = dir.entries();
  std::erase_if(files, [](const std::string& name) { return !name.starts_with("parlavox-log-"); });
  ASSERT_EQ(files.size(), 1U);
  const std::string day = files[0].substr(13, 10);
  const std::string kept = devkit::readFile(dir / files[0]);
  // Rows in order, each stamped with the day's local time and its offset:
  // "2026-11-24T19:31:02+01:00,".
  std::vector<std::string> rows;
  for (std::size_t at = 0, end = 0; (end = kept.find("\r\n", at)) != std::string::npos;
       at = end + 2) {
    rows.push_back(kept.substr(at, end - at));
  }
  ASSERT_FALSE(rows.empty());
  EXPECT_EQ(rows[0], "time,kind,text");
  const std::vector<std::string> wanted = {R"(crew,"🎧 Ann ""Lx"", Deck joined as Lighting")",
                                           R"(announcement,"📣 Announcing: ""Places""")",
                                           R"(crew,"👋 Ann ""Lx"", Deck (Lighting) left")"};
  auto next = wanted.begin();
  for (std::size_t i = 1; i < rows.size(); ++i) {
    const std::string& row = rows[i];
    EXPECT_TRUE(row.size() > 26 && row.starts_with(day + "T") && row[13] == ':' && row[16] == ':' &&
                (row[19] == '+' || row[19] == '-') && row[25] == ',')
        << row;
    if (next != wanted.end() && row.size() > 26 && row.substr(26) == *next) {
      ++next;
    }
  }
  EXPECT_TRUE(next == wanted.end()) << kept;

  const std::string csv(web::kLogCsv);
  const std::string json(web::kLogJson);
  for (const std::string& path : {csv, json}) {
    EXPECT_EQ(statusOf(path, "", false, dir.path()), "403 ") << path;
  }
  ASSERT_EQ(setPassword("Lime light 42").status, 0);
  ASSERT_TRUE(server->waitForLine("🔑 Operator password set"));
  const auto download = [this](const std::string& path) {
    runToEnd("curl",
             {"-sk", "-u", "x:Lime light 42", "-D", dir / "head", "-o", dir / "body",
              "https://127.0.0.1:50505" + path},
             dir.path());
    return devkit::readFile(dir / "head") + devkit::readFile(dir / "body");
  };
  for (const std::string& path : {csv, json}) {
    EXPECT_EQ(statusOf(path, "", false, dir.path()).substr(0, 4), "401 ") << path;
    const std::string got = download(path);
    const std::string name = "parlavox-log-" + day + path.substr(path.rfind('.'));
    EXPECT_NE(got.find("Content-Disposition: attachment; filename=\"" + name + "\"\r\n"),
              std::string::npos);
    const std::string body = got.substr(got.find("\r\n\r\n") + 4);
    if (path == csv) {
      EXPECT_EQ(body.substr(0, kept.size()), kept) << "and what came since";
    } else {
      const auto listed = nlohmann::json::parse(body);
      EXPECT_TRUE(std::any_of(listed.begin(), listed.end(), [&day](const nlohmann::json& row) {
        return row.at("kind") == "crew" && row.at("time").get<std::string>().starts_with(day) &&
               row.at("text") == "👋 Ann \"Lx\", Deck (Lighting) left";
      })) << body;
    }
  }
  const std::string page = download("/monitor");
  for (const std::string& path : {csv, json}) {
    EXPECT_NE(page.find("href=\"" + path + "\""), std::string::npos) << path;
  }
}

}  // namespace
}  // namespace parlavox::test
