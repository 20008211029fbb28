#pragma once

#include <netinet/in.h>

#include <cstdint>

#include "platform/Network.h"
#include "platform/UdpSocket.h"

namespace parlavox::platform {

// The intercom's UDP port as a transport: every source address and port is a peer. UDP has no
// connections, so there is nothing to keep per peer here; the relay's registry is the only place
// a peer lives.
class UdpPeerListener final : public PeerListener {
 public:
  // Binds at once; throws std::system_error when the port cannot be had.
  UdpPeerListener(boost::asio::io_context& context, std::uint16_t port,
                  SocketCalls& calls = SocketCalls::system());

  Kind kind() const override { return Kind::udp; }
  std::uint16_t port() const override { return socket_.port(); }
  void start(Receiver& receiver, Handlers handlers) override;
  void send(const PeerAddress& to, Bytes head, Bytes body) override;
  void end(const PeerAddress& peer) override;

  // Any thread. The address of a sender in the form the relay sees, and back.
  PeerAddress addressOf(const sockaddr_in6& endpoint);
  static sockaddr_in6 endpointOf(const PeerAddress& address);

 private:
  boost::asio::io_context& context_;
  UdpSocket socket_;
  Handlers handlers_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace parlavox::platform
