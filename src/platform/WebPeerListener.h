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
#include <vector>

#include "platform/Network.h"
#include "platform/TlsIdentity.h"
#include "platform/WebFile.h"

namespace parlavox::platform {

// The crew station's TCP port: HTTPS for the pages, WebSocket sessions at /intercom, each a peer
// whose binary messages are the intercom's datagrams, byte for byte, and read-only WebSocket feeds
// of text the server publishes (the monitor's). Plain HTTP on the same port is sent to HTTPS.
// Everything runs on the server loop; sends never block it, and a session's backlog is bounded:
// past about 200 ms of audio the oldest audio goes first (control messages are never dropped), and
// a session whose writes stay stuck is ended.
class WebPeerListener final : public PeerListener {
 public:
  // Loop thread. The answer to a GET of `path`, or nothing for a 404.
  using Pages = std::function<std::optional<WebDocument>(std::string_view path)>;

  // Binds at once; throws std::system_error when the port cannot be had. `feeds` are the paths
  // of the feeds that publish() sends to.
  WebPeerListener(boost::asio::io_context& context, std::uint16_t port, const TlsIdentity& identity,
                  Pages pages, std::vector<std::string> feeds = {});
  ~WebPeerListener() override;  // NOLINT(bugprone-exception-escape): see its definition

  // Loop thread (or the main thread before the loop runs).
  Kind kind() const override { return Kind::browser; }
  void start(Receiver& receiver, Handlers handlers) override;
  // Loop thread.
  void send(const PeerAddress& to, Bytes head, Bytes body) override;
  void end(const PeerAddress& peer) override;
  // Loop thread. `text` to every session of `feed`; a session still writing an older text gets
  // only the newest one after it.
  void publish(std::string_view feed, std::string_view text);
  // Loop thread. Whether anyone reads `feed` now: the text need not be made for nobody.
  bool hasReaders(std::string_view feed) const;

  class Session;

 private:
  friend class Session;
  void accept();
  void opened(const std::shared_ptr<Session>& session);
  void closed(Session& session);
  bool isFeed(std::string_view path) const;

  boost::asio::io_context& context_;
  boost::asio::ssl::context tls_;
  boost::asio::ip::tcp::acceptor acceptor_;
  Pages pages_;
  std::vector<std::string> feeds_;
  Receiver* peers_ = nullptr;
  Handlers handlers_;
  std::uint64_t nextSlot_ = 1;
  std::unordered_map<std::uint64_t, std::shared_ptr<Session>> sessions_;  // peers
  std::unordered_map<std::uint64_t, std::shared_ptr<Session>> readers_;   // of the feeds
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace parlavox::platform
