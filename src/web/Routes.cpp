#include "web/Routes.h"

#include "web/Paths.h"
#include "wire/Protocol.h"

namespace parlavox::web {
namespace {

constexpr std::chrono::milliseconds kAudioBacklog{200};
constexpr std::chrono::milliseconds kStuckLimit{2000};

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
  return options;
}

// A feed's reader wants the newest text only.
platform::WebSocketOptions feedSocket() {
  platform::WebSocketOptions options;
  options.binary = false;
  options.policy.newestOnly = true;
  options.policy.stuckAfter = kStuckLimit;
  return options;
}

}  // namespace

Routes::Routes(Answers answers) {
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
  if (auto* const* feed = std::get_if<Feed*>(&found->second)) {
    return Upgrade{feedSocket(), [feed = *feed](auto socket) { feed->open(std::move(socket)); }};
  }
  return std::nullopt;
}

}  // namespace parlavox::web
