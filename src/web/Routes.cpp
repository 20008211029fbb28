#include "web/Routes.h"

#include "web/Paths.h"
#include "wire/Protocol.h"

namespace parlavox::web {
namespace {

constexpr std::chrono::milliseconds kAudioBacklog{200};
constexpr std::chrono::milliseconds kStuckLimit{2000};
// A crew session the relay has not heard from is unknown to it, and so to its silence rule: one
// that says nothing this long ends. Once it talks, the relay's own 8 s rule ends it sooner.
constexpr std::chrono::milliseconds kSilentSessionLimit{10'000};
// A feed's reader never writes: pinged after half of this, and gone when not even a pong came.
constexpr std::chrono::milliseconds kFeedIdleLimit{20'000};
// A feed's readers say nothing worth reading.
constexpr std::size_t kFeedMessageLimit = 1024;

const WebFile* file(std::string_view path) {
  for (const WebFile& file : webFiles()) {
    if (file.path == path) {
      return &file;
    }
  }
  return nullptr;
}

// A browser crew member's session: audio that has waited past kAudioBacklog is worth less than
// the audio behind it and goes first; control messages always go.
platform::WebSocketOptions crewSocket() {
  platform::WebSocketOptions options;
  options.policy.droppable = [](Bytes message) {
    return !message.empty() && message[0] == wire::kAudioKind;
  };
  options.policy.dropAfter = kAudioBacklog;
  options.policy.stuckAfter = kStuckLimit;
  options.maxMessage = wire::kMaxDatagram;  // what no UDP crew member could receive
  options.idleTimeout = kSilentSessionLimit;
  return options;
}

// A feed's reader wants the newest text only.
platform::WebSocketOptions feedSocket() {
  platform::WebSocketOptions options;
  options.binary = false;
  options.policy.newestOnly = true;
  options.policy.stuckAfter = kStuckLimit;
  options.maxMessage = kFeedMessageLimit;
  options.idleTimeout = kFeedIdleLimit;
  options.keepAlivePings = true;
  return options;
}

// The pages load only their own files and talk only to their own server (browsers that do not
// count a WebSocket to the page's host as 'self' need it named); no one may frame them, nothing
// leaks where they were, and only they may ask for the microphone.
platform::HttpHeaders securityHeaders(const std::vector<std::string>& ownHosts) {
  std::string sockets;
  for (const std::string& host : ownHosts) {
    sockets += " wss://" + host + ":" + std::to_string(wire::kIntercomPort);
  }
  return {
      {"Content-Security-Policy",
       "default-src 'self'; connect-src 'self'" + sockets + "; frame-ancestors 'none'"},
      {"Referrer-Policy", "no-referrer"},
      {"Permissions-Policy", "microphone=(self)"},
  };
}

}  // namespace

Routes::Routes(Answers answers) : headers_(securityHeaders(answers.ownHosts)) {
  for (const WebFile& each : webFiles()) {
    table_.emplace("/" + std::string(each.path), &each);
  }
  table_.emplace(kStationPage, file("station/index.html"));
  table_.emplace(kMonitorPage, file("monitor/index.html"));
  table_.emplace(kMetrics, std::move(answers.metrics));
  table_.emplace(kStationInfo, std::move(answers.stationInfo));
  table_.emplace(kIntercomSocket, &answers.crew);
  table_.emplace(kMonitorFeed, &answers.monitorFeed);
}

platform::HttpResponse Routes::respond(const platform::HttpRequest& request) {
  const auto found = table_.find(std::string(request.path));
  if ((request.method == "GET" || request.method == "HEAD") && found != table_.end()) {
    if (const auto* page = std::get_if<const WebFile*>(&found->second); page && *page) {
      return {200, std::string((*page)->contentType), std::string((*page)->bytes)};
    }
    if (const auto* document = std::get_if<Document>(&found->second)) {
      return {200, document->contentType, document->make()};
    }
  }
  return {404, "text/plain", "Not found\n"};
}

std::optional<Routes::Upgrade> Routes::upgrade(const platform::HttpRequest& request) {
  const auto found = table_.find(std::string(request.path));
  if (found == table_.end()) {
    return std::nullopt;
  }
  if (auto* const* crew = std::get_if<WebPeers*>(&found->second)) {
    return Upgrade{crewSocket(), [crew = *crew](auto socket) { crew->open(std::move(socket)); }};
  }
  if (auto* const* feed = std::get_if<Feed*>(&found->second); feed && !(*feed)->full()) {
    return Upgrade{feedSocket(), [feed = *feed](auto socket) { feed->open(std::move(socket)); }};
  }
  return std::nullopt;
}

}  // namespace parlavox::web
