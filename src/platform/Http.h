#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "platform/HostAddress.h"
#include "platform/WebSocket.h"

namespace parlavox::platform {

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

// A request as the handler sees it; the views last for the call.
struct HttpRequest {
  std::string_view method;  // "GET", "HEAD", "POST"
  std::string_view path;    // the target without its query
  HostAddress from;
  std::string_view body;
  std::string_view cookie;         // the Cookie header as sent, if any
  std::string_view authorization;  // the Authorization header as sent, if any
};

struct HttpResponse {
  HttpResponse() = default;
  HttpResponse(unsigned code, std::string type, std::string content, HttpHeaders own = {})
      : status(code),
        contentType(std::move(type)),
        body(std::move(content)),
        headers(std::move(own)) {}

  unsigned status = 200;
  std::string contentType;
  std::string body;     // left out of the answer to HEAD
  HttpHeaders headers;  // this answer's own (Set-Cookie, WWW-Authenticate, Allow)
};

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
  // A WebSocket upgrade: how to accept it, or the answer that refuses it.
  virtual std::variant<HttpResponse, Upgrade> upgrade(const HttpRequest& request) = 0;
  // What every response carries, the server's own (redirects, refusals) included.
  virtual const HttpHeaders& headers() const = 0;
  // Whether `path` is answered over plain HTTP too, rather than sent to HTTPS: for what a device
  // needs before it can trust the server's certificate.
  virtual bool servesPlain(std::string_view /*path*/) const { return false; }
};

}  // namespace parlavox::platform
