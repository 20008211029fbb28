#include "client/StationClient.h"

#include <boost/asio/connect.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

namespace parlavox::client {

namespace asio = boost::asio;
namespace beast = boost::beast;

StationClient::StationClient(const std::string& host, std::uint16_t port)
    : socket_(context_, tls_) {
  tls_.set_verify_mode(asio::ssl::verify_none);
  asio::ip::tcp::resolver resolver(context_);
  beast::get_lowest_layer(socket_).connect(resolver.resolve(host, std::to_string(port)));
  socket_.next_layer().handshake(asio::ssl::stream_base::client);
  socket_.handshake(host + ":" + std::to_string(port), "/intercom");
  socket_.binary(true);
}

StationClient::~StationClient() = default;

void StationClient::send(std::span<const std::uint8_t> datagram) {
  socket_.write(asio::buffer(datagram.data(), datagram.size()));
}

// Reads run asynchronously so that a wait can end; a read that outlives its wait carries on and
// delivers to the next call.
std::optional<std::vector<std::uint8_t>> StationClient::receive(std::chrono::milliseconds timeout) {
  if (closed_) {
    return std::nullopt;
  }
  if (!reading_) {
    reading_ = true;
    done_ = false;
    socket_.async_read(in_, [this](beast::error_code error, std::size_t /*size*/) {
      reading_ = false;
      done_ = true;
      closed_ = static_cast<bool>(error);
    });
  }
  context_.restart();
  context_.run_for(timeout);
  if (!done_ || closed_) {
    return std::nullopt;
  }
  done_ = false;
  const auto data = in_.cdata();
  const auto* bytes = static_cast<const std::uint8_t*>(data.data());
  std::vector<std::uint8_t> message(bytes, bytes + data.size());
  in_.consume(in_.size());
  return message;
}

void StationClient::close() {
  if (closed_) {
    return;
  }
  // Asynchronous, since a read may still be pending: it ends with the server's close reply.
  socket_.async_close(beast::websocket::close_code::normal, [](beast::error_code) {});
  context_.restart();
  context_.run_for(std::chrono::seconds(2));
  closed_ = true;
}

}  // namespace parlavox::client
