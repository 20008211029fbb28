#include "platform/UdpSocket.h"

#include <arpa/inet.h>

#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/post.hpp>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace parlavox::platform {
namespace {

constexpr std::size_t kBatch = 16;
constexpr std::size_t kMaxDatagram = 65536;       // larger than any UDP payload
constexpr std::size_t kMaxHeld = 1024;            // the most one sendmmsg takes (UIO_MAXIOV)
constexpr std::size_t kArena = 2 * kMaxDatagram;  // always room for one more datagram
// How much receiving does in one turn of the loop before it yields to other work (an announcement
// frame waits at most one turn): a turn takes datagrams until it has sent this many, so one or two
// fan-outs to a full house, a batch of smaller ones, or a run of datagrams that send nothing.
// Half of this made no difference to pacing that the bench could see.
constexpr std::size_t kSendsPerTurn = 256;
constexpr std::size_t kDatagramsPerTurn = 64;

// Room in the kernel for a burst (the whole crew keying at once, or a flood from the network)
// to wait while the loop is busy, rather than be dropped. Beyond net.core.rmem_max only a
// process allowed to administer the network gets it; others get that maximum.
constexpr int kReceiveBuffer = 4 << 20;

void enlargeReceiveBuffer(boost::asio::ip::udp::socket& socket) {
  const int size = kReceiveBuffer;
  if (::setsockopt(socket.native_handle(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0) {
    (void)::setsockopt(socket.native_handle(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  }
}

boost::asio::ip::udp::socket bindSocket(boost::asio::io_context& context, std::uint16_t port) {
  boost::asio::ip::udp::socket socket(context);
  boost::system::error_code error;
  socket.open(boost::asio::ip::udp::v6(), error);
  if (!error) {
    socket.set_option(boost::asio::ip::v6_only(false), error);
  }
  if (!error) {
    socket.bind({boost::asio::ip::address_v6::any(), port}, error);
    if (!error) {
      socket.non_blocking(true);
      enlargeReceiveBuffer(socket);
      return socket;
    }
    if (error != std::errc::address_family_not_supported &&
        error != std::errc::address_not_available) {
      throw std::system_error(error, "bind");
    }
  }
  // A host without IPv6.
  boost::system::error_code ignored;
  socket.close(ignored);
  socket.open(boost::asio::ip::udp::v4());
  socket.bind({boost::asio::ip::address_v4::any(), port});
  socket.non_blocking(true);
  enlargeReceiveBuffer(socket);
  return socket;
}

// Errors that concern one datagram or one client, never the socket itself.
bool isTransient(int error) {
  switch (error) {
    case EAGAIN:
    case EINTR:
    case ECONNREFUSED:
    case EHOSTUNREACH:
    case ENETUNREACH:
    case ENOBUFS:
    case ENOMEM:
    case EMSGSIZE:
      return true;
    default:
      return false;
  }
}

}  // namespace

SocketCalls& SocketCalls::system() {
  static SocketCalls calls;
  return calls;
}

int SocketCalls::receive(int fd, mmsghdr* messages, unsigned count) {
  const int n = ::recvmmsg(fd, messages, count, MSG_DONTWAIT, nullptr);
  return n >= 0 ? n : -errno;
}

int SocketCalls::send(int fd, mmsghdr* messages, unsigned count) {
  const int n = ::sendmmsg(fd, messages, count, MSG_DONTWAIT | MSG_NOSIGNAL);
  return n >= 0 ? n : -errno;
}

UdpSocket::UdpSocket(boost::asio::io_context& context, std::uint16_t port, SocketCalls& calls)
    : socket_(bindSocket(context, port)),
      calls_(calls),
      v4_(socket_.local_endpoint().protocol() == boost::asio::ip::udp::v4()),
      buffers_(kBatch * kMaxDatagram),
      messages_(kBatch),
      iovecs_(kBatch),
      sources_(kBatch),
      arena_(kArena),
      outgoing_(kMaxHeld),
      outgoingIov_(2 * kMaxHeld) {
  pending_.reserve(kMaxHeld);
}

UdpSocket::~UdpSocket() {
  alive_.reset();
  boost::system::error_code ignored;
  socket_.close(ignored);
}

std::uint16_t UdpSocket::port() const {
  return socket_.local_endpoint().port();
}

void UdpSocket::start(DatagramHandler onDatagram, FailureHandler onFailed) {
  onDatagram_ = std::move(onDatagram);
  onFailed_ = std::move(onFailed);
  waitReadable();
}

void UdpSocket::waitReadable() {
  socket_.async_wait(boost::asio::ip::udp::socket::wait_read,
                     [this](const boost::system::error_code& error) {
                       if (error == boost::asio::error::operation_aborted) {
                         return;  // the socket is closing
                       }
                       if (error) {
                         onFailed_(error.message());
                         return;
                       }
                       receive();
                     });
}

// Hands on what is waiting, until the socket is empty, but only a few fan-outs' worth per turn of
// the loop: timers and posted work (announcement frames) then wait behind one relayed datagram,
// not behind a whole backlog of them.
void UdpSocket::receive() {
  std::size_t sent = 0;
  for (std::size_t handled = 0; handled < kDatagramsPerTurn && sent < kSendsPerTurn; ++handled) {
    if (next_ == received_) {
      const int count = readBatch();
      if (count < 0) {
        return;  // failed, reported
      }
      if (count == 0) {
        waitReadable();  // empty: until more comes
        return;
      }
      received_ = static_cast<std::size_t>(count);
      next_ = 0;
    }
    sent += deliver(next_++);
  }
  boost::asio::post(socket_.get_executor(), [this, alive = std::weak_ptr<bool>(alive_)] {
    if (alive.lock()) {
      receive();
    }
  });
}

// One recvmmsg: how many datagrams it read, 0 when nothing is waiting, -1 once the socket failed.
int UdpSocket::readBatch() {
  for (std::size_t i = 0; i < kBatch; ++i) {
    iovecs_[i] = {buffers_.data() + i * kMaxDatagram, kMaxDatagram};
    messages_[i].msg_hdr = msghdr{};
    messages_[i].msg_hdr.msg_name = &sources_[i];
    messages_[i].msg_hdr.msg_namelen = sizeof(sockaddr_in6);
    messages_[i].msg_hdr.msg_iov = &iovecs_[i];
    messages_[i].msg_hdr.msg_iovlen = 1;
  }
  const int count =
      calls_.receive(socket_.native_handle(), messages_.data(), static_cast<unsigned>(kBatch));
  if (count >= 0) {
    return count;
  }
  if (isTransient(-count)) {
    return 0;
  }
  onFailed_(std::system_category().message(-count));
  return -1;
}

// Hands datagram `i` of the batch on, then sends what its handler sent. Returns how many.
std::size_t UdpSocket::deliver(std::size_t i) {
  sockaddr_in6 from = sources_[i];
  if (v4_) {
    // One form for every sender: IPv4 ones as v4-mapped IPv6.
    sockaddr_in v4from{};
    std::memcpy(&v4from, &sources_[i], sizeof v4from);
    from = sockaddr_in6{};
    from.sin6_family = AF_INET6;
    from.sin6_port = v4from.sin_port;
    from.sin6_addr.s6_addr[10] = 0xFF;
    from.sin6_addr.s6_addr[11] = 0xFF;
    std::memcpy(&from.sin6_addr.s6_addr[12], &v4from.sin_addr, 4);
  }
  inHandler_ = true;
  onDatagram_(Bytes(buffers_.data() + i * kMaxDatagram, messages_[i].msg_len), from);
  inHandler_ = false;
  const std::size_t sent = pending_.size();
  flush();
  return sent;
}

void UdpSocket::sendTo(const sockaddr_in6& to, Bytes head, Bytes body) {
  hold(to, head, body);
  if (!inHandler_ && !flushQueued_) {
    // Sent from a timer or a posted task: whatever that task sends leaves together, right after
    // it returns.
    flushQueued_ = true;
    boost::asio::post(socket_.get_executor(), [this, alive = std::weak_ptr<bool>(alive_)] {
      if (alive.lock()) {
        flushQueued_ = false;
        flush();
      }
    });
  }
}

void UdpSocket::hold(const sockaddr_in6& to, Bytes head, Bytes body) {
  if (head.size() + body.size() > kMaxDatagram) {
    return;  // larger than any UDP datagram: the kernel would refuse it anyway
  }
  // The previous send's body, when this one carries the same bytes.
  const Pending* previous = pending_.empty() ? nullptr : &pending_.back();
  const bool sameBody = previous != nullptr && previous->bodySize == body.size() &&
                        (body.empty() || std::memcmp(arena_.data() + previous->bodyAt, body.data(),
                                                     body.size()) == 0);
  const std::size_t needed = head.size() + (sameBody ? 0 : body.size());
  if (pending_.size() == kMaxHeld || arenaUsed_ + needed > arena_.size()) {
    flush();
    hold(to, head, body);
    return;
  }
  Pending held{};
  held.address = to;
  held.addressLength = sizeof(sockaddr_in6);
  if (v4_) {
    sockaddr_in v4to{};
    v4to.sin_family = AF_INET;
    v4to.sin_port = to.sin6_port;
    std::memcpy(&v4to.sin_addr, &to.sin6_addr.s6_addr[12], 4);
    std::memcpy(&held.address, &v4to, sizeof v4to);
    held.addressLength = sizeof(sockaddr_in);
  }
  held.headAt = arenaUsed_;
  held.headSize = head.size();
  if (!head.empty()) {
    std::memcpy(arena_.data() + arenaUsed_, head.data(), head.size());
  }
  arenaUsed_ += head.size();
  if (sameBody) {
    held.bodyAt = previous->bodyAt;
  } else {
    held.bodyAt = arenaUsed_;
    if (!body.empty()) {
      std::memcpy(arena_.data() + arenaUsed_, body.data(), body.size());
    }
    arenaUsed_ += body.size();
  }
  held.bodySize = body.size();
  pending_.push_back(held);
}

void UdpSocket::flush() {
  const std::size_t count = pending_.size();
  for (std::size_t i = 0; i < count; ++i) {
    Pending& held = pending_[i];
    iovec* parts = &outgoingIov_[2 * i];
    parts[0] = {arena_.data() + held.headAt, held.headSize};
    parts[1] = {arena_.data() + held.bodyAt, held.bodySize};
    msghdr& message = outgoing_[i].msg_hdr;
    message = msghdr{};
    message.msg_name = &held.address;
    message.msg_namelen = held.addressLength;
    message.msg_iov = parts;
    message.msg_iovlen = held.bodySize == 0 ? 1 : 2;
  }
  // sendmmsg stops at the first datagram the kernel refuses; that one is dropped (fire and
  // forget) and the rest still go, as they would one by one.
  std::size_t next = 0;
  while (next < count) {
    const int sent =
        calls_.send(socket_.native_handle(), &outgoing_[next], static_cast<unsigned>(count - next));
    next += sent > 0 ? static_cast<std::size_t>(sent) : 0;
    if (next < count) {
      ++next;
    }
  }
  pending_.clear();
  arenaUsed_ = 0;
}

}  // namespace parlavox::platform
