#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/udp.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <vector>

#include "platform/Bytes.h"

namespace parlavox::platform {

// The two system calls a UdpSocket moves its datagrams with, so that tests can stand in for the
// kernel (short and refused sends, failures). Each returns how many messages it handled, or
// minus the error number.
class SocketCalls {
 public:
  virtual ~SocketCalls() = default;
  // Any thread. The calls themselves, non-blocking.
  static SocketCalls& system();
  virtual int receive(int fd, mmsghdr* messages, unsigned count);
  virtual int send(int fd, mmsghdr* messages, unsigned count);
};

// One bound UDP port on every local address (IPv6 with IPv4 mapped in, or IPv4 alone on hosts
// without IPv6). The address is never shared: a second socket on the same port fails to bind.
// Senders are told apart by their address in IPv6 form, IPv4 senders v4-mapped, on either kind
// of host.
class UdpSocket {
 public:
  using DatagramHandler = std::function<void(Bytes datagram, const sockaddr_in6& from)>;
  using FailureHandler = std::function<void(std::string_view error)>;

  // Binds at once; throws std::system_error when the port cannot be had. Port 0: any free port.
  UdpSocket(boost::asio::io_context& context, std::uint16_t port,
            SocketCalls& calls = SocketCalls::system());
  ~UdpSocket();
  UdpSocket(const UdpSocket&) = delete;
  UdpSocket& operator=(const UdpSocket&) = delete;

  // Loop thread. Receives until the socket fails; handlers run on the loop.
  void start(DatagramHandler onDatagram, FailureHandler onFailed);
  // Loop thread. One datagram of `head` then `body`, both copied before the call returns.
  // Non-blocking and fire and forget: a full buffer drops the datagram, and errors about one
  // client never reach the others. The sends of one handler (a received datagram, a timer tick,
  // a posted task) leave together in one sendmmsg as soon as it returns, in the order made.
  void sendTo(const sockaddr_in6& to, Bytes head, Bytes body);

  std::uint16_t port() const;

 private:
  // A send held back until the handler returns; its bytes lie in `arena_`.
  struct Pending {
    sockaddr_in6 address;  // a sockaddr_in on an IPv4-only socket
    socklen_t addressLength;
    std::size_t headAt;
    std::size_t headSize;
    std::size_t bodyAt;
    std::size_t bodySize;
  };

  void waitReadable();
  void receive();
  int readBatch();
  std::size_t deliver(std::size_t i);
  void hold(const sockaddr_in6& to, Bytes head, Bytes body);
  void flush();

  boost::asio::ip::udp::socket socket_;
  SocketCalls& calls_;
  bool v4_;  // bound to IPv4 alone: no IPv6 on this host
  DatagramHandler onDatagram_;
  FailureHandler onFailed_;
  // recvmmsg batch: storage reused for every read, so receiving allocates nothing.
  std::vector<std::uint8_t> buffers_;
  std::vector<mmsghdr> messages_;
  std::vector<iovec> iovecs_;
  std::vector<sockaddr_in6> sources_;
  std::size_t received_ = 0;  // datagrams in the batch
  std::size_t next_ = 0;      // the next one to hand on
  // The fan-out of one received datagram (or one announcement frame): one syscall for all its
  // copies instead of one each. A relayed datagram's copies differ only in their header, so
  // consecutive sends with equal bodies share one copy of it. Storage is reused: relaying
  // allocates nothing once warm.
  bool inHandler_ = false;    // a received datagram is being handled; deliver() flushes after it
  bool flushQueued_ = false;  // a flush is posted for sends made outside a receive handler
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);  // the posted tasks' guard
  std::vector<Pending> pending_;
  std::vector<std::uint8_t> arena_;
  std::size_t arenaUsed_ = 0;
  std::vector<mmsghdr> outgoing_;
  std::vector<iovec> outgoingIov_;
};

}  // namespace parlavox::platform
