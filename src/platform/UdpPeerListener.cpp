#include "platform/UdpPeerListener.h"

#include <boost/asio/post.hpp>
#include <cstring>

namespace parlavox::platform {

UdpPeerListener::UdpPeerListener(boost::asio::io_context& context, std::uint16_t port,
                                 SocketCalls& calls)
    : context_(context), socket_(context, port, calls) {}

PeerAddress UdpPeerListener::addressOf(const sockaddr_in6& endpoint) {
  PeerAddress address;
  address.transport = this;
  std::memcpy(address.host.bytes.data(), &endpoint.sin6_addr, address.host.bytes.size());
  address.slot = std::uint64_t{endpoint.sin6_port} | std::uint64_t{endpoint.sin6_scope_id} << 16;
  return address;
}

sockaddr_in6 UdpPeerListener::endpointOf(const PeerAddress& address) {
  sockaddr_in6 endpoint{};
  endpoint.sin6_family = AF_INET6;
  std::memcpy(&endpoint.sin6_addr, address.host.bytes.data(), address.host.bytes.size());
  endpoint.sin6_port = static_cast<in_port_t>(address.slot & 0xFFFF);
  endpoint.sin6_scope_id = static_cast<std::uint32_t>(address.slot >> 16);
  return endpoint;
}

void UdpPeerListener::start(Receiver& receiver, Handlers handlers) {
  handlers_ = std::move(handlers);
  socket_.start(
      [this, &receiver](Bytes datagram, const sockaddr_in6& from) {
        receiver.deliver(addressOf(from), datagram);
      },
      [this](std::string_view error) {
        if (handlers_.onFailed) {
          handlers_.onFailed(error);
        }
      });
  // The socket is bound and receiving: report ready from the loop, as a listener would.
  boost::asio::post(context_, [this, alive = std::weak_ptr<bool>(alive_)] {
    if (alive.lock() && handlers_.onReady) {
      handlers_.onReady();
    }
  });
}

void UdpPeerListener::send(const PeerAddress& to, Bytes head, Bytes body) {
  socket_.sendTo(endpointOf(to), head, body);
}

void UdpPeerListener::end(const PeerAddress& /*peer*/) {
  // Nothing is kept per peer here: the next datagram from that address is a new peer.
}

}  // namespace parlavox::platform
