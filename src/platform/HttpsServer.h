#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/TlsIdentity.h"

namespace parlavox::platform {

// How many connections the web port holds at once: in all, and from one host.
struct ConnectionLimits {
  std::size_t total = 0;
  std::size_t perHost = 0;
  bool operator==(const ConnectionLimits&) const = default;
};

// Any thread; pure. The limits for a process that may have `descriptors` open (RLIMIT_NOFILE):
// below it by a reserve for the rest of the server, so that a saturated web port never starves
// the intercom, announcements or Avahi of descriptors.
ConnectionLimits connectionLimits(std::uint64_t descriptors);

// A TCP port that speaks HTTPS, and plain HTTP to send the browser to HTTPS, but for the paths the
// handler serves plain (what a device needs before it trusts the certificate): it accepts,
// tells TLS from plain by the first bytes, reads each request within limits and hands it to the
// handler, which answers it or takes it as a WebSocket. It knows no path. Everything runs on the
// loop. Connections are capped by connectionLimits() of the process's descriptor limit: past the
// total it stops accepting until one ends; past a host's share it closes that host's at once; out
// of descriptors anyway, it waits a moment before accepting again rather than spin.
class HttpsServer {
 public:
  // Far more than a show opens (at most 500 crew, a WebSocket each, the monitor, page loads); each
  // costs TLS and buffer memory.
  static constexpr std::size_t kConnectionLimit = 1024;

  // Binds at once; throws std::system_error when the port cannot be had. `handler` and `clock`
  // outlive the server.
  HttpsServer(boost::asio::io_context& context, std::uint16_t port, const TlsIdentity& identity,
              HttpHandler& handler, Clock& clock);
  ~HttpsServer();
  HttpsServer(const HttpsServer&) = delete;
  HttpsServer& operator=(const HttpsServer&) = delete;

  // Loop thread (or the main thread before the loop runs). Starts accepting.
  void start();
  // Loop thread. The certificate and key for the connections from now on; those under way keep
  // theirs. A failure leaves the server presenting what it did.
  Result<void> present(const TlsIdentity& identity);
  // Loop thread (or the main thread before start()). Who may connect at all: anyone else's
  // connection is closed as it is accepted, before a byte is read or written. Empty: anyone.
  void admitOnly(std::function<bool(const HostAddress&)> admitted) {
    admitted_ = std::move(admitted);
  }
  // Any thread. What the descriptor limit allowed, fixed at construction.
  ConnectionLimits limits() const { return limits_; }

 private:
  struct Places;

  void accept();
  void admit(boost::asio::ip::tcp::socket socket);

  boost::asio::ssl::context tls_;
  boost::asio::ip::tcp::acceptor acceptor_;
  HttpHandler& handler_;
  Clock& clock_;
  boost::asio::steady_timer retry_;
  const ConnectionLimits limits_;
  std::function<bool(const HostAddress&)> admitted_;
  std::shared_ptr<Places> places_;  // shared with each connection's place, which may outlive this
  bool paused_ = false;             // at the total: accepting again when a connection ends
  std::shared_ptr<const bool> alive_ = std::make_shared<const bool>(true);
};

}  // namespace parlavox::platform
