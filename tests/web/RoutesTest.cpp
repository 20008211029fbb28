// The web port's route table, and the crew and the feed behind it, with WebSockets played by the
// test: what each path answers, and how sessions become peers and readers.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "fakes/FakeWebSocket.h"
#include "web/Routes.h"

namespace parlavox::web {
namespace {

using test::FakeWebSocket;

// A request as the server hands it on; `credential` both as a cookie and as an authorization.
platform::HttpRequest asked(std::string_view method, std::string_view path,
                            std::string_view credential = {}) {
  platform::HttpRequest request;
  request.method = method;
  request.path = path;
  request.body = "posted";
  request.cookie = credential;
  request.authorization = credential;
  return request;
}

// The relay, as far as the crew's sessions are concerned.
class Receiver final : public platform::Transport::Receiver {
 public:
  void deliver(const platform::PeerAddress& from, Bytes datagram) override {
    heard.emplace_back(from, std::string(datagram.begin(), datagram.end()));
  }
  void ended(const platform::PeerAddress& peer) override { gone.push_back(peer); }

  std::vector<std::pair<platform::PeerAddress, std::string>> heard;
  std::vector<platform::PeerAddress> gone;
};

class RoutesTest : public testing::Test {
 protected:
  platform::HttpResponse get(std::string_view path, std::string_view method = "GET") {
    return routes.respond(asked(method, path));
  }

  // A WebSocket opened at `path` the way the server opens one; nothing if the path refuses it.
  std::shared_ptr<FakeWebSocket> open(std::string_view path, std::uint8_t host = 1) {
    auto answer = routes.upgrade(asked("GET", path));
    auto* upgrade = std::get_if<Routes::Upgrade>(&answer);
    if (!upgrade) {
      return nullptr;
    }
    auto socket = std::make_shared<FakeWebSocket>(host);
    upgrade->onOpen(socket);
    return socket;
  }

  Receiver relay;
  WebPeers crew{relay};
  Feed feed;
  int metricsMade = 0;
  Routes routes{{.crew = crew,
                 .monitorFeed = feed,
                 .metrics = {"text/plain; version=0.0.4",
                             [this] { return "made " + std::to_string(++metricsMade); }},
                 .stationInfo = {"application/json", [] { return R"({"show":"Hamlet"})"; }},
                 .ownHosts = {"stage.local", "10.0.0.2"}}};
};

std::string page(std::string_view path) {
  for (const WebFile& file : webFiles()) {
    if (file.path == path) {
      return std::string(file.bytes);
    }
  }
  return "(missing)";
}

TEST_F(RoutesTest, EachPathIsAnsweredByWhatItIsFor) {
  struct Case {
    std::string_view method;
    std::string_view path;
    unsigned status;
    std::string contentType;
    std::string body;
  };
  const std::string notFound = "Not found\n";
  const Case cases[] = {
      {"GET", "/", 200, "text/html; charset=utf-8", page("station/index.html")},
      {"HEAD", "/", 200, "text/html; charset=utf-8", page("station/index.html")},
      {"GET", "/monitor", 200, "text/html; charset=utf-8", page("monitor/index.html")},
      {"GET", "/station/station.js", 200, "text/javascript; charset=utf-8",
       page("station/station.js")},
      {"GET", "/shared/constants.js", 200, "text/javascript; charset=utf-8",
       page("shared/constants.js")},
      {"GET", "/shared/base.css", 200, "text/css; charset=utf-8", page("shared/base.css")},
      {"GET", "/metrics", 200, "text/plain; version=0.0.4", "made 1"},
      {"GET", "/metrics", 200, "text/plain; version=0.0.4", "made 2"},
      {"GET", "/station.json", 200, "application/json", R"({"show":"Hamlet"})"},
      {"POST", "/", 405, "text/plain", "Method not allowed\n"},
      {"POST", "/nope", 404, "text/plain", notFound},
      {"GET", "/index.html", 404, "text/plain", notFound},
      {"GET", "/station", 404, "text/plain", notFound},
      {"GET", "/intercom", 404, "text/plain", notFound},
      {"GET", "/monitor/events", 404, "text/plain", notFound},
      {"GET", "/trust", 404, "text/plain", notFound},  // no authority of the server's own
      {"GET", "/trust/index.html", 404, "text/plain", notFound},
  };
  for (const Case& c : cases) {
    const auto answer = get(c.path, c.method);
    EXPECT_EQ(answer.status, c.status) << c.method << " " << c.path;
    EXPECT_EQ(answer.contentType, c.contentType) << c.path;
    EXPECT_EQ(answer.body, c.body) << c.path;
  }
  EXPECT_NE(page("station/index.html").find("/station/station.js"), std::string::npos);
  EXPECT_FALSE(routes.servesPlain("/trust"));
}

TEST_F(RoutesTest, OnlyTheCrewAndTheFeedTakeAWebSocket) {
  const auto upgrade = [this](std::string_view path) {
    auto answer = routes.upgrade(asked("GET", path));
    auto* taken = std::get_if<Routes::Upgrade>(&answer);
    return taken ? std::optional(std::move(*taken)) : std::nullopt;
  };
  for (const std::string_view path : {"/", "/metrics", "/monitor", "/intercom/", "/nope"}) {
    EXPECT_FALSE(upgrade(path)) << path;
  }
  const auto crewSocket = upgrade("/intercom");
  ASSERT_TRUE(crewSocket);
  EXPECT_TRUE(crewSocket->options.binary);
  const auto droppable = crewSocket->options.policy.droppable;
  ASSERT_TRUE(droppable);
  EXPECT_TRUE(droppable(asBytes("\x02...")));  // audio: worth less once stale
  EXPECT_FALSE(droppable(asBytes("\x01{}")));  // control: always sent
  EXPECT_FALSE(crewSocket->options.policy.newestOnly);

  const auto feedSocket = upgrade("/monitor/events");
  ASSERT_TRUE(feedSocket);
  EXPECT_FALSE(feedSocket->options.binary);
  EXPECT_TRUE(feedSocket->options.policy.newestOnly);

  // The feed's readers are capped: past the cap, no upgrade, and a socket opened anyway closes.
  std::vector<std::shared_ptr<FakeWebSocket>> readers;
  while (auto reader = open("/monitor/events")) {
    readers.push_back(std::move(reader));
  }
  EXPECT_EQ(readers.size(), Feed::kReaderLimit);
  const auto late = std::make_shared<FakeWebSocket>();
  feed.open(late);
  EXPECT_TRUE(late->closed);
  readers.front()->hangUp();
  EXPECT_TRUE(open("/monitor/events")) << "a place freed";
}

TEST_F(RoutesTest, EachCrewSessionIsAPeerOfItsOwn) {
  const auto ann = open("/intercom", 7);
  const auto bob = open("/intercom", 7);  // the same phone, two tabs
  ann->say("\x01hi");
  bob->say("\x01hi");
  ann->say("\x02audio");
  ASSERT_EQ(relay.heard.size(), 3U);
  const platform::PeerAddress annAt = relay.heard[0].first;
  const platform::PeerAddress bobAt = relay.heard[1].first;
  EXPECT_NE(annAt, bobAt);
  EXPECT_EQ(relay.heard[2], std::make_pair(annAt, std::string("\x02audio")));
  EXPECT_EQ(annAt.host, ann->remoteHost());
  EXPECT_EQ(annAt.transport->kind(), platform::Transport::Kind::browser);

  crew.send(bobAt, asBytes("\x01head"), asBytes("+body"));
  EXPECT_EQ(bob->sent, std::vector<std::string>{"\x01head+body"});
  EXPECT_TRUE(ann->sent.empty());

  // Let go by the relay: closed, and not reported back.
  crew.end(annAt);
  EXPECT_TRUE(ann->closed);
  crew.send(annAt, asBytes("\x01late"), {});
  EXPECT_TRUE(ann->sent.empty());
  // Gone by itself: reported once.
  bob->hangUp();
  EXPECT_EQ(relay.gone, std::vector<platform::PeerAddress>{bobAt});
  EXPECT_EQ(crew.size(), 0U);
}

TEST_F(RoutesTest, TheFeedReachesEveryReaderStillThere) {
  EXPECT_FALSE(feed.hasReaders());
  const auto first = open("/monitor/events");
  const auto second = open("/monitor/events");
  first->say("ignored: readers are not listened to");
  feed.publish("{\"n\":1}");
  first->hangUp();
  feed.publish("{\"n\":2}");
  EXPECT_EQ(first->sent, std::vector<std::string>{"{\"n\":1}"});
  EXPECT_EQ(second->sent, (std::vector<std::string>{"{\"n\":1}", "{\"n\":2}"}));
  EXPECT_TRUE(feed.hasReaders());
  second->hangUp();
  EXPECT_FALSE(feed.hasReaders());
  EXPECT_TRUE(relay.heard.empty());
}

// The crew's gate stands before the crew's socket, the operator's before the monitor, its feed,
// the metrics and the actions that ask for it; the pages and open actions pass.
TEST(GatedRoutes, EachGateGuardsItsOwn) {
  Receiver relay;
  WebPeers crew{relay};
  Feed feed;
  const auto refuse = [](unsigned status) {
    return [status](const platform::HttpRequest& request) -> std::optional<platform::HttpResponse> {
      if (request.cookie == "ok" || request.authorization == "ok") {
        return std::nullopt;
      }
      return platform::HttpResponse{status, "text/plain", "no\n"};
    };
  };
  const auto echo = [](const platform::HttpRequest& request) {
    return platform::HttpResponse{200, "text/plain", std::string(request.body)};
  };
  Routes routes{{.crew = crew,
                 .monitorFeed = feed,
                 .metrics = {"text/plain", [] { return "m"; }},
                 .stationInfo = {"application/json", [] { return "{}"; }},
                 .ownHosts = {},
                 .actions = {{"/open", {echo}}, {"/closed", {echo, true}}},
                 .crewGate = refuse(401),
                 .operatorGate = refuse(403)}};
  struct Case {
    std::string_view method, path, credential;
    unsigned status;
  };
  for (const Case c : {Case{"GET", "/", "", 200},
                       {"GET", "/station.json", "", 200},
                       {"GET", "/monitor", "", 403},
                       {"GET", "/monitor", "ok", 200},
                       {"GET", "/metrics", "", 403},
                       {"HEAD", "/metrics", "ok", 200},
                       {"POST", "/open", "", 200},
                       {"POST", "/closed", "", 403},
                       {"POST", "/closed", "ok", 200},
                       {"GET", "/closed", "ok", 405},
                       {"POST", "/metrics", "ok", 405}}) {
    const auto answer = routes.respond(asked(c.method, c.path, c.credential));
    EXPECT_EQ(answer.status, c.status) << c.method << " " << c.path << " " << c.credential;
  }
  for (const Case c : {Case{"GET", "/intercom", "", 401},
                       {"GET", "/monitor/events", "", 403},
                       {"GET", "/intercom", "ok", 0},
                       {"GET", "/monitor/events", "ok", 0}}) {
    const auto answer = routes.upgrade(asked(c.method, c.path, c.credential));
    const auto* refused = std::get_if<platform::HttpResponse>(&answer);
    EXPECT_EQ(refused ? refused->status : 0, c.status) << c.path << " " << c.credential;
  }
}

TEST(WebPeersAndFeed, CloseWhatIsStillOpenWhenTheyGo) {
  Receiver relay;
  auto peer = std::make_shared<FakeWebSocket>();
  auto reader = std::make_shared<FakeWebSocket>();
  {
    WebPeers crew(relay);
    Feed feed;
    crew.open(peer);
    feed.open(reader);
  }
  EXPECT_TRUE(peer->closed);
  EXPECT_TRUE(reader->closed);
  EXPECT_TRUE(relay.gone.empty());
}

}  // namespace
}  // namespace parlavox::web
