#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ssl/context.hpp>
#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "devkit/StationSession.h"
#include "wire/Protocol.h"

namespace parlavox::client {

// A crew station as a browser is one, for a test to drive step by step: the bench's stations'
// session (devkit::StationSession) on an io_context of its own that runs only while a call waits.
// It trusts any certificate: for tests, on loopback. Not thread-safe; one user at a time.
class StationClient {
 public:
  // Connects and opens the WebSocket. Throws boost::system::system_error.
  explicit StationClient(const std::string& host, std::uint16_t port = wire::kIntercomPort);

  // One datagram as one binary message; returns once it is written (or the session ended).
  void send(std::span<const std::uint8_t> datagram);
  // The next message, waiting at most `timeout`; nothing on timeout or once the server closed
  // and what came before is taken.
  std::optional<std::vector<std::uint8_t>> receive(std::chrono::milliseconds timeout);
  // A clean WebSocket close, as a browser's tab going away; waits up to 2 s for the server's reply.
  void close();

 private:
  // Runs the context for one handler at most, until `deadline`; false when none ran.
  bool runOne(std::chrono::steady_clock::time_point deadline);

  boost::asio::io_context context_;
  boost::asio::ssl::context tls_{boost::asio::ssl::context::tls_client};
  devkit::StationSession session_;
  std::deque<std::vector<std::uint8_t>> received_;
};

}  // namespace parlavox::client
