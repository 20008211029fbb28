#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "wire/Protocol.h"

namespace parlavox::client {

// A crew station as a browser is one: a WebSocket over TLS at /intercom whose binary messages are
// the intercom's datagrams. Beast does the framing. It trusts any certificate (the server's own
// is self-signed): for tests and the bench, on loopback. Not thread-safe; one user at a time.
class StationClient {
 public:
  // Connects and opens the WebSocket. Throws boost::system::system_error.
  explicit StationClient(const std::string& host, std::uint16_t port = wire::kIntercomPort);
  ~StationClient();
  StationClient(const StationClient&) = delete;
  StationClient& operator=(const StationClient&) = delete;

  // One datagram as one binary message.
  void send(std::span<const std::uint8_t> datagram);
  // The next message, waiting at most `timeout`; nothing on timeout or once the server closed.
  std::optional<std::vector<std::uint8_t>> receive(std::chrono::milliseconds timeout);
  // A clean WebSocket close, as a browser's tab going away.
  void close();

 private:
  boost::asio::io_context context_;
  boost::asio::ssl::context tls_{boost::asio::ssl::context::tls_client};
  boost::beast::websocket::stream<boost::beast::ssl_stream<boost::beast::tcp_stream>> socket_;
  boost::beast::flat_buffer in_;
  bool reading_ = false;
  bool done_ = false;
  bool closed_ = false;
};

}  // namespace parlavox::client
