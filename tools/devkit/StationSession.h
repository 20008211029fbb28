#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <cstdint>
#include <deque>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "web/Paths.h"

namespace parlavox::devkit {

// A crew station's session as a browser holds one: a WebSocket over TLS at the server's
// /intercom whose binary messages are the intercom's datagrams, with TCP_NODELAY on as browsers
// set it. It trusts any certificate (the server's authority is not the tests' to trust): for the
// tests and the bench, on loopback. Asynchronous on the io_context it is given, so that one thread
// can drive many; client::StationClient gives one a context of its own and waits for it.
class StationSession {
 public:
  using MessageHandler = std::function<void(std::span<const std::uint8_t>)>;
  using WriteHook = std::function<void(std::vector<std::uint8_t>&)>;

  // Any thread, while `io` runs nothing of this session yet. Connects to `host`:`port` from
  // `localAddress` (any, when empty) and opens the WebSocket at `path`, blocking until it is open,
  // with `cookie` as its Cookie header if one is given (a crew session's). `tls` must outlive the
  // session. Throws boost::system::system_error.
  StationSession(boost::asio::io_context& io, boost::asio::ssl::context& tls,
                 const std::string& host, std::uint16_t port, const std::string& localAddress = {},
                 const std::string& path = std::string(web::kIntercomSocket),
                 const std::string& cookie = {});
  StationSession(const StationSession&) = delete;
  StationSession& operator=(const StationSession&) = delete;

  // The io_context's thread. Reads until the session ends: `onMessage` for each message (its
  // bytes valid only during the call), then `onEnded` once, whether the server closed it, the
  // connection failed, or close() finished.
  void start(MessageHandler onMessage, std::function<void()> onEnded);
  // The io_context's thread. `hook` sees each message as its write begins, after any wait in the
  // queue: the bench stamps its send time there.
  void beforeWrite(WriteHook hook) { beforeWrite_ = std::move(hook); }
  // The io_context's thread. Queues one message; they leave in order, one write at a time.
  void send(std::vector<std::uint8_t> message);
  // The io_context's thread. A clean WebSocket close once the queue is written, as a browser's
  // tab going away.
  void close();

  // The io_context's thread. Whether it has not ended, and whether nothing waits to be written.
  bool open() const { return open_; }
  bool idle() const { return out_.empty(); }

 private:
  void read();
  void write();
  void end();

  boost::beast::websocket::stream<boost::beast::ssl_stream<boost::beast::tcp_stream>> socket_;
  boost::beast::flat_buffer in_;
  std::deque<std::vector<std::uint8_t>> out_;  // the front one is being written
  bool writing_ = false;
  bool closing_ = false;
  bool open_ = true;
  MessageHandler onMessage_;
  std::function<void()> onEnded_;
  WriteHook beforeWrite_;
};

}  // namespace parlavox::devkit
