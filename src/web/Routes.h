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

// Who may reach a route: nothing lets the request through, an answer refuses it. Empty: anyone.
using Gate = std::function<std::optional<platform::HttpResponse>(const platform::HttpRequest&)>;

// The web port's route table: what answers each path. A page file as it is, a document made when
// asked for (the metrics), an action a form posts, the crew's WebSocket, where each session is a
// peer of the intercom, and the monitor's read-only feed. The crew's WebSocket passes the crew's
// gate first; the monitor, its feed, the metrics and downloads the operator's, as do actions that
// ask for it.
// The trust page, open to all, is served over plain HTTP as well. Everything else is 404, and a
// method a path does not take 405. Loop thread only.
class Routes final : public platform::HttpHandler {
 public:
  struct Document {
    std::string contentType;
    std::function<std::string()> make;
  };
  // A document answered in full when asked for, headers and all: a download under a name of its
  // own, behind the operator's gate.
  struct Download {
    std::function<platform::HttpResponse()> make;
  };
  // What a POST to its path does.
  struct Action {
    std::function<platform::HttpResponse(const platform::HttpRequest&)> handle;
    bool operatorOnly = false;
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
    std::vector<std::pair<std::string, Action>> actions = {};
    std::vector<std::pair<std::string, Download>> operatorDownloads = {};
    Gate crewGate = {};
    Gate operatorGate = {};
    // The server's own certificate authority, which the trust page offers: its certificate (DER)
    // and SHA-256 fingerprint. Empty with an operator's own certificate: then no trust page.
    std::string authorityDer = {};
    std::string authorityFingerprint = {};
  };

  explicit Routes(Answers answers);

  platform::HttpResponse respond(const platform::HttpRequest& request) override;
  std::variant<platform::HttpResponse, Upgrade> upgrade(
      const platform::HttpRequest& request) override;
  const platform::HttpHeaders& headers() const override { return headers_; }
  // The trust page and what it needs, while the server has an authority of its own.
  bool servesPlain(std::string_view path) const override;
  // The names and addresses the pages are served under from now on, as for Answers::ownHosts.
  void setOwnHosts(const std::vector<std::string>& ownHosts);

 private:
  using Answer = std::variant<const WebFile*, Document, Download, Action, WebPeers*, Feed*>;
  struct Route {
    Answer answer;
    const Gate* gate = nullptr;  // the crew's or the operator's, when either is set
  };

  std::unordered_map<std::string, Route> table_;
  Gate crewGate_;
  Gate operatorGate_;
  platform::HttpHeaders headers_;
  bool trusting_ = false;  // whether there is a trust page
};

}  // namespace parlavox::web
