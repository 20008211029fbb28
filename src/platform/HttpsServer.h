#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <cstdint>
#include <memory>

#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/TlsIdentity.h"

namespace parlavox::platform {

// A TCP port that speaks HTTPS, and plain HTTP only to send the browser to HTTPS: it accepts,
// tells TLS from plain by the first bytes, reads each request within limits and hands it to the
// handler, which answers it or takes it as a WebSocket. It knows no path. Everything runs on the
// loop.
class HttpsServer {
 public:
  // Binds at once; throws std::system_error when the port cannot be had. `handler` and `clock`
  // outlive the server.
  HttpsServer(boost::asio::io_context& context, std::uint16_t port, const TlsIdentity& identity,
              HttpHandler& handler, Clock& clock);
  ~HttpsServer();
  HttpsServer(const HttpsServer&) = delete;
  HttpsServer& operator=(const HttpsServer&) = delete;

  // Loop thread (or the main thread before the loop runs). Starts accepting.
  void start();

 private:
  void accept();

  boost::asio::ssl::context tls_;
  boost::asio::ip::tcp::acceptor acceptor_;
  HttpHandler& handler_;
  Clock& clock_;
  std::shared_ptr<const bool> alive_ = std::make_shared<const bool>(true);
};

}  // namespace parlavox::platform
