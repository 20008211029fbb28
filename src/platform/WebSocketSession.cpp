#include "platform/WebSocketSession.h"

#include <boost/beast/core.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

namespace parlavox::platform {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using ErrorCode = beast::error_code;

WebSocketSession::WebSocketSession(TlsStream stream, WebSocketOptions options, Clock& clock,
                                   HostAddress remote, std::weak_ptr<const bool> serving,
                                   std::shared_ptr<const void> place)
    : place_(std::move(place)),
      socket_(std::move(stream)),
      options_(std::move(options)),
      clock_(clock),
      remote_(remote),
      serving_(std::move(serving)),
      stuck_(socket_.get_executor()),
      queue_(options_.policy) {}

void WebSocketSession::accept(const Request& request, OpenHandler onOpen) {
  beast::get_lowest_layer(socket_).expires_never();
  auto timeout = websocket::stream_base::timeout::suggested(beast::role_type::server);
  timeout.idle_timeout = options_.idleTimeout.count() > 0
                             ? websocket::stream_base::duration(options_.idleTimeout)
                             : websocket::stream_base::none();
  timeout.keep_alive_pings = options_.keepAlivePings;
  socket_.set_option(timeout);
  socket_.read_message_max(options_.maxMessage);
  socket_.binary(options_.binary);
  socket_.async_accept(request,
                       [self = shared_from_this(), onOpen = std::move(onOpen)](ErrorCode error) {
                         if (!error && self->serving_.lock()) {
                           onOpen(self);  // never opened otherwise: nothing to report
                         }
                       });
}

void WebSocketSession::start(Handlers handlers) {
  handlers_ = std::move(handlers);
  read();
}

void WebSocketSession::send(Bytes head, Bytes body) {
  if (ended_ || closing_) {
    return;
  }
  queue_.push(head, body, clock_.now());
  write();
}

void WebSocketSession::close() {
  ended_ = true;
  queue_.clear();
  stuck_.cancel();
  ErrorCode ignored;
  beast::get_lowest_layer(socket_).socket().close(ignored);
}

void WebSocketSession::closeWhenSent() {
  if (ended_ || closing_) {
    return;
  }
  closing_ = true;
  write();
}

// Nothing left to write: the close handshake, bounded as a write is.
void WebSocketSession::finish() {
  stuck_.expires_after(options_.policy.stuckAfter);
  stuck_.async_wait([self = shared_from_this()](ErrorCode error) {
    if (!error) {
      self->close();
    }
  });
  socket_.async_close(websocket::close_code::normal,
                      [self = shared_from_this()](ErrorCode /*error*/) { self->close(); });
}

void WebSocketSession::read() {
  socket_.async_read(in_, [self = shared_from_this()](ErrorCode error, std::size_t /*size*/) {
    self->received(error);
  });
}

void WebSocketSession::received(ErrorCode error) {
  if (ended_) {
    return;
  }
  if (error) {
    fail();
    return;
  }
  if (closing_) {
    in_.consume(in_.size());
    read();  // what comes before the other side's close is ignored
    return;
  }
  // Messages of the other kind mean nothing here: a binary socket ignores text, and back.
  if (socket_.got_binary() == options_.binary && handlers_.onMessage) {
    const auto data = in_.cdata();
    handlers_.onMessage(Bytes(static_cast<const std::uint8_t*>(data.data()), data.size()));
  }
  in_.consume(in_.size());
  if (!ended_) {
    read();
  }
}

void WebSocketSession::write() {
  const std::vector<std::uint8_t>* message = queue_.next(clock_.now());
  if (message == nullptr) {
    if (closing_ && !queue_.writing()) {
      finish();
    }
    return;
  }
  stuck_.expires_after(options_.policy.stuckAfter);
  stuck_.async_wait([self = shared_from_this()](ErrorCode error) {
    if (!error && !self->ended_ && self->queue_.stuck(self->clock_.now())) {
      self->fail();
    }
  });
  socket_.async_write(
      asio::buffer(*message),
      [self = shared_from_this()](ErrorCode error, std::size_t /*size*/) { self->written(error); });
}

void WebSocketSession::written(ErrorCode error) {
  stuck_.cancel();
  if (ended_) {
    return;
  }
  queue_.written();
  if (error) {
    fail();
    return;
  }
  write();
}

// Gone by its own doing (closed, reset, stuck): whoever holds it hears of it once.
void WebSocketSession::fail() {
  if (ended_) {
    return;
  }
  const auto self = shared_from_this();  // the handler may let go of the last other reference
  close();
  if (handlers_.onClosed && !closing_) {
    handlers_.onClosed();
  }
}

}  // namespace parlavox::platform
