#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/Network.h"
#include "platform/TlsIdentity.h"
#include "platform/WebFile.h"

namespace parlavox::platform {

// The crew station's TCP port: HTTPS for the page, and WebSocket sessions at /intercom, each a
// peer whose binary messages are the intercom's datagrams, byte for byte. Plain HTTP on the same
// port is sent to HTTPS. Everything runs on the server loop; sends never block it, and a
// session's backlog is bounded: past about 200 ms of audio the oldest audio goes first (control
// messages are never dropped), and a session whose writes stay stuck is ended.
class WebPeerListener final : public PeerListener {
 public:
  using Files = std::function<std::optional<WebFile>(std::string_view path)>;

  // Binds at once; throws std::system_error when the port cannot be had.
  WebPeerListener(boost::asio::io_context& context, std::uint16_t port, const TlsIdentity& identity,
                  Files files);
  ~WebPeerListener() override;  // NOLINT(bugprone-exception-escape): see its definition

  // Loop thread (or the main thread before the loop runs).
  void start(Peers& peers, Handlers handlers) override;
  // Loop thread.
  void send(const PeerAddress& to, Bytes head, Bytes body) override;
  void end(const PeerAddress& peer) override;

  class Session;

 private:
  friend class Session;
  void accept();
  void opened(const std::shared_ptr<Session>& session);
  void closed(Session& session);

  boost::asio::io_context& context_;
  boost::asio::ssl::context tls_;
  boost::asio::ip::tcp::acceptor acceptor_;
  Files files_;
  Peers* peers_ = nullptr;
  Handlers handlers_;
  std::uint64_t nextSlot_ = 1;
  std::unordered_map<std::uint64_t, std::shared_ptr<Session>> sessions_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace parlavox::platform
