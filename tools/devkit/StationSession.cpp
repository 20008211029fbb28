#include "devkit/StationSession.h"

#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <string>
#include <utility>

namespace parlavox::devkit {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;

StationSession::StationSession(asio::io_context& io, asio::ssl::context& tls,
                               const std::string& host, std::uint16_t port,
                               const std::string& localAddress, const std::string& path,
                               const std::string& cookie)
    : socket_(io, tls) {
  socket_.next_layer().set_verify_mode(asio::ssl::verify_none);
  tcp::resolver resolver(io);
  const auto server = resolver.resolve(host, std::to_string(port));
  tcp::socket& connection = beast::get_lowest_layer(socket_).socket();
  if (localAddress.empty()) {
    asio::connect(connection, server);
  } else {
    // Bound before it connects, so that each station can be a device of its own on loopback.
    const auto local = asio::ip::make_address(localAddress);
    connection.open(local.is_v4() ? tcp::v4() : tcp::v6());
    connection.bind({local, 0});
    connection.connect(server.begin()->endpoint());
  }
  connection.set_option(tcp::no_delay(true));
  socket_.next_layer().handshake(asio::ssl::stream_base::client);
  if (!cookie.empty()) {
    socket_.set_option(websocket::stream_base::decorator(
        [cookie](websocket::request_type& request) { request.set(http::field::cookie, cookie); }));
  }
  socket_.handshake(host + ":" + std::to_string(port), path);
  socket_.binary(true);
}

void StationSession::start(MessageHandler onMessage, std::function<void()> onEnded) {
  onMessage_ = std::move(onMessage);
  onEnded_ = std::move(onEnded);
  read();
}

void StationSession::send(std::vector<std::uint8_t> message) {
  if (!open_ || closing_) {
    return;
  }
  out_.push_back(std::move(message));
  write();
}

void StationSession::close() {
  if (open_ && !closing_) {
    closing_ = true;
    write();
  }
}

void StationSession::read() {
  socket_.async_read(in_, [this](beast::error_code error, std::size_t /*size*/) {
    if (error) {
      end();
      return;
    }
    const auto data = in_.cdata();
    onMessage_({static_cast<const std::uint8_t*>(data.data()), data.size()});
    in_.consume(in_.size());
    read();
  });
}

void StationSession::write() {
  if (writing_ || !open_) {
    return;
  }
  if (out_.empty()) {
    if (closing_) {
      // Beast counts the close as a write, and nothing may follow it. The read under way ends
      // with the server's reply, and ends the session.
      writing_ = true;
      socket_.async_close(beast::websocket::close_code::normal, [this](beast::error_code error) {
        if (error) {
          end();
        }
      });
    }
    return;
  }
  writing_ = true;
  auto& message = out_.front();
  if (beforeWrite_) {
    beforeWrite_(message);
  }
  socket_.async_write(asio::buffer(message), [this](beast::error_code error, std::size_t) {
    writing_ = false;
    out_.pop_front();
    error ? end() : write();
  });
}

void StationSession::end() {
  if (!open_) {
    return;
  }
  open_ = false;
  if (onEnded_) {
    onEnded_();
  }
}

}  // namespace parlavox::devkit
