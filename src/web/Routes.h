#pragma once

#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <variant>
#include <vector>

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
    // The names and addresses the pages are served under, for the WebSocket sources the content
    // policy allows.
    std::vector<std::string> ownHosts;
  };

  explicit Routes(Answers answers);

  platform::HttpResponse respond(const platform::HttpRequest& request) override;
  std::optional<Upgrade> upgrade(const platform::HttpRequest& request) override;
  const platform::HttpHeaders& headers() const override { return headers_; }

 private:
  using Answer = std::variant<const WebFile*, Document, WebPeers*, Feed*>;

  std::unordered_map<std::string, Answer> table_;
  platform::HttpHeaders headers_;
};

}  // namespace parlavox::web
