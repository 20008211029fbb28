#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <asio/io_context.hpp>
#include <asio/ip/udp.hpp>
#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

#include "platform/Bytes.h"

namespace parlavox::platform {

// A remote UDP endpoint as the kernel gives it: IPv6, with IPv4 senders v4-mapped.
struct Endpoint {
  sockaddr_in6 address{};
  bool operator==(const Endpoint& other) const;
};

struct EndpointHash {
  std::size_t operator()(const Endpoint& endpoint) const noexcept;
};

// One bound UDP port on every local address (IPv6 with IPv4 mapped in, or IPv4 alone on hosts
// without IPv6). The address is never shared: a second socket on the same port fails to bind.
class UdpSocket {
 public:
  using DatagramHandler = std::function<void(Bytes datagram, const Endpoint& from)>;
  using FailureHandler = std::function<void(std::string_view error)>;

  // Binds at once; throws std::system_error when the port cannot be had.
  UdpSocket(asio::io_context& context, std::uint16_t port);
  ~UdpSocket();
  UdpSocket(const UdpSocket&) = delete;
  UdpSocket& operator=(const UdpSocket&) = delete;

  // Loop thread. Receives until the socket fails; handlers run on the loop.
  void start(DatagramHandler onDatagram, FailureHandler onFailed);
  // Loop thread. One datagram of `head` then `body`. Non-blocking and fire and forget: a full
  // buffer drops the datagram, and errors about one client never reach the others.
  void sendTo(const Endpoint& to, Bytes head, Bytes body);

 private:
  void waitReadable();
  bool drain();

  asio::ip::udp::socket socket_;
  bool v4_;  // bound to IPv4 alone: no IPv6 on this host
  DatagramHandler onDatagram_;
  FailureHandler onFailed_;
  // recvmmsg batch: storage reused for every read, so receiving allocates nothing.
  std::vector<std::uint8_t> buffers_;
  std::vector<mmsghdr> messages_;
  std::vector<iovec> iovecs_;
  std::vector<sockaddr_in6> sources_;
};

}  // namespace parlavox::platform
