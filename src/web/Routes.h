#pragma once

#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <variant>

#include "platform/Http.h"
#include "web/Feed.h"
#include "web/WebFiles.h"
#include "web/WebPeers.h"

namespace parlavox::web {

// The web port's route table: what answers each path. A page file as it is, a document made when
// asked for (the metrics), the crew's WebSocket, where each session is a peer of the intercom, and
// the monitor's read-only feed. Everything else is 404, and a WebSocket anywhere else is dropped.
// Loop thread only.
class Routes final : public platform::HttpHandler {
 public:
  struct Document {
    std::string contentType;
    std::function<std::string()> make;
  };
  // What answers the paths that are not files; everything given outlives the routes.
  struct Answers {
    WebPeers& crew;
    Feed& monitorFeed;
    Document metrics;
    Document stationInfo;
  };

  explicit Routes(Answers answers);

  platform::HttpResponse respond(const platform::HttpRequest& request) override;
  std::optional<Upgrade> upgrade(const platform::HttpRequest& request) override;

 private:
  using Answer = std::variant<const WebFile*, Document, WebPeers*, Feed*>;

  std::unordered_map<std::string, Answer> table_;
};

}  // namespace parlavox::web
