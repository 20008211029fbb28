#pragma once

#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <functional>
#include <memory>

#include "platform/Clock.h"
#include "platform/SendQueue.h"
#include "platform/WebSocket.h"

namespace parlavox::platform {

// One WebSocket over TLS (Beast): its send queue and write loop, one write in flight, the queue
// shed by the policy it was opened with. Sends never block the loop. Loop thread only.
class WebSocketSession final : public WebSocket,
                               public std::enable_shared_from_this<WebSocketSession> {
 public:
  using TlsStream = boost::beast::ssl_stream<boost::beast::tcp_stream>;
  using Request = boost::beast::http::request<boost::beast::http::string_body>;
  using OpenHandler = std::function<void(std::shared_ptr<WebSocket> socket)>;

  // `serving` is the server's life: once it is gone, a handshake that completes opens nothing.
  // `place` is held for the session's life: its connection's place among the server's.
  WebSocketSession(TlsStream stream, WebSocketOptions options, Clock& clock, HostAddress remote,
                   std::weak_ptr<const bool> serving, std::shared_ptr<const void> place = {});

  // Completes the handshake that `request` asked for; `onOpen` hears of the socket once it is
  // open, and nothing does if it fails.
  void accept(const Request& request, OpenHandler onOpen);

  const HostAddress& remoteHost() const override { return remote_; }
  void start(Handlers handlers) override;
  void send(Bytes head, Bytes body) override;
  void close() override;
  void closeWhenSent() override;

 private:
  void read();
  void received(boost::beast::error_code error);
  void write();
  void written(boost::beast::error_code error);
  void fail();
  void finish();

  std::shared_ptr<const void> place_;
  boost::beast::websocket::stream<TlsStream> socket_;
  const WebSocketOptions options_;
  Clock& clock_;
  const HostAddress remote_;
  std::weak_ptr<const bool> serving_;
  boost::asio::steady_timer stuck_;
  boost::beast::flat_buffer in_;
  SendQueue queue_;
  Handlers handlers_;
  bool ended_ = false;
  bool closing_ = false;  // to end once the queue is written
};

}  // namespace parlavox::platform
