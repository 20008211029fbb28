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

// The trust page with the authority's fingerprint, for a careful user to compare with the
// console's.
std::string trustPage(const std::string& fingerprint) {
  const WebFile* page = file("trust/index.html");
  std::string text(page != nullptr ? page->bytes : "");
  constexpr std::string_view kPlaceholder = "{{authority-fingerprint}}";
  if (const auto at = text.find(kPlaceholder); at != std::string::npos) {
    text.replace(at, kPlaceholder.size(), fingerprint);
  }
  return text;
}

}  // namespace

Routes::Routes(Answers answers)
    : crewGate_(std::move(answers.crewGate)),
      operatorGate_(std::move(answers.operatorGate)),
      headers_(securityHeaders(answers.ownHosts)) {
  const Gate* crew = crewGate_ ? &crewGate_ : nullptr;
  const Gate* operatorOnly = operatorGate_ ? &operatorGate_ : nullptr;
  for (const WebFile& each : webFiles()) {
    table_.emplace("/" + std::string(each.path), Route{&each});
  }
  table_.emplace(kStationPage, Route{file("station/index.html")});
  table_.emplace(kMonitorPage, Route{file("monitor/index.html"), operatorOnly});
  table_.emplace(kMetrics, Route{std::move(answers.metrics), operatorOnly});
  table_.emplace(kStationInfo, Route{std::move(answers.stationInfo)});
  table_.emplace(kIntercomSocket, Route{&answers.crew, crew});
  table_.emplace(kMonitorFeed, Route{&answers.monitorFeed, operatorOnly});
  // The page only as it is made, with its fingerprint.
  table_.erase("/trust/index.html");
  if (!answers.authorityDer.empty()) {
    trusting_ = true;
    table_.emplace(
        kTrustPage,
        Route{Document{"text/html; charset=utf-8",
                       [page = trustPage(answers.authorityFingerprint)] { return page; }}});
    // The type that has iOS offer a profile and Android a CA certificate to install.
    table_.emplace(kAuthorityCertificate,
                   Route{Document{"application/x-x509-ca-cert",
                                  [der = std::move(answers.authorityDer)] { return der; }}});
  }
  for (auto& [path, download] : answers.operatorDownloads) {
    table_.insert_or_assign(path, Route{std::move(download), operatorOnly});
  }
  for (auto& [path, action] : answers.actions) {
    const Gate* gate = action.operatorOnly ? operatorOnly : nullptr;
    table_.insert_or_assign(path, Route{std::move(action), gate});
  }
}

void Routes::setOwnHosts(const std::vector<std::string>& ownHosts) {
  headers_ = securityHeaders(ownHosts);
}

bool Routes::servesPlain(std::string_view path) const {
  return trusting_ && (path == kTrustPage || path.starts_with(std::string(kTrustPage) + "/"));
}

platform::HttpResponse Routes::respond(const platform::HttpRequest& request) {
  const auto found = table_.find(std::string(request.path));
  if (found == table_.end()) {
    return {404, "text/plain", "Not found\n"};
  }
  const Route& route = found->second;
  const auto* action = std::get_if<Action>(&route.answer);
  const bool read = request.method == "GET" || request.method == "HEAD";
  if (action ? request.method != "POST" : !read) {
    return {405, "text/plain", "Method not allowed\n", {{"Allow", action ? "POST" : "GET, HEAD"}}};
  }
  if (route.gate) {
    if (auto refused = (*route.gate)(request)) {
      return std::move(*refused);
    }
  }
  if (action) {
    return action->handle(request);
  }
  if (const auto* page = std::get_if<const WebFile*>(&route.answer); page && *page) {
    return {200, std::string((*page)->contentType), std::string((*page)->bytes)};
  }
  if (const auto* document = std::get_if<Document>(&route.answer)) {
    return {200, document->contentType, document->make()};
  }
  if (const auto* download = std::get_if<Download>(&route.answer)) {
    return download->make();
  }
  return {404, "text/plain", "Not found\n"};  // a WebSocket's path, asked for as a page
}

std::variant<platform::HttpResponse, Routes::Upgrade> Routes::upgrade(
    const platform::HttpRequest& request) {
  const auto found = table_.find(std::string(request.path));
  if (found == table_.end()) {
    return platform::HttpResponse{404, "text/plain", "Not found\n"};
  }
  const Route& route = found->second;
  if (route.gate) {
    if (auto refused = (*route.gate)(request)) {
      return std::move(*refused);
    }
  }
  if (auto* const* crew = std::get_if<WebPeers*>(&route.answer)) {
    return Upgrade{crewSocket(), [crew = *crew](auto socket) { crew->open(std::move(socket)); }};
  }
  if (auto* const* feed = std::get_if<Feed*>(&route.answer)) {
    if ((*feed)->full()) {
      return platform::HttpResponse{503, "text/plain", "Too many monitors open\n"};
    }
    return Upgrade{feedSocket(), [feed = *feed](auto socket) { feed->open(std::move(socket)); }};
  }
  return platform::HttpResponse{404, "text/plain", "Not found\n"};
}

}  // namespace parlavox::web
