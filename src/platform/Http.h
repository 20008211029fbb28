#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/HostAddress.h"
#include "platform/WebSocket.h"

namespace parlavox::platform {

// A request as the handler sees it; the views last for the call.
struct HttpRequest {
  std::string_view method;  // "GET", "HEAD", ...
  std::string_view path;    // the target without its query
  HostAddress from;
};

struct HttpResponse {
  unsigned status = 200;
  std::string contentType;
  std::string body;  // left out of the answer to HEAD
};

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

// What answers the requests of an HTTP server. Loop thread only.
class HttpHandler {
 public:
  // How a WebSocket asked for is accepted.
  struct Upgrade {
    WebSocketOptions options;
    // The handshake is done: the socket is open, and is the callee's to start and to keep.
    std::function<void(std::shared_ptr<WebSocket> socket)> onOpen;
  };

  virtual ~HttpHandler() = default;
  // The answer to a request that is not a WebSocket upgrade.
  virtual HttpResponse respond(const HttpRequest& request) = 0;
  // A WebSocket upgrade: how to accept it, or nothing to drop the connection.
  virtual std::optional<Upgrade> upgrade(const HttpRequest& request) = 0;
  // What every response carries, the server's own (redirects, refusals) included.
  virtual const HttpHeaders& headers() const = 0;
};

}  // namespace parlavox::platform
